// An input that is read in pieces. Zeros follow its end, so every input is valid.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fuzz {

class reader {
 public:
  reader(const uint8_t* data, size_t n) : _rest(reinterpret_cast<const char*>(data), n) {}

  bool empty() const { return _rest.empty(); }

  uint8_t byte() { return static_cast<uint8_t>(number(1)); }

  /// A number of `bytes` bytes, the lowest first.
  uint64_t number(size_t bytes) {
    uint64_t n = 0;
    const std::string_view text = take(bytes);
    for (size_t i = 0; i < text.size(); ++i) n |= uint64_t{static_cast<uint8_t>(text[i])} << (8 * i);
    return n;
  }

  /// One of `choices`, by one byte.
  template <class T, size_t N>
  const T& pick(const T (&choices)[N]) {
    return choices[byte() % N];
  }

  /// The next `n` bytes, or what is left of them.
  std::string_view take(size_t n) {
    const std::string_view text = _rest.substr(0, n);
    _rest.remove_prefix(text.size());
    return text;
  }
  std::string_view rest() { return take(_rest.size()); }

 private:
  std::string_view _rest;
};

}  // namespace fuzz
