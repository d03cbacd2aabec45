#include <cstdio>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "bench/json_rivals.h"

std::string_view rapidjson_plain(const char* key, const std::string& value) {
  using buffer = rapidjson::StringBuffer;
  return write_member<buffer, rapidjson::Writer<buffer>>(key, value);
}
