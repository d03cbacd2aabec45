/* A host in C. dac.h comes first: it needs nothing before it. */
#include "driver/dac.h"
/* Between the two, what follows belongs to this host. */
#include <dlfcn.h>
#include <poll.h>
#include <string.h>

#include "tests/support/c_host.h"

_Static_assert(__STDC_VERSION__ == 201112L, "compiled as C11");

_Static_assert(sizeof(dac_tagvalue) == 1104, "record");
_Static_assert(offsetof(dac_tagvalue, name) == 0, "name");
_Static_assert(sizeof(((dac_tagvalue*)0)->name) == 80, "name");
_Static_assert(offsetof(dac_tagvalue, time) == 80, "time");
_Static_assert(sizeof(((dac_tagvalue*)0)->time) == 8, "time");
_Static_assert(offsetof(dac_tagvalue, type) == 96, "type");
_Static_assert(sizeof(((dac_tagvalue*)0)->type) == 1, "type");
_Static_assert(offsetof(dac_tagvalue, len) == 102, "len");
_Static_assert(sizeof(((dac_tagvalue*)0)->len) == 2, "len");
_Static_assert(offsetof(dac_tagvalue, value) == 104, "value");
_Static_assert(sizeof(((dac_tagvalue*)0)->value) == 1000, "value");

_Static_assert((int64_t)-1 < 0 && _Generic(((dac_tagvalue*)0)->time, int64_t: 1, default: 0), "time is signed");
_Static_assert(_Generic(((dac_tagvalue*)0)->len, uint16_t: 1, default: 0), "len is unsigned");
_Static_assert(DAC_TYPE_TEXT == 6 && DAC_WRITE_REFUSED == 4 && DAC_VERSION == 500, "numbers");
_Static_assert(DAC_LEVEL_OTHER == 0 && DAC_LEVEL_FAILURE == 2, "level codes");

void c_record_fill(dac_tagvalue* r) {
  *r = (dac_tagvalue){.name = "name", .time = -2, .type = 6, .len = 0x1234, .value = "value"};
}

/* ---------------------------------------------------------------- callbacks */

/* Into a zeroed field, cut to its size minus one. */
static void copy(char* field, size_t size, const char* text) {
  for (size_t i = 0; i + 1 < size && text[i]; ++i) field[i] = text[i];
}

static void on_log(const char* name, int hostlevel, const char* text, int flag, void* param) {
  c_host* seen = param;
  if (strcmp(name, "c host") == 0 && hostlevel == DAC_LEVEL_OTHER && *text && flag == 1) ++seen->logs;
}

/* Published by the worker, read by the host below it: the first byte comes last. */
static void on_data(const dac_tagvalue* records, int count, void* param) {
  c_host* seen = param;
  if (count != 1 || seen->value[0]) return;
  copy(seen->value + 1, sizeof seen->value - 1, records->value + 1);
  __atomic_store_n(seen->value, records->value[0], __ATOMIC_RELEASE);
}

static void on_aux(void* param) { (void)param; }

static void on_tag(const char* name, int type, int flag, void* param) {
  c_host* seen = param;
  if (type == DAC_TYPE_TEXT && flag == 1) ++seen->tag_calls;
  copy(seen->tag, sizeof seen->tag, name);
}

static void on_tagex(const char* name, int type, int flag, const char* text1, const char* text2, void* param) {
  c_host* seen = param;
  on_tag(name, type, flag, param);
  if (!*text1) copy(seen->tag_text, sizeof seen->tag_text, text2);
}

/* ---------------------------------------------------------------- the host */

/* Looks up a function under its own name and type. */
#define FIND(name) __typeof__(&(name)) name##_ = (__typeof__(&(name)))dlsym(lib, #name)

static void run_worker(void* lib, c_host* seen) {
  FIND(dac_start);
  FIND(dac_stop);
  FIND(dac_isrun);
  FIND(dac_getinfo);
  size_t size = sizeof seen->info;
  if (dac_start_(seen->handle) != 0) return;
  for (int ms = 0; ms < 20000 && !__atomic_load_n(seen->value, __ATOMIC_ACQUIRE); ++ms) poll(NULL, 0, 1);
  dac_getinfo_(seen->handle, seen->info, &size);
  seen->stop = dac_stop_(seen->handle);
  seen->isrun = dac_isrun_(seen->handle);
}

int c_host_run(const char* library, const char* cfgfile, c_host* seen) {
  void* lib = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (!lib) return -1;
  FIND(dac_create);
  FIND(dac_destroy);
  FIND(dac_getversion);
  FIND(dac_getalltags);
  FIND(dac_getalltagsex);
  FIND(dac_devicewriteobj);
  FIND(g_verson);
  *seen = (c_host){.stop = -2, .isrun = -2};
  seen->version = dac_getversion_();
  copy(seen->version_text, sizeof seen->version_text, *g_verson_);
  seen->handle = dac_create_("c host", cfgfile, on_log, seen, on_aux, NULL, on_data, seen, NULL, NULL);
  dac_getalltags_(seen->handle, on_tag, seen);
  dac_getalltagsex_(seen->handle, on_tagex, seen);
  seen->write = dac_devicewriteobj_(seen->handle, "object", NULL);
  run_worker(lib, seen);
  dac_destroy_(seen->handle);
  return dlclose(lib);
}
