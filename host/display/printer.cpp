#include "host/display/printer.h"

#include <nlohmann/json.hpp>

#include "host/display/text.h"

namespace {

constexpr int schema = 1;

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& t : texts) all.append(all.empty() ? "" : ",").append(t);
  return all.empty() ? "null" : all;
}

// As tabs and lines separate it.
struct text_of {
  std::string operator()(int n) const { return std::to_string(n); }
  std::string operator()(bool is_so) const { return is_so ? "true" : "false"; }
  std::string operator()(const std::string& text) const { return printable(text); }
  std::string operator()(const std::vector<std::string>& texts) const { return printable(joined(texts)); }
  std::string operator()(const std::vector<printed_address>& /*all*/) const { return ""; }  // in JSON only
  std::string operator()(std::nullptr_t /*unknown*/) const { return "unknown"; }
};

class text_printer : public printer {
 public:
  text_printer(output& out, const std::set<std::string>& events) : printer(events), _out(out) {}

 private:
  void write(const printed_line& l) override {
    const bool is_failure = l.event == std::string_view("message") && l.level == std::string_view("error");
    const char* event = is_failure ? "failure" : l.event;
    std::string text = tabbed({time_stamp(l.time), l.instance.empty() ? "-" : l.instance, event});
    for (const auto& f : l.fields)
      if (f.is_in_text) text += '\t' + std::visit(text_of(), f.value);
    for (const std::string& s : l.environment) text += '\t' + printable(s);
    _out.line(text);
  }

  output& _out;
};

using json = nlohmann::ordered_json;

// Host names and paths are bytes; those that are not UTF-8 become U+FFFD, because JSON cannot represent them.
std::string one_line(const json& object) {
  return printable_json(object.dump(-1, ' ', false, json::error_handler_t::replace));
}

json json_of(const std::vector<printed_address>& all) {
  json array = json::array();
  for (const printed_address& a : all)
    array.push_back({{"address", a.address}, {"interface", a.interface_name}, {"scope", a.scope}, {"flags", a.flags}});
  return array;
}
template <class T>
json json_of(const T& value) {
  return value;
}

class json_printer : public printer {
 public:
  json_printer(output& out, const std::set<std::string>& events) : printer(events), _out(out) {}

 private:
  void write(const printed_line& l) override {
    json object = {{"schema", schema}, {"time", time_stamp(l.time)}, {"event", l.event}};
    if (l.level) object["level"] = l.level;
    if (!l.instance.empty()) object["instance"] = l.instance;
    for (const auto& f : l.fields) std::visit([&](const auto& v) { object[f.name] = json_of(v); }, f.value);
    for (const std::string& s : l.environment)
      object["environment"][s.substr(0, s.find('='))] = s.substr(s.find('=') + 1);
    _out.line(one_line(object));
  }

  output& _out;
};

}  // namespace

std::unique_ptr<printer> make_text_printer(output& out, const std::set<std::string>& events) {
  return std::make_unique<text_printer>(out, events);
}

// Encodes the text as a JSON string, which replaces bytes that are not UTF-8, and decodes it again.
std::string valid_utf8(const std::string& text) {
  return json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace)).get<std::string>();
}

std::string json_line(const std::string& document) { return printable_json(valid_utf8(document)); }

std::unique_ptr<printer> make_json_printer(output& out, const std::set<std::string>& events) {
  return std::make_unique<json_printer>(out, events);
}
