// Other ways to write {"key":"value"}; the text is valid until the next call.
#pragma once

#include <string>
#include <string_view>

using json_writer = std::string_view (*)(const char* key, const std::string& value);

std::string_view rapidjson_plain(const char* key, const std::string& value);
/// With vector instructions, an option of RapidJSON.
std::string_view rapidjson_vector(const char* key, const std::string& value);
std::string_view nlohmann_json(const char* key, const std::string& value);

/// The limit: the value is known to need no escape.
std::string_view json_limit(const char* key, const std::string& value);

/// The RapidJSON writers, which differ only in the build of the library.
template <class BUFFER, class WRITER>
std::string_view write_member(const char* key, const std::string& value) {
  static BUFFER buffer;
  static WRITER writer(buffer);
  buffer.Clear();
  writer.Reset(buffer);
  writer.StartObject();
  writer.Key(key);
  writer.String(value.data(), static_cast<unsigned>(value.size()));
  writer.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}
