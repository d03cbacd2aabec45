// One pool: layout of chunks and blocks, the order of chunks, the sweep, refused chunks.
#include "com/ymlib3/ym_alloctor"

#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ostream>

#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"
#include "tests/support/size_classes.h"

namespace {

using pools::chunk;
using pools::chunks_of;
using pools::give;
using pools::pool_of;
using pools::read;
using pools::self;
using pools::snapshot;
using pools::take;

constexpr size_t untouched = 0x5555;

// Every test starts from an unused allocator.
using layout = pools::fresh;
using pool = pools::fresh;
using sweep = pools::fresh;

// ---------------------------------------------------------------- layout

TEST_F(layout, describes_a_chunk_at_its_offsets) {
  void* p = take(128);
  const pools::list c = chunks_of(128);
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

TEST_F(layout, places_header_i_at_i_times_the_block_size_plus_8) {
  for (const size_classes::row& row : size_classes::all) {
    SCOPED_TRACE(row.size);
    const auto blocks = take(row.size, row.first);
    const pools::list c = chunks_of(row.size);
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

TEST_F(layout, preserves_the_header_of_a_freed_block) {
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

// ---------------------------------------------------------------- pool

TEST_F(pool, reuses_the_last_freed_block_first) {
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
  const pools::list c = chunks_of(409600);
  EXPECT_EQ(read<chunk>(c[0]).free, 1U);
  EXPECT_EQ(read<chunk>(c[1]).free, 10U);
}

TEST_F(pool, inserts_new_chunks_after_its_first) {
  const pools::list c = pools::made_order(pools::fill_chunks(pools::pair_class, 4));
  EXPECT_EQ(chunks_of(pools::pair_class.size), (pools::list{c[0], c[3], c[2], c[1]}));
}

TEST_F(pool, serves_from_its_first_chunk_before_later_ones) {
  const auto b = pools::fill_chunks(pools::pair_class, 3);
  ym_free(b[1][0]);
  ym_free(b[0][0]);
  ym_free(b[2][0]);
  EXPECT_EQ(take(pools::pair_class.size), b[0][0]);
  EXPECT_EQ(take(pools::pair_class.size), b[2][0]);
  EXPECT_EQ(take(pools::pair_class.size), b[1][0]);
}

TEST_F(pool, moves_the_chunk_that_served_after_the_first_while_it_has_room) {
  const auto b = pools::fill_chunks(pools::pair_class, 4);
  const pools::list c = pools::made_order(b);
  give(b[1]);
  EXPECT_EQ(take(pools::pair_class.size), b[1][1]);
  EXPECT_EQ(chunks_of(pools::pair_class.size), (pools::list{c[0], c[1], c[3], c[2]}));
}

TEST_F(pool, leaves_the_chunk_that_served_its_last_block_in_place) {
  const auto b = pools::fill_chunks(pools::pair_class, 4);
  const pools::list before = chunks_of(pools::pair_class.size);
  ym_free(b[1][0]);
  EXPECT_EQ(take(pools::pair_class.size), b[1][0]);
  EXPECT_EQ(chunks_of(pools::pair_class.size), before);
}

TEST_F(pool, leaves_the_chunk_after_the_first_in_place) {
  const auto b = pools::fill_chunks(pools::pair_class, 3);
  const pools::list before = chunks_of(pools::pair_class.size);
  give(b[2]);
  EXPECT_EQ(take(pools::pair_class.size), b[2][1]);
  EXPECT_EQ(chunks_of(pools::pair_class.size), before);
}

TEST_F(pool, never_moves_its_first_chunk) {
  const auto b = pools::fill_chunks(pools::pair_class, 3);
  const pools::list before = chunks_of(pools::pair_class.size);
  give(b[0]);
  EXPECT_EQ(take(pools::pair_class.size), b[0][1]);
  EXPECT_EQ(chunks_of(pools::pair_class.size), before);
}

TEST_F(pool, stores_the_granted_size_with_old_and_new_chunks) {
  for (int i = 0; i < 11; ++i) {
    size_t got = 0;
    get_ym_allocator()->malloc_(409600, &got);
    EXPECT_EQ(got, 409600U) << "block " << i;
  }
}

TEST_F(pool, of_one_size_works_without_the_allocator) {
  auto* p = reinterpret_cast<ym::blk_alloctor<ym::spinlock>*>(const_cast<char*>(pools::pool_at(800)));
  size_t got = 0;
  void* b = p->malloc_(&got);
  EXPECT_EQ(got, 800U);
  EXPECT_EQ(read<chunk>(pools::header_of(b)).owner, pools::pool_at(800));
  EXPECT_EQ(p->malloc_(nullptr), static_cast<char*>(b) + 808);
}

TEST_F(pool, ignores_a_null_block) {
  const snapshot before;
  get_ym_allocator()->free_(nullptr);
  ym_free(nullptr);
  EXPECT_EQ(snapshot(), before);
}

TEST_F(pool, frees_blocks_through_either_function) {
  const auto b = take(640, 2);
  get_ym_allocator()->free_(b[0]);
  ym_free(b[1]);
  EXPECT_EQ(pool_of(640).free, 51U);
}

// The text that monitoring matches.
const char* const out_of_step =
    "com/ymlib3/ym_alloctor:597: "
    "void\\* ym::blk_alloctor<LOCK>::malloc_\\(size_t\\*\\) "
    "\\[with LOCK = ym::spinlock; size_t = long unsigned int\\]: "
    "Assertion .pret != nullptr. failed\\.";

// Makes the pool count a free block that it does not have.
void claim_free(size_t size) { pools::write(pools::pool_at(size), &pools::pool::free, 1); }

TEST_F(pool, aborts_if_it_counts_a_free_block_without_a_chunk) {
  EXPECT_EXIT((claim_free(128), take(128)), testing::KilledBySignal(SIGABRT), out_of_step);
}

TEST_F(pool, aborts_if_it_counts_a_free_block_that_no_chunk_has) {
  pools::fill_chunks(pools::pair_class, 2);
  EXPECT_EXIT((claim_free(pools::pair_class.size), take(pools::pair_class.size)), testing::KilledBySignal(SIGABRT),
              out_of_step);
}

TEST_F(pool, is_invalid_if_its_counts_disagree_with_its_chunks) {
  const auto b = pools::fill_chunks(pools::pair_class, 3);
  ym_free(b[0][0]);
  const char* p = pools::pool_at(pools::pair_class.size);
  const pools::list c = chunks_of(pools::pair_class.size);
  EXPECT_TRUE(pools::is_noticed<pools::pool>(p, [](auto& s) { ++s.chunks; }));
  EXPECT_TRUE(pools::is_noticed<pools::pool>(p, [](auto& s) { --s.chunks; }));
  EXPECT_TRUE(pools::is_noticed<pools::pool>(p, [](auto& s) { ++s.free; }));
  EXPECT_TRUE(pools::is_noticed<pools::pool>(p, [](auto& s) { s.block_size += 8; }));
  EXPECT_TRUE(pools::is_noticed<pools::pool>(p, [](auto& s) { ++s.blocks; }));
  EXPECT_TRUE(pools::is_noticed<chunk>(c[1], [](auto& s) { ++s.free; }));
  EXPECT_TRUE(pools::is_noticed<chunk>(c[1], [](auto& s) { s.block_size += 8; }));
  EXPECT_TRUE(pools::is_noticed<chunk>(c[1], [](auto& s) { ++s.bump; }));
  EXPECT_TRUE(pools::is_noticed<chunk>(c[1], [](auto& s) { s.owner += 8; }));
}

TEST_F(pool, is_invalid_if_a_list_has_a_cycle) {
  const auto b = pools::fill_chunks(pools::pair_class, 3);
  ym_free(b[0][0]);
  const pools::list c = chunks_of(pools::pair_class.size);
  pools::write(c[2], &chunk::next, c[1]);
  EXPECT_FALSE(pools::is_valid());
  pools::write(c[2], &chunk::next, nullptr);
  pools::write(b[0][0], 0, b[0][0]);
  EXPECT_FALSE(pools::is_valid());
  pools::write(b[0][0], 0, nullptr);
  ym_free(b[0][1]);  // is_valid() must detect a cycle as short as the number of blocks
  pools::write(b[0][1], 0, b[0][1]);
  EXPECT_FALSE(pools::is_valid());
  pools::write(b[0][1], 0, b[0][0]);
}

TEST_F(pool, returns_null_and_changes_nothing_when_its_chunk_is_refused) {
  for (const size_classes::row& row : size_classes::all) {
    SCOPED_TRACE(row.size);
    for (const size_t n : {size_t{0}, row.first}) {  // no chunk yet, a full chunk
      if (n == 0 && row.size <= 64) continue;        // has its chunk
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

TEST_F(pool, returns_null_for_a_refused_chunk_even_without_a_granted_size) {
  fake_pages::refuse(1);
  EXPECT_EQ(take(128), nullptr);
  EXPECT_NE(take(128), nullptr);
}

TEST_F(pool, crashes_if_its_descriptor_is_refused) {
  pools::take_slots(0);
  fake_pages::refuse(1);
  EXPECT_DEATH(take(128), "");
}

TEST_F(pool, releases_the_descriptor_of_a_refused_chunk_into_a_new_self_heap_chunk) {
  pools::take_slots(0);
  fake_pages::refuse(2);
  EXPECT_EQ(take(128), nullptr);
  EXPECT_EQ(self().free, 8191U);
  EXPECT_EQ(pool_of(128), (pools::pool{nullptr, 0, 0, 128, 8192}));
  EXPECT_NE(take(128), nullptr);
}

// ---------------------------------------------------------------- sweep

struct counts {
  int chunks;
  uint32_t free;
  bool operator==(const counts&) const = default;
};
void PrintTo(const counts& c, std::ostream* out) { *out << c.chunks << " chunks, " << c.free << " free"; }

counts counts_of(size_t size) { return {pool_of(size).chunks, pool_of(size).free}; }

// Frees one block and returns the counts of the pool of pairs.
counts free_one(void* p) {
  ym_free(p);
  return counts_of(pools::pair_class.size);
}

TEST_F(sweep, releases_nothing_of_three_chunks) {
  const auto b = pools::fill_chunks(pools::pair_class, 3);
  for (const auto& of_one : b) give(of_one);
  EXPECT_EQ(counts_of(pools::pair_class.size), (counts{3, 6}));
}

TEST_F(sweep, releases_each_chunk_emptied_beyond_three) {
  const auto b = pools::fill_chunks(pools::pair_class, 5);
  const pools::list c = pools::made_order(b);
  const counts steps[] = {{5, 1}, {5, 2}, {5, 3}, {4, 2}, {4, 3}, {3, 2}, {3, 3}, {3, 4}, {3, 5}, {3, 6}};
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(free_one(b[i / 2][i % 2]), steps[i]) << "step " << i;
  EXPECT_EQ(chunks_of(pools::pair_class.size), (pools::list{c[0], c[4], c[3]}));
}

TEST_F(sweep, unmaps_the_chunk_and_releases_its_descriptor) {
  const auto b = pools::fill_chunks(pools::pair_class, 4);
  const auto c = read<chunk>(pools::header_of(b[2][0]));
  const uint64_t slots_free = self().free;
  ym_free(b[0][0]);
  give(b[2]);
  EXPECT_EQ(self().free, slots_free + 1);
  EXPECT_EQ(pools::live().count(const_cast<char*>(c.mapping)), 0U);
  const pools::list left = pools::made_order({b[0], b[3], b[1]});
  EXPECT_EQ(chunks_of(pools::pair_class.size), left);
}

TEST_F(sweep, reads_no_released_descriptor) {
  const auto b = pools::fill_chunks(pools::pair_class, 3);
  const auto older = pools::take_slots(0);
  const auto last = take(pools::pair_class.size, 2);
  const auto newer = pools::take_slots(0);
  pools::give_slots({older[0], older[1]});
  ASSERT_EQ(ym::memheap_::operator new(56), older[1]);  // now the older chunk comes first
  pools::give_slots(newer);                             // and the other holds only the descriptor
  ASSERT_EQ(pools::heap_chunks().size(), 2U);
  ym_free(b[0][0]);
  give(last);
  EXPECT_EQ(pools::heap_chunks().size(), 1U);
  EXPECT_EQ(chunks_of(pools::pair_class.size), pools::made_order({b[0], b[2], b[1]}));
}

TEST_F(sweep, retains_the_chunk_that_holds_all_free_blocks) {
  const auto b = pools::fill_chunks(pools::pair_class, 5);
  give(b[2]);
  EXPECT_EQ(counts_of(pools::pair_class.size), (counts{5, 2}));
}

TEST_F(sweep, starts_when_a_chunk_becomes_empty_and_unmaps_every_empty_one) {
  const auto b = pools::fill_chunks(pools::pair_class, 5);
  give(b[1]);  // the reserve
  EXPECT_EQ(free_one(b[3][0]), (counts{5, 3}));
  EXPECT_EQ(free_one(b[3][1]), (counts{3, 0}));
}

TEST_F(sweep, continues_below_three_chunks) {
  const auto b = pools::fill_chunks(pools::pair_class, 4);
  give(b[1]);
  give(b[3]);
  EXPECT_EQ(counts_of(pools::pair_class.size), (counts{2, 0}));
  EXPECT_EQ(chunks_of(pools::pair_class.size), pools::made_order({b[0], b[2]}));
}

TEST_F(sweep, is_not_started_by_the_first_chunk) {
  const auto b = pools::fill_chunks(pools::pair_class, 5);
  give(b[1]);
  give(b[0]);
  EXPECT_EQ(counts_of(pools::pair_class.size), (counts{5, 4}));
  EXPECT_EQ(chunks_of(pools::pair_class.size)[0], pools::header_of(b[0][0]));
}

TEST_F(sweep, retains_the_first_chunk_even_if_it_is_empty) {
  const auto b = pools::fill_chunks(pools::pair_class, 4);
  give(b[0]);
  give(b[1]);
  EXPECT_EQ(counts_of(pools::pair_class.size), (counts{3, 2}));
  EXPECT_EQ(chunks_of(pools::pair_class.size), pools::made_order({b[0], b[3], b[2]}));
}

TEST_F(sweep, counts_exactly_with_a_smaller_first_chunk) {
  const auto b = pools::fill_chunks(size_classes::all[0], 5);
  const counts forward[] = {{5, 2048}, {4, 2048}, {3, 2048}, {3, 67584}, {3, 133120}};
  for (size_t i = 0; i < 5; ++i) {
    give(b[i]);
    EXPECT_EQ(counts_of(16), forward[i]) << "chunk " << i;
    ASSERT_TRUE(pools::is_valid());
  }
}

TEST_F(sweep, retains_a_reserve_with_a_smaller_first_chunk) {
  const auto b = pools::fill_chunks(size_classes::all[0], 5);
  const counts backward[] = {{5, 65536}, {3, 0}, {3, 65536}, {3, 131072}, {3, 133120}};
  for (size_t i = 0; i < 5; ++i) {
    give(b[4 - i]);
    EXPECT_EQ(counts_of(16), backward[i]) << "step " << i;
    ASSERT_TRUE(pools::is_valid());
  }
}

TEST_F(sweep, unmaps_a_chunk_by_the_length_it_was_mapped_with) {
  auto b = pools::fill_chunks(pools::pair_class, 4);
  fake_pages::page_size(65536);
  give(b[0]);
  give(b[1]);
  EXPECT_EQ(counts_of(pools::pair_class.size).chunks, 3);
  EXPECT_EQ(pools::live().size(), 4U + 3U);
}

}  // namespace
