// JSON members, compared with the escaping rule and parsed by a JSON parser.
//   input: number of members | for each: length of its key | key | length of its value | value
#include "com/ymlib3/ym_json"

#include "com/ymlib3/ym_string"

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tests/fuzz/json_model.h"
#include "tests/fuzz/reader.h"
#include "tests/fuzz/target.h"

namespace {

using fuzz::require;

struct member {
  std::string key, value;
};

std::vector<member> read_members(fuzz::reader& in) {
  std::vector<member> members(1 + in.byte() % 4);
  for (member& m : members) {
    const std::string_view key = in.take(in.byte() % 16);
    m.key = key.substr(0, key.find('\0'));
    m.value = in.take(in.number(2) % 4096);
  }
  return members;
}

// ---------------------------------------------------------------- what JSON allows

// The length of the UTF-8 character at `p`, or 0 if it is invalid: stray bytes, overlong forms, surrogates, or code
// points above U+10FFFF.
size_t utf8_length(std::string_view p) {
  const auto at = [&](size_t i) { return i < p.size() ? static_cast<unsigned char>(p[i]) : 0U; };
  const auto follows = [&](size_t i) { return (at(i) & 0xC0U) == 0x80; };
  const unsigned c = at(0);
  const unsigned two = c << 8 | at(1);
  if (c < 0x80) return 1;
  if (c >= 0xC2 && c <= 0xDF) return follows(1) ? 2 : 0;
  if (two >= 0xE0A0 && two <= 0xEFBF && (two < 0xEDA0 || two > 0xEDFF)) return follows(1) && follows(2) ? 3 : 0;
  if (two >= 0xF090 && two <= 0xF48F) return follows(1) && follows(2) && follows(3) ? 4 : 0;
  return 0;
}

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const size_t n = utf8_length(text);
    if (n == 0) return false;
    text.remove_prefix(n);
  }
  return true;
}

bool is_control(char c) { return static_cast<unsigned char>(c) < 0x20; }

bool is_value(std::string_view text) {
  constexpr std::string_view escaped = "\b\t\n\f\r";
  return is_utf8(text) && std::none_of(text.begin(), text.end(), [&](char c) {
           return is_control(c) && escaped.find(c) == std::string_view::npos;
         });
}
// Keys are written without escapes.
bool is_key(std::string_view text) {
  return is_utf8(text) && std::none_of(text.begin(), text.end(), is_control) &&
         text.find_first_of("\"\\") == std::string_view::npos;
}

// ---------------------------------------------------------------- documents

/// The document, written into a STR.
template <class STR>
std::string document(const std::vector<member>& members) {
  STR doc;
  int count = 0;
  doc.push_back('{');
  for (const member& m : members) {
    // Of the exact size, so that a sanitizer detects reading one byte more.
    const std::unique_ptr<char[]> value(new char[m.value.size()]);
    m.value.copy(value.get(), m.value.size());
    ym::js::out_jstring(count, m.key.c_str(), value.get(), m.value.size(), doc);
  }
  doc.push_back('}');
  return {doc.c_str(), doc.size()};
}

std::string expected_document(const std::vector<member>& members) {
  std::string doc;
  for (const member& m : members) doc += fuzz::json_member(m.key, m.value, doc.empty());
  return '{' + doc + '}';
}

/// The object that the document must parse to, or none if it is not JSON.
std::optional<nlohmann::json> expected_object(const std::vector<member>& members) {
  nlohmann::json object = nlohmann::json::object();
  for (const member& m : members) {
    if (m.value.empty() || m.value[0] == 0) continue;
    if (!is_key(m.key) || !is_value(m.value)) return {};
    object[m.key] = m.value;
  }
  return object;
}

bool is_broken_by_keys(const std::vector<member>& members) {
  return std::any_of(members.begin(), members.end(), [](const member& m) { return !is_key(m.key); });
}

void check_parsed(const std::string& doc, const std::vector<member>& members) {
  const nlohmann::json parsed = nlohmann::json::parse(doc, nullptr, false);
  const auto expected = expected_object(members);
  if (expected) require(parsed == *expected, "a document parses to what was written");
  // A quotation mark in a key may make a different but valid document.
  if (!expected && !is_broken_by_keys(members)) require(parsed.is_discarded(), "a raw control character is not JSON");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::reader in(data, size);
  const std::vector<member> members = read_members(in);
  const std::string doc = document<ym::string_<>>(members);
  require(doc == expected_document(members), "members are written by the rule");
  require(doc == document<std::string>(members), "other string types get the same text");
  check_parsed(doc, members);
  return 0;
}
