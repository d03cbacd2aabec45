// The three globals, in the order of construction, and the exported functions. Each function finds its instance under
// the table's lock and works on it without the lock; only making and deleting an instance happens under the lock.
#include <new>
#include <system_error>

#include "com/ymlib3/ym_alloctor"
#include "com/ymlib3/ym_handle"
#include "driver/dac.h"
#include "driver/ip6dnsDriver.h"

// Constructed at load in this order, destroyed at unload in reverse: the table returns its blocks before the pools go.
ym_glibc_noarena g_ym_glibc_noarena;
ym_allocator_ g_ym_allocator;
DAC_EXPORT ym::handle<ip6dnsDriver> g_dachandls;

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
    // Fails like an instance that cannot be configured.
  } catch (...) {
    if (handle >= 0) g_dachandls.del(handle);  // the caller never learns the handle
    throw;
  }
  g_dachandls.del(handle);  // compat: a failed call consumes a handle number
  return -1;
}

// compat: neither stops a running worker nor waits for it.
void dac_destroy(int handle) { g_dachandls.del(handle); }

int dac_start(int handle) {
  ip6dnsDriver* d = g_dachandls.get(handle);
  if (!d) return -1;
  try {
    d->Start();
  } catch (const std::bad_alloc&) {
    // The text of the error needs memory too. If there is none, std::bad_alloc leaves dac_start instead.
    throw std::system_error(std::make_error_code(std::errc::not_enough_memory));
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
  return d && d->IsRun() ? 1 : 0;  // compat: 0 for an unknown handle too
}

int dac_devicewriteobj(int handle, ...) { return g_dachandls.get(handle) ? DAC_WRITE_REFUSED : -1; }
// compat: one function with two names.
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
