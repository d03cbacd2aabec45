#include "bench/json_rivals.h"

#include <nlohmann/json.hpp>

std::string_view nlohmann_json(const char* key, const std::string& value) {
  static std::string text;
  text = nlohmann::json{{key, value}}.dump();
  return text;
}

std::string_view json_limit(const char* key, const std::string& value) {
  static std::string text;
  text.clear();
  text.append("{\"").append(key).append("\":\"").append(value).append("\"}");
  return text;
}
