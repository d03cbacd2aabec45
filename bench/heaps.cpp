#include "bench/heaps.h"

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>

#include "bench/jemalloc_heap.h"
#include "com/ymlib3/ym_alloctor"

namespace {

void* take_block(size_t n) { return get_ym_allocator()->malloc_(n, nullptr); }

heap load(const std::string& name, const char* library, const char* take, const char* give) {
  void* l = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (!l) throw std::runtime_error(dlerror());
  void* t = dlsym(l, take);
  void* g = dlsym(l, give);
  if (!t || !g) throw std::runtime_error(std::string(library) + " lacks " + take + " or " + give);
  return {name, reinterpret_cast<void* (*)(size_t)>(t), reinterpret_cast<void (*)(void*)>(g)};
}

}  // namespace

heap the_pools() { return {"pools", take_block, ym_free}; }

#ifdef UNTUNED
heap c_library() { return {"glibc", std::malloc, std::free}; }
#else
heap c_library() { return {"glibc tuned", std::malloc, std::free}; }
#endif

std::vector<heap> thread_caching() {
  return {{"jemalloc", jemalloc_take, jemalloc_give},
          load("mimalloc", "libmimalloc.so.2", "mi_malloc", "mi_free"),
          load("tcmalloc", "libtcmalloc_minimal.so.4", "tc_malloc", "tc_free")};
}
