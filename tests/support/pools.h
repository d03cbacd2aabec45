// The one allocator for tests: constructed again for every test, its memory read through structs that define the layout
// independently.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <new>
#include <type_traits>
#include <vector>

#include "com/ymlib3/ym_alloctor"
#include "tests/support/fake_pages.h"
#include "tests/support/size_classes.h"

namespace pools {

// ---------------------------------------------------------------- raw memory

/// The bytes at `p` as a T, independent of the product's types.
template <class T>
T read(const void* p) {
  T t;
  std::memcpy(&t, p, sizeof t);
  return t;
}
// Not inlined: the compiler would assume that other objects are unchanged.
template <class T>
[[gnu::noinline]] void write(const void* p, size_t offset, T t) {
  std::memcpy(static_cast<char*>(const_cast<void*>(p)) + offset, &t, sizeof t);
}

/// Changes one member of the struct at `p`.
template <class S, class T>
void write(const void* p, T S::*member, std::type_identity_t<T> value) {
  S s = read<S>(p);
  s.*member = value;
  write(p, 0, s);
}

/// The self heap, at the start of the one object; its lock follows at 32.
struct heap {
  uint64_t chunk_size;
  uint64_t slot_request;
  uint64_t free;
  const char* chunks;
  bool operator==(const heap&) const = default;
};
static_assert(sizeof(heap) == 32);

/// Header of a mapping of the self heap.
struct slots {
  uint64_t length;
  uint64_t slot_size;
  uint64_t free;
  uint64_t count;
  uint64_t bump;
  const char* freed;
  const char* next;
};
static_assert(sizeof(slots) == 56);

/// The allocator, 40 bytes into the one object.
struct table {
  int32_t classes;
  uint32_t large;
  const char* pool[40];
  bool operator==(const table&) const = default;
};
static_assert(sizeof(table) == 328);

/// The one object.
struct object {
  heap self;
  int32_t lock;
  table allocator;
};
static_assert(sizeof(object) == 368 && offsetof(object, lock) == 32 && offsetof(object, allocator) == 40);

/// One pool; its lock follows at 24.
struct pool {
  const char* head;
  int32_t chunks;
  uint32_t free;
  uint32_t block_size;
  uint32_t blocks;
  bool operator==(const pool&) const = default;
};
static_assert(sizeof(pool) == 24 && offsetof(pool, free) == 12 && offsetof(pool, blocks) == 20);

/// Descriptor of a pool's mapping.
struct chunk {
  uint32_t free;
  uint32_t count;
  uint32_t block_size;
  uint32_t bump;
  uint64_t length;
  const char* mapping;
  const char* freed;
  const char* owner;
  const char* next;
};
static_assert(sizeof(chunk) == 56 && offsetof(chunk, length) == 16 && offsetof(chunk, owner) == 40);

inline const char* at(size_t offset) { return reinterpret_cast<const char*>(&g_ym_allocator) + offset; }
inline heap self() { return read<object>(at(0)).self; }
inline table all() { return read<object>(at(0)).allocator; }
inline const char* heap_lock() { return at(offsetof(object, lock)); }

/// The pool of the class that holds `size` bytes.
inline const char* pool_at(size_t size) {
  const table t = all();
  for (int i = 0; i < t.classes; ++i)
    if (read<pool>(t.pool[i]).block_size >= size) return t.pool[i];
  return nullptr;
}
inline pool pool_of(size_t size) { return read<pool>(pool_at(size)); }
inline const char* pool_lock(size_t size) { return pool_at(size) + sizeof(pool); }

using list = std::vector<const char*>;

/// The addresses of a pool's chunks in the order of their list.
inline list chunks_of(size_t size) {
  list found;
  for (const char* c = pool_of(size).head; c; c = read<chunk>(c).next) found.push_back(c);
  return found;
}
/// Those of the self heap.
inline list heap_chunks() {
  list found;
  for (const char* c = self().chunks; c; c = read<slots>(c).next) found.push_back(c);
  return found;
}

/// The address of slot `i` of the self heap's chunk `c`.
inline const char* slot_at(const char* c, size_t i) { return c + sizeof(slots) + 64 * i; }

/// The start of a large block's mapping.
struct large_header {
  uint64_t length;
  uint64_t zero;
};
inline void* mapping_of(void* large) { return static_cast<char*>(large) - sizeof(large_header); }
inline large_header large_header_of(void* large) { return read<large_header>(mapping_of(large)); }

/// The word before a block: its chunk, or null for a large block.
inline const char* header_of(const void* p) { return read<const char*>(static_cast<const char*>(p) - 8); }

// ---------------------------------------------------------------- state

inline bool is_valid() {
  if (!get_ym_alloctor_self()->is_valid()) return false;
  for (int i = 0; i < get_ym_allocator()->_classes; ++i)
    if (!get_ym_allocator()->_class[i]->is_valid()) return false;
  return true;
}

// Mappings of others, for example a sanitizer: those alive while there is no allocator.
inline std::map<void*, size_t> foreign;

/// The allocator's mappings, address and length.
inline std::map<void*, size_t> live() {
  auto mappings = fake_pages::live();
  for (const auto& [at, length] : foreign) mappings.erase(at);
  return mappings;
}

/// Everything that a refused request must not change.
struct snapshot {
  heap self = pools::self();
  table all = pools::all();
  std::vector<pools::pool> each;
  std::map<void*, size_t> live = pools::live();

  snapshot() {
    for (int i = 0; i < all.classes; ++i) each.push_back(read<pools::pool>(all.pool[i]));
  }
  bool operator==(const snapshot&) const = default;
};

/// Destroys the one allocator and builds it again on pages of `page` bytes, mapping number `refused` refused.
inline void rebuild(long page = 4096, int refused = 0) {
  g_ym_allocator.~ym_allocator_();
  foreign = fake_pages::live();
  fake_pages::page_size(page);
  fake_pages::reset();
  fake_pages::refuse(refused);
  new (&g_ym_allocator) ym_allocator_;
  fake_pages::reset();
}

/// Starts each test with an unused allocator and pages of 4 KiB.
class fresh : public testing::Test {
 protected:
  void SetUp() override { rebuild(); }
  void TearDown() override {
    fake_pages::reset();
    EXPECT_TRUE(is_valid());
  }
};

// ---------------------------------------------------------------- blocks

inline void* take(size_t n) { return get_ym_allocator()->malloc_(n, nullptr); }

inline std::vector<void*> take(size_t n, size_t times) {
  std::vector<void*> blocks(times);
  for (void*& p : blocks) p = take(n);
  return blocks;
}

inline void give(const std::vector<void*>& blocks) {
  for (void* p : blocks) ym_free(p);
}

/// The granted size of a request. Frees the block.
inline size_t granted(size_t n) {
  size_t got = 0;
  ym_free(get_ym_allocator()->malloc_(n, &got));
  return got;
}

/// Takes the self heap's free slots, except `left` of them.
inline std::vector<void*> take_slots(size_t left) {
  std::vector<void*> taken(self().free - left);
  for (void*& p : taken) p = ym::memheap_::operator new(56);
  return taken;
}

inline void give_slots(const std::vector<void*>& taken) {
  for (void* p : taken) ym::memheap_::operator delete(p);
}

/// Two full chunks of the self heap, the newer one first in its list.
struct full_heap {
  std::vector<void*> older = take_slots(0);
  std::vector<void*> newer{ym::memheap_::operator new(56)};

  full_heap() {
    const auto rest = take_slots(0);
    newer.insert(newer.end(), rest.begin(), rest.end());
  }
};

/// Makes `n` full chunks. Element i holds the blocks of the chunk made as number i; 0 is the head.
inline std::vector<std::vector<void*>> fill_chunks(const size_classes::row& row, size_t n) {
  std::vector<std::vector<void*>> by_chunk;
  for (size_t i = 0; i < n; ++i) by_chunk.push_back(take(row.size, i == 0 ? row.first : row.blocks));
  return by_chunk;
}

/// The chunks in the order in which fill_chunks made them.
inline list made_order(const std::vector<std::vector<void*>>& by_chunk) {
  list c;
  for (const auto& blocks : by_chunk) c.push_back(header_of(blocks[0]));
  return c;
}

/// A class with two blocks per chunk: the shortest way through the rules for chunks.
inline constexpr size_classes::row pair_class = size_classes::all[27];
static_assert(pair_class.first == 2 && pair_class.blocks == 2);

/// Whether is_valid() fails while the struct at `p` is changed.
template <class S>
bool is_noticed(const char* p, void (*change)(S&)) {
  const S was = read<S>(p);
  S s = was;
  change(s);
  write(p, 0, s);
  const bool valid = is_valid();
  write(p, 0, was);
  return !valid && is_valid();
}

}  // namespace pools
