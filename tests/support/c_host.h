/* A host written in C, for the C++ test of dac.h. */
#ifndef IP6DNS_TESTS_C_HOST_H
#define IP6DNS_TESTS_C_HOST_H

/* NOLINTBEGIN(modernize-*) */

#include <stddef.h>

#include "driver/dac.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What a C host got from one instance. */
typedef struct c_host {
  int version;
  char version_text[32];
  int handle;         /* dac_create's result */
  char tag[128];      /* the tag's name, from dac_getalltags */
  char tag_text[128]; /* its description, from dac_getalltagsex */
  int tag_calls;      /* calls of both */
  int write;          /* the device write's result */
  char info[128];     /* the status document while the worker runs */
  char value[128];    /* of the first record */
  int stop;           /* dac_stop's result */
  int logs;           /* messages */
  int isrun;          /* after dac_stop */
} c_host;

/* Loads `library` and runs an instance of `cfgfile` from create to destroy. Returns 0, or -1 if it cannot be loaded. */
int c_host_run(const char* library, const char* cfgfile, c_host* seen);

/* A record as C lays it out, each member with a different value. */
void c_record_fill(dac_tagvalue* r);

#ifdef __cplusplus
}
#endif

/* NOLINTEND(modernize-*) */

#endif
