/* jemalloc in a shared object of its own, which keeps its malloc and free to itself. It is linked and not loaded: its
 * thread-local variables must be there when the program starts. */
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
