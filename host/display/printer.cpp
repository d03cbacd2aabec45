#include "host/display/printer.h"

#include <nlohmann/json.hpp>

#include "driver/dac.h"
#include "host/display/text.h"

namespace {

std::string text_of(const std::variant<int, std::string>& value) {
  const auto* number = std::get_if<int>(&value);
  return number ? std::to_string(*number) : std::get<std::string>(value);
}

class text_printer : public printer {
 public:
  explicit text_printer(output& out) : _out(out) {}

  void print(const printed_line& l) override {
    std::string text = tabbed({time_stamp(l.time), l.instance.empty() ? "-" : l.instance, l.event});
    for (const auto& f : l.fields)
      if (f.is_in_text) text += '\t' + printable(text_of(f.value));
    for (const std::string& s : l.environment) text += '\t' + printable(s);
    _out.line(text);
  }

  void log(std::chrono::system_clock::time_point time, const std::string& instance, const message& m) override {
    _out.line(tabbed({time_stamp(time), instance, m.level == DAC_LEVEL_FAILURE ? "failure" : "message", m.text}));
  }

 private:
  output& _out;
};

using json = nlohmann::ordered_json;

// Host names and paths are bytes; those that are not UTF-8 become U+FFFD, because JSON cannot represent them.
std::string one_line(const json& object) {
  return printable_json(object.dump(-1, ' ', false, json::error_handler_t::replace));
}

class json_printer : public printer {
 public:
  json_printer(output& out, output& err) : _out(out), _messages(make_text_printer(err)) {}

  void print(const printed_line& l) override {
    json object = {{"time", time_stamp(l.time)}, {"event", l.event}};
    if (!l.instance.empty()) object["instance"] = l.instance;
    for (const auto& f : l.fields) std::visit([&](const auto& v) { object[f.name] = v; }, f.value);
    for (const std::string& s : l.environment)
      object["environment"][s.substr(0, s.find('='))] = s.substr(s.find('=') + 1);
    _out.line(one_line(object));
  }

  void log(std::chrono::system_clock::time_point time, const std::string& instance, const message& m) override {
    _messages->log(time, instance, m);
  }

 private:
  output& _out;
  std::unique_ptr<printer> _messages;
};

}  // namespace

std::unique_ptr<printer> make_text_printer(output& out) { return std::make_unique<text_printer>(out); }

// Encodes the text as a JSON string, which replaces bytes that are not UTF-8, and decodes it again.
std::string valid_utf8(const std::string& text) {
  return json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace)).get<std::string>();
}

std::string json_line(const std::string& document) { return printable_json(valid_utf8(document)); }

std::unique_ptr<printer> make_json_printer(output& out, output& err) {
  return std::make_unique<json_printer>(out, err);
}
