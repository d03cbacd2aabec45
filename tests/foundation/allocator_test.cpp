// The allocator: size classes, large blocks, refused mappings, threads.
#include "com/ymlib3/ym_alloctor"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <ostream>
#include <random>
#include <vector>

#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"
#include "tests/support/size_classes.h"
#include "tests/support/threads.h"

namespace {

using pools::chunk;
using pools::chunks_of;
using pools::give;
using pools::pool_of;
using pools::read;
using pools::rebuild;
using pools::self;
using pools::snapshot;
using pools::take;

constexpr size_t untouched = 0x5555;

// Every test starts from an unused allocator.
using size_class = pools::fresh;
using large_block = pools::fresh;
using allocator = pools::fresh;
using threads = pools::fresh;

// ---------------------------------------------------------------- size class

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
  for (size_t i = 0; i + 1 < size_classes::count; ++i) {
    const size_t size = size_classes::all[i].size, next = size_classes::all[i + 1].size;
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

TEST_F(size_class, is_the_same_without_a_granted_size) {
  for (const size_classes::row& row : size_classes::all) {
    SCOPED_TRACE(row.size);
    void* p = take(row.size);
    EXPECT_EQ(ym::allocator::usable_(p), row.size);
    EXPECT_EQ(read<chunk>(pools::header_of(p)).owner, pools::pool_at(row.size));
    ym_free(p);
  }
}

TEST_F(size_class, maps_a_small_first_chunk_and_later_ones_in_full) {
  for (const size_classes::row& row : size_classes::all) {
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

// ---------------------------------------------------------------- large block

TEST_F(large_block, has_its_length_and_a_zero_before_the_user_area) {
  void* p = take(5000000);
  EXPECT_EQ(pools::large_header_of(p).length, 5001216U);
  EXPECT_EQ(pools::large_header_of(p).zero, 0U);
  EXPECT_EQ(pools::live().at(pools::mapping_of(p)), 5001216U);
  ym_free(p);
}

TEST_F(large_block, is_a_separate_mapping_with_a_header_of_16_bytes) {
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
    EXPECT_EQ(pools::live().at(pools::mapping_of(p)), r.length);
    EXPECT_EQ(pools::large_header_of(p).length, r.length);
    EXPECT_EQ(pools::large_header_of(p).zero, 0U);
    EXPECT_EQ(ym::allocator::usable_(p), r.granted);
    ym_free(p);
    EXPECT_EQ(pools::live().count(pools::mapping_of(p)), 0U);
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

TEST_F(large_block, is_writable_to_its_end) {
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
  EXPECT_EQ(pools::live().count(pools::mapping_of(p)), 0U);
}

TEST_F(large_block, is_the_address_16_when_its_mapping_is_refused) {
  const snapshot before;
  size_t got = untouched;
  fake_pages::refuse_all();
  EXPECT_EQ(reinterpret_cast<uintptr_t>(get_ym_allocator()->malloc_(4194305, &got)), 16U);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(take(4194305)), 16U);
  EXPECT_EQ(got, untouched);
  EXPECT_EQ(snapshot(), before);
}

// ---------------------------------------------------------------- allocator

// Blocks over several chunks, sizes and both kinds of mapping; each refused request is repeated.
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

TEST_F(allocator, loses_nothing_when_any_one_mapping_is_refused) {
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

// ---------------------------------------------------------------- threads

// A block with known contents: size and seed at the start, then a pattern that depends on the seed.
struct stamp {
  size_t n;
  uint64_t seed;
};

void* stamped(size_t n, uint64_t seed) {
  void* p = take(n);
  const stamp s{n, seed};
  std::memcpy(p, &s, sizeof s);
  std::memset(static_cast<char*>(p) + sizeof s, static_cast<int>(seed & 0xFF), std::min<size_t>(n - sizeof s, 512));
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

// Mostly small sizes, some of the middle classes, and a few large blocks.
size_t some_size(std::mt19937& random) {
  const auto dice = random() % 1000;
  if (dice < 900) return 17 + random() % 1400;
  if (dice < 998) return 17 + random() % 100000;
  return 4194305;
}

TEST_F(threads, can_free_blocks_of_other_threads) {
  std::array<std::atomic<void*>, 256> market{};
  std::atomic<int> torn = 0;
  const auto retire = [&](void* p) {
    if (!p) return;
    if (!intact(p)) ++torn;
    ym_free(p);
  };
  in_threads(8, [&](size_t id) {
    std::mt19937 random(static_cast<unsigned>(id));
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
  std::array<std::vector<void*>, 8> live;
  in_threads(live.size(), [&](size_t id) { live.at(id) = take(4194305, each); });
  EXPECT_EQ(pools::all().large, live.size() * each);
  in_threads(live.size(), [&](size_t id) { give(live.at(id)); });
  EXPECT_EQ(pools::all().large, 0U);
}

TEST_F(threads, sweep_at_the_same_time) {
  in_threads(8, [](size_t) {
    for (int i = 0; i < 50; ++i) give(take(pools::pair_class.size, 10));
  });
  EXPECT_TRUE(pools::is_valid());
  EXPECT_EQ(pool_of(pools::pair_class.size).free, static_cast<uint32_t>(pool_of(pools::pair_class.size).chunks) * 2);
}

}  // namespace
