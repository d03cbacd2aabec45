// Test texts, the same in every run.
#pragma once

#include <cstdint>
#include <random>
#include <string>

constexpr uint32_t seed = 20231107;

/// `n` lower-case letters.
inline std::string letters(size_t n) {
  std::mt19937 random(seed);
  std::string text(n, ' ');
  for (char& c : text) c = static_cast<char>('a' + random() % 26);
  return text;
}

/// A few characters and the length: enough to check the text, and too fast to affect the time.
inline uint64_t sample(const char* p, size_t n) {
  if (n == 0) return 0;
  return n << 24 | static_cast<uint64_t>(p[0] & 0xff) << 16 | static_cast<uint64_t>(p[n / 2] & 0xff) << 8 |
         static_cast<uint64_t>(p[n - 1] & 0xff);
}
