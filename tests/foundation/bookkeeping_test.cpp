// The allocator's bookkeeping in order: which slot each pool and descriptor takes, in which order they return, which
// chunk of the self heap comes first, and the arguments of each mapping.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "com/ymlib3/ym_alloctor"
#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"

namespace {

using bookkeeping = pools::fresh;
using list = std::vector<const char*>;

constexpr int classes = 30;
constexpr int ready_classes = 3;  // get their first chunk at construction

/// Slot `i` of the self heap's first chunk.
const char* slot(int i) { return pools::self().chunks + 56 + 64 * ptrdiff_t{i}; }

/// The self heap's free slots in the order in which it reuses them.
list freed_slots() {
  list slots;
  const char* p = pools::read<pools::slots>(pools::self().chunks).freed;
  for (; p; p = pools::read<const char*>(p)) slots.push_back(p);
  return slots;
}

/// Takes blocks of the class of `size` until its pool has `chunks` chunks. Returns the newest chunk's descriptor.
pools::chunk newest_of(size_t size, int32_t chunks) {
  while (pools::pool_of(size).chunks < chunks) pools::take(size);
  const list all = pools::chunks_of(size);
  return pools::read<pools::chunk>(all[all.size() > 1 ? 1 : 0]);
}

}  // namespace

// ---------------------------------------------------------------- slots

TEST_F(bookkeeping, construction_takes_a_slot_for_each_pool_and_then_one_for_its_first_chunk) {
  const pools::table t = pools::all();
  int next = 0;
  for (int i = 0; i < classes; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(t.pool[i], slot(next++));
    const char* head = pools::read<pools::pool>(t.pool[i]).head;
    EXPECT_EQ(head, i < ready_classes ? slot(next++) : nullptr);
  }
}

TEST_F(bookkeeping, destruction_deletes_the_classes_in_ascending_order_and_chunks_before_their_pool) {
  list order;
  for (int i = 0; i < classes; ++i) {
    const auto size = pools::read<pools::pool>(pools::all().pool[i]).block_size;
    newest_of(size, 2);
    for (const char* c : pools::chunks_of(size)) order.push_back(c);
    order.push_back(pools::all().pool[i]);
  }
  get_ym_allocator()->~allocator();
  EXPECT_EQ(freed_slots(), list(order.rbegin(), order.rend()));  // the one freed last comes first
  new (get_ym_allocator()) ym::allocator;
}

// ---------------------------------------------------------------- the self heap's chunks

TEST_F(bookkeeping, the_third_chunk_of_the_self_heap_moves_to_the_front_after_it_serves_if_it_has_room) {
  std::vector<std::vector<void*>> by_chunk;  // from the oldest chunk to the newest, all of them full
  for (int i = 0; i < 3; ++i) {
    by_chunk.push_back({ym::memheap_::operator new(56)});
    const auto rest = pools::take_slots(0);
    by_chunk.back().insert(by_chunk.back().end(), rest.begin(), rest.end());
  }
  const list c = pools::heap_chunks();
  ASSERT_EQ(c.size(), 3U);
  ym::memheap_::operator delete(by_chunk[0][0]);
  ym::memheap_::operator delete(by_chunk[0][1]);
  EXPECT_EQ(ym::memheap_::operator new(56), by_chunk[0][1]);
  EXPECT_EQ(pools::heap_chunks(), (list{c[2], c[0], c[1]}));
}

// ---------------------------------------------------------------- arguments of a mapping

TEST_F(bookkeeping, every_chunk_mapping_queries_the_page_size) {
  // Blocks of 655360, six in each chunk, and of 16384, 128 in each chunk but the first.
  for (const auto& [size, blocks] : {std::pair<size_t, size_t>{655360, 6}, {16384, 128}}) {
    SCOPED_TRACE(size);
    for (const auto& [page, chunks] : {std::pair<long, int32_t>{4096, 2}, {65536, 3}, {16384, 4}, {1048576, 5}}) {
      SCOPED_TRACE(page);
      fake_pages::page_size(page);
      const size_t bytes = (size + 8) * blocks, in_page = bytes % static_cast<size_t>(page);
      EXPECT_EQ(newest_of(size, chunks).length, bytes - in_page + static_cast<size_t>(page));
    }
  }
  fake_pages::page_size(4096);
}

TEST_F(bookkeeping, every_self_heap_mapping_queries_the_page_size) {
  for (const long page : {4096L, 1048576L, 65536L, 2097152L}) {
    SCOPED_TRACE(page);
    fake_pages::page_size(page);
    pools::take_slots(0);
    ym::memheap_::operator new(56);
    const uint64_t length = page > 524288 ? static_cast<uint64_t>(page) : 524288;
    EXPECT_EQ(pools::read<pools::slots>(pools::self().chunks).length, length);
  }
  fake_pages::page_size(4096);
}

// A length is `n` + 16 rounded up to whole pages, all of it modulo 2^64.
TEST_F(bookkeeping, sizes_near_2_to_the_64_wrap_around) {
  const struct {
    uint64_t below;  // the size is 2^64 less this
    uint64_t length;
  } rows[] = {{1, 4096},
              {15, 4096},
              {16, 0},
              {17, 0},
              {16 + 1, 0},
              {16 + 4095, 0},
              {16 + 4096, uint64_t{0} - 4096},
              {16 + 4097, uint64_t{0} - 4096},
              {16 + 8191, uint64_t{0} - 4096},
              {16 + 8192, uint64_t{0} - 8192}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.below);
    fake_pages::refuse_all();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pools::take(uint64_t{0} - row.below)), 16U) << "refused";
    EXPECT_EQ(fake_pages::last_length(), row.length);
    fake_pages::refuse(0);
  }
}

TEST_F(bookkeeping, a_size_that_wraps_around_gets_the_size_of_its_mapping) {
  size_t granted = 0;
  void* p = get_ym_allocator()->malloc_(SIZE_MAX, &granted);
  EXPECT_EQ(granted, 4096U - 16U);
  EXPECT_EQ(pools::all().large, 1U);
  ym_free(p);
}
