#include "host/text.h"

#include <cstdio>
#include <ctime>

namespace {

bool is_control(unsigned char c) { return c < 0x20 || c == 0x7f; }

}  // namespace

std::string printable(std::string_view text) {
  constexpr char digits[] = "0123456789abcdef";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (is_control(byte))
      out.append({'\\', 'x', digits[byte >> 4], digits[byte & 15]});
    else
      out.push_back(c);
  }
  return out;
}

std::string tabbed(std::initializer_list<std::string_view> fields) {
  std::string line;
  for (const std::string_view f : fields) line += printable(f) + '\t';
  line.pop_back();
  return line;
}

std::string time_stamp(wall_clock::time_point t) {
  const auto ms = std::chrono::floor<std::chrono::milliseconds>(t);
  const auto s = std::chrono::floor<std::chrono::seconds>(ms);
  const time_t seconds = wall_clock::to_time_t(s);
  tm utc{};
  gmtime_r(&seconds, &utc);
  char date[32] = {};
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
  char text[40] = {};
  std::snprintf(text, sizeof text, "%s.%03dZ", date, static_cast<int>((ms - s).count()));
  return text;
}
