// The JSON output functions with every string type that they support: ym::string_, std::string, and one that can only
// append.
#include "com/ymlib3/ym_json"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "com/ymlib3/ym_string"
#include "tests/support/fake_pages.h"
#include "tests/support/pools.h"

namespace {

using namespace std::string_literals;

// Can only append. Stores each piece, so that a test can check in how many steps a text was appended.
struct bare {
  std::vector<std::string> pieces;
  void push_back(char c) { pieces.emplace_back(1, c); }
  void append(const char* p, size_t n) { pieces.emplace_back(p, n); }
};

// Appending returns something, as in the string types of other libraries.
struct counting : bare {
  size_t push_back(char c) {
    bare::push_back(c);
    return pieces.size();
  }
};
struct chaining : bare {
  chaining& push_back(char c) {
    bare::push_back(c);
    return *this;
  }
  chaining& append(const char* p, size_t n) {
    bare::append(p, n);
    return *this;
  }
};

// Can reserve as well, and records the order of the calls.
struct roomy : bare {
  void reserve(size_t n) { pieces.push_back("room for " + std::to_string(n)); }
  size_t size() const {
    size_t n = 0;
    for (const std::string& piece : pieces) n += piece.size();
    return n;
  }
};

std::string written(const std::string& s) { return s; }
std::string written(const ym::string_<>& s) { return {s.c_str(), s.size()}; }
std::string written(const bare& s) {
  std::string all;
  for (const std::string& piece : s.pieces) all += piece;
  return all;
}

constexpr struct escape_row {
  const char* label;
  char c;
  const char* text;
} escape_rows[] = {
    {"backspace", 8, "\\b"},        {"tab", 9, "\\t"},
    {"newline", 10, "\\n"},         {"form feed", 12, "\\f"},
    {"carriage return", 13, "\\r"}, {"quotation mark", 34, "\\\""},
    {"slash", 47, "\\/"},           {"backslash", 92, "\\\\"},
};

const char* escape_of(char c) {
  for (const escape_row& r : escape_rows)
    if (r.c == c) return r.text;
  return nullptr;
}

// The value as it must appear in the document.
std::string escaped(std::string_view value) {
  std::string all;
  for (const char c : value) {
    if (const char* e = escape_of(c))
      all += e;
    else
      all += c;
  }
  return all;
}

template <class STR>
class json_into : public pools::fresh {};
using string_types = testing::Types<ym::string_<>, std::string, bare, counting, chaining>;
TYPED_TEST_SUITE(json_into, string_types);

using json = pools::fresh;

// ---------------------------------------------------------------- one character

TYPED_TEST(json_into, a_string_writes_the_eight_escapes) {
  for (const escape_row& r : escape_rows) {
    SCOPED_TRACE(r.label);
    TypeParam out;
    ym::outJsonEsc(r.c, out);
    EXPECT_EQ(written(out), r.text);
  }
}

TYPED_TEST(json_into, a_string_writes_every_other_byte_unchanged) {
  for (int i = 0; i < 256; ++i) {
    const auto c = static_cast<char>(i);
    if (escape_of(c)) continue;
    TypeParam out;
    ym::outJsonEsc(c, out);
    EXPECT_EQ(written(out), std::string(1, c)) << "byte " << i;
  }
}

TEST_F(json, writes_an_escape_by_two_single_characters) {
  bare out;
  ym::outJsonEsc('\n', out);
  EXPECT_EQ(out.pieces, (std::vector<std::string>{"\\", "n"}));
}

// ---------------------------------------------------------------- one member

const struct member_row {
  const char* label;
  int count;
  const char* key;
  std::string value;
  size_t len;
  std::string text;
  int count_after;
} member_rows[] = {
    {"first member", 0, "status", "stop", 4, R"("status":"stop")", 1},
    {"second member", 1, "status", "stop", 4, R"(,"status":"stop")", 2},
    {"any later member", 7, "host", "h", 1, R"(,"host":"h")", 8},
    {"length 0", 0, "key", "value", 0, "", 0},
    {"length 0 later on", 3, "key", "value", 0, "", 3},
    {"first byte zero", 0, "key", "\0abc"s, 4, "", 0},
    {"first byte zero later on", 3, "key", "\0abc"s, 4, "", 3},
    {"empty text with a length", 0, "key", "", 1, "", 0},
    {"slash and quotation mark", 0, "key", "a/b\"c", 5, R"("key":"a\/b\"c")", 1},
    {"tab and vertical tab", 0, "key", "a\tb\vc", 5, "\"key\":\"a\\tb\vc\"", 1},
    {"all escapes", 0, "key", "\b\t\n\f\r\"/\\", 8, R"("key":"\b\t\n\f\r\"\/\\")", 1},
    {"an escape as the only byte", 0, "key", "/", 1, R"("key":"\/")", 1},
    {"length shorter than the text", 0, "key", "value", 3, R"("key":"val")", 1},
    {"escape beyond the length", 0, "key", "val/e", 3, R"("key":"val")", 1},
    {"zero byte within", 0, "key", "ab\0cd"s, 5, "\"key\":\"ab\0cd\""s, 1},
    {"zero byte at the end", 0, "key", "ab\0"s, 3, "\"key\":\"ab\0\""s, 1},
    {"zero byte before an escape", 0, "key", "a\0/"s, 3, "\"key\":\"a\0\\/\""s, 1},
    {"control characters", 0, "key", "\x01\x07\x0b\x0e\x1f\x7f", 6, "\"key\":\"\x01\x07\x0b\x0e\x1f\x7f\"", 1},
    {"UTF-8", 0, "key", "\xc3\xa4\xe2\x82\xac\xff", 6, "\"key\":\"\xc3\xa4\xe2\x82\xac\xff\"", 1},
    {"UTF-8 next to an escape", 0, "key", "\xc3\xa4/\xff", 4, "\"key\":\"\xc3\xa4\\/\xff\"", 1},
    {"no key", 0, nullptr, "value", 5, R"("":"value")", 1},
    {"empty key", 2, "", "value", 5, R"(,"":"value")", 3},
    {"key left unescaped", 0, "k\"e/y\t", "value", 5, "\"k\"e/y\t\":\"value\"", 1},
    {"address as published", 0, "ip", "2001:db8::1,2001:db8::2", 23, R"("ip":"2001:db8::1,2001:db8::2")", 1},
    {"long path", 0, "ip", "/etc/ip6dns/ip6dns.conf", 23, R"("ip":"\/etc\/ip6dns\/ip6dns.conf")", 1},
};

TYPED_TEST(json_into, a_string_writes_members) {
  for (const member_row& r : member_rows) {
    SCOPED_TRACE(r.label);
    TypeParam out;
    int count = r.count;
    ym::js::out_jstring(count, r.key, r.value.c_str(), r.len, out);
    EXPECT_EQ(written(out), r.text);
    EXPECT_EQ(count, r.count_after);
  }
}

TYPED_TEST(json_into, a_string_omits_a_member_without_a_value) {
  TypeParam out;
  int count = 4;
  ym::js::out_jstring(count, "key", nullptr, 5, out);
  ym::js::out_jstring(count, "key", nullptr, 0, out);
  EXPECT_EQ(written(out), "");
  EXPECT_EQ(count, 4);
}

TYPED_TEST(json_into, a_string_joins_members_with_commas_and_no_spaces) {
  TypeParam out;
  int count = 0;
  out.push_back('{');
  ym::js::out_jstring(count, "a", "1", 1, out);
  ym::js::out_jstring(count, "b", "", 0, out);
  ym::js::out_jstring(count, "c", "/", 1, out);
  ym::js::out_jstring(count, "d", "2", 1, out);
  out.push_back('}');
  EXPECT_EQ(written(out), R"({"a":"1","c":"\/","d":"2"})");
  EXPECT_EQ(count, 3);
}

TYPED_TEST(json_into, a_string_writes_a_long_value_completely) {
  std::string value(100000, 'v');
  for (const char last : {'v', '/'}) {
    value.back() = last;
    TypeParam out;
    int count = 0;
    ym::js::out_jstring(count, std::string(1000, 'k').c_str(), value.data(), value.size(), out);
    EXPECT_TRUE(written(out) == "\"" + std::string(1000, 'k') + "\":\"" + escaped(value) + "\"");
  }
}

// Fills the stack that the next call uses with `byte`.
[[gnu::noinline]] void soil_stack(char byte) {
  volatile char room[1024];
  for (volatile char& c : room) c = byte;
}

TEST_F(json, result_does_not_depend_on_earlier_stack_contents) {
  for (const char byte : {'\0', '\x01', '\xff'}) {
    for (const size_t n : {size_t{15}, size_t{16}, size_t{17}, size_t{40}}) {
      SCOPED_TRACE(n);
      std::string value(n, 'v');
      soil_stack(byte);
      EXPECT_FALSE(ym::js::needs_escape(value.data(), n));
      value.back() = '"';
      soil_stack(byte);
      EXPECT_TRUE(ym::js::needs_escape(value.data(), n));
    }
  }
}

// The pieces in which a value is appended, without key and quotation marks.
std::vector<std::string> pieces_of(std::string_view value) {
  bare out;
  int count = 0;
  ym::js::out_jstring(count, nullptr, value.data(), value.size(), out);
  const std::string all = written(out);
  EXPECT_EQ(all, "\"\":\"" + escaped(value) + "\"");
  size_t before = 0, at = 0;
  while (before < 4) before += out.pieces.at(at++).size();
  const auto from = out.pieces.begin() + static_cast<ptrdiff_t>(at);
  return {from, out.pieces.end() - 1};
}

TEST_F(json, copies_a_value_without_escapes_in_one_piece) {
  for (size_t n = 1; n <= 70; ++n) {
    const std::string value(n, 'v');
    EXPECT_EQ(pieces_of(value), (std::vector<std::string>{value})) << n;
  }
}

TEST_F(json, finds_an_escape_at_every_position_of_a_value) {
  for (const size_t n : std::initializer_list<size_t>{1, 2, 7, 15, 16, 17, 31, 32, 33, 48, 50}) {
    for (size_t at = 0; at < n; ++at) {
      for (const escape_row& r : escape_rows) {
        std::string value(n, 'v');
        value[at] = r.c;
        ASSERT_EQ(pieces_of(value).size(), n + 1) << r.label << " at " << at << " of " << n;
      }
    }
  }
}

TEST_F(json, escapes_a_value_that_repeats_one_special_character) {
  for (const size_t n : std::initializer_list<size_t>{1, 15, 16, 17, 32, 50})
    for (const escape_row& r : escape_rows)
      EXPECT_EQ(pieces_of(std::string(n, r.c)).size(), 2 * n) << r.label << " " << n;
}

TEST_F(json, escapes_no_other_byte_at_any_position_of_a_value) {
  for (const size_t n : std::initializer_list<size_t>{1, 15, 17, 33}) {
    for (size_t at = 0; at < n; ++at) {
      for (int c = at == 0 ? 1 : 0; c < 256; ++c) {
        std::string value(n, 'v');
        value[at] = static_cast<char>(c);
        if (escape_of(value[at])) continue;
        ASSERT_EQ(pieces_of(value).size(), 1U) << "byte " << c << " at " << at << " of " << n;
      }
    }
  }
}

TEST_F(json, reads_no_byte_beyond_the_length) {
  const std::string around = "/" + std::string(40, 'v') + "/";
  for (size_t n = 1; n <= 40; ++n) {
    EXPECT_EQ(pieces_of(std::string_view(around).substr(1, n)).size(), 1U) << n;
    EXPECT_EQ(pieces_of(std::string_view(around).substr(41 - n, n)).size(), 1U) << n;
  }
}

// Memory followed by an unreadable page.
struct room_before_none {
  static constexpr size_t length = 65536;  // whole pages on every machine
  char* const begin = static_cast<char*>(std::aligned_alloc(length, 2 * length));
  room_before_none() { protect(PROT_NONE); }
  ~room_before_none() {
    protect(PROT_READ | PROT_WRITE);
    std::free(begin);
  }
  room_before_none(const room_before_none&) = delete;
  room_before_none& operator=(const room_before_none&) = delete;

  void protect(int as) const { EXPECT_EQ(mprotect(begin + length, length, as), 0); }
};

TEST_F(json, reads_a_value_that_ends_where_memory_ends) {
  const room_before_none room;
  for (size_t n = 1; n <= 70; ++n) {
    const std::string value(n, 'v');
    char* const at = room.begin + room_before_none::length - n;
    std::memcpy(at, value.data(), n);
    EXPECT_EQ(pieces_of({at, n}), (std::vector<std::string>{value})) << n;
  }
}

TEST_F(json, reserves_room_for_key_and_separator_in_one_step) {
  roomy out;
  int count = 1;
  ym::js::out_jstring(count, "key", "value", 5, out);
  const std::vector<std::string> expected = {",", "\"", "room for 8", "key", "\":\"", "value", "\""};
  EXPECT_EQ(out.pieces, expected);
}

// ---------------------------------------------------------------- refused memory

TEST_F(json, drops_text_that_gets_no_memory) {
  // Only blocks of up to 64 bytes can be allocated.
  const std::string v(200, 'v');
  const std::string k(200, 'k');
  const struct row {
    const char* label;
    std::string key, value, text;
  } rows[] = {
      {"all fits", "status", "stop", R"("status":"stop")"},
      {"value in one piece", "status", v, R"("status":"")"},
      {"value in one large piece", "status", std::string(5000000, 'v'), R"("status":"")"},
      {"key", k, "stop", R"("":"stop")"},
      {"key and value", k, v, R"("":"")"},
      {"value by characters", "status", "\t" + v, R"("status":"\t)" + std::string(43, 'v')},
      {"value in the middle of an escape", "status", v.substr(0, 44) + "\t" + v,
       R"("status":")" + std::string(44, 'v') + "\\"},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    ym::string_<> out;
    int count = 0;
    fake_pages::refuse_all();
    ym::js::out_jstring(count, r.key.c_str(), r.value.data(), r.value.size(), out);
    EXPECT_EQ(written(out), r.text);
    EXPECT_EQ(count, 1);
  }
}

TEST_F(json, drops_a_closing_quotation_mark_that_gets_no_memory) {
  const std::string before(30, 'x');
  ym::string_<> out;
  for (const char c : before) out.push_back(c);  // 55 characters fit from here
  int count = 0;
  fake_pages::refuse_all();
  ym::js::out_jstring(count, "status", "fifteen charact", 15, out);
  EXPECT_EQ(written(out), before + R"("status":"fifteen charact)");
  EXPECT_EQ(count, 1);
}

TEST_F(json, continues_if_the_first_characters_get_no_memory) {
  const auto all = pools::take(16, 2048);
  ym::string_<> out;
  int count = 1;
  fake_pages::refuse_all();
  ym::js::out_jstring(count, "status", "stop", 4, out);
  EXPECT_EQ(written(out), R"(status":"stop")");
  EXPECT_EQ(count, 2);
  pools::give(all);
}

TEST_F(json, loses_only_the_value_if_one_mapping_is_refused) {
  const std::string key(100, 'k'), value(1000, 'v');
  const std::string before = "\"" + key + "\":\"";
  const std::string texts[] = {before + value + "\"", before + value + "\"", before + "\""};
  for (int i = 0; i < 3; ++i) {  // none, the room for the key (requested again with the key), the room for the value
    SCOPED_TRACE(i);
    pools::rebuild();
    fake_pages::refuse(i);
    ym::string_<> out;
    int count = 0;
    ym::js::out_jstring(count, key.c_str(), value.data(), value.size(), out);
    EXPECT_EQ(written(out), texts[i]);
    EXPECT_EQ(count, 1);
  }
}

}  // namespace
