// Every short value: the JSON output functions write what the model writes.
#include "com/ymlib3/ym_json"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "com/ymlib3/ym_string"
#include "tests/support/json_model.h"
#include "tests/support/small_inputs.h"

namespace {

using namespace std::string_view_literals;

using text = ym::string_<>;

// The eight bytes of the table, and of the others: a zero, which omits the member if it is the first byte; a control
// byte between two of the table; a letter; a byte that is negative as a char.
constexpr auto symbols = "\b\t\n\f\r\"/\\\0\va\xe9"sv;

bool same(const text& actual, std::string_view expected) {
  return actual.size() == expected.size() && std::memcmp(actual.c_str(), expected.data(), expected.size()) == 0;
}

/// Records every call separately: '1' before a character, the length in brackets before a run.
struct recorder {
  std::string calls;
  void push_back(char c) { calls += {'1', c}; }
  void append(const char* p, size_t n) { calls += '[' + std::to_string(n) + ']' + std::string(p, n); }
};

/// One member, written by the product and by the model.
bool agrees(int count, const char* key, const char* value, size_t len, std::string_view before) {
  text actual;
  if (!before.empty()) actual.append(before.data(), before.size());
  std::string expected(before);
  int actual_count = count, expected_count = count;
  ym::js::out_jstring(actual_count, key, value, len, actual);
  json_model::member(expected_count, key, value, len, expected);
  if (actual_count == expected_count && same(actual, expected)) return true;
  ADD_FAILURE() << "count " << count << ", key " << testing::PrintToString(key) << ", value "
                << (value ? testing::PrintToString(std::string(value, len)) : "null") << ", expected "
                << testing::PrintToString(expected);
  return false;
}

TEST(json_small_inputs, Values_of_5_bytes_are_written_as_by_the_model) {
  const std::array<const char*, 4> keys = {nullptr, "", "k", "a \"key\"/ of more than sixteen bytes\n"};
  std::string value;
  uint64_t judged = 0;
  small_inputs::each(symbols.size(), small_inputs::longest(5), [&](const auto& s) {
    value.clear();
    for (const uint16_t symbol : s) value += symbols[symbol];
    for (const int count : {0, 1}) {
      for (const char* key : keys) {
        ++judged;
        if (!agrees(count, key, value.data(), value.size(), count == 0 ? "{" : "")) return false;
      }
    }
    return true;
  });
  small_inputs::report("JSON members with values of up to 5 bytes, two counts, four keys", judged);
}

TEST(json_small_inputs, Null_values_write_nothing) {
  uint64_t judged = 0;
  for (const int count : {-1, 0, 1, 2}) {
    for (const size_t len : {size_t{0}, size_t{1}, size_t{5}, ~size_t{0}}) {
      ++judged;
      EXPECT_TRUE(agrees(count, "key", nullptr, len, "{"));
    }
  }
  small_inputs::report("JSON members with null values", judged);
}

TEST(json_small_inputs, A_length_shorter_than_the_text_cuts_it) {
  std::string value;
  uint64_t judged = 0;
  small_inputs::each(symbols.size(), small_inputs::longest(4), [&](const auto& s) {
    value.clear();
    for (const uint16_t symbol : s) value += symbols[symbol];
    for (size_t len = 0; len < value.size(); ++len) {
      ++judged;
      if (!agrees(1, "k", value.c_str(), len, "")) return false;
    }
    return true;
  });
  small_inputs::report("JSON members with values of up to 4 bytes, cut at each length", judged);
}

// A search for special bytes may take several at a time: two bytes at each place of a text of each length.
TEST(json_small_inputs, Special_bytes_are_found_at_each_position_of_a_longer_value) {
  uint64_t judged = 0;
  std::string value;
  for (size_t length = 2; length <= 40; ++length) {
    for (size_t at = 0; at + 2 <= length; ++at) {
      small_inputs::each(symbols.size(), small_inputs::longest(2), [&](const auto& s) {
        value.assign(length, 'a');
        for (size_t i = 0; i < s.size(); ++i) value[at + i] = symbols[s[i]];
        ++judged;
        return agrees(0, "k", value.data(), value.size(), "");
      });
    }
  }
  small_inputs::report("JSON members with values of up to 40 bytes, two of them special", judged);
}

TEST(json_small_inputs, Pairs_of_all_bytes_are_written_as_by_the_model) {
  std::string value;
  const uint64_t judged = small_inputs::each(256, small_inputs::longest(2), [&](const auto& s) {
    value.clear();
    for (const uint16_t byte : s) value += static_cast<char>(byte);
    return agrees(0, "k", value.data(), value.size(), "{");
  });
  small_inputs::report("JSON members with values of up to 2 bytes out of all 256", judged);
}

// ---------------------------------------------------------------- one call for each step

TEST(json_small_inputs, Each_character_is_escaped_as_by_the_model) {
  uint64_t judged = 0;
  for (int c = -128; c < 128; ++c) {
    recorder actual;
    ym::outJsonEsc(static_cast<char>(c), actual);
    recorder expected;
    for (const char written : json_model::escaped(static_cast<char>(c))) expected.push_back(written);
    ++judged;
    EXPECT_EQ(actual.calls, expected.calls) << "character " << c;

    text one;
    ym::outJsonEsc(static_cast<char>(c), one);
    EXPECT_TRUE(same(one, json_model::escaped(static_cast<char>(c)))) << "character " << c;
  }
  small_inputs::report("single characters", judged);
}

TEST(json_small_inputs, A_value_without_special_bytes_is_appended_in_one_piece) {
  std::string value;
  const uint64_t judged = small_inputs::each(symbols.size(), small_inputs::longest(4), [&](const auto& s) {
    value.clear();
    for (const uint16_t symbol : s) value += symbols[symbol];
    if (value.empty() || value[0] == '\0') return true;
    recorder expected;
    std::string escaped;
    for (const char c : value) escaped += json_model::escaped(c);
    if (escaped == value)
      expected.append(value.data(), value.size());
    else
      for (const char c : escaped) expected.push_back(c);
    recorder actual;
    int count = 0;
    ym::js::out_jstring(count, "k", value.data(), value.size(), actual);
    // The value and the closing quotation mark are the last that arrives.
    return actual.calls.ends_with(expected.calls + "1\"");
  });
  small_inputs::report("values of up to 4 bytes, call by call", judged);
}

}  // namespace
