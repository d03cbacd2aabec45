// Time to write a JSON object with one string member into a reused buffer.
#include "com/ymlib3/ym_json"

#include <random>
#include <stdexcept>
#include <string>

#include "bench/json_rivals.h"
#include "bench/text.h"
#include "bench/versus.h"
#include "com/ymlib3/ym_string"

namespace {

// One character in ten, at a random position, needs an escape. There is no slash: no rival escapes it.
std::string with_escapes(std::string text) {
  constexpr char escaped[] = {'"', '\\', '\n', '\t', '\r'};
  std::mt19937 random(seed);
  for (char& c : text)
    if (random() % 10 == 0) c = escaped[random() % sizeof escaped];
  return text;
}

std::string_view write_member(const char* key, const std::string& value) {
  static ym::string_<> out;
  out.clear();
  int members = 0;
  out.push_back('{');
  ym::js::out_jstring(members, key, value.data(), value.size(), out);
  out.push_back('}');
  return {out.c_str(), out.size()};
}

constexpr int documents = 100;

uint64_t write_all(json_writer write, const std::string& value) {
  uint64_t sum = 0;
  for (int i = 0; i < documents; ++i) {
    const std::string_view text = write("host", value);
    sum += sample(text.data(), text.size());
  }
  return sum;
}

void enter_member(const std::string& what, const std::string& value, const char* name, json_writer rival) {
  if (write_member("host", value) != rival("host", value)) throw std::runtime_error(std::string(name) + " differs");
  versus(
      "JSON member, " + what, name, documents, [=] { return write_all(write_member, value); },
      [=] { return write_all(rival, value); });
}

void enter_members(const std::string& what, const std::string& value) {
  enter_member(what, value, "RapidJSON", rapidjson_plain);
  enter_member(what, value, "RapidJSON, vector unit", rapidjson_vector);
  enter_member(what, value, "nlohmann", nlohmann_json);
}

}  // namespace

void enter() {
  for (const size_t n : {60, 4096}) {
    const std::string size = std::to_string(n);
    enter_members(size + " plain", letters(n));
    enter_member(size + " plain", letters(n), "limit", json_limit);
    enter_members(size + " with 10 % escapes", with_escapes(letters(n)));
  }
}
