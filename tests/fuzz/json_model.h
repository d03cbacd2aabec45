// The JSON text that the product writes: eight characters after a backslash, all others unchanged.
#pragma once

#include <string>
#include <string_view>

namespace fuzz {

inline std::string json_escaped(std::string_view text) {
  constexpr std::string_view escaped = "\b\t\n\f\r\"/\\";
  constexpr std::string_view letters = "btnfr\"/\\";
  std::string out;
  for (const char c : text) {
    const size_t i = escaped.find(c);
    if (i == std::string_view::npos) {
      out += c;
    } else {
      out += '\\';
      out += letters[i];
    }
  }
  return out;
}

/// The members with a value. `first` is whether no member precedes. A value that begins with a zero byte is empty.
inline std::string json_member(std::string_view key, std::string_view value, bool first) {
  if (value.empty() || value.front() == 0) return "";
  std::string out = first ? "\"" : ",\"";
  return out.append(key) + "\":\"" + json_escaped(value) + '"';
}

}  // namespace fuzz
