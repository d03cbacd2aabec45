/* A host: loads the plug-in, prints the first published value, and ends.
 *
 *   cc -o host host.c $(pkg-config --cflags ip6dns)
 *   ./host $(pkg-config --variable=plugin ip6dns) my.conf
 */
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

/* On the worker's thread: copy the record, wake the main thread, return. */
static void on_data(const dac_tagvalue* records, int count, void* param) {
  (void)count, (void)param;
  latest = records[0];
  sem_post(&arrived);
}

/* Required, but never called. */
static void on_aux(void* param) { (void)param; }

static void* find(void* library, const char* name) {
  void* found = library ? dlsym(library, name) : NULL;
  if (found) return found;
  fprintf(stderr, "%s\n", dlerror());
  exit(1);
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s PLUGIN CONFIG\n", argv[0]);
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_NOW);
  __typeof__(dac_create)* create = find(library, "dac_create");
  __typeof__(dac_start)* start = find(library, "dac_start");
  __typeof__(dac_stop)* stop = find(library, "dac_stop");
  __typeof__(dac_destroy)* destroy = find(library, "dac_destroy");
  sem_init(&arrived, 0, 0);

  int handle = create("demo", argv[2], on_log, NULL, on_aux, NULL, on_data, NULL, NULL, NULL);
  if (handle < 0) return 1; /* on_log has printed the reason */
  start(handle);
  sem_wait(&arrived); /* the first value arrives after 0.1 s */
  stop(handle);       /* waits for the worker; destroy does not stop it */
  printf("%s = %s\n", latest.name, latest.value);
  destroy(handle);
  return dlclose(library);
}
