#include "bench/jemalloc_heap.h"

#include <stdlib.h>

void* jemalloc_take(size_t n) { return malloc(n); }
void jemalloc_give(void* p) { free(p); }
