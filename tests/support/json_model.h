// JSON members, written only from their description. Tests compare the output functions with it.
#pragma once

#include <cstddef>
#include <string>

namespace json_model {

/// The characters that are written for `c`.
inline std::string escaped(char c) {
  switch (c) {
    case 8:
      return "\\b";
    case 9:
      return "\\t";
    case 10:
      return "\\n";
    case 12:
      return "\\f";
    case 13:
      return "\\r";
    case 34:
      return "\\\"";
    case 47:
      return "\\/";
    case 92:
      return "\\\\";
    default:
      return {c};
  }
}

/// Appends a member to `out`.
inline void member(int& count, const char* key, const char* value, size_t len, std::string& out) {
  if (!value || len == 0) return;
  if (value[0] == '\0') return;
  if (count != 0) out += ',';
  ++count;
  out += '"';
  if (key) out += key;
  out += "\":\"";
  for (size_t i = 0; i < len; ++i) out += escaped(value[i]);
  out += '"';
}

}  // namespace json_model
