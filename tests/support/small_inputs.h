// Every sequence over a small alphabet, and how many of them a test has judged.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace small_inputs {

using sequence = std::vector<uint16_t>;

/// The length of the longest sequence to enumerate: `full`, or IP6DNS_SYMBOLS of the environment if that is less.
/// Slow builds set it. Throws if it is not a number.
inline size_t longest(size_t full) {
  const char* set = std::getenv("IP6DNS_SYMBOLS");
  if (!set) return full;
  size_t end = 0;
  const unsigned long limit = std::stoul(set, &end);
  if (set[end] != '\0')
    throw std::invalid_argument(std::string("IP6DNS_SYMBOLS: expected a number, got \"") + set + '"');
  return std::min<size_t>(full, limit);
}

/// Moves to the next sequence of the same length, as an odometer does; false after the last one.
inline bool advance(sequence& s, size_t symbols) {
  for (size_t i = s.size(); i-- > 0;) {
    if (++s[i] < symbols) return true;
    s[i] = 0;
  }
  return false;
}

/// Calls judge(s) for every sequence s of at most `longest` numbers below `symbols`, the shorter ones first. Stops at
/// the first false, with a failure. Returns the number of calls.
template <class JUDGE>
uint64_t each(size_t symbols, size_t longest, JUDGE judge) {
  uint64_t judged = 0;
  for (size_t length = 0; length <= longest; ++length) {
    sequence s(length, 0);
    do {
      ++judged;
      if (judge(static_cast<const sequence&>(s))) continue;
      ADD_FAILURE() << "sequence " << testing::PrintToString(s);
      return judged;
    } while (advance(s, symbols));
  }
  return judged;
}

/// Prints how many inputs a group has judged. Fails for a group that has judged none.
inline void report(const char* group, uint64_t judged) {
  std::printf("judged %llu: %s\n", static_cast<unsigned long long>(judged), group);
  EXPECT_GT(judged, 0U) << group;
}

}  // namespace small_inputs
