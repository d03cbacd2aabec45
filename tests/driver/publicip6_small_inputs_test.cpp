// Every combination of a few values of each address byte: the filter publishes what the model publishes.
#include "driver/publicip6.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <numeric>
#include <vector>

#include "tests/support/address_model.h"
#include "tests/support/small_inputs.h"

namespace {

using address_model::address;

/// The values that each byte of an address takes.
using alphabets = std::array<std::vector<unsigned char>, 16>;

bool agrees(const address& a) {
  if (is_public_ip6(a.data()) == address_model::is_published(a)) return true;
  ADD_FAILURE() << "address " << testing::PrintToString(a);
  return false;
}

/// Judges every address of the alphabets; returns how many, up to the first disagreement.
uint64_t judge_all(const alphabets& values) {
  std::array<size_t, 16> chosen{};
  address a{};
  for (size_t i = 0; i < a.size(); ++i) a[i] = values[i][0];
  for (uint64_t judged = 1;; ++judged) {
    if (!agrees(a)) return judged;
    size_t i = 0;
    for (; i < a.size(); ++i) {
      if (++chosen[i] < values[i].size()) break;
      chosen[i] = 0;
      a[i] = values[i][0];
    }
    if (i == a.size()) return judged;
    a[i] = values[i][chosen[i]];
  }
}

std::vector<unsigned char> all_values() {
  std::vector<unsigned char> all(256);
  std::iota(all.begin(), all.end(), static_cast<unsigned char>(0));
  return all;
}

alphabets each_byte(const std::vector<unsigned char>& values) {
  alphabets all;
  all.fill(values);
  return all;
}

TEST(publicip6_small_inputs, Two_values_of_each_byte_are_judged_as_by_the_model) {
  uint64_t judged = 0;
  for (const auto& values : std::initializer_list<std::vector<unsigned char>>{
           {0, 0x01}, {0, 0x02}, {0, 0x7f}, {0, 0x80}, {0, 0xfe}, {0, 0xff}, {1, 0xff}, {0xfe, 0xff}})
    judged += judge_all(each_byte(values));
  small_inputs::report("addresses with two values of each of the 16 bytes", judged);
}

// The values at which a test of the filter changes its result, and one more on either side.
TEST(publicip6_small_inputs, The_boundary_values_of_each_byte_are_judged_as_by_the_model) {
  alphabets values = each_byte({0, 1});
  values[0] = {0, 1, 0x20, 0x7f, 0xfc, 0xfd, 0xfe, 0xff};
  values[1] = {0, 1, 0x7f, 0x80, 0xbf, 0xc0, 0xff};
  values[10] = {0, 1, 0x7f, 0xfe, 0xff};
  values[11] = {0, 1, 0x7f, 0xfe, 0xff};
  if (small_inputs::longest(7) == 7) {
    values[12] = values[13] = values[14] = {0, 1, 0xff};
    values[15] = {0, 1, 2, 0x80, 0xff};
  } else {
    std::fill(values.begin() + 3, values.begin() + 9, std::vector<unsigned char>{0});
  }
  small_inputs::report("addresses with the boundary values of each byte", judge_all(values));
}

TEST(publicip6_small_inputs, All_values_of_two_bytes_are_judged_as_by_the_model) {
  uint64_t judged = 0;
  const std::vector<unsigned char> all = all_values();
  for (const auto& rest : std::initializer_list<std::vector<unsigned char>>{{0x00}, {0x01}, {0xff}}) {
    for (size_t first = 0; first < 16; ++first) {
      for (size_t second = first + 1; second < 16; ++second) {
        if (small_inputs::longest(7) < 7 && second != first + 1) continue;
        alphabets values = each_byte(rest);
        values[first] = values[second] = all;
        judged += judge_all(values);
      }
    }
  }
  small_inputs::report("addresses with all values of two bytes, the others 0, 1 or 255", judged);
}

TEST(publicip6_small_inputs, All_values_of_two_bytes_after_a_mapped_prefix_are_judged_as_by_the_model) {
  uint64_t judged = 0;
  const std::vector<unsigned char> all = all_values();
  for (size_t first = 0; first < 16; ++first) {
    alphabets values = each_byte({0});
    values[10] = values[11] = {0xff};
    values[first] = all;
    values[15] = all;
    judged += judge_all(values);
  }
  small_inputs::report("IPv4-mapped addresses with all values of two bytes", judged);
}

}  // namespace
