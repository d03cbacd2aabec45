// The minimal cost of a string with this growth rule: the same blocks from the minimal pool, and the same copies.
#pragma once

#include <cstdint>
#include <cstring>

#include "bench/heaps.h"

class limit_string {
 public:
  limit_string() = default;
  ~limit_string() {
    if (_p) limit_give(_p - header);
  }
  limit_string(const limit_string&) = delete;
  limit_string& operator=(const limit_string&) = delete;

  size_t size() const { return _size; }
  const char* c_str() const { return _p; }
  void push_back(char c) {
    if (_size + 1 >= _capacity) grow(_size + 1);
    _p[_size++] = c;
  }
  void append(const char* p, size_t n) {
    if (_size + n >= _capacity) grow(_size + n);
    std::memcpy(_p + _size, p, n);
    _size += n;
  }
  limit_string& operator=(const char* text) {
    const size_t n = std::strlen(text);
    _size = 0;
    if (n >= _capacity) grow(n);
    std::memcpy(_p, text, n);
    _size = n;
    return *this;
  }

 private:
  static constexpr size_t header = 8;

  char* _p = nullptr;
  size_t _size = 0;
  size_t _capacity = 0;

  [[gnu::noinline]] void grow(size_t needed) {
    const size_t capacity = needed <= 15999 ? needed * 2 : needed + needed / 2;
    const size_t block = limit_class(header + capacity + 1);
    auto* p = static_cast<char*>(limit_take(block)) + header;
    if (_p) {
      std::memcpy(p, _p, _capacity);
      limit_give(_p - header);
    }
    _p = p;
    _capacity = block - header;
  }
};
