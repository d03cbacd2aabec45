// Log messages: prefix, limits, levels and results.
//   input: messages, each: threshold | level | with callback? by which function? tag? | format | length | tag
#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <optional>
#include <string>

#include "driver/logDac.h"
#include "tests/fuzz/reader.h"
#include "tests/fuzz/target.h"

namespace {

using fuzz::require;

constexpr size_t longest_prefix = 80;  // in 30800 bytes, together with the longest message and its terminator
constexpr size_t longest_message = 30719;
constexpr char name[] = "drv";

struct delivery {
  int hostlevel;
  std::string text;
  bool operator==(const delivery&) const = default;
};

struct host {
  size_t length = 0;  // expected of the next delivery: messages may hold zero bytes
  std::optional<delivery> delivered;
};

void on_log(const char* from, int hostlevel, const char* text, int flag, void* param) {
  auto& h = *static_cast<host*>(param);
  require(std::strcmp(from, name) == 0 && flag == 1, "a message comes with name and flag");
  require(!h.delivered, "a message is delivered once");
  h.delivered = {hostlevel, std::string(text, h.length)};
  require(text[h.length] == 0, "a message is terminated");
}

// ---------------------------------------------------------------- messages

enum class form { empty, text, precision, width, character, number, percent };
constexpr form forms[] = {form::empty,     form::text,   form::precision, form::width,
                          form::character, form::number, form::percent};

struct message {
  form f;
  std::string text;
  int n;
};

std::string expected_text(const message& m) {
  const auto n = static_cast<size_t>(m.n);
  switch (m.f) {
    case form::empty:
      return "";
    case form::text:
      return m.text;
    case form::precision:
      return m.text.substr(0, n);
    case form::width:
      return std::string(n > m.text.size() ? n - m.text.size() : 0, ' ') + m.text;
    case form::character:
      return {static_cast<char>(m.n)};
    case form::number:
      return "x=" + std::to_string(m.n);
    default:
      return std::to_string(m.n) + '%';
  }
}

enum class way { push, add, append };
constexpr way ways[] = {way::push, way::add, way::append};

struct call {
  int threshold, level;
  way by;
  const char* tag;
};

int push(logDac& log, const call& c, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int n = log.push(c.level, c.tag, fmt, args);
  va_end(args);
  return n;
}

template <class... ARGS>
int send(logDac& log, const call& c, const char* fmt, ARGS... args) {
  switch (c.by) {
    case way::push:
      return push(log, c, fmt, args...);
    case way::add:
      return log.add(c.level, fmt, args...);
    default:
      return log.append(c.level, fmt, args...);
  }
}

int send(logDac& log, const call& c, const message& m) {
  const char* text = m.text.c_str();
  switch (m.f) {
    case form::empty:
      return send(log, c, "%s", "");
    case form::text:
      return send(log, c, "%s", text);
    case form::precision:
      return send(log, c, "%.*s", m.n, text);
    case form::width:
      return send(log, c, "%*s", m.n, text);
    case form::character:
      return send(log, c, "%c", m.n);
    case form::number:
      return send(log, c, "x=%d", m.n);
    default:
      return send(log, c, "%d%%", m.n);
  }
}

// ---------------------------------------------------------------- what must come of them

int host_level(int level) {
  if (level == 10) return 2;
  if (level == 20) return 1;
  if (level == 40) return 3;
  return level == 999 ? 4 : 0;
}

std::string expected_prefix(const call& c) {
  if (c.by != way::push || !c.tag || !*c.tag) return "";
  return ('[' + std::string(c.tag) + ']').substr(0, longest_prefix);
}

void check(const call& c, const message& m, bool with_callback) {
  host h;
  logDac log;
  log.bind(name, with_callback ? on_log : nullptr, &h);
  require(log.getlevel() == 40, "a logger's threshold is 40");
  log.setlevel(c.threshold);
  const std::string text = expected_text(m), whole = expected_prefix(c) + text;
  h.length = whole.size();
  const int result = send(log, c, m);

  const bool passes = with_callback && c.level <= c.threshold;
  const bool fits = !text.empty() && text.size() <= longest_message;
  const int dropped = with_callback && !passes ? 0 : -1;
  require(result == (passes && fits ? static_cast<int>(whole.size()) : dropped), "the result is what was delivered");
  const auto expected = passes && fits ? std::optional(delivery{host_level(c.level), whole}) : std::nullopt;
  require(h.delivered == expected, "prefix and message are delivered if level and length allow it");
}

// A text of `n` bytes, repeated from a few bytes of the input.
std::string repeated(std::string_view text, size_t n) {
  std::string out;
  while (out.size() < n && !text.empty()) out += text;
  return out.substr(0, n);
}

// Numbers of the table, numbers around them, and any others.
int read_level(fuzz::reader& in) {
  constexpr int levels[] = {10, 20, 30, 40, 999, 0, -1, 41, 9, 998, 1000, 39};
  const uint8_t i = in.byte();
  return i < 0xF0 ? levels[i % std::size(levels)] : static_cast<int>(static_cast<uint32_t>(in.number(4)));
}

// Lengths around the limits, and any others.
size_t read_length(fuzz::reader& in) {
  constexpr size_t limits[] = {78, 80, longest_message, longest_message + 1, 30799, 30800};
  const auto n = static_cast<size_t>(in.number(2));
  return n < 0x8000 ? n : limits[(n >> 8) % std::size(limits)] + n % 8 - 4;
}

void check_one(fuzz::reader& in) {
  const int threshold = read_level(in), level = read_level(in);
  const uint8_t bits = in.byte();
  const form f = in.pick(forms);
  const auto n = static_cast<int>(read_length(in));
  const std::string text = repeated(in.take(in.byte() % 32), f == form::text ? static_cast<size_t>(n) : 64);
  const std::string tag = repeated(in.take(in.byte() % 32), read_length(in));
  const call c{threshold, level, ways[bits % 3], (bits & 0x10U) != 0 ? nullptr : tag.c_str()};
  check(c, {f, text.substr(0, text.find('\0')), n}, (bits & 0xE0U) != 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::reader in(data, size);
  do {
    check_one(in);
  } while (!in.empty());
  return 0;
}
