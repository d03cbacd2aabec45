// A separate namespace, because the program also contains the library's other build.
#if defined(__SSE2__)
#define RAPIDJSON_SSE2
#elif defined(__ARM_NEON)
#define RAPIDJSON_NEON
#endif
#define RAPIDJSON_NAMESPACE rapidjson_simd
#define RAPIDJSON_NAMESPACE_BEGIN namespace rapidjson_simd {
#define RAPIDJSON_NAMESPACE_END }
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "bench/json_rivals.h"

std::string_view rapidjson_vector(const char* key, const std::string& value) {
  using buffer = rapidjson_simd::StringBuffer;
  return write_member<buffer, rapidjson_simd::Writer<buffer>>(key, value);
}
