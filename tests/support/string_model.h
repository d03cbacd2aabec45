// The growth rule of strings, written only from its description: after each operation the model knows the text, the
// capacity and the usable size of the block. Tests compare the string type with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

namespace string_model {

/// `GRANT`: the usable size of the block that the allocator returns for a request; 0 if it refuses.
template <class GRANT>
class text {
 public:
  explicit text(GRANT grant) : _grant(std::move(grant)) {}

  bool is_null() const { return !_has_block; }
  const std::string& chars() const { return _chars; }
  uint64_t capacity() const { return _capacity; }
  /// Of the block; 0 without one.
  uint64_t usable() const { return _usable; }

  void construct() { release(); }

  void construct(uint64_t capacity) {
    release();
    take_block(capacity);
  }

  void clear() { _chars.clear(); }

  void push_back(char c) { grow_and_append(&c, 1); }

  void append(const char* p, uint64_t n) {
    if (_chars.empty() && n == 0) {  // comes before the question whether there is room
      release();
      return;
    }
    grow_and_append(p, n);
  }

  void assign(const char* p) {
    clear();
    if (p && *p != '\0') append(p, std::strlen(p));
  }

  void assign(const std::string& other) {
    clear();
    if (!other.empty()) append(other.data(), other.size());
  }

 private:
  static constexpr uint64_t max_capacity = 4294967263;

  void grow_and_append(const char* p, uint64_t n) {
    if (n > max_capacity) return;  // the new capacity would be too; avoids sums of 2^64 and more
    const uint64_t needed = _chars.size() + n;
    if (!_has_block || needed > _capacity - 1) {
      const uint64_t capacity = needed <= 15999 ? needed * 2 : needed + needed / 2;
      if (capacity > max_capacity) return;
      if (!(_has_block ? reallocate(capacity) : take_block(capacity))) return;
    }
    _chars.append(p, n);
  }

  static uint64_t aligned(uint64_t request) {
    const uint64_t up = (request + 7) / 8 * 8;
    return up < 16 ? 16 : up;
  }

  bool take_block(uint64_t capacity) {
    const uint64_t granted = _grant(aligned(capacity + 9));
    if (granted == 0) return false;
    _has_block = true;
    _usable = granted;
    _capacity = granted - 8;
    _chars.clear();
    return true;
  }

  bool reallocate(uint64_t capacity) {
    const uint64_t request = capacity + 9;
    if (_usable >= aligned(request)) {
      _capacity = request - 8;
      return true;
    }
    const uint64_t granted = _grant(aligned(request));
    if (granted == 0) return false;
    _usable = granted;
    _capacity = granted - 8;
    return true;
  }

  void release() {
    _has_block = false;
    _usable = _capacity = 0;
    _chars.clear();
  }

  GRANT _grant;
  bool _has_block = false;
  uint64_t _usable = 0, _capacity = 0;
  std::string _chars;
};

}  // namespace string_model
