/* A host that misuses the interface in one way:
 *   wrong_host LIBRARY CONFIGURATION MISUSE
 * It ends with status 0 when the misuse has passed. */
#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "driver/dac.h"

static void* library;
static const char* conf;
static __typeof__(dac_create)* create;
static __typeof__(dac_destroy)* destroy;
static __typeof__(dac_start)* start;
static __typeof__(dac_stop)* stop;
static __typeof__(dac_isrun)* isrun;
static __typeof__(dac_devicewriteobj)*writeobj, *writeval;
static __typeof__(dac_getversion)* getversion;
static __typeof__(dac_getalltags)* getalltags;
static __typeof__(dac_getalltagsex)* getalltagsex;
static __typeof__(dac_getinfo)* getinfo;

static void expect(int right, const char* what) {
  if (right) return;
  fprintf(stderr, "wrong_host: failed: %s\n", what);
  exit(3);
}

/* ---------------------------------------------------------------- callbacks */

static void (*during_data)(int handle);
static void (*during_log)(int handle);
static sem_t entered, may_return;
static int instance = -1;
static dac_tagvalue copy;
static const dac_tagvalue* borrowed;

static void on_log(const char* name, int level, const char* text, int flag, void* param) {
  (void)name, (void)level, (void)text, (void)flag, (void)param;
  if (during_log) during_log(instance);
}

static void on_data(const dac_tagvalue* records, int count, void* param) {
  (void)count, (void)param;
  copy = *records;
  borrowed = records;
  if (during_data) during_data(instance);
  sem_post(&entered);
}

static void on_aux(void* param) { (void)param; }

static void on_tag(const char* name, int type, int flag, void* param) {
  (void)name, (void)type, (void)flag, (void)param;
  sem_post(&entered);
  sem_wait(&may_return);
}

static void count_tag(const char* name, int type, int flag, void* param) {
  (void)name, (void)type, (void)flag;
  ++*(int*)param;
}

static void count_tagex(const char* name, int type, int flag, const char* text1, const char* text2, void* param) {
  (void)name, (void)type, (void)flag, (void)text1, (void)text2;
  ++*(int*)param;
}

static void block(int handle) {
  (void)handle;
  sem_post(&entered);
  sem_wait(&may_return);
}

static void be_slow(int handle) {
  (void)handle;
  usleep(1200000);
}

static void stop_itself(int handle) { stop(handle); }
static void destroy_itself(int handle) { destroy(handle); }

/* What the C++ library offers for `throw 1`. */
void* __cxa_allocate_exception(size_t size);
_Noreturn void __cxa_throw(void* exception, void* type, void (*destructor)(void*));
extern char _ZTIi[];

static void throw_one(int handle) {
  int* one = __cxa_allocate_exception(sizeof *one);
  *one = handle;
  __cxa_throw(one, _ZTIi, NULL);
}

/* ---------------------------------------------------------------- steps */

static int make(void) {
  instance = create("wrong", conf, on_log, NULL, on_aux, NULL, on_data, NULL, NULL, NULL);
  expect(instance >= 0, "dac_create returns a handle");
  return instance;
}

/* An instance whose data callback has begun; what it does then is up to `during_data`. */
static int make_running(void) {
  int h = make();
  expect(start(h) == 0, "dac_start returns 0");
  sem_wait(&entered);
  return h;
}

static void end(int h) {
  expect(stop(h) == 0, "dac_stop returns 0");
  destroy(h);
}

static pthread_t in_thread(void* (*function)(void*)) {
  pthread_t thread;
  expect(pthread_create(&thread, NULL, function, NULL) == 0, "a thread starts");
  return thread;
}

static void* stop_in_thread(void* unused) {
  stop(instance);
  return unused;
}

static void* list_in_thread(void* unused) {
  getalltags(instance, on_tag, NULL);
  return unused;
}

static void unload(void) { expect(dlclose(library) == 0, "dlclose returns 0"); }

/* ---------------------------------------------------------------- the misuses */

static void nothing(void) {
  int h = make_running(), tags = 0;
  char text[200], exact[200];
  size_t size = 0, length;
  expect(isrun(h) == 1, "the worker runs");
  expect(copy.len == strlen(copy.value), "the copy has a length");
  expect(getalltags(h, count_tag, &tags) == 0 && getalltagsex(h, count_tagex, &tags) == 0 && tags == 2, "two tags");
  expect(getinfo(h, text, &size) == 0 && text[0] == 0, "the first call queries the size");
  size = length = size + 2;
  expect(getinfo(h, exact, &size) == 0 && strlen(exact) == length - 1, "the second fits");
  size = sizeof text;
  expect(getinfo(h, text, &size) == 0 && strcmp(text, exact) == 0, "a larger buffer holds the same");
  expect(writeobj(h, 0L, 0.5, 1L, 1.5, 2L, 2.5, 3L, 3.5, 4L, 4.5, 5L, 5.5, 6L, 6.5, 7L, 7.5, 8L, 8.5, 9L, 9.5) == 4,
         "all further arguments of dac_devicewriteobj arrive");
  expect(writeval(h, 0L, 0.5, 1L, 1.5, 2L, 2.5, 3L, 3.5, 4L, 4.5, 5L, 5.5, 6L, 6.5, 7L, 7.5, 8L, 8.5, 9L, 9.5) == 4,
         "all further arguments of dac_devicewriteval arrive");
  expect(getversion() > 0, "there is a version");
  expect(stop(h) == 0 && isrun(h) == 0 && stop(h) == 0, "a stopped instance can be stopped again");
  expect(start(h) == 0, "and started again");
  end(h);
  unload();
}

static void unknown_handle(void) { expect(isrun(77) == 0, "dac_isrun of an unknown handle returns 0"); }

static void destroyed_handle(void) {
  int h = make();
  destroy(h);
  expect(start(h) == -1, "dac_start of a destroyed instance returns -1");
}

static void twice_in_one_place(void) {
  for (int n = 0; n < 3; ++n) isrun(77);
  isrun(77);
}

static void destroy_running(void) { destroy(make_running()); }

static void destroy_in_call(void) {
  int h = make();
  pthread_t thread = in_thread(list_in_thread);
  sem_wait(&entered);
  destroy(h);
  sem_post(&may_return);
  pthread_join(thread, NULL);
}

static void start_twice(void) {
  int h = make_running();
  start(h);
  stop(h);
}

static void stop_twice(void) {
  during_data = block;
  int h = make_running();
  pthread_t one = in_thread(stop_in_thread), two = in_thread(stop_in_thread);
  usleep(300000); /* until both wait for the callback */
  sem_post(&may_return);
  pthread_join(one, NULL);
  pthread_join(two, NULL);
  destroy(h);
}

static void stop_inside_data(void) {
  during_data = stop_itself;
  end(make_running());
}

static void destroy_inside_data(void) {
  during_data = destroy_itself;
  make_running();
}

static void stop_inside_log(void) {
  during_log = stop_itself;
  end(make_running());
}

static void null_aux(void) {
  expect(create("wrong", conf, on_log, NULL, NULL, NULL, on_data, NULL, NULL, NULL) == -1, "dac_create returns -1");
}

static void null_tag_callback(void) {
  int h = make();
  getalltags(h, NULL, NULL);
  destroy(h);
}

static void null_tagex_callback(void) {
  int h = make();
  getalltagsex(h, NULL, NULL);
  destroy(h);
}

static void null_name(void) {
  expect(create(NULL, conf, on_log, NULL, on_aux, NULL, on_data, NULL, NULL, NULL) == -1, "dac_create returns -1");
}

static void empty_name(void) {
  expect(create("", conf, on_log, NULL, on_aux, NULL, on_data, NULL, NULL, NULL) == -1, "dac_create returns -1");
}

static void null_file(void) {
  expect(create("wrong", NULL, on_log, NULL, on_aux, NULL, on_data, NULL, NULL, NULL) == -1, "dac_create returns -1");
}

static void empty_file(void) {
  expect(create("wrong", "", on_log, NULL, on_aux, NULL, on_data, NULL, NULL, NULL) == -1, "dac_create returns -1");
}

static void small_buffer(void) {
  char text[10];
  size_t size = sizeof text;
  int h = make();
  expect(getinfo(h, text, &size) == 0 && text[0] == 0, "the text does not fit");
  destroy(h);
}

/* Takes the text for the buffer's length: the terminator is one byte too many. */
static void exact_buffer(void) {
  char text[200];
  size_t size = 0;
  int h = make(), other = make();
  getinfo(h, text, &size);
  size += 1;
  expect(getinfo(other, text, &size) == 0 && text[0] == '{', "the text fits without its terminator");
  destroy(h);
  destroy(other);
}

/* Adds one byte for the terminator to what is not the length. */
static void size_as_length(void) {
  char text[200];
  size_t size = 0;
  int h = make();
  getinfo(h, text, &size);
  size += 1;
  expect(getinfo(h, text, &size) == 0 && text[0] == '{', "the text fits without its terminator");
  destroy(h);
}

static void size_as_buffer(void) {
  char text[200];
  size_t size = 0;
  int h = make();
  getinfo(h, text, &size);
  expect(getinfo(h, text, &size) == 0 && text[0] == 0, "the text does not fit");
  destroy(h);
}

static void slow_data(void) {
  during_data = be_slow;
  end(make_running());
}

static void endless_data(void) {
  during_data = block;
  int h = make_running();
  usleep(1200000);
  isrun(h); /* reported here: the callback has not returned */
  sem_post(&may_return);
  end(h);
}

static void throw_from_data(void) {
  during_data = throw_one;
  make_running();
}

static void throw_from_log(void) {
  during_log = throw_one;
  make_running();
}

static void late_record(void) {
  int h = make_running();
  expect(stop(h) == 0, "dac_stop returns 0");
  expect(strcmp(copy.value, borrowed->value) != 0, "the record does not read as it did");
  expect(strcmp(borrowed->value, "used-after-callback") == 0, "the record says what is wrong");
  destroy(h);
}

static void instance_left(void) {
  make();
  unload();
}

static void worker_left(void) { make_running(); }

static void call_left(void) {
  make();
  in_thread(list_in_thread);
  sem_wait(&entered);
}

static void many_instances(void) {
  int handles[1001];
  for (int n = 0; n < 1001; ++n) handles[n] = make();
  for (int n = 0; n < 1001; ++n) destroy(handles[n]);
}

#define MISUSE(name) \
  { #name, name }
static const struct {
  const char* name;
  void (*run)(void);
} misuses[] = {
    MISUSE(nothing),           MISUSE(unknown_handle),      MISUSE(destroyed_handle), MISUSE(twice_in_one_place),
    MISUSE(destroy_running),   MISUSE(destroy_in_call),     MISUSE(start_twice),      MISUSE(stop_twice),
    MISUSE(stop_inside_data),  MISUSE(destroy_inside_data), MISUSE(stop_inside_log),  MISUSE(null_aux),
    MISUSE(null_tag_callback), MISUSE(null_tagex_callback), MISUSE(null_name),        MISUSE(empty_name),
    MISUSE(null_file),         MISUSE(empty_file),          MISUSE(small_buffer),     MISUSE(exact_buffer),
    MISUSE(size_as_length),    MISUSE(size_as_buffer),      MISUSE(slow_data),        MISUSE(endless_data),
    MISUSE(throw_from_data),   MISUSE(throw_from_log),      MISUSE(late_record),      MISUSE(instance_left),
    MISUSE(worker_left),       MISUSE(call_left),           MISUSE(many_instances),
};

static void* find(const char* name) {
  void* found = dlsym(library, name);
  expect(found != NULL, name);
  return found;
}

int main(int argc, char** argv) {
  expect(argc == 4, "three arguments");
  library = dlopen(argv[1], RTLD_NOW);
  expect(library != NULL, argv[1]);
  conf = argv[2];
  create = find("dac_create");
  destroy = find("dac_destroy");
  start = find("dac_start");
  stop = find("dac_stop");
  isrun = find("dac_isrun");
  writeobj = find("dac_devicewriteobj");
  writeval = find("dac_devicewriteval");
  getversion = find("dac_getversion");
  getalltags = find("dac_getalltags");
  getalltagsex = find("dac_getalltagsex");
  getinfo = find("dac_getinfo");
  sem_init(&entered, 0, 0);
  sem_init(&may_return, 0, 0);
  for (size_t n = 0; n < sizeof misuses / sizeof *misuses; ++n) {
    if (strcmp(misuses[n].name, argv[3]) != 0) continue;
    misuses[n].run();
    return 0;
  }
  expect(0, argv[3]);
}
