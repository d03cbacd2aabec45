// The pooled allocator from below: every structure is read from raw memory at its offset, every mapping is counted and
// refused in turn, and the C library's calls that leave no trace in memory (mallopt, spin locks) are recorded.
#include "com/ymlib3/ym_alloctor"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"

// ---------------------------------------------------------------- calls recorded

namespace {

template <class F>
F* real(F* /*replaced*/, const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

// Recorded while the program loads, so nothing here may need construction.
constinit std::array<std::pair<int, int>, 8> tunings{};
constinit size_t tuned = 0;

// What one thread does to spin locks, and how many mappings are alive at that moment.
struct lock_event {
  char what;
  const void* lock;
  size_t live;
};
thread_local std::vector<lock_event>* lock_events = nullptr;
thread_local const std::function<void(char)>* at_lock = nullptr;  // called before a lock is taken or given back

void note(char what, volatile void* lock) {
  if (at_lock) (*at_lock)(what);
  if (lock_events) lock_events->push_back({what, const_cast<void*>(lock), pools::live().size()});
}

}  // namespace

extern "C" int mallopt(int parameter, int value) noexcept {
  if (tuned < tunings.size()) tunings.at(tuned++) = {parameter, value};
  return real(mallopt, "mallopt")(parameter, value);
}
extern "C" int pthread_spin_init(pthread_spinlock_t* lock, int shared) noexcept {
  note(shared == 0 ? 'i' : 's', lock);
  return real(pthread_spin_init, "pthread_spin_init")(lock, shared);
}
extern "C" int pthread_spin_destroy(pthread_spinlock_t* lock) noexcept {
  note('d', lock);
  return real(pthread_spin_destroy, "pthread_spin_destroy")(lock);
}
extern "C" int pthread_spin_lock(pthread_spinlock_t* lock) noexcept {
  static auto* const next = real(pthread_spin_lock, "pthread_spin_lock");
  note('+', lock);
  return next(lock);
}
extern "C" int pthread_spin_unlock(pthread_spinlock_t* lock) noexcept {
  static auto* const next = real(pthread_spin_unlock, "pthread_spin_unlock");
  note('-', lock);
  return next(lock);
}

namespace {

using pools::chunk;
using pools::chunks_of;
using pools::give;
using pools::pool_of;
using pools::read;
using pools::rebuild;
using pools::self;
using pools::slots;
using pools::snapshot;
using pools::take;

using list = std::vector<const char*>;

// Every suite starts from an unused allocator.
using startup = pools::fresh;
using pages = pools::fresh;
using layout = pools::fresh;
using spin_lock = pools::fresh;
using self_heap = pools::fresh;
using size_class = pools::fresh;
using pool = pools::fresh;
using sweep = pools::fresh;
using large_block = pools::fresh;
using refusal = pools::fresh;
using destruction = pools::fresh;
using threads = pools::fresh;

constexpr size_t untouched = 0x5555;

struct class_row {
  uint32_t size;
  uint32_t blocks;  // in every chunk but the first
  uint32_t first;   // in the first chunk
};
constexpr class_row class_rows[] = {
    {16, 65536, 2048}, {32, 32768, 1024}, {64, 16384, 512}, {96, 10922, 341}, {128, 8192, 256}, {256, 4096, 128},
    {384, 2730, 85},   {512, 2048, 64},   {640, 1638, 51},  {800, 1310, 40},  {1024, 1024, 32}, {1424, 736, 23},
    {2048, 1024, 16},  {3072, 682, 16},   {5120, 409, 16},  {8192, 256, 16},  {12288, 170, 16}, {16384, 128, 16},
    {20480, 102, 16},  {24576, 85, 16},   {32768, 64, 16},  {49152, 42, 16},  {65536, 32, 16},  {131072, 32, 16},
    {262144, 16, 16},  {409600, 10, 10},  {655360, 6, 6},   {1048576, 2, 2},  {2097152, 2, 2},  {4194304, 2, 2},
};
static_assert(std::size(class_rows) == 30);

constexpr long page_sizes[] = {4096, 16384, 65536};

uint64_t whole_pages(uint64_t n, long page) {
  const auto p = static_cast<uint64_t>(page);
  return n % p == 0 ? n : n - n % p + p;
}

uint64_t chunk_length(const class_row& row, uint32_t blocks, long page) {
  return whole_pages((uint64_t{row.size} + 8) * blocks, page);
}

void* offset(void* p, ptrdiff_t by) { return static_cast<char*>(p) + by; }

// Makes `n` full chunks; element i holds the blocks of the chunk made as number i, 0 being the head.
std::vector<std::vector<void*>> fill_chunks(const class_row& row, size_t n) {
  std::vector<std::vector<void*>> by_chunk;
  for (size_t i = 0; i < n; ++i) by_chunk.push_back(take(row.size, i == 0 ? row.first : row.blocks));
  return by_chunk;
}

// Two blocks a chunk make the shortest way through the rules for chunks.
constexpr class_row pair_class = class_rows[27];
static_assert(pair_class.first == 2 && pair_class.blocks == 2);

// ---------------------------------------------------------------- startup

TEST_F(startup, tunes_the_c_library_heap_first_to_one_arena_then_to_thresholds_of_one_mib) {
  ASSERT_EQ(tuned, 3U);
  EXPECT_EQ(tunings[0], std::pair(-8, 1));
  EXPECT_EQ(tunings[1], std::pair(-3, 1048576));
  EXPECT_EQ(tunings[2], std::pair(-1, 1048576));
  static_assert(std::is_empty_v<ym_glibc_noarena>);
  static_assert(std::is_trivially_destructible_v<ym_glibc_noarena>);
}

TEST_F(startup, gives_out_the_parts_of_the_one_object) {
  EXPECT_EQ(static_cast<void*>(get_ym_alloctor_self()), static_cast<void*>(&g_ym_allocator));
  EXPECT_EQ(reinterpret_cast<const char*>(get_ym_allocator()), pools::at(40));
  EXPECT_EQ(sizeof(ym_allocator_), 368U);
}

TEST_F(startup, registers_thirty_pools_and_leaves_ten_places_empty) {
  const pools::table t = pools::all();
  EXPECT_EQ(t.classes, 30);
  EXPECT_EQ(t.large, 0U);
  EXPECT_TRUE(std::all_of(t.pool, t.pool + 30, [](const char* p) { return p != nullptr; }));
  EXPECT_TRUE(std::all_of(t.pool + 30, t.pool + 40, [](const char* p) { return p == nullptr; }));
}

TEST_F(startup, leaves_a_self_heap_of_one_chunk_that_holds_thirty_pools_and_three_descriptors) {
  const pools::heap h = self();
  EXPECT_EQ(h.chunk_size, 524288U);
  EXPECT_EQ(h.slot_request, 56U);
  EXPECT_EQ(h.free, 8191U - 33U);
  ASSERT_EQ(pools::heap_chunks().size(), 1U);
  const auto c = read<slots>(h.chunks);
  EXPECT_EQ(c.length, 524288U);
  EXPECT_EQ(c.slot_size, 64U);
  EXPECT_EQ(c.count, 8191U);
  EXPECT_EQ(c.free, 8191U - 33U);
  EXPECT_EQ(c.bump, 33U);
  EXPECT_EQ(c.freed, nullptr);
}

TEST_F(startup, maps_the_self_heap_and_the_first_chunks_of_the_three_smallest_classes_only) {
  std::vector<size_t> lengths;
  for (const auto& [at, length] : pools::live()) lengths.push_back(length);
  std::sort(lengths.begin(), lengths.end());
  EXPECT_EQ(lengths, (std::vector<size_t>{36864, 40960, 49152, 524288}));
}

TEST_F(startup, describes_every_pool_at_its_offsets) {
  const pools::table t = pools::all();
  for (size_t i = 0; i < 30; ++i) {
    SCOPED_TRACE(class_rows[i].size);
    const bool ready = i < 3;
    const auto p = read<pools::pool>(t.pool[i]);
    EXPECT_EQ(p.block_size, class_rows[i].size);
    EXPECT_EQ(p.blocks, class_rows[i].blocks);
    EXPECT_EQ(p.chunks, ready ? 1 : 0);
    EXPECT_EQ(p.free, ready ? class_rows[i].first : 0U);
    EXPECT_EQ(p.head != nullptr, ready);
  }
}

TEST_F(startup, makes_ready_chunks_without_taking_a_block_of_them) {
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(class_rows[i].size);
    const auto c = read<chunk>(pool_of(class_rows[i].size).head);
    EXPECT_EQ(c.free, class_rows[i].first);
    EXPECT_EQ(c.count, class_rows[i].first);
    EXPECT_EQ(c.bump, 0U);
    EXPECT_EQ(c.freed, nullptr);
    EXPECT_EQ(c.next, nullptr);
  }
}

TEST_F(startup, initialises_one_process_private_lock_per_pool_and_one_for_the_self_heap) {
  std::vector<lock_event> events;
  lock_events = &events;
  rebuild();
  lock_events = nullptr;
  const auto times = [&](char what) {
    return std::count_if(events.begin(), events.end(), [=](const lock_event& e) { return e.what == what; });
  };
  EXPECT_EQ(times('d'), 31);
  EXPECT_EQ(times('i'), 31);
  EXPECT_EQ(times('s'), 0);
  EXPECT_EQ(times('+'), times('-'));
}

// ---------------------------------------------------------------- pages

TEST_F(pages, are_private_anonymous_memory_to_read_and_write) {
  const auto protection = [](const void* p) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
      const size_t dash = line.find('-'), blank = line.find(' ');
      const auto from = std::stoull(line.substr(0, dash), nullptr, 16);
      const auto to = std::stoull(line.substr(dash + 1, blank), nullptr, 16);
      const auto at = reinterpret_cast<uintptr_t>(p);
      if (from <= at && at < to) return line.substr(blank + 1, 20);
    }
    return std::string();
  };
  void* block = take(131072);
  void* large = take(4194305);
  EXPECT_EQ(protection(block), "rw-p 00000000 00:00 ");
  EXPECT_EQ(protection(large), "rw-p 00000000 00:00 ");
  EXPECT_EQ(fake_pages::last_descriptor(), -1) << "as other systems want it";
  EXPECT_EQ(fake_pages::last_offset(), 0);
  ym_free(block);
  ym_free(large);
}

TEST_F(pages, are_mapped_in_whole_numbers_for_every_class_and_page_size) {
  for (const long page : page_sizes) {
    rebuild(page);
    for (const class_row& row : class_rows) {
      SCOPED_TRACE(testing::Message() << "class " << row.size << " on pages of " << page);
      const auto blocks = take(row.size, row.first + 1);
      const list c = chunks_of(row.size);
      ASSERT_EQ(c.size(), 2U);
      EXPECT_EQ(read<chunk>(c[0]).length, chunk_length(row, row.first, page));
      EXPECT_EQ(read<chunk>(c[1]).length, chunk_length(row, row.blocks, page));
      EXPECT_EQ(fake_pages::last_length(), read<chunk>(c[1]).length);
      give(blocks);
    }
  }
}

TEST_F(pages, make_chunks_of_these_lengths) {
  const struct row {
    long page;
    uint32_t size;
    uint64_t first, later;
  } rows[] = {
      {4096, 16, 49152, 1572864},  {4096, 96, 36864, 1138688},  {4096, 4194304, 8392704, 8392704},
      {16384, 16, 49152, 1572864}, {16384, 96, 49152, 1146880}, {16384, 4194304, 8404992, 8404992},
      {65536, 16, 65536, 1572864}, {65536, 96, 65536, 1179648}, {65536, 4194304, 8454144, 8454144},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(testing::Message() << "class " << r.size << " on pages of " << r.page);
    rebuild(r.page);
    while (pool_of(r.size).chunks < 2) take(r.size);
    const list c = chunks_of(r.size);
    EXPECT_EQ(read<chunk>(c[0]).length, r.first);
    EXPECT_EQ(read<chunk>(c[1]).length, r.later);
    EXPECT_EQ(pools::live().at(const_cast<char*>(read<chunk>(c[0]).mapping)), r.first);
    EXPECT_EQ(pools::live().at(const_cast<char*>(read<chunk>(c[1]).mapping)), r.later);
  }
}

TEST_F(pages, leave_the_self_heap_at_half_a_mib_whatever_their_size) {
  for (const long page : page_sizes) {
    rebuild(page);
    EXPECT_EQ(read<slots>(self().chunks).length, 524288U) << page;
  }
}

TEST_F(pages, round_the_self_heaps_chunk_up_and_fill_it_with_slots) {
  rebuild(1048576);
  const auto c = read<slots>(self().chunks);
  EXPECT_EQ(c.length, 1048576U);
  EXPECT_EQ(c.count, (1048576U - 56U) / 64U);
  EXPECT_EQ(self().free, c.count - 33U);
}

TEST_F(pages, are_asked_for_their_size_at_every_mapping) {
  void* a = take(4194305);
  fake_pages::page_size(65536);
  void* b = take(4194305);
  EXPECT_EQ(read<uint64_t>(offset(a, -16)), 4198400U);
  EXPECT_EQ(read<uint64_t>(offset(b, -16)), 4259840U);
  ym_free(a);
  ym_free(b);
}

// ---------------------------------------------------------------- layout

TEST_F(layout, describes_a_chunk_at_its_offsets) {
  void* p = take(128);
  const list c = chunks_of(128);
  ASSERT_EQ(c.size(), 1U);
  const auto d = read<chunk>(c[0]);
  EXPECT_EQ(d.free, 255U);
  EXPECT_EQ(d.count, 256U);
  EXPECT_EQ(d.block_size, 128U);
  EXPECT_EQ(d.bump, 1U);
  EXPECT_EQ(d.length, 36864U);
  EXPECT_EQ(d.mapping + 8, p);
  EXPECT_EQ(d.freed, nullptr);
  EXPECT_EQ(d.owner, pools::pool_at(128));
  EXPECT_EQ(d.next, nullptr);
  ym_free(p);
  EXPECT_EQ(read<chunk>(c[0]).freed, p);
  EXPECT_EQ(read<chunk>(c[0]).free, 256U);
  EXPECT_EQ(read<chunk>(c[0]).bump, 1U);
}

TEST_F(layout, puts_block_i_behind_its_header_at_i_times_the_block_size_plus_8) {
  for (const class_row& row : class_rows) {
    SCOPED_TRACE(row.size);
    const auto blocks = take(row.size, row.first);
    const list c = chunks_of(row.size);
    ASSERT_EQ(c.size(), 1U);
    const char* at = read<chunk>(c[0]).mapping;
    for (void* p : blocks) {
      ASSERT_EQ(p, at + 8);
      ASSERT_EQ(pools::header_of(p), c[0]);
      at += row.size + 8;
    }
    EXPECT_EQ(read<chunk>(c[0]).bump, row.first);
    give(blocks);
  }
}

TEST_F(layout, leaves_the_header_alone_when_a_block_goes_and_comes_back) {
  void* p = take(96);
  const char* c = pools::header_of(p);
  ym_free(p);
  EXPECT_EQ(pools::header_of(p), c);
  EXPECT_EQ(take(96), p);
  EXPECT_EQ(pools::header_of(p), c);
}

TEST_F(layout, chains_freed_blocks_through_their_first_eight_bytes) {
  const auto b = take(96, 3);
  give(b);
  EXPECT_EQ(read<chunk>(pools::header_of(b[0])).freed, b[2]);
  EXPECT_EQ(read<void*>(b[2]), b[1]);
  EXPECT_EQ(read<void*>(b[1]), b[0]);
  EXPECT_EQ(read<void*>(b[0]), nullptr);
}

TEST_F(layout, puts_length_and_zero_in_front_of_a_large_block) {
  void* p = take(5000000);
  EXPECT_EQ(read<uint64_t>(offset(p, -16)), 5001216U);
  EXPECT_EQ(read<uint64_t>(offset(p, -8)), 0U);
  EXPECT_EQ(pools::live().at(offset(p, -16)), 5001216U);
  ym_free(p);
}

// ---------------------------------------------------------------- spin lock

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

TEST_F(spin_lock, guarded_through_a_null_pointer_is_no_lock) {
  std::vector<lock_event> events;
  lock_events = &events;
  { const ym::guard<ym::spinlock> hold(nullptr); }
  lock_events = nullptr;
  EXPECT_TRUE(events.empty());
}

TEST_F(spin_lock, is_released_when_an_exception_leaves_the_scope) {
  ym::spinlock l;
  std::vector<lock_event> events;
  const auto fail = [&] {
    const ym::guard hold(&l);
    throw std::runtime_error("out");
  };
  lock_events = &events;
  EXPECT_THROW(fail(), std::runtime_error);
  lock_events = nullptr;
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].what, '+');
  EXPECT_EQ(events[1].what, '-');
  EXPECT_EQ(events[0].lock, events[1].lock);
}

TEST_F(spin_lock, keeps_threads_out) {
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

TEST_F(spin_lock, and_its_guard_are_not_copied) {
  EXPECT_FALSE(std::is_copy_constructible_v<ym::spinlock>);
  EXPECT_FALSE(std::is_copy_assignable_v<ym::spinlock>);
  EXPECT_FALSE(std::is_copy_constructible_v<ym::guard<ym::spinlock>>);
  EXPECT_FALSE(std::is_copy_assignable_v<ym::guard<ym::spinlock>>);
}

// What a step does to the locks of the class of `size` and of the self heap: "pool+1" takes the pool's lock while one
// mapping more is alive than before the step.
template <class STEP>
std::vector<std::string> locks_of(size_t size, STEP step) {
  std::vector<lock_event> events;
  const size_t before = pools::live().size();
  lock_events = &events;
  step();
  lock_events = nullptr;
  std::vector<std::string> told;
  for (const lock_event& e : events) {
    std::string who = "other";
    if (e.lock == pools::at(32)) who = "heap";
    if (e.lock == pools::pool_at(size) + 24) who = "pool";
    told.push_back(who + e.what + std::to_string(static_cast<int>(e.live) - static_cast<int>(before)));
  }
  return told;
}
using told = std::vector<std::string>;

TEST_F(spin_lock, of_the_pool_alone_is_held_for_a_block_and_its_return) {
  void* p = nullptr;
  EXPECT_EQ(locks_of(16, [&] { p = take(16); }), (told{"pool+0", "pool-0"}));
  EXPECT_EQ(locks_of(16, [&] { ym_free(p); }), (told{"pool+0", "pool-0"}));
}

TEST_F(spin_lock, of_the_pool_is_held_while_a_chunk_is_mapped_and_the_self_heaps_only_within) {
  void* p = nullptr;
  EXPECT_EQ(locks_of(128, [&] { p = take(128); }), (told{"pool+0", "heap+0", "heap-0", "pool-1"}));
  ym_free(p);
}

TEST_F(spin_lock, of_the_pool_is_held_while_a_chunk_is_unmapped) {
  auto b = fill_chunks(pair_class, 4);
  ym_free(b[0][0]);
  ym_free(b[1][0]);
  EXPECT_EQ(locks_of(pair_class.size, [&] { ym_free(b[1][1]); }), (told{"pool+0", "heap+-1", "heap--1", "pool--1"}));
}

TEST_F(spin_lock, is_not_needed_for_large_blocks) {
  EXPECT_EQ(locks_of(16, [] { ym_free(take(4194305)); }), told{});
}

TEST_F(spin_lock, of_the_self_heap_is_held_for_a_slot_and_its_return) {
  void* p = nullptr;
  EXPECT_EQ(locks_of(16, [&] { p = ym::memheap_::operator new(8); }), (told{"heap+0", "heap-0"}));
  EXPECT_EQ(locks_of(16, [&] { ym::memheap_::operator delete(p); }), (told{"heap+0", "heap-0"}));
}

TEST_F(spin_lock, of_the_self_heap_is_held_while_its_chunk_is_mapped_and_unmapped) {
  const auto older = pools::take_slots(0);
  void* p = nullptr;
  EXPECT_EQ(locks_of(16, [&] { p = ym::memheap_::operator new(56); }), (told{"heap+0", "heap-1"}));
  const auto newer = pools::take_slots(0);
  pools::give_slots({older[0], older[1]});
  ASSERT_EQ(ym::memheap_::operator new(56), older[1]);  // from here on the older chunk comes first
  pools::give_slots(newer);
  EXPECT_EQ(locks_of(16, [&] { ym::memheap_::operator delete(p); }), (told{"heap+0", "heap--1"}));
}

// The bookkeeping of the self heap and of the pool of `size`, as it lies in memory.
std::string bookkeeping(size_t size) {
  std::string all(pools::at(0), sizeof(pools::heap));
  for (const char* c : pools::heap_chunks()) all.append(c, sizeof(slots));
  all.append(pools::pool_at(size), sizeof(pools::pool));
  for (const char* c : chunks_of(size)) all.append(c, sizeof(chunk));
  return all;
}

TEST_F(spin_lock, is_taken_before_anything_is_touched_and_given_back_when_all_is_done) {
  const auto b = fill_chunks(pair_class, 4);
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
      {"block that sets off the sweep", pair_class.size, [&] { ym_free(b[1][1]); }},
      {"slot", 16, [&] { p = ym::memheap_::operator new(8); }},
      {"slot back", 16, [&] { ym::memheap_::operator delete(p); }},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    std::string first, last;
    const std::function<void(char)> look = [&](char what) {
      if (first.empty()) first = bookkeeping(r.size);
      if (what == '-') last = bookkeeping(r.size);
    };
    const std::string before = bookkeeping(r.size);
    at_lock = &look;
    r.step();
    at_lock = nullptr;
    EXPECT_TRUE(first == before);
    EXPECT_TRUE(last == bookkeeping(r.size));
    EXPECT_FALSE(first == last);
  }
}

// ---------------------------------------------------------------- self heap

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

TEST_F(self_heap, is_where_objects_of_its_classes_are_made_and_deleted) {
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

TEST_F(self_heap, makes_no_object_on_a_null_slot) {
  int made = 0;
  EXPECT_EQ(new does_not_fit(&made), nullptr);
  EXPECT_EQ(made, 0);
}

TEST_F(self_heap, puts_slot_i_at_56_plus_64_times_i) {
  const char* c = self().chunks;
  for (int i = 33; i < 40; ++i) EXPECT_EQ(ym::memheap_::operator new(56), c + 56 + 64 * ptrdiff_t{i});
  EXPECT_EQ(read<slots>(c).bump, 40U);
}

TEST_F(self_heap, hands_out_last_freed_slots_first_and_before_new_ones) {
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

TEST_F(self_heap, ignores_null_and_addresses_that_are_no_slots) {
  char* c = const_cast<char*>(self().chunks);
  char local[64] = {};
  void* foreign[] = {nullptr, local, c, c + 55, c + 56 + ptrdiff_t{8191} * 64, c - 1};
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
  const list c = pools::heap_chunks();
  ASSERT_EQ(c.size(), 2U);
  EXPECT_EQ(c[1], first);
  EXPECT_EQ(p, c[0] + 56);
  EXPECT_EQ(self().free, 8190U);
}

// Two full chunks of the self heap, the newer one first in its list.
struct full_heap {
  std::vector<void*> older = pools::take_slots(0);
  std::vector<void*> newer{ym::memheap_::operator new(56)};

  full_heap() {
    const auto rest = pools::take_slots(0);
    newer.insert(newer.end(), rest.begin(), rest.end());
  }
};

TEST_F(self_heap, takes_back_the_first_and_the_last_slot_of_a_chunk) {
  const full_heap h;
  const char* c = self().chunks;
  ASSERT_EQ(h.newer.front(), c + 56);
  ASSERT_EQ(h.newer.back(), c + 56 + ptrdiff_t{8190} * 64);
  ym::memheap_::operator delete(h.newer.front());
  ym::memheap_::operator delete(h.newer.back());
  EXPECT_EQ(self().free, 2U);
  EXPECT_EQ(read<slots>(c).free, 2U);
}

TEST_F(self_heap, moves_the_chunk_that_served_to_the_front_when_it_has_room_left) {
  const full_heap h;
  const list c = pools::heap_chunks();
  ym::memheap_::operator delete(h.older[0]);
  ym::memheap_::operator delete(h.older[1]);
  EXPECT_EQ(ym::memheap_::operator new(56), h.older[1]);
  EXPECT_EQ(pools::heap_chunks(), (list{c[1], c[0]}));
}

TEST_F(self_heap, leaves_the_chunk_that_served_its_last_slot_where_it_is) {
  const full_heap h;
  const list c = pools::heap_chunks();
  ym::memheap_::operator delete(h.older[0]);
  EXPECT_EQ(ym::memheap_::operator new(56), h.older[0]);
  EXPECT_EQ(pools::heap_chunks(), c);
  EXPECT_EQ(self().free, 0U);
}

TEST_F(self_heap, keeps_its_first_chunk_when_that_becomes_empty) {
  const full_heap h;
  pools::give_slots(h.newer);
  EXPECT_EQ(pools::heap_chunks().size(), 2U);
  EXPECT_EQ(self().free, 8191U);
}

TEST_F(self_heap, unmaps_a_later_chunk_when_that_becomes_empty) {
  const full_heap h;
  const list c = pools::heap_chunks();
  ym::memheap_::operator delete(h.older[0]);
  ym::memheap_::operator delete(h.older[1]);
  void* last = ym::memheap_::operator new(56);  // the older chunk comes first now, with one slot free
  const size_t live = pools::live().size();
  pools::give_slots({h.newer.begin() + 1, h.newer.end()});
  EXPECT_EQ(pools::heap_chunks().size(), 2U);
  EXPECT_EQ(self().free, 8191U);
  ym::memheap_::operator delete(h.newer[0]);
  EXPECT_EQ(pools::heap_chunks(), (list{c[1]}));
  EXPECT_EQ(self().free, 1U);
  EXPECT_EQ(pools::live().size(), live - 1);
  EXPECT_EQ(pools::live().count(const_cast<char*>(c[0])), 0U);
  ym::memheap_::operator delete(last);
}

TEST_F(self_heap, unmaps_the_middle_one_of_three_chunks) {
  const full_heap h;
  const list c = pools::heap_chunks();
  void* third = ym::memheap_::operator new(56);
  const char* front = self().chunks;
  pools::give_slots(h.newer);
  EXPECT_EQ(pools::heap_chunks(), (list{front, c[1]}));
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

TEST_F(self_heap, yields_null_when_its_count_promises_a_slot_that_no_chunk_has) {
  pools::take_slots(0);
  pools::write(pools::at(0), 16, uint64_t{1});
  EXPECT_EQ(ym::memheap_::operator new(56), nullptr);
  EXPECT_EQ(self().free, 1U);
  pools::write(pools::at(0), 16, uint64_t{0});
}

// ---------------------------------------------------------------- size classes

struct served {
  size_t granted;
  size_t usable;
  bool pooled;
  bool aligned;
  bool operator==(const served&) const = default;
};
void PrintTo(const served& s, std::ostream* out) {
  *out << "granted " << s.granted << " usable " << s.usable << " pooled " << s.pooled << " aligned " << s.aligned;
}

served serve(size_t n) {
  served s{};
  void* p = get_ym_allocator()->malloc_(n, &s.granted);
  s.usable = ym::allocator::usable_(p);
  s.pooled = pools::header_of(p) != nullptr;
  s.aligned = reinterpret_cast<uintptr_t>(p) % 8 == 0;
  std::memset(p, 0x7E, n);
  get_ym_allocator()->free_(p);
  return s;
}

TEST_F(size_class, is_the_smallest_that_holds_the_request) {
  for (size_t i = 0; i + 1 < std::size(class_rows); ++i) {
    const size_t size = class_rows[i].size, next = class_rows[i + 1].size;
    SCOPED_TRACE(size);
    EXPECT_EQ(serve(size - 1), (served{size, size, true, true}));
    EXPECT_EQ(serve(size), (served{size, size, true, true}));
    EXPECT_EQ(serve(size + 1), (served{next, next, true, true}));
  }
}

TEST_F(size_class, ends_at_4_mib_where_large_blocks_begin) {
  EXPECT_EQ(serve(4194303), (served{4194304, 4194304, true, true}));
  EXPECT_EQ(serve(4194304), (served{4194304, 4194304, true, true}));
  EXPECT_EQ(serve(4194305), (served{4198384, 4198384, false, true}));
}

TEST_F(size_class, of_small_and_odd_requests) {
  const struct row {
    size_t n, granted;
  } rows[] = {{0, 16}, {1, 16}, {16, 16}, {17, 32}, {65, 96}, {641, 800}, {801, 1024}, {1424, 1424}, {1425, 2048}};
  for (const row& r : rows) EXPECT_EQ(pools::granted(r.n), r.granted) << r.n;
}

TEST_F(size_class, is_the_same_when_nobody_asks_for_the_granted_size) {
  for (const class_row& row : class_rows) {
    SCOPED_TRACE(row.size);
    void* p = take(row.size);
    EXPECT_EQ(ym::allocator::usable_(p), row.size);
    EXPECT_EQ(read<chunk>(pools::header_of(p)).owner, pools::pool_at(row.size));
    ym_free(p);
  }
}

TEST_F(size_class, maps_a_small_first_chunk_and_later_ones_in_full) {
  for (const class_row& row : class_rows) {
    SCOPED_TRACE(row.size);
    auto blocks = take(row.size, row.first);
    EXPECT_EQ(pool_of(row.size).chunks, 1);
    EXPECT_EQ(pool_of(row.size).free, 0U);
    const auto second = take(row.size, row.blocks);
    blocks.insert(blocks.end(), second.begin(), second.end());
    EXPECT_EQ(pool_of(row.size).chunks, 2);
    EXPECT_EQ(pool_of(row.size).free, 0U);
    blocks.push_back(take(row.size));
    EXPECT_EQ(pool_of(row.size).chunks, 3);
    EXPECT_EQ(pool_of(row.size).free, row.blocks - 1);
    EXPECT_EQ(pool_of(row.size).blocks, row.blocks);
    give(blocks);
  }
}

// ---------------------------------------------------------------- pool

TEST_F(pool, hands_out_last_freed_blocks_first_and_before_new_ones) {
  const auto b = take(256, 3);
  ym_free(b[0]);
  ym_free(b[2]);
  EXPECT_EQ(take(256), b[2]);
  EXPECT_EQ(take(256), b[0]);
  EXPECT_EQ(read<chunk>(pool_of(256).head).bump, 3U);
  EXPECT_EQ(read<chunk>(pool_of(256).head).freed, nullptr);
}

TEST_F(pool, counts_its_free_blocks_over_all_chunks) {
  const auto b = take(409600, 11);
  EXPECT_EQ(pool_of(409600).free, 9U);
  ym_free(b[0]);
  EXPECT_EQ(pool_of(409600).free, 10U);
  ym_free(b[10]);
  EXPECT_EQ(pool_of(409600).free, 11U);
  const list c = chunks_of(409600);
  EXPECT_EQ(read<chunk>(c[0]).free, 1U);
  EXPECT_EQ(read<chunk>(c[1]).free, 10U);
}

// The chunks of the pair class in the order in which they were made.
list made_order(const std::vector<std::vector<void*>>& b) {
  list c;
  for (const auto& of_one : b) c.push_back(pools::header_of(of_one[0]));
  return c;
}

TEST_F(pool, links_new_chunks_in_behind_its_first) {
  const list c = made_order(fill_chunks(pair_class, 4));
  EXPECT_EQ(chunks_of(pair_class.size), (list{c[0], c[3], c[2], c[1]}));
}

TEST_F(pool, serves_from_its_first_chunk_before_later_ones) {
  const auto b = fill_chunks(pair_class, 3);
  ym_free(b[1][0]);
  ym_free(b[0][0]);
  ym_free(b[2][0]);
  EXPECT_EQ(take(pair_class.size), b[0][0]);
  EXPECT_EQ(take(pair_class.size), b[2][0]);
  EXPECT_EQ(take(pair_class.size), b[1][0]);
}

TEST_F(pool, moves_the_chunk_that_served_behind_the_first_when_it_has_room_left) {
  const auto b = fill_chunks(pair_class, 4);
  const list c = made_order(b);
  give(b[1]);
  EXPECT_EQ(take(pair_class.size), b[1][1]);
  EXPECT_EQ(chunks_of(pair_class.size), (list{c[0], c[1], c[3], c[2]}));
}

TEST_F(pool, leaves_the_chunk_that_served_its_last_block_where_it_is) {
  const auto b = fill_chunks(pair_class, 4);
  const list before = chunks_of(pair_class.size);
  ym_free(b[1][0]);
  EXPECT_EQ(take(pair_class.size), b[1][0]);
  EXPECT_EQ(chunks_of(pair_class.size), before);
}

TEST_F(pool, leaves_the_chunk_behind_the_first_where_it_is) {
  const auto b = fill_chunks(pair_class, 3);
  const list before = chunks_of(pair_class.size);
  give(b[2]);
  EXPECT_EQ(take(pair_class.size), b[2][1]);
  EXPECT_EQ(chunks_of(pair_class.size), before);
}

TEST_F(pool, never_moves_its_first_chunk) {
  const auto b = fill_chunks(pair_class, 3);
  const list before = chunks_of(pair_class.size);
  give(b[0]);
  EXPECT_EQ(take(pair_class.size), b[0][1]);
  EXPECT_EQ(chunks_of(pair_class.size), before);
}

TEST_F(pool, stores_the_granted_size_with_old_and_new_chunks) {
  for (int i = 0; i < 11; ++i) {
    size_t got = 0;
    get_ym_allocator()->malloc_(409600, &got);
    EXPECT_EQ(got, 409600U) << "block " << i;
  }
}

TEST_F(pool, of_one_size_serves_by_itself) {
  auto* p = reinterpret_cast<ym::blk_alloctor<ym::spinlock>*>(const_cast<char*>(pools::pool_at(800)));
  size_t got = 0;
  void* b = p->malloc_(&got);
  EXPECT_EQ(got, 800U);
  EXPECT_EQ(read<chunk>(pools::header_of(b)).owner, pools::pool_at(800));
  EXPECT_EQ(p->malloc_(nullptr), offset(b, 808));
}

TEST_F(pool, ignores_a_null_block) {
  const snapshot before;
  get_ym_allocator()->free_(nullptr);
  ym_free(nullptr);
  EXPECT_EQ(snapshot(), before);
}

TEST_F(pool, takes_blocks_back_through_either_way) {
  const auto b = take(640, 2);
  get_ym_allocator()->free_(b[0]);
  ym_free(b[1]);
  EXPECT_EQ(pool_of(640).free, 51U);
}

// What a hosting process's monitoring looks for.
const char* const out_of_step =
    "com/ymlib3/ym_alloctor:597: "
    "void\\* ym::blk_alloctor<LOCK>::malloc_\\(size_t\\*\\) "
    "\\[with LOCK = ym::spinlock; size_t = long unsigned int\\]: "
    "Assertion .pret != nullptr. failed\\.";

// Claims a free block that is not there.
void claim_free(size_t size) { pools::write(pools::pool_at(size), 12, uint32_t{1}); }

TEST_F(pool, ends_the_process_when_it_counts_a_free_block_without_a_chunk) {
  EXPECT_EXIT((claim_free(128), take(128)), testing::KilledBySignal(SIGABRT), out_of_step);
}

TEST_F(pool, ends_the_process_when_it_counts_a_free_block_that_no_chunk_has) {
  fill_chunks(pair_class, 2);
  EXPECT_EXIT((claim_free(pair_class.size), take(pair_class.size)), testing::KilledBySignal(SIGABRT), out_of_step);
}

// Whether the self-check fails while the number at `p` + `at` is `by` more than it is.
template <class T>
bool noticed(const char* p, size_t at, T by) {
  const T was = read<T>(p + at);
  pools::write(p, at, static_cast<T>(was + by));
  const bool valid = pools::is_valid();
  pools::write(p, at, was);
  return !valid && pools::is_valid();
}

TEST_F(pool, notices_counts_that_disagree_with_its_chunks) {
  const auto b = fill_chunks(pair_class, 3);
  ym_free(b[0][0]);
  const char* p = pools::pool_at(pair_class.size);
  const list c = chunks_of(pair_class.size);
  EXPECT_TRUE(noticed<int32_t>(p, 8, 1)) << "chunks of the pool";
  EXPECT_TRUE(noticed<int32_t>(p, 8, -1)) << "chunks of the pool";
  EXPECT_TRUE(noticed<uint32_t>(p, 12, 1)) << "free blocks of the pool";
  EXPECT_TRUE(noticed<uint32_t>(p, 16, 8)) << "block size of the pool";
  EXPECT_TRUE(noticed<uint32_t>(p, 20, 1)) << "blocks per chunk";
  EXPECT_TRUE(noticed<uint32_t>(c[1], 0, 1)) << "free blocks of a chunk";
  EXPECT_TRUE(noticed<uint32_t>(c[1], 8, 8)) << "block size of a chunk";
  EXPECT_TRUE(noticed<uint32_t>(c[1], 12, 1)) << "blocks carved of a chunk";
  EXPECT_TRUE(noticed<uint64_t>(c[1], 40, 8)) << "owner of a chunk";
}

TEST_F(pool, notices_lists_that_run_in_circles) {
  const auto b = fill_chunks(pair_class, 3);
  ym_free(b[0][0]);
  const list c = chunks_of(pair_class.size);
  pools::write(c[2], 48, c[1]);
  EXPECT_FALSE(pools::is_valid());
  pools::write(c[2], 48, nullptr);
  pools::write(b[0][0], 0, b[0][0]);
  EXPECT_FALSE(pools::is_valid());
  pools::write(b[0][0], 0, nullptr);
  ym_free(b[0][1]);  // a circle is no longer than the chunk has blocks, or it is one
  pools::write(b[0][1], 0, b[0][1]);
  EXPECT_FALSE(pools::is_valid());
  pools::write(b[0][1], 0, b[0][0]);
}

TEST_F(self_heap, notices_counts_that_disagree_with_its_chunks) {
  const char* c = self().chunks;
  EXPECT_TRUE(noticed<uint64_t>(pools::at(0), 16, 1)) << "free slots of the heap";
  EXPECT_TRUE(noticed<uint64_t>(c, 16, 1)) << "free slots of a chunk";
  EXPECT_TRUE(noticed<uint64_t>(c, 24, 1)) << "slots of a chunk";
  EXPECT_TRUE(noticed<uint64_t>(c, 32, 8191)) << "slots handed out of a chunk";
}

// ---------------------------------------------------------------- sweep

struct counts {
  int chunks;
  uint32_t free;
  bool operator==(const counts&) const = default;
};
void PrintTo(const counts& c, std::ostream* out) { *out << c.chunks << " chunks, " << c.free << " free"; }

counts counts_of(size_t size) { return {pool_of(size).chunks, pool_of(size).free}; }

// Frees one block and tells what the pool of pairs has then.
counts free_one(void* p) {
  ym_free(p);
  return counts_of(pair_class.size);
}

TEST_F(sweep, releases_nothing_of_three_chunks) {
  const auto b = fill_chunks(pair_class, 3);
  for (const auto& of_one : b) give(of_one);
  EXPECT_EQ(counts_of(pair_class.size), (counts{3, 6}));
}

TEST_F(sweep, releases_each_chunk_emptied_beyond_three) {
  const auto b = fill_chunks(pair_class, 5);
  const list c = made_order(b);
  const counts steps[] = {{5, 1}, {5, 2}, {5, 3}, {4, 2}, {4, 3}, {3, 2}, {3, 3}, {3, 4}, {3, 5}, {3, 6}};
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(free_one(b[i / 2][i % 2]), steps[i]) << "step " << i;
  EXPECT_EQ(chunks_of(pair_class.size), (list{c[0], c[4], c[3]}));
}

TEST_F(sweep, unmaps_the_chunk_and_gives_its_descriptor_back) {
  const auto b = fill_chunks(pair_class, 4);
  const auto c = read<chunk>(pools::header_of(b[2][0]));
  const uint64_t slots_free = self().free;
  ym_free(b[0][0]);
  give(b[2]);
  EXPECT_EQ(self().free, slots_free + 1);
  EXPECT_EQ(pools::live().count(const_cast<char*>(c.mapping)), 0U);
  const list left = made_order({b[0], b[3], b[1]});
  EXPECT_EQ(chunks_of(pair_class.size), left);
}

TEST_F(sweep, looks_at_no_descriptor_that_is_back_in_the_self_heap) {
  const auto b = fill_chunks(pair_class, 3);
  const auto older = pools::take_slots(0);
  const auto last = take(pair_class.size, 2);
  const auto newer = pools::take_slots(0);
  pools::give_slots({older[0], older[1]});
  ASSERT_EQ(ym::memheap_::operator new(56), older[1]);  // from here on the older chunk comes first
  pools::give_slots(newer);                             // and the other holds the descriptor alone
  ASSERT_EQ(pools::heap_chunks().size(), 2U);
  ym_free(b[0][0]);
  give(last);
  EXPECT_EQ(pools::heap_chunks().size(), 1U);
  EXPECT_EQ(chunks_of(pair_class.size), made_order({b[0], b[2], b[1]}));
}

TEST_F(sweep, keeps_the_chunk_that_holds_all_that_is_free) {
  const auto b = fill_chunks(pair_class, 5);
  give(b[2]);
  EXPECT_EQ(counts_of(pair_class.size), (counts{5, 2}));
}

TEST_F(sweep, waits_until_a_chunk_becomes_empty_and_then_takes_every_empty_one) {
  const auto b = fill_chunks(pair_class, 5);
  give(b[1]);  // the reserve
  EXPECT_EQ(free_one(b[3][0]), (counts{5, 3}));
  EXPECT_EQ(free_one(b[3][1]), (counts{3, 0}));
}

TEST_F(sweep, goes_on_below_three_chunks) {
  const auto b = fill_chunks(pair_class, 4);
  give(b[1]);
  give(b[3]);
  EXPECT_EQ(counts_of(pair_class.size), (counts{2, 0}));
  EXPECT_EQ(chunks_of(pair_class.size), made_order({b[0], b[2]}));
}

TEST_F(sweep, is_not_set_off_by_the_first_chunk) {
  const auto b = fill_chunks(pair_class, 5);
  give(b[1]);
  give(b[0]);
  EXPECT_EQ(counts_of(pair_class.size), (counts{5, 4}));
  EXPECT_EQ(chunks_of(pair_class.size)[0], pools::header_of(b[0][0]));
}

TEST_F(sweep, keeps_the_first_chunk_though_it_is_empty) {
  const auto b = fill_chunks(pair_class, 4);
  give(b[0]);
  give(b[1]);
  EXPECT_EQ(counts_of(pair_class.size), (counts{3, 2}));
  EXPECT_EQ(chunks_of(pair_class.size), made_order({b[0], b[3], b[2]}));
}

TEST_F(sweep, counts_exactly_though_the_first_chunk_is_small) {
  const auto b = fill_chunks(class_rows[0], 5);
  const counts forward[] = {{5, 2048}, {4, 2048}, {3, 2048}, {3, 67584}, {3, 133120}};
  for (size_t i = 0; i < 5; ++i) {
    give(b[i]);
    EXPECT_EQ(counts_of(16), forward[i]) << "chunk " << i;
    ASSERT_TRUE(pools::is_valid());
  }
}

TEST_F(sweep, keeps_a_reserve_though_the_first_chunk_is_small) {
  const auto b = fill_chunks(class_rows[0], 5);
  const counts backward[] = {{5, 65536}, {3, 0}, {3, 65536}, {3, 131072}, {3, 133120}};
  for (size_t i = 0; i < 5; ++i) {
    give(b[4 - i]);
    EXPECT_EQ(counts_of(16), backward[i]) << "step " << i;
    ASSERT_TRUE(pools::is_valid());
  }
}

TEST_F(sweep, unmaps_a_chunk_by_the_length_it_was_mapped_with) {
  auto b = fill_chunks(pair_class, 4);
  fake_pages::page_size(65536);
  give(b[0]);
  give(b[1]);
  EXPECT_EQ(counts_of(pair_class.size).chunks, 3);
  EXPECT_EQ(pools::live().size(), 4U + 3U);
}

// ---------------------------------------------------------------- large blocks

TEST_F(large_block, is_a_mapping_of_its_own_with_16_bytes_in_front) {
  const struct row {
    long page;
    size_t n, length, granted;
  } rows[] = {
      {4096, 4194305, 4198400, 4198384},  {4096, 4198384, 4198400, 4198384},
      {4096, 4198385, 4202496, 4202480},  {16384, 4194305, 4210688, 4210672},
      {16384, 4210673, 4227072, 4227056}, {65536, 4194305, 4259840, 4259824},
      {4096, 5000000, 5001216, 5001200},  {4096, 1048576000, 1048580096, 1048580080},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.n << " on pages of " << r.page);
    fake_pages::page_size(r.page);
    size_t got = untouched;
    void* p = get_ym_allocator()->malloc_(r.n, &got);
    EXPECT_EQ(got, r.granted);
    EXPECT_EQ(pools::live().at(offset(p, -16)), r.length);
    EXPECT_EQ(read<uint64_t>(offset(p, -16)), r.length);
    EXPECT_EQ(read<uint64_t>(offset(p, -8)), 0U);
    EXPECT_EQ(ym::allocator::usable_(p), r.granted);
    ym_free(p);
    EXPECT_EQ(pools::live().count(offset(p, -16)), 0U);
  }
}

TEST_F(large_block, is_counted_while_it_lives) {
  const auto b = take(4194305, 3);
  EXPECT_EQ(pools::all().large, 3U);
  get_ym_allocator()->free_(b[1]);
  EXPECT_EQ(pools::all().large, 2U);
  ym_free(b[0]);
  ym_free(b[2]);
  EXPECT_EQ(pools::all().large, 0U);
}

TEST_F(large_block, is_all_there_to_write) {
  size_t got = 0;
  void* p = get_ym_allocator()->malloc_(4194305, &got);
  static_cast<char*>(p)[0] = 'a';
  static_cast<char*>(p)[got - 1] = 'z';
  EXPECT_EQ(static_cast<char*>(p)[0], 'a');
  EXPECT_EQ(static_cast<char*>(p)[got - 1], 'z');
  ym_free(p);
}

TEST_F(large_block, takes_nothing_from_the_pools) {
  const snapshot before;
  ym_free(take(4194305));
  EXPECT_EQ(snapshot(), before);
}

TEST_F(large_block, is_unmapped_by_the_length_it_was_mapped_with) {
  void* p = take(4194305);
  fake_pages::page_size(65536);
  ym_free(p);
  EXPECT_EQ(pools::live().count(offset(p, -16)), 0U);
}

// ---------------------------------------------------------------- refused mappings

TEST_F(refusal, of_the_self_heaps_first_chunk_is_made_up_for_at_the_first_pool) {
  rebuild(4096, 1);
  EXPECT_EQ(pools::all().classes, 30);
  EXPECT_EQ(pools::heap_chunks().size(), 1U);
  EXPECT_EQ(self().free, 8191U - 33U);
  EXPECT_EQ(pools::live().size(), 4U);
  EXPECT_EQ(pools::granted(16), 16U);
}

TEST_F(refusal, of_a_ready_chunk_leaves_its_class_out_and_the_next_larger_serves) {
  const struct row {
    int refused;
    size_t size, next;
  } rows[] = {{2, 16, 32}, {3, 32, 64}, {4, 64, 96}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.size);
    rebuild(4096, r.refused);
    EXPECT_EQ(pools::all().classes, 29);
    EXPECT_EQ(pools::all().pool[29], nullptr);
    EXPECT_EQ(pools::granted(r.size), r.next);
    EXPECT_EQ(pools::granted(r.size + 1), r.next);
    EXPECT_EQ(pools::granted(4194304), 4194304U);
    EXPECT_TRUE(pools::is_valid());
  }
}

TEST_F(refusal, of_a_ready_chunk_gives_pool_and_descriptor_back_and_destroys_the_lock) {
  for (const int refused : {2, 3, 4}) {
    SCOPED_TRACE(refused);
    rebuild();
    std::vector<lock_event> events;
    lock_events = &events;
    rebuild(4096, refused);
    lock_events = nullptr;
    const auto destroyed =
        std::count_if(events.begin(), events.end(), [](const lock_event& e) { return e.what == 'd'; });
    EXPECT_EQ(destroyed, 31 + 1);
    EXPECT_EQ(self().free, 8191U - 29U - 2U);
    EXPECT_EQ(pools::live().size(), 3U);
  }
}

TEST_F(refusal, of_every_mapping_at_construction_ends_the_process) {
  const auto build = [] {
    g_ym_allocator.~ym_allocator_();
    fake_pages::refuse_all();
    new (&g_ym_allocator) ym_allocator_;
  };
  EXPECT_DEATH(build(), "");
}

TEST_F(refusal, of_a_pools_chunk_yields_null_and_leaves_everything_as_it_was) {
  for (const class_row& row : class_rows) {
    SCOPED_TRACE(row.size);
    for (const uint32_t n : {uint32_t{0}, row.first}) {  // no chunk yet, a full chunk
      if (n == 0 && row.size <= 64) continue;            // has its chunk
      const auto b = take(row.size, n);
      const snapshot before;
      size_t got = untouched;
      fake_pages::refuse(1);
      EXPECT_EQ(get_ym_allocator()->malloc_(row.size, &got), nullptr);
      EXPECT_EQ(got, untouched);
      EXPECT_EQ(snapshot(), before);
      fake_pages::refuse(0);
      EXPECT_EQ(pools::granted(row.size), row.size);
      give(b);
    }
  }
}

TEST_F(refusal, of_a_pools_chunk_is_the_same_without_a_granted_size) {
  fake_pages::refuse(1);
  EXPECT_EQ(take(128), nullptr);
  EXPECT_NE(take(128), nullptr);
}

TEST_F(refusal, of_a_large_block_yields_16_uncounted_and_the_granted_size_unwritten) {
  const snapshot before;
  size_t got = untouched;
  fake_pages::refuse_all();
  EXPECT_EQ(reinterpret_cast<uintptr_t>(get_ym_allocator()->malloc_(4194305, &got)), 16U);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(take(4194305)), 16U);
  EXPECT_EQ(got, untouched);
  EXPECT_EQ(snapshot(), before);
}

TEST_F(refusal, of_a_self_heap_chunk_yields_a_null_slot) {
  pools::take_slots(0);
  const snapshot before;
  fake_pages::refuse(1);
  EXPECT_EQ(ym::memheap_::operator new(56), nullptr);
  EXPECT_EQ(snapshot(), before);
  EXPECT_NE(ym::memheap_::operator new(56), nullptr);
}

TEST_F(refusal, of_a_self_heap_chunk_makes_no_object) {
  pools::take_slots(0);
  int made = 0;
  fake_pages::refuse(1);
  EXPECT_EQ(new fits(&made), nullptr);
  EXPECT_EQ(made, 0);
}

TEST_F(refusal, of_a_descriptors_memory_ends_the_process) {
  pools::take_slots(0);
  fake_pages::refuse(1);
  EXPECT_DEATH(take(128), "");
}

TEST_F(refusal, of_a_pools_chunk_gives_back_a_descriptor_that_needed_a_new_self_heap_chunk) {
  pools::take_slots(0);
  fake_pages::refuse(2);
  EXPECT_EQ(take(128), nullptr);
  EXPECT_EQ(self().free, 8191U);
  EXPECT_EQ(pool_of(128), (pools::pool{nullptr, 0, 0, 128, 8192}));
  EXPECT_NE(take(128), nullptr);
}

// kept: the system's own sign of failure is not looked for.
TEST_F(refusal, told_by_map_failed_is_taken_for_an_address) { EXPECT_DEATH(take(size_t{1} << 62), ""); }

// Blocks over several chunks, sizes and both kinds of mapping; what is refused is asked for once more.
int run_with_refusals(std::vector<void*>& blocks) {
  int refused = 0;
  for (const size_t n : std::initializer_list<size_t>{128, 1048576, 128, 1048576, 4194305, 1048576, 20000, 4194305,
                                                      1048576, 1048576, 300}) {
    size_t got = 0;
    void* p = get_ym_allocator()->malloc_(n, &got);
    if (got == 0) {
      ++refused;
      EXPECT_EQ(reinterpret_cast<uintptr_t>(p), n > 4194304 ? 16U : 0U);
      p = get_ym_allocator()->malloc_(n, &got);
    }
    EXPECT_GE(got, n);
    std::memset(p, 0x11, n);
    blocks.push_back(p);
  }
  return refused;
}

TEST_F(refusal, of_any_one_mapping_of_a_run_loses_nothing) {
  std::vector<void*> blocks;
  ASSERT_EQ(run_with_refusals(blocks), 0);
  const int mappings = fake_pages::made();
  ASSERT_EQ(mappings, 8);
  give(blocks);
  const uint64_t slots_free = self().free;
  const size_t live = pools::live().size();
  for (int i = 1; i <= mappings; ++i) {
    SCOPED_TRACE(i);
    rebuild();
    fake_pages::refuse(i);
    blocks.clear();
    EXPECT_EQ(run_with_refusals(blocks), 1);
    EXPECT_TRUE(pools::is_valid());
    give(blocks);
    EXPECT_TRUE(pools::is_valid());
    EXPECT_EQ(self().free, slots_free);
    EXPECT_EQ(pools::live().size(), live);
    EXPECT_EQ(pools::all().large, 0U);
  }
}

// ---------------------------------------------------------------- destruction

TEST_F(destruction, releases_every_mapping) {
  pools::take_slots(0);
  for (const class_row& row : class_rows) take(row.size, row.first + 1);
  EXPECT_GT(pools::heap_chunks().size(), 1U);
  g_ym_allocator.~ym_allocator_();
  EXPECT_TRUE(pools::live().empty());
  new (&g_ym_allocator) ym_allocator_;
}

TEST_F(destruction, empties_the_class_table_and_keeps_its_count) {
  g_ym_allocator.~ym_allocator_();
  const pools::table t = pools::all();
  EXPECT_EQ(t.classes, 30);
  EXPECT_TRUE(std::all_of(t.pool, t.pool + 40, [](const char* p) { return p == nullptr; }));
  EXPECT_EQ(self().free, 0U);
  new (&g_ym_allocator) ym_allocator_;
}

TEST_F(destruction, of_the_pools_gives_all_their_bookkeeping_back_to_the_self_heap) {
  for (const class_row& row : class_rows) take(row.size, row.first + 1);
  get_ym_allocator()->~allocator();
  EXPECT_EQ(self().free, 8191U);
  EXPECT_EQ(read<slots>(self().chunks).free, 8191U);
  EXPECT_EQ(pools::live().size(), 1U);
  new (get_ym_allocator()) ym::allocator;
}

TEST_F(destruction, of_the_pools_leaves_nothing_in_them_but_the_chain_of_free_slots) {
  for (const class_row& row : class_rows) take(row.size);
  const pools::table before = pools::all();
  get_ym_allocator()->~allocator();
  for (int i = 0; i < before.classes; ++i) {
    auto p = read<pools::pool>(before.pool[i]);
    p.head = nullptr;  // the slot's first word links it to the next free one
    EXPECT_EQ(p, pools::pool{}) << class_rows[i].size;
  }
  new (get_ym_allocator()) ym::allocator;
}

TEST_F(destruction, of_a_pool_looks_at_no_descriptor_that_is_back_in_the_self_heap) {
  const auto older = pools::take_slots(0);
  take(128);
  const auto newer = pools::take_slots(0);
  pools::give_slots({older[0], older[1]});
  ASSERT_EQ(ym::memheap_::operator new(56), older[1]);  // from here on the older chunk comes first
  pools::give_slots(newer);                             // and the other holds the descriptor alone
  ASSERT_EQ(pools::heap_chunks().size(), 2U);
  get_ym_allocator()->~allocator();
  EXPECT_EQ(pools::heap_chunks().size(), 1U);
  new (get_ym_allocator()) ym::allocator;
}

TEST_F(destruction, of_the_pools_may_come_before_that_of_the_whole) {
  get_ym_allocator()->~allocator();
  g_ym_allocator.~ym_allocator_();
  EXPECT_TRUE(pools::live().empty());
  new (&g_ym_allocator) ym_allocator_;
}

TEST_F(destruction, leaves_large_blocks_alone) {
  void* p = take(4194305);
  g_ym_allocator.~ym_allocator_();
  EXPECT_EQ(pools::live(), (std::map<void*, size_t>{{offset(p, -16), 4198400}}));
  std::memset(p, 1, 4194305);
  new (&g_ym_allocator) ym_allocator_;
  EXPECT_EQ(pools::all().large, 0U);
  ::munmap(offset(p, -16), 4198400);
}

TEST_F(destruction, of_a_table_that_lacks_a_class_is_as_good) {
  rebuild(4096, 2);
  g_ym_allocator.~ym_allocator_();
  EXPECT_TRUE(pools::live().empty());
  new (&g_ym_allocator) ym_allocator_;
}

// ---------------------------------------------------------------- threads

// A block that knows what it holds: size and seed in front, a pattern of the seed from there to the end.
struct stamp {
  size_t n;
  uint64_t seed;
};

void* stamped(size_t n, uint64_t seed) {
  void* p = take(n);
  const stamp s{n, seed};
  std::memcpy(p, &s, sizeof s);
  std::memset(offset(p, sizeof s), static_cast<int>(seed & 0xFF), std::min<size_t>(n - sizeof s, 512));
  static_cast<char*>(p)[n - 1] = static_cast<char>(seed);
  return p;
}

bool intact(const void* p) {
  const auto s = read<stamp>(p);
  const auto* text = static_cast<const char*>(p);
  const char* from = text + sizeof s;
  const size_t n = std::min<size_t>(s.n - sizeof s, 512);
  return text[s.n - 1] == static_cast<char>(s.seed) &&
         std::all_of(from, from + n, [&](char c) { return c == static_cast<char>(s.seed); });
}

// Sizes of every kind: mostly small, some of the middle classes, now and then a large block.
size_t some_size(std::mt19937& random) {
  const auto dice = random() % 1000;
  if (dice < 900) return 17 + random() % 1400;
  if (dice < 998) return 17 + random() % 100000;
  return 4194305;
}

// Does `work` on eight threads at a time, each with a number of its own.
template <class WORK>
void on_eight_threads(WORK work) {
  std::array<std::thread, 8> running;
  for (unsigned id = 0; id < running.size(); ++id) running.at(id) = std::thread(work, id);
  for (std::thread& t : running) t.join();
}

TEST_F(threads, allocate_and_free_each_others_blocks) {
  std::array<std::atomic<void*>, 256> market{};
  std::atomic<int> torn = 0;
  const auto retire = [&](void* p) {
    if (!p) return;
    if (!intact(p)) ++torn;
    ym_free(p);
  };
  on_eight_threads([&](unsigned id) {
    std::mt19937 random(id);
    for (int i = 0; i < 3000; ++i)
      retire(market.at(random() % market.size()).exchange(stamped(some_size(random), random())));
  });
  for (auto& place : market) retire(place.load());
  EXPECT_EQ(torn, 0);
  EXPECT_TRUE(pools::is_valid());
  EXPECT_EQ(pools::all().large, 0U);
  const snapshot end;
  for (const pools::pool& p : end.each) {
    uint32_t blocks = 0;
    for (const char* c : chunks_of(p.block_size)) blocks += read<chunk>(c).count;
    EXPECT_EQ(p.free, blocks) << p.block_size;
  }
}

TEST_F(threads, count_large_blocks_without_loss) {
  constexpr size_t each = 100;
  std::array<std::vector<void*>, 8> kept;
  on_eight_threads([&](unsigned id) { kept.at(id) = take(4194305, each); });
  EXPECT_EQ(pools::all().large, kept.size() * each);
  on_eight_threads([&](unsigned id) { give(kept.at(id)); });
  EXPECT_EQ(pools::all().large, 0U);
}

TEST_F(threads, go_through_the_sweep_at_the_same_time) {
  on_eight_threads([](unsigned) {
    for (int i = 0; i < 50; ++i) give(take(pair_class.size, 10));
  });
  EXPECT_TRUE(pools::is_valid());
  EXPECT_EQ(pool_of(pair_class.size).free, static_cast<uint32_t>(pool_of(pair_class.size).chunks) * 2);
}

}  // namespace
