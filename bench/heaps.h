// The allocators that are compared, each behind two function pointers, so that none is inlined.
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
/// What any pool of that kind cannot do without: see pool_limit.cpp.
heap pool_limit();
void* limit_take(size_t n);
void limit_give(void* p);
/// The size of the block that limit_take gives for `n` bytes.
size_t limit_class(size_t n);
/// The C library's, as this program has tuned it.
heap c_library();
/// jemalloc, mimalloc and tcmalloc. Throws when one of them cannot be loaded.
std::vector<heap> thread_caching();
