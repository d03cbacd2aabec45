// A run for programs.
#include <nlohmann/json.hpp>

#include "host/display/printer.h"
#include "host/display/text.h"

namespace {

using json = nlohmann::ordered_json;

// Host names and paths are bytes; those that are no UTF-8 become U+FFFD, as JSON has no way to say them.
std::string one_line(const json& object) {
  return printable_json(object.dump(-1, ' ', false, json::error_handler_t::replace));
}

class json_printer : public printer {
 public:
  json_printer(output& out, output& err) : _out(out), _messages(make_text_printer(err)) {}

  void version(wall_clock::time_point time, const std::string& text, int number, const std::string& file) override {
    _out.line(one_line(
        {{"time", time_stamp(time)}, {"event", "version"}, {"version", text}, {"number", number}, {"plugin", file}}));
  }

  void announce(wall_clock::time_point time, const std::string& instance, const tag& t) override {
    _out.line(one_line({{"time", time_stamp(time)},
                        {"event", "tag"},
                        {"instance", instance},
                        {"tag", t.name},
                        {"type", t.type},
                        {"flag", t.flag},
                        {"text1", t.text1},
                        {"text2", t.text2}}));
  }

  void publish(wall_clock::time_point time, const std::string& instance, const value& v) override {
    _out.line(one_line({{"time", time_stamp(time)},
                        {"event", "value"},
                        {"instance", instance},
                        {"tag", v.tag},
                        {"type", v.type},
                        {"value", v.text}}));
  }

  void command(wall_clock::time_point time, const std::string& instance, const std::string& program,
               const std::vector<std::string>& settings) override {
    json environment;
    for (const std::string& s : settings) environment[s.substr(0, s.find('='))] = s.substr(s.find('=') + 1);
    _out.line(one_line({{"time", time_stamp(time)},
                        {"event", "exec"},
                        {"instance", instance},
                        {"program", program},
                        {"environment", environment}}));
  }

  void log(wall_clock::time_point time, const std::string& instance, const message& m) override {
    _messages->log(time, instance, m);
  }

 private:
  output& _out;
  std::unique_ptr<printer> _messages;
};

}  // namespace

// Written as a JSON string, the text loses the bytes that are no UTF-8; read back, it is the document again.
std::string json_line(const std::string& document) {
  const std::string text = json(document).dump(-1, ' ', false, json::error_handler_t::replace);
  return printable_json(json::parse(text).get<std::string>());
}

std::unique_ptr<printer> make_json_printer(output& out, output& err) {
  return std::make_unique<json_printer>(out, err);
}
