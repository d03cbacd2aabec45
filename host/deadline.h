// The end of a wait, if it has one.
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>
#include <optional>

using steady_clock = std::chrono::steady_clock;
using deadline = std::optional<steady_clock::time_point>;

inline bool is_past(const deadline& end) { return end && steady_clock::now() >= *end; }

/// As poll wants it: -1 for ever.
inline int milliseconds_until(const deadline& end) {
  if (!end) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - steady_clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

inline deadline earlier(const deadline& a, const deadline& b) {
  if (!a || !b) return a ? a : b;
  return std::min(*a, *b);
}
