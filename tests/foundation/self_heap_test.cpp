// The self heap: its slots and chunks, read from raw memory.
#include "com/ymlib3/ym_alloctor"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"

namespace {

using pools::read;
using pools::self;
using pools::slots;
using pools::snapshot;

// Every test starts from an unused allocator.
using self_heap = pools::fresh;

TEST_F(self_heap, serves_objects_of_up_to_56_bytes) {
  const struct row {
    size_t n;
    bool served;
  } rows[] = {{0, true}, {1, true}, {55, true}, {56, true}, {57, false}, {64, false}, {SIZE_MAX, false}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.n);
    const uint64_t before = self().free;
    void* p = ym::memheap_::operator new(r.n);
    EXPECT_EQ(p != nullptr, r.served);
    EXPECT_EQ(self().free, before - (r.served ? 1 : 0));
    ym::memheap_::operator delete(p);
    EXPECT_EQ(self().free, before);
  }
}

struct fits : ym::memheap_ {
  explicit fits(int* made) { ++*made; }
  char bytes[56] = {};
};
struct does_not_fit : ym::memheap_ {
  explicit does_not_fit(int* made) { ++*made; }
  char bytes[57] = {};
};

TEST_F(self_heap, holds_the_objects_of_its_classes) {
  static_assert(std::is_empty_v<ym::memheap_>);
  static_assert(std::is_base_of_v<ym::memheap_, blk_chunk>);
  static_assert(std::is_base_of_v<ym::memheap_, ym::blk_alloctor<ym::spinlock>>);
  int made = 0;
  const auto* o = new fits(&made);
  EXPECT_EQ(made, 1);
  EXPECT_EQ(self().free, 8157U);
  delete o;
  EXPECT_EQ(self().free, 8158U);
}

TEST_F(self_heap, constructs_no_object_on_a_null_slot) {
  int made = 0;
  EXPECT_EQ(new does_not_fit(&made), nullptr);
  EXPECT_EQ(made, 0);
}

TEST_F(self_heap, puts_slot_i_at_56_plus_64_times_i) {
  const char* c = self().chunks;
  for (size_t i = 33; i < 40; ++i) EXPECT_EQ(ym::memheap_::operator new(56), pools::slot_at(c, i));
  EXPECT_EQ(read<slots>(c).bump, 40U);
}

TEST_F(self_heap, reuses_the_last_freed_slot_first) {
  void* a = ym::memheap_::operator new(56);
  void* b = ym::memheap_::operator new(56);
  ym::memheap_::operator delete(a);
  ym::memheap_::operator delete(b);
  EXPECT_EQ(read<slots>(self().chunks).freed, b);
  EXPECT_EQ(read<void*>(b), a);
  EXPECT_EQ(read<void*>(a), nullptr);
  EXPECT_EQ(ym::memheap_::operator new(56), b);
  EXPECT_EQ(ym::memheap_::operator new(56), a);
  EXPECT_EQ(read<slots>(self().chunks).bump, 35U);
}

TEST_F(self_heap, ignores_null_and_addresses_that_are_not_slots) {
  char* c = const_cast<char*>(self().chunks);
  char local[64] = {};
  void* foreign[] = {nullptr, local, c, c + sizeof(slots) - 1, c + sizeof(slots) + size_t{8191} * 64, c - 1};
  const snapshot before;
  for (void* p : foreign) ym::memheap_::operator delete(p);
  EXPECT_EQ(snapshot(), before);
  EXPECT_EQ(read<slots>(c).freed, nullptr);
}

TEST_F(self_heap, maps_a_second_chunk_in_front_when_8191_slots_are_taken) {
  const char* first = self().chunks;
  pools::take_slots(0);
  EXPECT_EQ(fake_pages::made(), 0);
  EXPECT_EQ(read<slots>(first).bump, 8191U);
  void* p = ym::memheap_::operator new(56);
  EXPECT_EQ(fake_pages::made(), 1);
  EXPECT_EQ(fake_pages::last_length(), 524288U);
  const pools::list c = pools::heap_chunks();
  ASSERT_EQ(c.size(), 2U);
  EXPECT_EQ(c[1], first);
  EXPECT_EQ(p, pools::slot_at(c[0], 0));
  EXPECT_EQ(self().free, 8190U);
}

TEST_F(self_heap, frees_the_first_and_the_last_slot_of_a_chunk) {
  const pools::full_heap h;
  const char* c = self().chunks;
  ASSERT_EQ(h.newer.front(), pools::slot_at(c, 0));
  ASSERT_EQ(h.newer.back(), pools::slot_at(c, 8190));
  ym::memheap_::operator delete(h.newer.front());
  ym::memheap_::operator delete(h.newer.back());
  EXPECT_EQ(self().free, 2U);
  EXPECT_EQ(read<slots>(c).free, 2U);
}

TEST_F(self_heap, moves_the_chunk_that_served_to_the_front_if_it_has_room_left) {
  const pools::full_heap h;
  const pools::list c = pools::heap_chunks();
  ym::memheap_::operator delete(h.older[0]);
  ym::memheap_::operator delete(h.older[1]);
  EXPECT_EQ(ym::memheap_::operator new(56), h.older[1]);
  EXPECT_EQ(pools::heap_chunks(), (pools::list{c[1], c[0]}));
}

TEST_F(self_heap, leaves_the_chunk_that_served_its_last_slot_in_place) {
  const pools::full_heap h;
  const pools::list c = pools::heap_chunks();
  ym::memheap_::operator delete(h.older[0]);
  EXPECT_EQ(ym::memheap_::operator new(56), h.older[0]);
  EXPECT_EQ(pools::heap_chunks(), c);
  EXPECT_EQ(self().free, 0U);
}

TEST_F(self_heap, retains_its_first_chunk_when_it_becomes_empty) {
  const pools::full_heap h;
  pools::give_slots(h.newer);
  EXPECT_EQ(pools::heap_chunks().size(), 2U);
  EXPECT_EQ(self().free, 8191U);
}

TEST_F(self_heap, unmaps_a_later_chunk_when_it_becomes_empty) {
  const pools::full_heap h;
  const pools::list c = pools::heap_chunks();
  ym::memheap_::operator delete(h.older[0]);
  ym::memheap_::operator delete(h.older[1]);
  void* last = ym::memheap_::operator new(56);  // the older chunk comes first now, with one slot free
  const size_t live = pools::live().size();
  pools::give_slots({h.newer.begin() + 1, h.newer.end()});
  EXPECT_EQ(pools::heap_chunks().size(), 2U);
  EXPECT_EQ(self().free, 8191U);
  ym::memheap_::operator delete(h.newer[0]);
  EXPECT_EQ(pools::heap_chunks(), (pools::list{c[1]}));
  EXPECT_EQ(self().free, 1U);
  EXPECT_EQ(pools::live().size(), live - 1);
  EXPECT_EQ(pools::live().count(const_cast<char*>(c[0])), 0U);
  ym::memheap_::operator delete(last);
}

TEST_F(self_heap, unmaps_the_middle_one_of_three_chunks) {
  const pools::full_heap h;
  const pools::list c = pools::heap_chunks();
  void* third = ym::memheap_::operator new(56);
  const char* front = self().chunks;
  pools::give_slots(h.newer);
  EXPECT_EQ(pools::heap_chunks(), (pools::list{front, c[1]}));
  EXPECT_EQ(self().free, 8190U);
  ym::memheap_::operator delete(third);
}

TEST_F(self_heap, unmaps_a_chunk_by_the_length_it_was_mapped_with) {
  const auto older = pools::take_slots(0);
  fake_pages::page_size(1048576);
  void* p = ym::memheap_::operator new(56);
  char* mapping = const_cast<char*>(self().chunks);
  ASSERT_EQ(pools::live().at(mapping), 1048576U);
  const auto rest = pools::take_slots(0);
  fake_pages::page_size(4096);
  pools::give_slots({older[0], older[1]});
  ASSERT_EQ(ym::memheap_::operator new(56), older[1]);
  pools::give_slots(rest);
  ym::memheap_::operator delete(p);
  EXPECT_EQ(pools::live().count(mapping), 0U);
}

TEST_F(self_heap, returns_null_if_it_counts_a_free_slot_that_no_chunk_has) {
  pools::take_slots(0);
  pools::write(pools::at(0), &pools::heap::free, 1);
  EXPECT_EQ(ym::memheap_::operator new(56), nullptr);
  EXPECT_EQ(self().free, 1U);
  pools::write(pools::at(0), &pools::heap::free, 0);
}

TEST_F(self_heap, is_invalid_if_its_counts_disagree_with_its_chunks) {
  const char* c = self().chunks;
  EXPECT_TRUE(pools::is_noticed<pools::heap>(pools::at(0), [](auto& s) { ++s.free; }));
  EXPECT_TRUE(pools::is_noticed<slots>(c, [](auto& s) { ++s.free; }));
  EXPECT_TRUE(pools::is_noticed<slots>(c, [](auto& s) { ++s.count; }));
  EXPECT_TRUE(pools::is_noticed<slots>(c, [](auto& s) { s.bump += 8191; }));
}

TEST_F(self_heap, returns_null_when_its_chunk_is_refused) {
  pools::take_slots(0);
  const snapshot before;
  fake_pages::refuse(1);
  EXPECT_EQ(ym::memheap_::operator new(56), nullptr);
  EXPECT_EQ(snapshot(), before);
  EXPECT_NE(ym::memheap_::operator new(56), nullptr);
}

TEST_F(self_heap, constructs_no_object_when_its_chunk_is_refused) {
  pools::take_slots(0);
  int made = 0;
  fake_pages::refuse(1);
  EXPECT_EQ(new fits(&made), nullptr);
  EXPECT_EQ(made, 0);
}

}  // namespace
