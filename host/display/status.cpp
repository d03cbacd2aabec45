#include "host/display/status.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "host/display/printer.h"
#include "host/display/text.h"

namespace {

using wall_time = std::chrono::system_clock::time_point;

constexpr size_t longest_status = 2000;

std::string age(wall_time then, wall_time now) {
  const auto seconds = std::max<long>(std::chrono::floor<std::chrono::seconds>(now - then).count(), 0);
  constexpr std::pair<long, const char*> units[] = {{86400, " d ago"}, {3600, " h ago"}, {60, " min ago"}};
  for (const auto& [length, text] : units)
    if (seconds >= 2 * length) return std::to_string(seconds / length) + text;
  return std::to_string(seconds) + " s ago";
}

std::string describe(const hook_status& h, wall_time now) {
  const std::string when = ' ' + age(h.time, now);
  if (h.failures == 0) return "hook ok" + when;
  return "hook failed" + (h.failures == 1 ? "" : ' ' + std::to_string(h.failures) + " times") + when + ": " + h.what;
}

std::string describe(const instance_status& s, wall_time now) {
  std::string line = s.tag + (s.value.empty() ? " not published yet" : " = " + s.value);
  if (s.hook) line += ", " + describe(*s.hook, now);
  if (!s.refusal.empty()) line += "; " + s.refusal;
  return line;
}

// How many there are, and what the first of them is.
template <class P, class T>
std::string summary(const std::vector<instance_status>& all, const P& belongs, const char* name, const T& text) {
  const auto first = std::find_if(all.begin(), all.end(), belongs);
  if (first == all.end()) return "";
  return "; " + std::to_string(std::count_if(first, all.end(), belongs)) + name + ", the first: " + text(*first);
}

std::string describe(const std::vector<instance_status>& all, wall_time now) {
  const auto is_published = [](const instance_status& s) { return !s.value.empty(); };
  const auto is_failing = [](const instance_status& s) { return s.hook && s.hook->failures > 0; };
  const auto is_refused = [](const instance_status& s) { return !s.refusal.empty(); };
  return std::to_string(all.size()) + " instances, " +
         std::to_string(std::count_if(all.begin(), all.end(), is_published)) + " published" +
         summary(all, is_failing, " hooks failing",
                 [now](const instance_status& s) { return s.instance + ": " + describe(*s.hook, now); }) +
         summary(all, is_refused, " files refused", [](const instance_status& s) { return s.refusal; });
}

// At most `size` bytes of valid UTF-8, which end with a whole character.
std::string beginning(const std::string& utf8, size_t size) {
  size_t end = std::min(size, utf8.size());
  while ((utf8[end] & 0xc0) == 0x80) --end;
  return utf8.substr(0, end);
}

using json = nlohmann::ordered_json;

json json_of(const hook_status& h) {
  return {{"result", h.failures == 0 ? "ok" : "failed"},
          {"time", time_stamp(h.time)},
          {"failures", h.failures},
          {"text", h.what}};
}

json json_of(const instance_status& s) {
  json object = {{"instance", s.instance}, {"tag", s.tag},    {"value", nullptr},
                 {"published", nullptr},   {"hook", nullptr}, {"refused", nullptr}};
  if (!s.value.empty()) object["value"] = s.value;
  if (s.published) object["published"] = time_stamp(*s.published);
  if (s.hook) object["hook"] = json_of(*s.hook);
  if (!s.refusal.empty()) object["refused"] = s.refusal;
  return object;
}

}  // namespace

std::string status_document(const std::vector<instance_status>& all, wall_time now) {
  json document = {{"schema", 1}, {"time", time_stamp(now)}, {"instances", json::array()}};
  for (const instance_status& s : all) document["instances"].push_back(json_of(s));
  return printable_json(document.dump(-1, ' ', false, json::error_handler_t::replace)) + '\n';
}

std::string status_line(const std::vector<instance_status>& all, wall_time now) {
  return beginning(valid_utf8(printable(all.size() == 1 ? describe(all[0], now) : describe(all, now))), longest_status);
}
