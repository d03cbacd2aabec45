/* jemalloc in a separate shared object that does not export malloc and free. Linked rather than loaded, because its
 * thread-local variables must exist when the program starts. */
#ifndef IP6DNS_BENCH_JEMALLOC_HEAP_H
#define IP6DNS_BENCH_JEMALLOC_HEAP_H

#include <stddef.h> /* NOLINT(modernize-deprecated-headers) */

#ifdef __cplusplus
extern "C" {
#endif

void* jemalloc_take(size_t n);
void jemalloc_give(void* p);

#ifdef __cplusplus
}
#endif

#endif
