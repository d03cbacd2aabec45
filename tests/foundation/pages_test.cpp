// Pages: how much is mapped, when the page size is read, and what the mappings are.
#include "com/ymlib3/ym_alloctor"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>

#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"
#include "tests/support/size_classes.h"

namespace {

using pools::chunk;
using pools::chunks_of;
using pools::give;
using pools::pool_of;
using pools::read;
using pools::rebuild;
using pools::self;
using pools::slots;
using pools::take;

// Every test starts from an unused allocator.
using pages = pools::fresh;
using mapping = pools::fresh;

constexpr long page_sizes[] = {4096, 16384, 65536};

uint64_t chunk_length(const size_classes::row& row, size_t blocks, long page) {
  return size_classes::whole_pages((row.size + 8) * blocks, static_cast<size_t>(page));
}

// ---------------------------------------------------------------- pages

TEST_F(pages, are_private_anonymous_and_readable_and_writable) {
  const auto protection = [](const void* p) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
      const size_t dash = line.find('-'), space = line.find(' ');
      const auto from = std::stoull(line.substr(0, dash), nullptr, 16);
      const auto to = std::stoull(line.substr(dash + 1, space), nullptr, 16);
      const auto at = reinterpret_cast<uintptr_t>(p);
      if (from <= at && at < to) return line.substr(space + 1, 20);
    }
    return std::string();
  };
  void* block = take(131072);
  void* large = take(4194305);
  EXPECT_EQ(protection(block), "rw-p 00000000 00:00 ");
  EXPECT_EQ(protection(large), "rw-p 00000000 00:00 ");
  EXPECT_EQ(fake_pages::last_descriptor(), -1) << "some systems require it";
  EXPECT_EQ(fake_pages::last_offset(), 0);
  ym_free(block);
  ym_free(large);
}

TEST_F(pages, are_mapped_in_whole_numbers_for_every_class_and_page_size) {
  for (const long page : page_sizes) {
    rebuild(page);
    for (const size_classes::row& row : size_classes::all) {
      SCOPED_TRACE(testing::Message() << "class " << row.size << " on pages of " << page);
      const auto blocks = take(row.size, row.first + 1);
      const pools::list c = chunks_of(row.size);
      ASSERT_EQ(c.size(), 2U);
      EXPECT_EQ(read<chunk>(c[0]).length, chunk_length(row, row.first, page));
      EXPECT_EQ(read<chunk>(c[1]).length, chunk_length(row, row.blocks, page));
      EXPECT_EQ(fake_pages::last_length(), read<chunk>(c[1]).length);
      give(blocks);
    }
  }
}

TEST_F(pages, round_chunks_up_to_these_lengths) {
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
    const pools::list c = chunks_of(r.size);
    EXPECT_EQ(read<chunk>(c[0]).length, r.first);
    EXPECT_EQ(read<chunk>(c[1]).length, r.later);
    EXPECT_EQ(pools::live().at(const_cast<char*>(read<chunk>(c[0]).mapping)), r.first);
    EXPECT_EQ(pools::live().at(const_cast<char*>(read<chunk>(c[1]).mapping)), r.later);
  }
}

TEST_F(pages, of_any_size_give_the_self_heap_half_a_mib) {
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

TEST_F(pages, have_their_size_queried_at_every_mapping) {
  void* a = take(4194305);
  fake_pages::page_size(65536);
  void* b = take(4194305);
  EXPECT_EQ(pools::large_header_of(a).length, 4198400U);
  EXPECT_EQ(pools::large_header_of(b).length, 4259840U);
  ym_free(a);
  ym_free(b);
}

// ---------------------------------------------------------------- mapping

// compat: no code checks for MAP_FAILED.
TEST_F(mapping, MAP_FAILED_is_treated_as_an_address) { EXPECT_DEATH(take(size_t{1} << 62), ""); }

}  // namespace
