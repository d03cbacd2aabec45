/* A plug-in that survives every misuse, so that a wrong host can continue after the report. Its device write checks
 * that the further arguments arrive: ten pairs of a long and a double, n and n + 0.5. */
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <string.h>
#include <unistd.h>

#include "driver/dac.h"

typedef struct instance {
  atomic_int exists, workers, stop;
  cblog log;
  void* logparam;
  cbdata data;
  void* dataparam;
} instance;

static instance all[2049];
static atomic_int last_handle;
static _Thread_local const instance* worker_of;

const char* const g_verson = "tame";

static instance* find(int handle) {
  return handle >= 0 && handle < 2049 && atomic_load(&all[handle].exists) ? &all[handle] : NULL;
}

static void* work(void* of) {
  instance* i = of;
  dac_tagvalue record = {.name = "tag", .type = DAC_TYPE_TEXT, .len = 5, .value = "value"};
  worker_of = i;
  if (i->log) i->log("tame", DAC_LEVEL_OTHER, "started", 1, i->logparam);
  if (i->data) i->data(&record, 1, i->dataparam);
  while (!atomic_load(&i->stop)) usleep(1000);
  atomic_fetch_sub(&i->workers, 1);
  return NULL;
}

int dac_create(const char* name, const char* cfgfile, cblog log, void* logparam, cbaux aux1, void* aux1param,
               cbdata data, void* dataparam, cbaux aux2, void* aux2param) {
  (void)aux1param, (void)aux2, (void)aux2param;
  if (!name || !*name || !cfgfile || !*cfgfile || !aux1) return -1;
  int handle = atomic_fetch_add(&last_handle, 1);
  instance* i = &all[handle];
  i->log = log, i->logparam = logparam, i->data = data, i->dataparam = dataparam;
  atomic_store(&i->exists, 1);
  return handle;
}

void dac_destroy(int handle) {
  instance* i = find(handle);
  if (i) atomic_store(&i->exists, 0);
}

int dac_start(int handle) {
  instance* i = find(handle);
  if (!i) return -1;
  pthread_t thread;
  atomic_store(&i->stop, 0);
  atomic_fetch_add(&i->workers, 1);
  pthread_create(&thread, NULL, work, i);
  return pthread_detach(thread);
}

int dac_stop(int handle) {
  instance* i = find(handle);
  if (!i) return -1;
  atomic_store(&i->stop, 1);
  while (atomic_load(&i->workers) > (worker_of == i)) usleep(1000);
  return 0;
}

int dac_isrun(int handle) {
  const instance* i = find(handle);
  return i && atomic_load(&i->workers) > 0;
}

int dac_devicewriteobj(int handle, ...) {
  va_list pairs;
  va_start(pairs, handle);
  int arrived = 0;
  for (int n = 0; n < 10; ++n) {
    long whole = va_arg(pairs, long);
    double half = va_arg(pairs, double);
    arrived += whole == n && half == n + 0.5;
  }
  va_end(pairs);
  return arrived == 10 ? DAC_WRITE_REFUSED : arrived;
}
__attribute__((alias("dac_devicewriteobj"))) int dac_devicewriteval(int handle, ...);

int dac_getversion(void) { return 1; }

int dac_getalltags(int handle, cbtag callback, void* param) {
  if (!find(handle)) return -1;
  if (callback) callback("tag", DAC_TYPE_TEXT, 1, param);
  return 0;
}

int dac_getalltagsex(int handle, cbtagex callback, void* param) {
  if (!find(handle)) return -1;
  if (callback) callback("tag", DAC_TYPE_TEXT, 1, "", "text", param);
  return 0;
}

int dac_getinfo(int handle, char* buf, size_t* size) {
  static const char text[] = "{\"status\":\"stop\",\"host\":\"tame\"}";
  if (!find(handle)) return -1;
  *buf = 0;
  if (*size >= strlen(text)) strcpy(buf, text);
  *size = strlen(text) - 1;
  return 0;
}
