#include "host/json_printer.h"

#include <nlohmann/json.hpp>

#include "host/text.h"

using json = nlohmann::ordered_json;

namespace {

// Host names and paths are bytes; those that are no UTF-8 become U+FFFD, as JSON has no way to say them.
std::string one_line(const json& object) { return object.dump(-1, ' ', false, json::error_handler_t::replace); }

}  // namespace

void json_printer::version(const plugin& p) {
  _out.line(one_line({{"time", time_stamp(wall_clock::now())},
                      {"event", "version"},
                      {"version", *p.verson},
                      {"number", p.getversion()},
                      {"plugin", p.file()}}));
}

void json_printer::announce(const std::string& instance, const tag& t) {
  _out.line(one_line({{"time", time_stamp(wall_clock::now())},
                      {"event", "tag"},
                      {"instance", instance},
                      {"tag", t.name},
                      {"type", t.type},
                      {"flag", t.flag},
                      {"text1", t.text1},
                      {"text2", t.text2}}));
}

void json_printer::value(wall_clock::time_point time, const std::string& instance, const dac_tagvalue& r) {
  _out.line(one_line({{"time", time_stamp(time)},
                      {"event", "value"},
                      {"instance", instance},
                      {"tag", field(r.name)},
                      {"type", r.type},
                      {"value", field(r.value)}}));
}

void json_printer::log(wall_clock::time_point time, const std::string& instance, const message& m) {
  _messages.log(time, instance, m);
}
