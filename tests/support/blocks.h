// Blocks of the pools: how many are in use, and a size that cannot be allocated. Needs fake_pages.
#pragma once

#include <cstddef>
#include <vector>

#include "com/ymlib3/ym_alloctor"
#include "tests/support/fake_pages.h"

namespace blocks {

/// Blocks in use, over all pools.
inline size_t live() {
  size_t n = 0;
  const ym::allocator& all = *get_ym_allocator();
  for (int i = 0; i < all._classes; ++i)
    for (const blk_chunk* c = all._class[i]->_head; c; c = c->next) n += c->count - c->free;
  return n;
}

/// While it lives, requests of this size are refused, and no pool gets new memory.
class exhausted {
 public:
  explicit exhausted(size_t size) {
    while (void* p = get_ym_allocator()->malloc_(size, nullptr)) _taken.push_back(p);
  }
  ~exhausted() {
    for (void* p : _taken) ym_free(p);
  }
  exhausted(const exhausted&) = delete;
  exhausted& operator=(const exhausted&) = delete;

 private:
  fake_pages::refusal _refusal;
  std::vector<void*> _taken;
};

}  // namespace blocks
