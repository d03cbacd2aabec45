// The minimal cost of a pool with a spin lock whose blocks any thread can free without a size: the class search, and
// one lock, one unlock and one step of a free list for each allocation and release.
#include <pthread.h>
#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <new>

#include "bench/heaps.h"
#include "tests/support/size_classes.h"

namespace {

struct block {
  struct pool* owner;  // before the user area
  block* next;         // in the user area, while the block is free
};

struct pool {
  uint32_t size;
  pthread_spinlock_t lock;
  block* free;
};

// The allocator's layout: a table of pointers to pools, each in a separate cache line.
struct pool_table {
  pool* pools[size_classes::count];

  pool_table() {
    for (size_t i = 0; i < size_classes::count; ++i) {
      const auto size = static_cast<uint32_t>(size_classes::all[i].size);
      pools[i] = new (std::align_val_t(64)) pool{size, {}, nullptr};
      pthread_spin_init(&pools[i]->lock, PTHREAD_PROCESS_PRIVATE);
    }
  }
};

pool_table g_table;

// Not on the measured path: creates each block once.
[[gnu::noinline]] block* make_block(pool* c) {
  void* memory = mmap(nullptr, c->size + sizeof(void*), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  auto* b = static_cast<block*>(memory);
  b->owner = c;
  b->next = nullptr;
  return b;
}

pool* find_pool(size_t n) {
  size_t low = 0, high = size_classes::count;
  while (low < high) {
    const size_t mid = low + (high - low) / 2;
    if (n <= g_table.pools[mid]->size)
      high = mid;
    else
      low = mid + 1;
  }
  return g_table.pools[low];
}

}  // namespace

void* limit_take(size_t n) {
  pool* c = find_pool(n);
  pthread_spin_lock(&c->lock);
  block* b = c->free ? c->free : make_block(c);
  c->free = b->next;
  pthread_spin_unlock(&c->lock);
  return &b->next;
}

void limit_give(void* p) {
  auto* b = reinterpret_cast<block*>(static_cast<char*>(p) - offsetof(block, next));
  pool* c = b->owner;
  pthread_spin_lock(&c->lock);
  b->next = c->free;
  c->free = b;
  pthread_spin_unlock(&c->lock);
}

size_t limit_class(size_t n) { return find_pool(n)->size; }

heap pool_limit() { return {"limit", limit_take, limit_give}; }
