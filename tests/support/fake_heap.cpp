#include "tests/support/fake_heap.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "tests/support/nth.h"

namespace {

std::atomic<long> blocks = 0;
thread_local nth requests;

}  // namespace

// Arrays and the variants that do not throw also call these.
void* operator new(size_t n) {
  if (requests.is_next()) throw std::bad_alloc();
  void* p = std::malloc(n);
  if (!p) throw std::bad_alloc();
  ++blocks;
  return p;
}

void operator delete(void* p) noexcept {
  if (p) --blocks;
  std::free(p);
}

void operator delete(void* p, size_t /*n*/) noexcept { operator delete(p); }

namespace fake_heap {

long live() { return blocks; }
int asked() { return requests.seen(); }
void refuse(int i) { requests.refuse(i); }
void refuse_from(int i) { requests.refuse_from(i); }

}  // namespace fake_heap
