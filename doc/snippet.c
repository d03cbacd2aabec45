/* cc -o host host.c $(pkg-config --cflags ip6dns) && ./host $(pkg-config --variable=plugin ip6dns) my.conf */
#include <dac.h>
#include <dlfcn.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>

static dac_tagvalue latest;
static sem_t arrived;

static void on_log(const char* name, int level, const char* text, int flag, void* param) {
  (void)flag, (void)param;
  fprintf(stderr, "%s: %s%s\n", name, level == DAC_LEVEL_FAILURE ? "error: " : "", text);
}

/* On the worker's thread: keep a copy, return. The work is done elsewhere. */
static void on_data(const dac_tagvalue* records, int count, void* param) {
  (void)count, (void)param;
  latest = records[0];
  sem_post(&arrived);
}

static void on_aux(void* param) { (void)param; } /* must be given, is never called */

static void* need(void* library, const char* name) {
  void* found = library ? dlsym(library, name) : NULL;
  if (found) return found;
  fprintf(stderr, "%s\n", dlerror());
  exit(1);
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  void* library = dlopen(argv[1], RTLD_NOW);
  __typeof__(dac_create)* create = need(library, "dac_create");
  __typeof__(dac_start)* start = need(library, "dac_start");
  __typeof__(dac_stop)* stop = need(library, "dac_stop");
  __typeof__(dac_destroy)* destroy = need(library, "dac_destroy");

  sem_init(&arrived, 0, 0);
  int handle = create("demo", argv[2], on_log, NULL, on_aux, NULL, on_data, NULL, NULL, NULL);
  if (handle < 0) return 1;
  start(handle);
  sem_wait(&arrived); /* the first value comes after a tenth of a second */
  stop(handle);       /* before destroy: it waits for the worker */
  printf("%s = %s\n", latest.name, latest.value);
  destroy(handle);
  return dlclose(library);
}
