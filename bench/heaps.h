// The compared allocators, each called through two function pointers, so that none is inlined.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct heap {
  std::string name;
  void* (*take)(size_t n);
  void (*give)(void* p);
};

heap the_pools();
/// The minimal pool, see pool_limit.cpp.
heap pool_limit();
void* limit_take(size_t n);
void limit_give(void* p);
/// The size of the block that limit_take returns for `n` bytes.
size_t limit_class(size_t n);
/// The C library's heap, as tuned by this program.
heap c_library();
/// jemalloc, mimalloc and tcmalloc. Throws if one of them cannot be loaded.
std::vector<heap> thread_caching();
