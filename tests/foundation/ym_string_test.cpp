// The string's representation: the pointer, the header before the characters and the block are read from raw memory,
// because c_str() would write into it.
#include "com/ymlib3/ym_string"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"

namespace {

using pools::snapshot;
using string = pools::fresh;
using text = ym::string_<>;

static_assert(sizeof(text) == sizeof(char*));
static_assert(noexcept(text()) && noexcept(text(size_t{256})) && noexcept(std::declval<text&>().push_back('a')));
static_assert(noexcept(std::declval<text&>().append("a", 1)) && noexcept(std::declval<text&>() = "a"));

constexpr size_t limit = 4294967263;        // the largest new capacity
constexpr size_t last_needed = 2863311509;  // grows to the limit exactly
constexpr size_t header_bytes = 8;
constexpr uint64_t four_gib = 0x100000000;

// What a string is in memory; all 0 when it has no block.
struct header {
  uint32_t capacity;
  uint32_t size;
  bool operator==(const header&) const = default;
};
void PrintTo(const header& h, std::ostream* out) { *out << "capacity " << h.capacity << " size " << h.size; }

char* raw(const text& s) { return pools::read<char*>(&s); }
header head(const text& s) { return raw(s) ? pools::read<header>(raw(s) - header_bytes) : header{0, 0}; }
void set_head(const text& s, header h) { pools::write(raw(s) - header_bytes, 0, h); }

// The characters held, zeros included; writes no terminator.
std::string held(const text& s) { return raw(s) ? std::string(raw(s), head(s).size) : std::string(); }

// The usable size of the block that holds the string.
size_t block(const text& s) {
  if (!raw(s)) return 0;
  if (const char* c = pools::header_of(raw(s) - header_bytes)) return pools::read<pools::chunk>(c).block_size;
  return pools::read<uint64_t>(raw(s) - header_bytes - 16) - 16;
}

void add(text& s, std::string_view more) { s.append(more.data(), more.size()); }

// Appends more characters than exist. The compiler must know neither length, or it warns.
void claim(text& s, size_t n) {
  const char* volatile p = "";
  const volatile size_t claimed = n;
  s.append(p, claimed);
}

// A string in a block of `block` usable bytes whose header states a capacity of only `capacity`.
struct modest : text {
  modest(size_t room, uint32_t capacity, uint32_t size) : text(room) {
    std::memset(raw(*this), 'm', size);
    set_head(*this, {capacity, size});
  }
};

// Everything that a refused write must not change.
struct portrait {
  const char* p;
  header h;
  std::string held;
  snapshot pools;

  explicit portrait(const text& s) : p(raw(s)), h(head(s)), held(::held(s)) {}
  bool operator==(const portrait&) const = default;
};
void PrintTo(const portrait& p, std::ostream* out) {
  PrintTo(p.h, out);
  *out << " at " << static_cast<const void*>(p.p) << " with " << p.pools.live.size() << " mappings";
}

// ---------------------------------------------------------------- construction

TEST_F(string, has_no_block_until_something_is_written) {
  const snapshot before;
  const text s;
  EXPECT_EQ(raw(s), nullptr);
  EXPECT_EQ(s.size(), 0U);
  EXPECT_STREQ(s.c_str(), "");
  EXPECT_EQ(snapshot(), before);
}

TEST_F(string, of_an_initial_capacity_allocates_its_block_at_once) {
  const struct row {
    size_t n, block;
    uint32_t capacity;
  } rows[] = {
      {0, 16, 8},
      {7, 16, 8},
      {8, 32, 24},
      {23, 32, 24},
      {24, 64, 56},
      {256, 384, 376},
      {15999, 16384, 16376},
      {16376, 20480, 20472},
      {4194295, 4194304, 4194296},
      {4194296, 4198384, 4198376},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.n);
    const text s(r.n);
    EXPECT_EQ(block(s), r.block);
    EXPECT_EQ(head(s), (header{r.capacity, 0}));
    EXPECT_EQ(s.size(), 0U);
    EXPECT_STREQ(s.c_str(), "");
  }
}

TEST_F(string, of_the_largest_capacity_spans_four_gib) {
  const text s(limit);
  EXPECT_EQ(fake_pages::last_length(), four_gib);
  EXPECT_EQ(head(s), (header{0xFFFFFFE8, 0}));
}

TEST_F(string, of_more_than_the_largest_capacity_has_no_block) {
  for (const size_t n : {limit + 1, size_t{four_gib}, SIZE_MAX - 8, SIZE_MAX}) {
    SCOPED_TRACE(n);
    const snapshot before;
    const text s(n);
    EXPECT_EQ(raw(s), nullptr);
    EXPECT_EQ(snapshot(), before);
  }
}

TEST_F(string, of_an_initial_capacity_that_cannot_be_allocated_has_no_block) {
  for (const size_t n : {size_t{256}, size_t{5000000}, limit}) {
    SCOPED_TRACE(n);
    const snapshot before;
    fake_pages::refuse_all();
    const text s(n);
    fake_pages::refuse(0);
    EXPECT_EQ(raw(s), nullptr);
    EXPECT_EQ(s.size(), 0U);
    EXPECT_EQ(snapshot(), before);
  }
}

TEST_F(string, can_be_written_after_its_initial_capacity_was_refused) {
  fake_pages::refuse(1);
  text s(256);
  add(s, "abc");
  EXPECT_STREQ(s.c_str(), "abc");
}

TEST_F(string, releases_its_block_when_it_is_destroyed) {
  const uint32_t before = pools::pool_of(32).free;
  {
    text s;
    add(s, "seven c");
    EXPECT_EQ(pools::pool_of(32).free, before - 1);
  }
  EXPECT_EQ(pools::pool_of(32).free, before);
  {
    const text s(5000000);
    EXPECT_EQ(pools::all().large, 1U);
  }
  EXPECT_EQ(pools::all().large, 0U);
}

// ---------------------------------------------------------------- growth

TEST_F(string, filled_by_characters_grows_in_these_steps) {
  const struct row {
    uint32_t from;  // the character that moves it there
    size_t block;
    uint32_t capacity;
  } rows[] = {{1, 16, 8},      {8, 32, 24},     {24, 64, 56},     {56, 128, 120},
              {120, 256, 248}, {248, 512, 504}, {504, 1024, 1016}};
  text s;
  std::string model;
  for (uint32_t n = 1; n <= 600; ++n) {
    const auto c = static_cast<char>('a' + n % 26);
    s.push_back(c);
    model.push_back(c);
    const row* r =
        std::find_if(std::rbegin(rows), std::rend(rows), [=](const row& x) { return x.from <= n; }).base() - 1;
    ASSERT_EQ(block(s), r->block) << n;
    ASSERT_EQ(head(s), (header{r->capacity, n}));
    ASSERT_EQ(held(s), model);
  }
}

TEST_F(string, of_seven_characters_uses_one_block_of_16_bytes) {
  text s;
  s.push_back('1');
  const char* p = raw(s);
  for (const char c : {'2', '3', '4', '5', '6', '7'}) s.push_back(c);
  EXPECT_EQ(raw(s), p);
  EXPECT_EQ(pools::pool_of(16).free, 2047U);
  s.push_back('8');
  EXPECT_EQ(block(s), 32U);
  EXPECT_EQ(pools::pool_of(16).free, 2048U);
  EXPECT_STREQ(s.c_str(), "12345678");
}

TEST_F(string, grows_to_twice_the_need_up_to_15999_and_by_half_from_there) {
  const struct row {
    size_t n, block;
    uint32_t capacity;
  } rows[] = {
      {1, 16, 8},
      {3, 16, 8},
      {4, 32, 24},
      {11, 32, 24},
      {12, 64, 56},
      {15999, 32768, 32760},
      {16000, 24576, 24568},
      {16001, 24576, 24568},
      {16378, 24576, 24568},  // 24567: half of an odd number, rounded down
      {16379, 32768, 32760},
      {3145728, 4722672, 4722664},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.n);
    const std::string model(r.n, 'x');
    text s;
    add(s, model);
    EXPECT_EQ(block(s), r.block);
    EXPECT_EQ(head(s), (header{r.capacity, static_cast<uint32_t>(r.n)}));
    EXPECT_EQ(held(s), model);
  }
}

TEST_F(string, grows_for_its_whole_new_text) {
  text s;
  add(s, std::string(15990, 'a'));
  add(s, std::string(16760, 'b'));
  EXPECT_EQ(block(s), 32768U) << "full except for the one byte that is always free";
  EXPECT_EQ(head(s), (header{32760, 32750}));
  add(s, std::string(10, 'c'));
  EXPECT_EQ(head(s), (header{49144, 32760}));
}

TEST_F(string, fills_all_of_its_block_except_one_byte_without_moving) {
  text s(256);
  const char* p = raw(s);
  add(s, std::string(375, 'a'));
  EXPECT_EQ(raw(s), p);
  EXPECT_EQ(head(s), (header{376, 375}));
  EXPECT_EQ(std::strlen(s.c_str()), 375U);
  s.push_back('b');
  EXPECT_NE(raw(s), p);
  EXPECT_EQ(head(s), (header{792, 376}));
}

TEST_F(string, copies_the_whole_old_block_when_it_moves) {
  text s(256);
  std::memset(raw(s), 'o', 376);
  set_head(s, {376, 3});
  add(s, std::string(400, 'n'));
  EXPECT_EQ(block(s), 1024U);
  EXPECT_EQ(held(s), "ooo" + std::string(400, 'n'));
  EXPECT_EQ(pools::pool_of(384).free, 85U) << "the old block is free";
}

TEST_F(string, copies_the_bytes_after_its_characters_when_it_moves) {
  modest s(256, 4, 3);
  std::memset(raw(s), 'o', 376);
  add(s, std::string(200, 'n'));
  EXPECT_EQ(block(s), 512U);
  EXPECT_EQ(std::string(raw(s), 376), "ooo" + std::string(200, 'n') + std::string(173, 'o'));
}

TEST_F(string, moves_from_pool_to_mapping_and_from_mapping_to_mapping) {
  text s;
  std::string model(4000000, 'a');
  add(s, model);
  EXPECT_EQ(pools::all().large, 1U);
  for (const char c : {'b', 'c', 'd'}) {
    model.append(3000000, c);
    add(s, std::string(3000000, c));
    EXPECT_EQ(pools::all().large, 1U);
    EXPECT_EQ(held(s), model);
  }
  EXPECT_EQ(head(s).size, 13000000U);
}

// ---------------------------------------------------------------- growth in place

TEST_F(string, growing_in_place_records_the_requested_size) {
  modest s(256, 8, 7);
  const char* p = raw(s);
  s.push_back('x');
  EXPECT_EQ(raw(s), p);
  EXPECT_EQ(block(s), 384U);
  EXPECT_EQ(head(s), (header{17, 8}));
  EXPECT_EQ(held(s), "mmmmmmmx");
}

TEST_F(string, stays_in_its_block_while_the_aligned_request_fits) {
  const struct row {
    const char* label;
    size_t room;
    header before;
    size_t n;
    header after;
    bool moved;
  } rows[] = {
      {"one character", 16, {8, 7}, 1, {17, 8}, false},
      {"31 bytes aligned to a block of 32", 16, {8, 7}, 4, {23, 11}, false},
      {"33 bytes aligned to 40", 16, {8, 7}, 5, {56, 12}, true},
      {"a request of a whole class", 256, {24, 23}, 164, {375, 187}, false},
      {"two bytes more than a class", 256, {24, 23}, 165, {504, 188}, true},
      {"half as much again in a large block", 5000000, {17000, 16990}, 10, {25501, 17000}, false},
      {"exactly a large block", 4194296, {101, 100}, 2798817, {4198376, 2798917}, false},
      {"more than a large block", 4194296, {101, 100}, 2798818, {4202472, 2798918}, true},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    modest s(r.room, r.before.capacity, r.before.size);
    const char* p = raw(s);
    add(s, std::string(r.n, 'n'));
    EXPECT_EQ(raw(s) != p, r.moved);
    EXPECT_EQ(head(s), r.after);
    EXPECT_EQ(held(s), std::string(r.before.size, 'm') + std::string(r.n, 'n'));
  }
}

TEST_F(string, needs_no_memory_to_grow_in_place) {
  modest s(5000000, 8, 7);
  fake_pages::refuse_all();
  add(s, std::string(1000000, 'n'));
  EXPECT_EQ(head(s), (header{1500011, 1000007}));
}

// ---------------------------------------------------------------- limits

TEST_F(string, grows_up_to_the_largest_capacity) {
  text s;
  fake_pages::refuse_all();
  claim(s, last_needed);
  EXPECT_EQ(fake_pages::last_length(), four_gib);
  EXPECT_EQ(raw(s), nullptr);
}

TEST_F(string, refuses_to_grow_beyond_the_largest_capacity) {
  for (const size_t n : {last_needed + 1, size_t{2863311531}, size_t{3000000000}, limit, limit + 1, size_t{0xFFFFFFFF},
                         size_t{four_gib}, size_t{four_gib} + 1, SIZE_MAX / 3 * 2, SIZE_MAX - 1}) {
    SCOPED_TRACE(n);
    text empty;
    text s;
    s.push_back('a');
    const portrait before(s);
    const int made = fake_pages::made();
    claim(s, n);
    claim(empty, n);
    EXPECT_EQ(portrait(s), before);
    EXPECT_EQ(raw(empty), nullptr);
    EXPECT_EQ(fake_pages::made(), made) << "no memory was requested";
  }
}

TEST_F(string, grows_by_one_character_up_to_the_largest_capacity_and_no_further) {
  text s(limit);  // four GiB of which three pages are touched
  set_head(s, {last_needed, last_needed - 1});
  s.push_back('z');
  EXPECT_EQ(head(s), (header{limit + 1, last_needed}));
  EXPECT_EQ(raw(s)[last_needed - 1], 'z');
  set_head(s, {last_needed + 1, last_needed});
  s.push_back('z');
  EXPECT_EQ(head(s), (header{last_needed + 1, last_needed}));
  EXPECT_EQ(raw(s)[last_needed], 0);
}

TEST_F(string, computes_sizes_in_64_bits) {
  text s(limit);
  set_head(s, {0xFFFFFFE8, 0xFFFFFFE0});
  for (const size_t n : {size_t{8}, size_t{0x20}, size_t{0x21}, size_t{0xFFFFFFFF}}) {
    SCOPED_TRACE(n);
    claim(s, n);
    EXPECT_EQ(head(s), (header{0xFFFFFFE8, 0xFFFFFFE0}));
  }
  add(s, "seven c");
  EXPECT_EQ(head(s), (header{0xFFFFFFE8, 0xFFFFFFE7}));
  s.push_back('x');
  EXPECT_EQ(head(s), (header{0xFFFFFFE8, 0xFFFFFFE7}));
}

TEST_F(string, is_unchanged_if_old_and_new_size_wrap_around_64_bits) {
  text s;
  add(s, "abc");
  const portrait before(s);
  claim(s, SIZE_MAX - 2);
  EXPECT_EQ(portrait(s), before);
}

// ---------------------------------------------------------------- nothing appended, cleared

TEST_F(string, appending_nothing_to_a_string_without_a_block_allocates_none) {
  const snapshot before;
  text s;
  s.append("abc", 0);
  s.append(nullptr, 0);
  EXPECT_EQ(raw(s), nullptr);
  EXPECT_EQ(snapshot(), before);
}

TEST_F(string, appending_nothing_to_an_empty_string_releases_its_block) {
  text s(256);
  s.append("abc", 0);
  EXPECT_EQ(raw(s), nullptr);
  EXPECT_EQ(pools::pool_of(384).free, 85U);
  EXPECT_EQ(s.size(), 0U);
  EXPECT_STREQ(s.c_str(), "");
  add(s, "on");
  EXPECT_STREQ(s.c_str(), "on");
}

TEST_F(string, appending_nothing_to_a_cleared_string_releases_its_block) {
  text s;
  add(s, "abc");
  s.clear();
  s.append(nullptr, 0);
  EXPECT_EQ(raw(s), nullptr);
  EXPECT_EQ(pools::pool_of(16).free, 2048U);
}

TEST_F(string, appending_nothing_to_a_filled_string_changes_nothing) {
  text s;
  add(s, "1234567");
  for (const char* p : {"abc", static_cast<const char*>(nullptr)}) {
    const portrait before(s);
    s.append(p, 0);
    EXPECT_EQ(portrait(s), before);
  }
}

TEST_F(string, clear_retains_the_block_and_its_bytes) {
  text s;
  add(s, "abcdefgh");
  const char* p = raw(s);
  s.clear();
  EXPECT_EQ(s.size(), 0U);
  EXPECT_EQ(raw(s), p);
  EXPECT_EQ(head(s), (header{24, 0}));
  EXPECT_EQ(std::string(p, 8), "abcdefgh");
  EXPECT_STREQ(s.c_str(), "");
  EXPECT_EQ(std::string(p + 1, 7), "bcdefgh");
}

TEST_F(string, clear_without_a_block_allocates_none) {
  text s;
  s.clear();
  EXPECT_EQ(raw(s), nullptr);
}

TEST_F(string, refilled_settles_at_its_largest_capacity) {
  text s;
  add(s, std::string(300, 'a'));
  const portrait full(s);
  for (int i = 0; i < 3; ++i) {
    s.clear();
    add(s, "short");
    s.clear();
    add(s, std::string(300, 'a'));
    EXPECT_EQ(portrait(s), full);
  }
}

// ---------------------------------------------------------------- terminator

// Leaves characters in a block of 16 bytes that the next string reuses.
void soil_block() {
  const text s(7);
  std::memset(raw(s), 'x', 8);
}

TEST_F(string, is_terminated_only_by_c_str) {
  soil_block();
  text s;
  add(s, "abc");
  EXPECT_EQ(std::string(raw(s), 8), "abcxxxxx");
  EXPECT_STREQ(s.c_str(), "abc");
  EXPECT_EQ(std::string(raw(s) + 3, 5), std::string("\0xxxx", 5));
  s.push_back('d');
  EXPECT_EQ(std::string(raw(s), 8), "abcdxxxx");
  s.clear();
  EXPECT_EQ(std::string(raw(s), 8), "abcdxxxx");
}

TEST_F(string, is_terminated_even_in_a_full_block) {
  soil_block();
  text s;
  for (const char c : {'1', '2', '3', '4', '5', '6', '7'}) s.push_back(c);
  EXPECT_EQ(raw(s)[7], 'x');
  EXPECT_STREQ(s.c_str(), "1234567");
}

TEST_F(string, c_str_returns_the_characters) {
  text s;
  add(s, "abc");
  EXPECT_EQ(s.c_str(), raw(s));
}

// A large block is a separate mapping, so that it can be write-protected.
void protect(const text& s, int protection) {
  char* mapping = raw(s) - header_bytes - 16;
  ASSERT_EQ(::mprotect(mapping, pools::read<uint64_t>(mapping), protection), 0);
}

TEST_F(string, writes_no_terminator_over_an_existing_zero) {
  text s(5000000);
  add(s, "abc");
  protect(s, PROT_READ);
  EXPECT_STREQ(s.c_str(), "abc");
  protect(s, PROT_READ | PROT_WRITE);
}

TEST_F(string, writes_the_terminator_even_into_a_const_string) {
  text s(5000000);
  std::memset(raw(s), 'x', 100);
  add(s, "abc");
  protect(s, PROT_READ);
  EXPECT_DEATH(std::as_const(s).c_str(), "");
  protect(s, PROT_READ | PROT_WRITE);
  EXPECT_STREQ(std::as_const(s).c_str(), "abc");
}

// ---------------------------------------------------------------- bytes

TEST_F(string, stores_every_byte_unchanged) {
  std::string model;
  for (int c = 0; c < 256; ++c) model.push_back(static_cast<char>(c));
  text appended, pushed;
  add(appended, model);
  for (const char c : model) pushed.push_back(c);
  EXPECT_EQ(held(appended), model);
  EXPECT_EQ(held(pushed), model);
  EXPECT_EQ(appended.size(), 256U);
}

TEST_F(string, appends_and_assigns_texts_of_every_length_exactly) {
  const std::string all = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJ";
  for (size_t n = 1; n <= 40; ++n) {
    SCOPED_TRACE(n);
    const std::string part = all.substr(3, n);
    text s(size_t{100});
    add(s, "<");
    std::memset(raw(s) + 1, '#', 60);
    s.append(all.data() + 3, n);
    EXPECT_EQ(held(s), "<" + part);
    EXPECT_EQ(std::string(raw(s) + 1 + n, 20), std::string(20, '#'));
    s = part.c_str();
    EXPECT_EQ(held(s), part);
  }
}

TEST_F(string, appends_and_assigns_parts_of_itself_of_every_length) {
  const std::string alphabet = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJ";
  for (size_t n = 1; n <= alphabet.size(); ++n) {
    const std::string all = alphabet.substr(0, n);
    for (size_t from = 0; from < n; ++from) {
      SCOPED_TRACE(testing::Message() << "from " << from << " of " << n);
      text s;
      add(s, all);
      s = s.c_str() + from;
      EXPECT_EQ(held(s), all.substr(from));
    }
  }
}

TEST_F(string, appends_its_own_characters) {
  const struct row {
    const char* label;
    size_t from, n;
  } rows[] = {{"all", 0, 7}, {"front", 0, 3}, {"middle", 2, 3}, {"last", 6, 1}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    text roomy(256), tight;
    modest modestly(256, 8, 0);
    add(roomy, "1234567");
    for (const char c : {'1', '2', '3', '4', '5', '6', '7'}) tight.push_back(c);
    add(modestly, "1234567");
    for (text* s : std::initializer_list<text*>{&roomy, &tight, &modestly}) {
      s->append(raw(*s) + r.from, r.n);
      EXPECT_EQ(held(*s), "1234567" + std::string("1234567").substr(r.from, r.n));
    }
  }
}

// The old mapping is unmapped when the string moves.
TEST_F(string, appends_its_own_terminator_when_it_must_move) {
  text s;
  // Full, and larger than the largest class: moving unmaps what it moves from.
  while (size_t{head(s).size} + 1 < head(s).capacity || block(s) <= (1U << 22)) add(s, "m");
  const std::string before = held(s);
  const char* end = s.c_str() + s.size();
  s.append(end, 1);
  EXPECT_TRUE(held(s) == before + std::string(1, '\0'));
}

TEST_F(string, can_append_itself_in_every_kind_of_block) {
  text s;
  std::string model = "ab";
  add(s, model);
  while (model.size() < 8000000) {
    s.append(s.c_str(), s.size());
    model += model;
    ASSERT_TRUE(held(s) == model) << model.size();
  }
}

// ---------------------------------------------------------------- assignment

TEST_F(string, assigned_from_text_holds_that_text) {
  text s;
  s = "first and long";
  const char* p = raw(s);
  EXPECT_STREQ(s.c_str(), "first and long");
  s = "second";
  EXPECT_STREQ(s.c_str(), "second");
  EXPECT_EQ(raw(s), p);
  EXPECT_EQ(&(s = "third"), &s);
}

TEST_F(string, assigned_from_text_reuses_its_block_while_one_byte_stays_free) {
  for (const uint32_t n : {1U, 2U, 374U, 375U}) {
    SCOPED_TRACE(n);
    text s(256);
    const char* p = raw(s);
    s = std::string(n, 'a').c_str();
    EXPECT_EQ(raw(s), p);
    EXPECT_EQ(head(s), (header{376, n}));
  }
  text s(256);
  s = std::string(376, 'a').c_str();
  EXPECT_EQ(head(s), (header{792, 376}));
}

TEST_F(string, assigned_from_null_or_empty_text_is_empty_and_retains_its_block) {
  for (const char* t : {static_cast<const char*>(nullptr), ""}) {
    text s, none;
    s = "abc";
    const char* p = raw(s);
    s = t;
    none = t;
    EXPECT_EQ(head(s), (header{8, 0}));
    EXPECT_EQ(raw(s), p);
    EXPECT_EQ(raw(none), nullptr);
  }
}

TEST_F(string, assigned_from_its_own_text_is_unchanged) {
  text s;
  s = "0123456789";
  s = s.c_str();
  EXPECT_STREQ(s.c_str(), "0123456789");
  s = raw(s) + 4;
  EXPECT_STREQ(s.c_str(), "456789");
}

TEST_F(string, assigned_from_a_string_holds_its_characters_including_zeros) {
  text from, to;
  add(from, std::string_view("a\0b", 3));
  to = from;
  EXPECT_EQ(held(to), std::string("a\0b", 3));
  EXPECT_NE(raw(to), raw(from));
  EXPECT_EQ(held(from), std::string("a\0b", 3));
  EXPECT_EQ(&(to = from), &to);
}

TEST_F(string, assigned_from_a_string_reuses_a_block_that_is_large_enough) {
  text from, to(256);
  add(from, std::string(300, 'a'));
  const char* p = raw(to);
  to = from;
  EXPECT_EQ(raw(to), p);
  EXPECT_EQ(head(to), (header{376, 300}));
}

TEST_F(string, assigned_from_a_string_grows_when_it_must) {
  text from, to;
  add(from, std::string(300, 'a'));
  add(to, "b");
  to = from;
  EXPECT_EQ(held(to), held(from));
  EXPECT_EQ(head(to), (header{632, 300}));
  EXPECT_EQ(pools::pool_of(16).free, 2048U);
}

TEST_F(string, assigned_from_an_empty_string_is_empty_and_retains_its_block) {
  const text without, with(256);
  for (const text* from : {&without, &with}) {
    text s, none;
    s = "abc";
    s = *from;
    none = *from;
    EXPECT_EQ(head(s), (header{8, 0}));
    EXPECT_EQ(raw(none), nullptr);
  }
}

TEST_F(string, assigned_to_itself_is_unchanged) {
  text s, none;
  s = "abc";
  const text& same = s;
  const text& nothing = none;
  s = same;
  none = nothing;
  EXPECT_STREQ(s.c_str(), "abc");
  EXPECT_EQ(raw(none), nullptr);
}

TEST_F(string, copied_is_independent_of_the_original) {
  text s;
  add(s, std::string_view("a\0b", 3));
  const text copy(s);
  s.push_back('c');
  EXPECT_EQ(held(copy), std::string("a\0b", 3));
  const text none;
  const text copy_of_none(none);  // NOLINT(performance-unnecessary-copy-initialization): the copy is what is tested
  EXPECT_EQ(raw(copy_of_none), nullptr);
}

TEST_F(string, a_copied_string_has_the_capacity_of_one_append) {
  const struct {
    size_t size;
    uint32_t capacity;
  } rows[] = {{1, 8}, {7, 24}, {8, 24}, {20, 56}, {100, 248}, {1000, 2040}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    text s(5000);
    add(s, std::string(row.size, 'x'));
    const text copy(s);
    EXPECT_EQ(head(copy), (header{row.capacity, static_cast<uint32_t>(row.size)}));
  }
}

// ---------------------------------------------------------------- comparison

TEST_F(string, equals_a_string_of_the_same_text) {
  const struct row {
    const char* label;
    std::string_view a, b;
    bool equal;
  } rows[] = {
      {"same", "abc", "abc", true},
      {"both empty", "", "", true},
      {"one empty", "abc", "", false},
      {"other case", "abc", "abC", false},
      {"beginning of the other", "abc", "abcd", false},
      {"different after a zero", {"a\0b", 3}, {"a\0cd", 4}, true},
      {"different before a zero", {"a\0b", 3}, {"b\0b", 3}, false},
      {"a zero against an end", {"a\0b", 3}, "a", true},
      {"nothing but a zero", {"\0", 1}, "", true},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    text a, b;
    add(a, r.a);
    add(b, r.b);
    EXPECT_EQ(a == b, r.equal);
    EXPECT_EQ(b == a, r.equal);
    EXPECT_EQ(a != b, !r.equal);
    EXPECT_TRUE(a == a);
  }
}

TEST_F(string, without_a_block_equals_an_empty_one_with_a_block) {
  const text without, with(256);
  EXPECT_TRUE(without == with);
  EXPECT_TRUE(with == without);
}

// ---------------------------------------------------------------- room and length set by hand

TEST_F(string, truncate_drops_the_characters_after_the_new_end) {
  const struct row {
    size_t n;
    const char* left;
  } rows[] = {{0, ""}, {2, "ab"}, {3, "abc"}, {4, "abc"}, {SIZE_MAX, "abc"}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.n);
    text s, none;
    add(s, "abc");
    const char* p = raw(s);
    s.truncate(r.n);
    none.truncate(r.n);
    EXPECT_EQ(held(s), r.left);
    EXPECT_EQ(raw(s), p);
    EXPECT_EQ(raw(none), nullptr);
  }
}

TEST_F(string, reserving_grows_by_the_same_rule_and_preserves_the_text) {
  text s, none;
  none.reserve(0);
  EXPECT_EQ(raw(none), nullptr);
  add(s, "abc");
  s.reserve(7);
  EXPECT_EQ(head(s), (header{8, 3}));
  s.reserve(8);
  EXPECT_EQ(head(s), (header{24, 3}));
  s.reserve(16000);
  EXPECT_EQ(head(s), (header{24568, 3}));
  EXPECT_EQ(held(s), "abc");
}

TEST_F(string, reserving_too_much_changes_nothing) {
  text s;
  add(s, "abc");
  const portrait before(s);
  s.reserve(last_needed + 1);
  s.reserve(SIZE_MAX);
  for (const size_t round : {1U, 2U, 20U})
    s.reserve(SIZE_MAX / 3 * 2 + round);  // one and a half times this wraps around to a small number
  fake_pages::refuse_all();
  s.reserve(100);
  s.reserve(5000000);
  EXPECT_EQ(portrait(s), before);
}

// ---------------------------------------------------------------- refused memory

TEST_F(string, is_unchanged_if_there_is_no_memory_to_grow) {
  const struct row {
    const char* label;
    size_t size, n;
  } rows[] = {
      {"from a pool to a pool", 55, 1},
      {"from a pool to a pool by many", 20, 100},
      {"from a pool to a large block", 20, 4000000},
      {"from a large block to a large block", 3145728, 4000000},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    text s;
    for (size_t i = 0; i < r.size; ++i) s.push_back(static_cast<char>('a' + i % 26));
    set_head(s, {static_cast<uint32_t>(r.size + 1), static_cast<uint32_t>(r.size)});
    const portrait before(s);
    const std::string more(r.n, 'n');
    fake_pages::refuse_all();
    add(s, more);
    EXPECT_EQ(portrait(s), before);
    fake_pages::refuse(0);
    add(s, more);
    EXPECT_EQ(held(s), before.held + more);
  }
}

TEST_F(string, drops_a_character_that_gets_no_memory) {
  text s;
  for (int i = 0; i < 55; ++i) s.push_back('a');
  const portrait before(s);
  fake_pages::refuse(1);
  s.push_back('b');
  EXPECT_EQ(portrait(s), before);
  s.push_back('c');
  EXPECT_EQ(held(s), std::string(55, 'a') + 'c');
}

TEST_F(string, without_a_block_has_none_after_a_refused_allocation) {
  const auto all = pools::take(16, 2048);
  text s;
  fake_pages::refuse_all();
  s.push_back('a');
  add(s, std::string(100, 'b'));
  add(s, std::string(5000000, 'c'));
  s = "0123456789012345678901234567890123456789";
  EXPECT_EQ(raw(s), nullptr);
  EXPECT_STREQ(s.c_str(), "");
  fake_pages::refuse(0);
  pools::give(all);
}

TEST_F(string, is_empty_if_an_assigned_text_gets_no_memory) {
  text s;
  s = "abc";
  fake_pages::refuse_all();
  s = std::string(100, 'x').c_str();
  EXPECT_EQ(head(s), (header{8, 0}));
}

TEST_F(string, is_empty_if_an_assigned_string_gets_no_memory) {
  text s, other;
  s = "abc";
  other = std::string(100, 'x').c_str();
  const auto all = pools::take(256, pools::pool_of(256).free);
  fake_pages::refuse_all();
  s = other;
  EXPECT_EQ(head(s), (header{8, 0}));
  EXPECT_STREQ(s.c_str(), "");
  fake_pages::refuse(0);
  pools::give(all);
}

// Pieces that need four mappings in all; a piece whose size before and after is the same was dropped.
std::string written(text& s, int* dropped) {
  std::string model;
  for (const size_t n : std::initializer_list<size_t>{10, 100, 1000, 20, 60000, 5, 5000000}) {
    const std::string piece(n, static_cast<char>('a' + n % 26));
    const size_t before = s.size();
    add(s, piece);
    if (s.size() == before)
      ++*dropped;
    else
      model += piece;
  }
  return model;
}

TEST_F(string, lacks_only_the_part_that_got_no_memory) {
  int dropped = 0;
  {
    text s;
    written(s, &dropped);
    ASSERT_EQ(dropped, 0);
  }
  const int mappings = fake_pages::made();
  ASSERT_EQ(mappings, 4);
  for (int i = 1; i <= mappings; ++i) {
    SCOPED_TRACE(i);
    pools::rebuild();
    fake_pages::refuse(i);
    dropped = 0;
    text s;
    const std::string model = written(s, &dropped);
    EXPECT_EQ(dropped, 1);
    EXPECT_EQ(s.size(), model.size());
    EXPECT_TRUE(held(s) == model);
    EXPECT_TRUE(pools::is_valid());
  }
}

// ---------------------------------------------------------------- model

// One random write to both; the model's rule for an empty append is checked above.
void step(std::mt19937& random, text& s, std::string& model) {
  const std::string piece(random() % 5 == 0 ? random() % 3000 : random() % 20, static_cast<char>(random() % 256));
  switch (random() % 10) {
    case 0:
      s.clear();
      return model.clear();
    case 1: {
      const size_t n = random() % (model.size() + 5);
      s.truncate(n);
      return model.resize(std::min(n, model.size()));
    }
    case 2:
      s = piece.c_str();
      model = piece.c_str();  // NOLINT(readability-redundant-string-cstr): cut at a zero like the text
      return;
    case 3:
    case 4:
    case 5:
      s.push_back('p');
      return model.push_back('p');
    default:
      add(s, piece);
      model += piece;
  }
}

TEST_F(string, behaves_like_the_standard_string_in_random_writes) {
  std::mt19937 random(1);
  text s;
  std::string model;
  for (int i = 0; i < 20000; ++i) {
    step(random, s, model);
    ASSERT_EQ(s.size(), model.size()) << i;
    ASSERT_TRUE(held(s) == model) << i;
    if (!raw(s)) continue;
    ASSERT_LT(head(s).size, head(s).capacity) << i;
    ASSERT_LE(head(s).capacity + header_bytes, block(s)) << i;
  }
}

}  // namespace
