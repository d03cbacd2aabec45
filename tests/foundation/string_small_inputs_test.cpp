// Every short sequence of string operations: the text, the capacity, the block and its bytes are those of the model.
// The sequences of all lengths are judged, so it is enough to compare after the last operation of each.
#include "com/ymlib3/ym_string"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/fake_pages.h"
#include "tests/support/size_classes.h"
#include "tests/support/small_inputs.h"
#include "tests/support/string_model.h"

namespace {

using text = ym::string_<>;

// ---------------------------------------------------------------- operations

enum class kind { append, push_back, clear, assign_text, assign_null_text, assign_other, assign_self, construct, copy };

struct op {
  kind what;
  uint64_t n = 0;  // bytes, or the capacity for construct
  bool has_capacity = false;
};

op append(uint64_t n) { return {kind::append, n}; }
op assign_text(uint64_t n) { return {kind::assign_text, n}; }
/// From another string of `n` characters; one of 0 characters is null.
op assign_other(uint64_t n) { return {kind::assign_other, n}; }
op construct(uint64_t capacity) { return {kind::construct, capacity, true}; }
constexpr op push_back{kind::push_back};
constexpr op clear{kind::clear};
constexpr op assign_null_text{kind::assign_null_text};
constexpr op assign_self{kind::assign_self};
constexpr op construct_null{kind::construct};
constexpr op copy{kind::copy};

/// What is appended. Each operation takes its bytes from another position than the previous one.
const std::string& source() {
  static const std::string bytes = [] {
    std::string s;
    for (size_t i = 0; i < 4'300'000; ++i) s += static_cast<char>('!' + i % 89);
    return s;
  }();
  return bytes;
}
const char* bytes_for(size_t step) { return source().data() + step * 5; }

// ---------------------------------------------------------------- memory

template <class T>
T read(const char* p) {
  T t;
  std::memcpy(&t, p, sizeof t);
  return t;
}

/// A string object is one pointer, to its characters.
const char* characters(const text& s) {
  static_assert(sizeof s == sizeof(char*));
  return read<const char*>(reinterpret_cast<const char*>(&s));
}
uint32_t capacity(const char* p) { return read<uint32_t>(p - 8); }
uint32_t size(const char* p) { return read<uint32_t>(p - 4); }

/// The usable size of the block: the size of its class, or of a mapping minus its 16-byte header.
uint64_t usable(const char* p) {
  const char* const block = p - 8;
  const char* const chunk = read<const char*>(block - 8);
  return chunk ? read<uint32_t>(chunk + 8) : read<uint64_t>(block - 16) - 16;
}

// ---------------------------------------------------------------- storage

/// The usable size that the pools grant, 0 for a class that is refused.
class grants {
 public:
  explicit grants(std::vector<uint64_t> refused = {}) : _refused(std::move(refused)) {}

  uint64_t operator()(uint64_t request) const {
    const uint64_t granted = size_classes::granted(request);
    return std::find(_refused.begin(), _refused.end(), granted) == _refused.end() ? granted : 0;
  }

 private:
  std::vector<uint64_t> _refused;
};

/// While it lives, the pools grant no block of these classes and map nothing.
class exhausted {
 public:
  explicit exhausted(const std::vector<uint64_t>& sizes) {
    for (const auto& c : size_classes::all) ym_free(get_ym_allocator()->malloc_(c.size, nullptr));
    fake_pages::refuse_all();
    for (const uint64_t size : sizes)
      while (void* p = get_ym_allocator()->malloc_(size, nullptr)) _taken.push_back(p);
  }
  ~exhausted() {
    fake_pages::refuse(0);
    for (void* p : _taken) ym_free(p);
  }
  exhausted(const exhausted&) = delete;
  exhausted& operator=(const exhausted&) = delete;

 private:
  std::vector<void*> _taken;
};

// ---------------------------------------------------------------- the two sides

/// The string under test. Construction and copies replace the object.
class subject {
 public:
  subject() : _s(new(_room[0].bytes) text) {}
  ~subject() { _s->~text(); }
  subject(const subject&) = delete;
  subject& operator=(const subject&) = delete;

  text& operator*() { return *_s; }

  void apply(const op& o, const char* p, const text* other) {
    switch (o.what) {
      case kind::append:
        _s->append(p, o.n);
        return;
      case kind::push_back:
        _s->push_back(*p);
        return;
      case kind::clear:
        _s->clear();
        return;
      case kind::assign_text:
        *_s = std::string(p, o.n).c_str();
        return;
      case kind::assign_null_text:
        *_s = static_cast<const char*>(nullptr);
        return;
      case kind::assign_other:
        *_s = *other;
        return;
      case kind::assign_self:
        *_s = static_cast<const text&>(*_s);
        return;
      case kind::construct:
        _s->~text();
        _s = o.has_capacity ? new (_s) text(o.n) : new (_s) text;
        return;
      case kind::copy: {
        text* const to = new (_room[_s == reinterpret_cast<text*>(_room[0].bytes) ? 1 : 0].bytes) text(*_s);
        _s->~text();
        _s = to;
        return;
      }
    }
  }

 private:
  struct alignas(text) room {
    unsigned char bytes[sizeof(text)];
  };
  std::array<room, 2> _room;
  text* _s;
};

void apply(string_model::text<const grants&>& model, const op& o, const char* p) {
  switch (o.what) {
    case kind::append:
      model.append(p, o.n);
      return;
    case kind::push_back:
      model.push_back(*p);
      return;
    case kind::clear:
      model.clear();
      return;
    case kind::assign_text:
      model.assign(std::string(p, o.n).c_str());
      return;
    case kind::assign_null_text:
      model.assign(static_cast<const char*>(nullptr));
      return;
    case kind::assign_other:
      model.assign(source().substr(0, o.n));
      return;
    case kind::assign_self:
      return;  // changes nothing
    case kind::construct:
      o.has_capacity ? model.construct(o.n) : model.construct();
      return;
    case kind::copy: {
      const std::string chars = model.chars();
      model.construct();
      model.assign(chars);
      return;
    }
  }
}

/// The bytes of a block from the characters on, up to a limit: no operation changes those after the text.
class tail {
 public:
  explicit tail(const text& s) {
    const char* const p = characters(s);
    if (!p) return;
    _length = std::min<size_t>(usable(p) - 8, sizeof _bytes);
    std::memcpy(_bytes, p, _length);
  }
  bool is_unchanged_in(const text& s) const {
    const char* const p = characters(s);
    if (!p || size(p) >= _length) return true;
    return std::memcmp(p + size(p), _bytes + size(p), _length - size(p)) == 0;
  }

 private:
  size_t _length = 0;
  char _bytes[128];
};

// ---------------------------------------------------------------- judging

class judge {
 public:
  explicit judge(std::vector<op> ops, std::vector<uint64_t> refused = {})
      : _ops(std::move(ops)), _grants(std::move(refused)) {
    for (const op& o : _ops) {
      _others.push_back(std::make_unique<text>());
      if (o.what == kind::assign_other && o.n != 0) _others.back()->append(source().data(), o.n);
    }
  }

  uint64_t all(size_t longest) {
    return small_inputs::each(_ops.size(), small_inputs::longest(longest), [this](const auto& s) { return agrees(s); });
  }

 private:
  std::vector<op> _ops;
  std::vector<std::unique_ptr<text>> _others;  // for each operation the string that it assigns
  grants _grants;

  bool agrees(const small_inputs::sequence& s) const {
    subject actual;
    string_model::text<const grants&> model(_grants);
    for (size_t step = 0; step + 1 < s.size(); ++step) run(actual, model, s[step], step);
    if (s.empty()) return same(actual, model);
    const kind last = _ops[s.back()].what;
    const tail before(*actual);
    run(actual, model, s.back(), s.size() - 1);
    const bool stale_bytes_are_unchanged =
        last == kind::construct || last == kind::copy || before.is_unchanged_in(*actual);
    if (!stale_bytes_are_unchanged) ADD_FAILURE() << "bytes after the text have changed";
    return stale_bytes_are_unchanged && same(actual, model);
  }

  void run(subject& actual, string_model::text<const grants&>& model, size_t o, size_t step) const {
    actual.apply(_ops[o], bytes_for(step), _others[o].get());
    apply(model, _ops[o], bytes_for(step));
  }

  static bool same(subject& actual, const string_model::text<const grants&>& model) {
    const std::string& chars = model.chars();
    const char* const p = characters(*actual);
    if (model.is_null()) {
      if (!p && (*actual).size() == 0 && *(*actual).c_str() == '\0') return true;
      ADD_FAILURE() << "not null, but capacity " << capacity(p) << ", size " << size(p);
      return false;
    }
    if (p && capacity(p) == model.capacity() && size(p) == chars.size() && (*actual).size() == chars.size() &&
        usable(p) == model.usable() && (*actual).c_str() == p && p[chars.size()] == '\0' &&
        std::memcmp(p, chars.data(), chars.size()) == 0)
      return true;
    ADD_FAILURE() << "expected capacity " << model.capacity() << ", block " << model.usable() << ", size "
                  << chars.size();
    if (p) ADD_FAILURE() << "found capacity " << capacity(p) << ", block " << usable(p) << ", size " << size(p);
    return false;
  }
};

// Seven characters fill a block of 16 bytes, 23 one of 32.
const std::vector<op> small = {append(0),   append(1),      append(6),      append(7),
                               append(8),   append(16),     push_back,      clear,
                               copy,        assign_text(0), assign_text(7), assign_other(0),
                               assign_self, construct(0),   construct(16),  assign_other(8)};

// Appended lengths whose new capacity is above the limit, or whose sums do not fit 32 or 64 bits.
const std::vector<op> more = {
    append(0),          append(23),      append(24),        append(2863311510), append(4294967295),
    append(4294967296), append(~0ULL),   append(~0ULL - 7), push_back,          clear,
    assign_null_text,   assign_text(23), assign_text(24),   assign_other(1),    assign_other(23),
    construct_null,     construct(7),    construct(8),      construct(256)};

// Capacity doubles up to a needed size of 15999 and grows by half above.
const std::vector<op> big = {append(0),     append(7999), append(8000), append(15998),
                             append(15999), push_back,    clear,        construct(256)};

const std::vector<op> large = {append(0), append(1), append(1'400'000), append(2'796'201), clear};

TEST(string_small_inputs, Sequences_of_6_operations_leave_the_string_of_the_model) {
  small_inputs::report("sequences of up to 6 string operations", judge(small).all(6));
}

TEST(string_small_inputs, Lengths_near_all_limits_leave_the_string_of_the_model) {
  small_inputs::report("sequences of up to 5 string operations, lengths near the limits", judge(more).all(5));
}

TEST(string_small_inputs, Lengths_near_15999_leave_the_string_of_the_model) {
  small_inputs::report("sequences of up to 6 string operations, lengths near 15999", judge(big).all(6));
}

TEST(string_small_inputs, Texts_in_large_blocks_leave_the_string_of_the_model) {
  fake_pages::page_size(4096);
  small_inputs::report("sequences of up to 3 string operations, large blocks", judge(large).all(3));
  fake_pages::page_size(0);
}

TEST(string_small_inputs, A_refused_block_leaves_the_string_of_the_model) {
  uint64_t judged = 0;
  for (const std::vector<uint64_t>& refused :
       std::vector<std::vector<uint64_t>>{{16}, {32}, {64}, {96}, {16, 32}, {32, 64}, {16, 32, 64, 96, 128, 256}}) {
    judge small_texts(small, refused), more_texts(more, refused);
    const exhausted while_judging(refused);
    judged += small_texts.all(5) + more_texts.all(4);
  }
  for (const uint64_t refused : {384U, 16384U, 24576U, 32768U, 49152U}) {
    judge big_texts(big, {refused});
    const exhausted while_judging({refused});
    judged += big_texts.all(4);
  }
  small_inputs::report("sequences of up to 5 string operations, blocks of some classes refused", judged);
}

}  // namespace
