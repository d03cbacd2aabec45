// The one object and the C library's heap: construction and destruction.
#include "com/ymlib3/ym_alloctor"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <map>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/fake_locks.h"
#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"
#include "tests/support/size_classes.h"

namespace {

// The first calls of mallopt. Recorded while the program loads, so this must not need construction.
constinit std::array<std::pair<int, int>, 8> tunings{};
constinit size_t tuned = 0;

}  // namespace

extern "C" int mallopt(int parameter, int value) noexcept {
  if (tuned < tunings.size()) tunings.at(tuned++) = {parameter, value};
  return reinterpret_cast<decltype(&mallopt)>(dlsym(RTLD_NEXT, "mallopt"))(parameter, value);
}

namespace {

using pools::chunk;
using pools::pool_of;
using pools::read;
using pools::rebuild;
using pools::self;
using pools::slots;
using pools::take;

// Every test starts from an unused allocator.
using startup = pools::fresh;
using destruction = pools::fresh;

// ---------------------------------------------------------------- startup

TEST_F(startup, limits_the_c_library_heap_to_one_arena_then_sets_thresholds_of_one_mib) {
  ASSERT_EQ(tuned, 3U);
  EXPECT_EQ(tunings[0], std::pair(-8, 1));
  EXPECT_EQ(tunings[1], std::pair(-3, 1048576));
  EXPECT_EQ(tunings[2], std::pair(-1, 1048576));
  static_assert(std::is_empty_v<ym_glibc_noarena>);
  static_assert(std::is_trivially_destructible_v<ym_glibc_noarena>);
}

TEST_F(startup, getters_return_the_parts_of_the_one_object) {
  EXPECT_EQ(static_cast<void*>(get_ym_alloctor_self()), static_cast<void*>(&g_ym_allocator));
  EXPECT_EQ(reinterpret_cast<const char*>(get_ym_allocator()), pools::at(offsetof(pools::object, allocator)));
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
    SCOPED_TRACE(size_classes::all[i].size);
    const bool ready = i < 3;
    const auto p = read<pools::pool>(t.pool[i]);
    EXPECT_EQ(p.block_size, size_classes::all[i].size);
    EXPECT_EQ(p.blocks, size_classes::all[i].blocks);
    EXPECT_EQ(p.chunks, ready ? 1 : 0);
    EXPECT_EQ(p.free, ready ? size_classes::all[i].first : 0U);
    EXPECT_EQ(p.head != nullptr, ready);
  }
}

TEST_F(startup, prepares_chunks_without_allocating_a_block) {
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(size_classes::all[i].size);
    const auto c = read<chunk>(pool_of(size_classes::all[i].size).head);
    EXPECT_EQ(c.free, size_classes::all[i].first);
    EXPECT_EQ(c.count, size_classes::all[i].first);
    EXPECT_EQ(c.bump, 0U);
    EXPECT_EQ(c.freed, nullptr);
    EXPECT_EQ(c.next, nullptr);
  }
}

TEST_F(startup, initialises_one_process_private_lock_per_pool_and_one_for_the_self_heap) {
  fake_locks::recording recording;
  rebuild();
  const auto events = recording.stop();
  const auto times = [&](char what) {
    return std::count_if(events.begin(), events.end(), [=](const fake_locks::event& e) { return e.what == what; });
  };
  EXPECT_EQ(times('d'), 31);
  EXPECT_EQ(times('i'), 31);
  EXPECT_EQ(times('s'), 0);
  EXPECT_EQ(times('+'), times('-'));
}

TEST_F(startup, maps_a_refused_self_heap_chunk_again_for_the_first_pool) {
  rebuild(4096, 1);
  EXPECT_EQ(pools::all().classes, 30);
  EXPECT_EQ(pools::heap_chunks().size(), 1U);
  EXPECT_EQ(self().free, 8191U - 33U);
  EXPECT_EQ(pools::live().size(), 4U);
  EXPECT_EQ(pools::granted(16), 16U);
}

TEST_F(startup, omits_a_class_whose_first_chunk_is_refused) {
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

TEST_F(startup, releases_pool_and_descriptor_and_lock_of_an_omitted_class) {
  for (const int refused : {2, 3, 4}) {
    SCOPED_TRACE(refused);
    rebuild();
    fake_locks::recording recording;
    rebuild(4096, refused);
    const auto events = recording.stop();
    const auto destroyed =
        std::count_if(events.begin(), events.end(), [](const fake_locks::event& e) { return e.what == 'd'; });
    EXPECT_EQ(destroyed, 31 + 1);
    EXPECT_EQ(self().free, 8191U - 29U - 2U);
    EXPECT_EQ(pools::live().size(), 3U);
  }
}

TEST_F(startup, crashes_if_every_mapping_is_refused) {
  const auto build = [] {
    g_ym_allocator.~ym_allocator_();
    fake_pages::refuse_all();
    new (&g_ym_allocator) ym_allocator_;
  };
  EXPECT_DEATH(build(), "");
}

// ---------------------------------------------------------------- destruction

TEST_F(destruction, releases_every_mapping) {
  pools::take_slots(0);
  for (const size_classes::row& row : size_classes::all) take(row.size, row.first + 1);
  EXPECT_GT(pools::heap_chunks().size(), 1U);
  g_ym_allocator.~ym_allocator_();
  EXPECT_TRUE(pools::live().empty());
  new (&g_ym_allocator) ym_allocator_;
}

TEST_F(destruction, clears_the_class_table_but_not_its_count) {
  g_ym_allocator.~ym_allocator_();
  const pools::table t = pools::all();
  EXPECT_EQ(t.classes, 30);
  EXPECT_TRUE(std::all_of(t.pool, t.pool + 40, [](const char* p) { return p == nullptr; }));
  EXPECT_EQ(self().free, 0U);
  new (&g_ym_allocator) ym_allocator_;
}

TEST_F(destruction, of_the_pools_returns_their_bookkeeping_to_the_self_heap) {
  for (const size_classes::row& row : size_classes::all) take(row.size, row.first + 1);
  get_ym_allocator()->~allocator();
  EXPECT_EQ(self().free, 8191U);
  EXPECT_EQ(read<slots>(self().chunks).free, 8191U);
  EXPECT_EQ(pools::live().size(), 1U);
  new (get_ym_allocator()) ym::allocator;
}

TEST_F(destruction, of_the_pools_leaves_only_the_chain_of_free_slots) {
  for (const size_classes::row& row : size_classes::all) take(row.size);
  const pools::table before = pools::all();
  get_ym_allocator()->~allocator();
  for (int i = 0; i < before.classes; ++i) {
    auto p = read<pools::pool>(before.pool[i]);
    p.head = nullptr;  // the slot's first word links it to the next free one
    EXPECT_EQ(p, pools::pool{}) << size_classes::all[i].size;
  }
  new (get_ym_allocator()) ym::allocator;
}

TEST_F(destruction, of_a_pool_reads_no_released_descriptor) {
  const auto older = pools::take_slots(0);
  take(128);
  const auto newer = pools::take_slots(0);
  pools::give_slots({older[0], older[1]});
  ASSERT_EQ(ym::memheap_::operator new(56), older[1]);  // now the older chunk comes first
  pools::give_slots(newer);                             // and the other holds only the descriptor
  ASSERT_EQ(pools::heap_chunks().size(), 2U);
  get_ym_allocator()->~allocator();
  EXPECT_EQ(pools::heap_chunks().size(), 1U);
  new (get_ym_allocator()) ym::allocator;
}

TEST_F(destruction, of_the_pools_can_precede_that_of_the_whole) {
  get_ym_allocator()->~allocator();
  g_ym_allocator.~ym_allocator_();
  EXPECT_TRUE(pools::live().empty());
  new (&g_ym_allocator) ym_allocator_;
}

TEST_F(destruction, leaves_large_blocks_alone) {
  void* p = take(4194305);
  g_ym_allocator.~ym_allocator_();
  EXPECT_EQ(pools::live(), (std::map<void*, size_t>{{pools::mapping_of(p), 4198400}}));
  std::memset(p, 1, 4194305);
  new (&g_ym_allocator) ym_allocator_;
  EXPECT_EQ(pools::all().large, 0U);
  ::munmap(pools::mapping_of(p), 4198400);
}

TEST_F(destruction, releases_every_mapping_even_if_a_class_is_missing) {
  rebuild(4096, 2);
  g_ym_allocator.~ym_allocator_();
  EXPECT_TRUE(pools::live().empty());
  new (&g_ym_allocator) ym_allocator_;
}

}  // namespace
