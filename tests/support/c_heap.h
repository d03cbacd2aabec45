// Containers of the fakes that must not count as blocks of operator new.
#pragma once

#include <cstddef>
#include <cstdlib>

/// Allocates with malloc.
template <class T>
struct c_heap {
  using value_type = T;
  c_heap() = default;
  template <class U>
  c_heap(const c_heap<U>& /*other*/) {}  // NOLINT(google-explicit-constructor): containers rebind their allocator

  T* allocate(size_t n) {
    void* p = std::malloc(n * sizeof(T));
    if (!p) std::abort();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t /*n*/) { std::free(p); }
  bool operator==(const c_heap& /*other*/) const { return true; }
};
