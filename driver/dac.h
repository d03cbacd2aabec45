/*
 * ip6dns: publishes this machine's public IPv6 addresses as a tag value.
 *
 * For host authors: load libip6dns.so with dlopen and find the functions below with dlsym.
 *
 *   dac_create -> dac_start -> ... record after record arrives at the data callback ... -> dac_stop -> dac_destroy
 *
 * Tags after each function:
 *   [any thread]        may be called from every thread, at the same time as any other function
 *   [instance stopped]  no worker runs on the instance, and no other call on it is in progress
 *   [worker thread]     called on the instance's worker thread. Return soon, because dac_stop waits for the callback.
 *                       Do not call dac_stop or dac_destroy for this instance.
 *
 * Every function with a handle returns -1 for an unknown handle, unless stated otherwise. If the system refuses a mutex
 * or a thread, the function that needs it throws std::system_error, or std::bad_alloc if there is no memory for that
 * exception. Do not cancel a thread that is inside a function.
 *
 * Loading the library sets, for the whole process, mallopt(M_ARENA_MAX, 1), mallopt(M_MMAP_THRESHOLD, 1048576) and
 * mallopt(M_TRIM_THRESHOLD, 1048576). It also exports its own table of instances, g_dachandls: do not use it.
 *
 * The plug-in does not check how a host uses it. To check a host, load libdac-check.so instead: see dac(3).
 */
#ifndef IP6DNS_DAC_H
#define IP6DNS_DAC_H

/* C and C++ both read this file. NOLINTBEGIN(modernize-*) */

#include <stddef.h>
#include <stdint.h>

#define DAC_VERSION 500                    /* what dac_getversion returns */
#define DAC_VERSION_TEXT "version 5.0.0.2" /* what g_verson points to */
#define DAC_EXPORT __attribute__((visibility("default")))

enum {
  DAC_NAME_SIZE = 80,    /* tag name in a record, terminator included */
  DAC_VALUE_SIZE = 1000, /* value in a record, terminator included */
  DAC_TYPE_TEXT = 6,     /* type of the tag */
  DAC_WRITE_REFUSED = 4, /* result of the device writes: there is no device */
  DAC_LEVEL_OTHER = 0,   /* level of a log message that reports progress */
  DAC_LEVEL_FAILURE = 2  /* level of a log message that reports a failure */
};

#ifdef __cplusplus
extern "C" {
#endif

/*
 * One tag value. Bytes: | name 80 | time 8 | 0 8 | type 1 | 0 5 | len 2 | value 1000 |, native byte order.
 */
typedef struct dac_tagvalue {
  char name[DAC_NAME_SIZE];   /* tag name, zero-terminated, cut to 79 characters */
  int64_t time;               /* tenths of a second since 1970; always 0 in the callback: stamp it yourself */
  uint8_t reserved1[8];       /* 0 */
  uint8_t type;               /* DAC_TYPE_TEXT */
  uint8_t reserved2[5];       /* 0 */
  uint16_t len;               /* characters in value, 0 to 999 */
  char value[DAC_VALUE_SIZE]; /* comma-separated IPv6 addresses or "null", zero-terminated, cut to 999 characters */
} dac_tagvalue;

#ifdef __cplusplus
#define DAC_ASSERT(condition) static_assert(condition, "the host reads fixed offsets")
#else
#define DAC_ASSERT(condition) _Static_assert(condition, "the host reads fixed offsets")
#endif
DAC_ASSERT(offsetof(dac_tagvalue, time) == 80);
DAC_ASSERT(offsetof(dac_tagvalue, type) == 96);
DAC_ASSERT(offsetof(dac_tagvalue, len) == 102);
DAC_ASSERT(offsetof(dac_tagvalue, value) == 104);
DAC_ASSERT(sizeof(dac_tagvalue) == 1104);
#undef DAC_ASSERT

/* Receives a log message. `hostlevel` is one of DAC_LEVEL_*, and `flag` is 1. Strings are valid only during the call.
 * [any thread] */
typedef void (*cblog)(const char* name, int hostlevel, const char* text, int flag, void* param);

/* Receives `count` records (always 1), valid only during the call. Values include unique-local (fd00::...), temporary
 * and deprecated addresses: the interface list does not distinguish them. [worker thread] */
typedef void (*cbdata)(const dac_tagvalue* records, int count, void* param);

/* Never called. */
typedef void (*cbaux)(void* param);

/* Receives a tag. `type` is DAC_TYPE_TEXT, and `flag` is 1. In the extended form, `text1` is "" and `text2` describes
 * the tag. */
typedef void (*cbtag)(const char* name, int type, int flag, void* param);
typedef void (*cbtagex)(const char* name, int type, int flag, const char* text1, const char* text2, void* param);

/* Creates a stopped instance from `cfgfile`. Returns its handle, 0 to 2048, or -1. `name`, `cfgfile` and `aux1` are
 * required; `log` and `data` may be null. Callbacks and parameters must outlive the instance.
 * Before it returns -1, it sends `log` one message about the file. If memory ran out, the message reports a file that
 * cannot be opened or that has no host name. It sends no message if an argument is missing, 1024 instances exist, or
 * the C++ heap has no memory. [any thread] */
DAC_EXPORT int dac_create(const char* name, const char* cfgfile, cblog log, void* logparam, cbaux aux1, void* aux1param,
                          cbdata data, void* dataparam, cbaux aux2, void* aux2param);

/* Deletes the instance. Does not stop the worker: call dac_stop first. [any thread] [instance stopped] */
DAC_EXPORT void dac_destroy(int handle);

/* Starts the worker and returns 0. Does not check whether one runs already: call dac_isrun first.
 * [any thread] [instance stopped] */
DAC_EXPORT int dac_start(int handle);

/* Stops the worker, waits until it has ended (about 0.1 s plus the time of a running data callback) and returns 0.
 * Returns 0 immediately if no worker runs. [any thread], but only one call at a time per instance */
DAC_EXPORT int dac_stop(int handle);

/* Returns 1 while the worker runs, otherwise 0, also for an unknown handle. [any thread] */
DAC_EXPORT int dac_isrun(int handle);

/* Returns DAC_WRITE_REFUSED: there is no device. Does not read further arguments. Both names are the same
 * function. [any thread] */
DAC_EXPORT int dac_devicewriteobj(int handle, ...);
DAC_EXPORT int dac_devicewriteval(int handle, ...);

/* Returns DAC_VERSION. [any thread] */
DAC_EXPORT int dac_getversion(void);

/* Calls `callback`, which must not be null, once with the instance's tag and returns 0. The tag's name is the host
 * name. [any thread] */
DAC_EXPORT int dac_getalltags(int handle, cbtag callback, void* param);
DAC_EXPORT int dac_getalltagsex(int handle, cbtagex callback, void* param);

/* Writes {"status":"running","host":"..."} into `buf` and returns 0. The status is "stop" if no worker runs. Writes an
 * empty string if the text has more than `*size` characters. Sets `*size` to the text's length MINUS ONE. The check
 * does not count the terminator, so pass at least two bytes more than the stored `*size`. [any thread] */
DAC_EXPORT int dac_getinfo(int handle, char* buf, size_t* size);

/* Points to DAC_VERSION_TEXT. Read-only. */
DAC_EXPORT extern const char* const g_verson;

#ifdef __cplusplus
}
#endif

/* NOLINTEND(modernize-*) */

#endif
