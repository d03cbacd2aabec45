// Sequences of operations on two strings, compared with std::string for their contents and with the growth rule for
// their blocks.
//   input: steps, each: what | its numbers and bytes
#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "com/ymlib3/ym_string"
#include "tests/fuzz/reader.h"
#include "tests/fuzz/target.h"
#include "tests/support/fake_pages.h"
#include "tests/support/size_classes.h"

namespace {

using fuzz::require;

constexpr size_t largest = size_t{5} << 20;     // of a string: above the largest class
constexpr uint64_t most_capacity = 4294967263;  // anything above is refused
constexpr uint64_t first_refused = 2863311510;  // characters, by that rule

// ---------------------------------------------------------------- the rules

/// The model of a string.
class model {
 public:
  std::string text;
  size_t capacity = 0;
  size_t block = 0;  // usable bytes, 0 for none

  /// Appends `n` bytes; `bytes` may be null if they are refused. `refused`: new mappings fail.
  void append(const char* bytes, uint64_t n, bool refused) {
    if (text.empty() && n == 0) return release();
    if (n > most_capacity || !reserve(text.size() + n, refused)) return;
    text.append(bytes, n);
  }

  /// Whether there is room for `needed` characters now.
  bool reserve(uint64_t needed, bool refused) {
    if (block != 0 ? needed <= capacity - 1 : needed == 0) return true;
    if (needed > most_capacity) return false;
    return allot(needed <= 15999 ? needed * 2 : needed + needed / 2, refused);
  }

  bool allot(uint64_t new_capacity, bool refused) {
    if (new_capacity > most_capacity) return false;
    const uint64_t request = new_capacity + 9;
    const uint64_t aligned = std::max<uint64_t>(16, (request + 7) & ~uint64_t{7});
    if (block >= aligned) {
      capacity = request - 8;
      return true;
    }
    if (refused) return false;
    block = size_classes::granted(aligned);
    capacity = block - 8;
    return true;
  }

  void release() { capacity = block = 0; }
};

// ---------------------------------------------------------------- what there is

// The string's pointer, and the header before it.
const char* characters_of(const ym::string_<>& s) {
  const char* p;
  std::memcpy(&p, static_cast<const void*>(&s), sizeof p);
  return p;
}

struct header {
  uint32_t capacity, size;
};
header header_of(const char* characters) {
  header h;
  std::memcpy(&h, characters - sizeof h, sizeof h);
  return h;
}

void check(const ym::string_<>& s, const model& m) {
  const char* p = characters_of(s);
  require(s.size() == m.text.size(), "a string has the size of its text");
  require((p != nullptr) == (m.block != 0), "a string has a block if the model has one");
  if (!p) return;
  require(header_of(p).size == m.text.size(), "the size is stored before the characters");
  require(header_of(p).capacity == m.capacity, "the capacity follows the growth rule");
  require(ym::allocator::usable_(p - sizeof(header)) == m.block, "the block is of the class that the rule requires");
  const size_t n = std::min<size_t>(m.text.size(), 4096), tail = m.text.size() - n;
  require(std::memcmp(p, m.text.data(), n) == 0, "a string begins with what was written");
  require(std::memcmp(p + tail, m.text.data() + tail, n) == 0, "and ends with it");
}

// ---------------------------------------------------------------- steps

// The source of long appends.
const std::string& material() {
  static const std::string text = [] {
    std::string s(largest, 0);
    uint32_t x = 1;
    for (char& c : s) c = static_cast<char>((x = x * 1664525 + 1013904223) >> 24U);
    return s;
  }();
  return text;
}

class trial {
 public:
  trial() { restart(); }
  ~trial() {
    for (_i = 0; _i < 2; ++_i) compare();
    restart();
  }
  trial(const trial&) = delete;
  trial& operator=(const trial&) = delete;

  void step(fuzz::reader& in);

 private:
  ym::string_<> _strings[2];
  model _models[2];
  size_t _bytes = 0;  // processed so far

  // This step's.
  size_t _i = 0;         // the string
  bool _refuse = false;  // mappings?
  bool _other = false;   // the step's second kind

  ym::string_<>& s() { return _strings[_i]; }
  model& m() { return _models[_i]; }

  /// Whether there is time for a step that processes `n` bytes.
  bool affords(size_t n) {
    _bytes += n;
    return n < 4096 || _bytes < 2 * largest;
  }

  // Blocks must not contain bytes of earlier inputs.
  void restart() {
    for (ym::string_<>& each : _strings) {
      each.~string_();
      new (&each) ym::string_<>;
    }
    g_ym_allocator.~ym_allocator_();
    new (&g_ym_allocator) ym_allocator_;
  }

  /// Calls `f` on the string: whether a mapping was refused.
  bool on_string(auto f) {
    const fake_pages::refusal refusal(_refuse);
    f(s());
    return refusal.has_refused();
  }

  void push_back(char c) {
    const bool refused = on_string([&](auto& t) { t.push_back(c); });
    m().append(&c, 1, refused);
  }
  void push_back_many(size_t n) {
    for (size_t k = 0; k < n; ++k) push_back(material()[k]);
  }
  void append(std::string_view bytes) {
    if (m().text.size() + bytes.size() > largest) return;
    const bool refused = on_string([&](auto& t) { t.append(bytes.data(), bytes.size()); });
    m().append(bytes.data(), bytes.size(), refused);
  }
  void append_own(size_t from, size_t n) {
    if (from + n > m().text.size() || m().text.size() + n > largest) return;
    if (!affords(n)) return;
    const std::string own = m().text.substr(from, n);
    const bool refused = on_string([&](auto& t) { t.append(characters_of(t) + from, n); });
    m().append(own.data(), n, refused);
  }
  // More than any string holds: refused without reading the bytes. A compiler that knew the text would warn.
  void append_too_many(uint64_t n) {
    const char* const volatile text = "";
    s().append(text, _other ? SIZE_MAX - n % 4096 : first_refused + n);
  }

  void clear() {
    s().clear();
    m().text.clear();
  }
  void truncate(size_t n) {
    s().truncate(n);
    m().text.resize(std::min(n, m().text.size()));
  }
  void reserve(uint64_t n) {
    const bool refused = on_string([&](auto& t) { t.reserve(n); });
    m().reserve(n, refused);
  }
  void remake(uint64_t capacity) {
    s().~string_();
    const bool refused = on_string([&](auto& t) { new (&t) ym::string_<>(capacity); });
    m() = {};
    m().allot(capacity, refused);
  }

  void assign(const std::string& bytes) {
    const char* text = _other ? nullptr : bytes.c_str();
    const bool refused = on_string([&](auto& t) { t = text; });
    m().text.clear();
    if (text && *text) m().append(text, std::strlen(text), refused);
  }
  void assign_string() {
    const size_t from = _other ? _i : 1 - _i;
    if (!affords(_models[from].text.size())) return;
    const bool refused = on_string([&](auto& t) { t = _strings[from]; });
    if (from == _i) return;
    m().text.clear();
    const std::string& text = _models[from].text;
    if (!text.empty()) m().append(text.data(), text.size(), refused);
  }
  void copy() {
    if (!affords(m().text.size())) return;
    const ym::string_<> copied = s();  // NOLINT(performance-unnecessary-copy-initialization): it is what is tested
    model expected;
    if (!m().text.empty()) expected.append(m().text.data(), m().text.size(), false);
    check(copied, expected);
  }
  void compare();

  uint64_t read_too_large(fuzz::reader& in) { return most_capacity + 1 + in.number(8) % (UINT64_MAX / 2); }
  size_t read_length(fuzz::reader& in);
};

void trial::compare() {
  if (!affords(_models[0].text.size() + _models[1].text.size())) return;
  const bool same = std::strcmp(_models[0].text.c_str(), _models[1].text.c_str()) == 0;
  require((_strings[0] == _strings[1]) == same, "strings compare as texts");
  const char* text = s().c_str();
  require(text[m().text.size()] == 0, "a text is terminated");
  require(text == characters_of(s()) || m().block == 0, "and is in the string's block");
  require(m().text == std::string_view(text, s().size()), "a string holds what was written");
}

// Short lengths mostly; lengths around a class, and long ones while there is time.
size_t trial::read_length(fuzz::reader& in) {
  const uint8_t what = in.byte();
  size_t n = what % 64;
  if (what >= 0xC0) n = static_cast<size_t>(in.number(2));
  if (what >= 0xE0) n = size_classes::all[what % size_classes::count].size / (1 + what % 2) + in.byte() % 32 - 16;
  if (what >= 0xFE) n = in.number(3) % largest;
  return affords(n) ? n : n % 64;
}

void trial::step(fuzz::reader& in) {
  const uint8_t what = in.byte();
  _i = what >> 7U;
  _refuse = (what & 0x60U) == 0x60;
  _other = (what & 0x10U) != 0;
  switch (what % 16) {
    case 0:
    case 1:
      push_back(static_cast<char>(in.byte()));
      break;
    case 2:
    case 3:
      append(in.take(in.byte() % 64));
      break;
    case 4:
    case 5:
      append(std::string_view(material()).substr(0, read_length(in)));
      break;
    case 6:
      push_back_many(read_length(in) % 2048);
      break;
    case 7:
      append_own(in.number(2), read_length(in));
      break;
    case 8:
      append_too_many(in.number(4));
      break;
    case 9:
      clear();
      break;
    case 10:
      truncate(read_length(in));
      break;
    case 11:
      reserve(_other ? read_too_large(in) : read_length(in));
      break;
    case 12:
      assign(std::string(in.take(in.byte() % 64)));
      break;
    case 13:
      assign_string();
      break;
    case 14:
      remake(_other ? read_too_large(in) : read_length(in));
      break;
    default:
      copy();
      compare();
  }
  for (size_t k = 0; k < 2; ++k) check(_strings[k], _models[k]);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::reader in(data, size);
  trial s;
  for (int steps = 0; !in.empty() && steps < 256; ++steps) s.step(in);
  return 0;
}
