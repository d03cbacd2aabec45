// Everything the loader sees, and nothing else: the globals in the order in which they are built, and the entry
// points, each of which finds its instance and hands over. The table is locked for the finding only.
#include <new>
#include <system_error>

#include "com/ymlib3/ym_alloctor"
#include "com/ymlib3/ym_handle"
#include "driver/dac.h"
#include "driver/ip6dnsDriver.h"

// Built at load in this order, destroyed at unload in reverse: the table gives its blocks back before the pools go.
ym_glibc_noarena g_ym_glibc_noarena;
ym_allocator_ g_ym_allocator;
DAC_EXPORT ym::handle<ip6dnsDriver> g_dachandls;

// Made at load: when there is no memory left, none is left for making this either.
static const std::system_error no_memory(std::make_error_code(std::errc::not_enough_memory));

const char* const g_verson = DAC_VERSION_TEXT;

int dac_create(const char* name, const char* cfgfile, cblog log, void* logparam, cbaux aux1, void* aux1param,
               cbdata data, void* dataparam, cbaux aux2, void* aux2param) {
  int handle = -1;
  try {
    handle = g_dachandls.create();
    if (handle < 0) return -1;
    ip6dnsDriver* d = g_dachandls.get(handle);
    if (d->Create(name, cfgfile, log, logparam, aux1, aux1param, data, dataparam, aux2, aux2param)) return handle;
  } catch (const std::bad_alloc&) {
    // Out of memory: refused like an instance that cannot be configured.
  } catch (...) {
    if (handle >= 0) g_dachandls.del(handle);  // nobody would know its handle
    throw;
  }
  g_dachandls.del(handle);  // kept: the handle number is used up
  return -1;
}

// kept: a running worker is neither stopped nor waited for.
void dac_destroy(int handle) { g_dachandls.del(handle); }

int dac_start(int handle) {
  ip6dnsDriver* d = g_dachandls.get(handle);
  if (!d) return -1;
  try {
    d->Start();
  } catch (const std::bad_alloc&) {
    throw std::system_error(no_memory);
  }
  return 0;
}

int dac_stop(int handle) {
  ip6dnsDriver* d = g_dachandls.get(handle);
  if (!d) return -1;
  d->Stop();
  return 0;
}

int dac_isrun(int handle) {
  const ip6dnsDriver* d = g_dachandls.get(handle);
  return d && d->IsRun() ? 1 : 0;  // kept: 0 for an unknown handle too
}

int dac_devicewriteobj(int handle, ...) { return g_dachandls.get(handle) ? DAC_WRITE_REFUSED : -1; }
// kept: one function, two names.
[[gnu::alias("dac_devicewriteobj")]] int dac_devicewriteval(int handle, ...);

int dac_getversion(void) { return DAC_VERSION; }

int dac_getalltags(int handle, cbtag callback, void* param) {
  const ip6dnsDriver* d = g_dachandls.get(handle);
  if (!d) return -1;
  d->GetAllTags(callback, param);
  return 0;
}

int dac_getalltagsex(int handle, cbtagex callback, void* param) {
  const ip6dnsDriver* d = g_dachandls.get(handle);
  if (!d) return -1;
  d->GetAllTagsEx(callback, param);
  return 0;
}

int dac_getinfo(int handle, char* buf, size_t* size) {
  const ip6dnsDriver* d = g_dachandls.get(handle);
  if (!d) return -1;
  d->GetInfo(buf, size);
  return 0;
}
