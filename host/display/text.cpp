#include "host/display/text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace {

// Bytes of the control character that the text begins with, or 0. U+0080 to U+009F, which terminals obey too, are two
// bytes in UTF-8, and the first of them is never part of another character.
size_t control_size(std::string_view text) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  if (byte(0) < 0x20 || byte(0) == 0x7f) return 1;
  return text.size() > 1 && byte(0) == 0xc2 && byte(1) >= 0x80 && byte(1) < 0xa0 ? 2 : 0;
}

std::string two_digits(char c) {
  constexpr char digits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  return {digits[byte >> 4], digits[byte & 15]};
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const size_t n = control_size(text);
    if (n == 0) out.push_back(text[0]);
    for (const char c : text.substr(0, n)) out += "\\x" + two_digits(c);
    text.remove_prefix(std::max<size_t>(n, 1));
  }
  return out;
}

bool is_plain(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

std::string printable_json(std::string_view document) {
  std::string out;
  while (!document.empty()) {
    const size_t n = control_size(document);
    out += n == 0 ? std::string(1, document[0]) : "\\u00" + two_digits(document[n - 1]);
    document.remove_prefix(std::max<size_t>(n, 1));
  }
  return out;
}

std::string tabbed(std::initializer_list<std::string_view> fields) {
  std::string line;
  for (const std::string_view f : fields) line += printable(f) + '\t';
  line.pop_back();
  return line;
}

std::string time_stamp(std::chrono::system_clock::time_point t) {
  const auto ms = std::chrono::floor<std::chrono::milliseconds>(t);
  const auto s = std::chrono::floor<std::chrono::seconds>(ms);
  const time_t seconds = std::chrono::system_clock::to_time_t(s);
  tm utc{};
  gmtime_r(&seconds, &utc);
  char date[32] = {};
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
  char text[40] = {};
  std::snprintf(text, sizeof text, "%s.%03dZ", date, static_cast<int>((ms - s).count()));
  return text;
}

std::string clock_text(std::chrono::nanoseconds n) {
  const auto s = std::chrono::floor<std::chrono::seconds>(n).count();
  char text[32] = {};
  std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld", static_cast<long>(s / 3600), static_cast<long>(s / 60 % 60),
                static_cast<long>(s % 60));
  return text;
}
