// The spin lock, its guard, and which lock is held during which change.
#include "com/ymlib3/ym_alloctor"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/fake_locks.h"
#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"

namespace {

using pools::chunk;
using pools::chunks_of;
using pools::slots;
using pools::take;

// Every test starts from an unused allocator.
using spin_lock = pools::fresh;

struct counting_lock {
  int locked = 0;
  int unlocked = 0;
  void lock() { ++locked; }
  void unlock() { ++unlocked; }
};

TEST_F(spin_lock, is_held_for_the_guards_scope) {
  counting_lock l;
  {
    const ym::guard hold(&l);
    EXPECT_EQ(l.locked, 1);
    EXPECT_EQ(l.unlocked, 0);
  }
  EXPECT_EQ(l.unlocked, 1);
}

TEST_F(spin_lock, is_not_acquired_through_a_null_pointer) {
  fake_locks::recording recording;
  { const ym::guard<ym::spinlock> hold(nullptr); }
  const auto events = recording.stop();
  EXPECT_TRUE(events.empty());
}

TEST_F(spin_lock, is_released_when_an_exception_leaves_the_scope) {
  ym::spinlock l;
  const auto fail = [&] {
    const ym::guard hold(&l);
    throw std::runtime_error("out");
  };
  fake_locks::recording recording;
  EXPECT_THROW(fail(), std::runtime_error);
  const auto events = recording.stop();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].what, '+');
  EXPECT_EQ(events[1].what, '-');
  EXPECT_EQ(events[0].lock, events[1].lock);
}

TEST_F(spin_lock, excludes_other_threads) {
  ym::spinlock l;
  int plain = 0;
  const auto count = [&] {
    for (int i = 0; i < 20000; ++i) {
      const ym::guard hold(&l);
      ++plain;
    }
  };
  std::thread other(count);
  count();
  other.join();
  EXPECT_EQ(plain, 40000);
}

TEST_F(spin_lock, and_its_guard_cannot_be_copied) {
  EXPECT_FALSE(std::is_copy_constructible_v<ym::spinlock>);
  EXPECT_FALSE(std::is_copy_assignable_v<ym::spinlock>);
  EXPECT_FALSE(std::is_copy_constructible_v<ym::guard<ym::spinlock>>);
  EXPECT_FALSE(std::is_copy_assignable_v<ym::guard<ym::spinlock>>);
}

// The lock operations of a step, for the class of `size` and the self heap: "pool+1" locks the pool while one mapping
// more is alive than before the step.
template <class STEP>
std::vector<std::string> locks_of(size_t size, STEP step) {
  const size_t before = fake_pages::live().size();
  fake_locks::recording recording;
  step();
  const auto events = recording.stop();
  std::vector<std::string> calls;
  for (const fake_locks::event& e : events) {
    std::string who = "other";
    if (e.lock == pools::heap_lock()) who = "heap";
    if (e.lock == pools::pool_lock(size)) who = "pool";
    calls.push_back(who + e.what + std::to_string(static_cast<int>(e.live) - static_cast<int>(before)));
  }
  return calls;
}
using calls = std::vector<std::string>;

TEST_F(spin_lock, of_the_pool_alone_is_held_during_malloc_and_free) {
  void* p = nullptr;
  EXPECT_EQ(locks_of(16, [&] { p = take(16); }), (calls{"pool+0", "pool-0"}));
  EXPECT_EQ(locks_of(16, [&] { ym_free(p); }), (calls{"pool+0", "pool-0"}));
}

TEST_F(spin_lock, of_the_pool_encloses_that_of_the_self_heap_while_a_chunk_is_mapped) {
  void* p = nullptr;
  EXPECT_EQ(locks_of(128, [&] { p = take(128); }), (calls{"pool+0", "heap+0", "heap-0", "pool-1"}));
  ym_free(p);
}

TEST_F(spin_lock, of_the_pool_is_held_while_a_chunk_is_unmapped) {
  auto b = pools::fill_chunks(pools::pair_class, 4);
  ym_free(b[0][0]);
  ym_free(b[1][0]);
  EXPECT_EQ(locks_of(pools::pair_class.size, [&] { ym_free(b[1][1]); }),
            (calls{"pool+0", "heap+-1", "heap--1", "pool--1"}));
}

TEST_F(spin_lock, is_not_needed_for_large_blocks) {
  EXPECT_EQ(locks_of(16, [] { ym_free(take(4194305)); }), calls{});
}

TEST_F(spin_lock, of_the_self_heap_is_held_while_a_slot_is_allocated_or_freed) {
  void* p = nullptr;
  EXPECT_EQ(locks_of(16, [&] { p = ym::memheap_::operator new(8); }), (calls{"heap+0", "heap-0"}));
  EXPECT_EQ(locks_of(16, [&] { ym::memheap_::operator delete(p); }), (calls{"heap+0", "heap-0"}));
}

TEST_F(spin_lock, of_the_self_heap_is_acquired_before_the_size_is_checked) {
  for (const size_t n : {size_t{56}, size_t{57}, SIZE_MAX}) {
    void* p = nullptr;
    EXPECT_EQ(locks_of(16, [&] { p = ym::memheap_::operator new(n); }), (calls{"heap+0", "heap-0"})) << n;
    EXPECT_EQ(p != nullptr, n <= 56) << n;
  }
}

TEST_F(spin_lock, of_the_self_heap_is_held_while_its_chunk_is_mapped_and_unmapped) {
  const auto older = pools::take_slots(0);
  void* p = nullptr;
  EXPECT_EQ(locks_of(16, [&] { p = ym::memheap_::operator new(56); }), (calls{"heap+0", "heap-1"}));
  const auto newer = pools::take_slots(0);
  pools::give_slots({older[0], older[1]});
  ASSERT_EQ(ym::memheap_::operator new(56), older[1]);  // now the older chunk comes first
  pools::give_slots(newer);
  EXPECT_EQ(locks_of(16, [&] { ym::memheap_::operator delete(p); }), (calls{"heap+0", "heap--1"}));
}

// The bookkeeping of the self heap and of the pool of `size`, read from raw memory.
std::string bookkeeping(size_t size) {
  std::string all(pools::at(0), sizeof(pools::heap));
  for (const char* c : pools::heap_chunks()) all.append(c, sizeof(slots));
  all.append(pools::pool_at(size), sizeof(pools::pool));
  for (const char* c : chunks_of(size)) all.append(c, sizeof(chunk));
  return all;
}

TEST_F(spin_lock, is_held_during_every_change) {
  const auto b = pools::fill_chunks(pools::pair_class, 4);
  ym_free(b[0][0]);
  ym_free(b[1][0]);
  void* p = nullptr;
  const struct row {
    const char* label;
    size_t size;
    std::function<void()> step;
  } rows[] = {
      {"block", 16, [&] { p = take(16); }},
      {"block back", 16, [&] { ym_free(p); }},
      {"block of a new chunk", 128, [&] { p = take(128); }},
      {"block that sets off the sweep", pools::pair_class.size, [&] { ym_free(b[1][1]); }},
      {"slot", 16, [&] { p = ym::memheap_::operator new(8); }},
      {"slot back", 16, [&] { ym::memheap_::operator delete(p); }},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    std::string first, last;
    const std::string before = bookkeeping(r.size);
    {
      const fake_locks::recording recording([&](char what) {
        if (first.empty()) first = bookkeeping(r.size);
        if (what == '-') last = bookkeeping(r.size);
      });
      r.step();
    }
    EXPECT_TRUE(first == before);
    EXPECT_TRUE(last == bookkeeping(r.size));
    EXPECT_FALSE(first == last);
  }
}

}  // namespace
