#include "host/commands/value_events.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <sstream>
#include <system_error>
#include <utility>

namespace {

// As ip(8) calls them.
constexpr std::pair<unsigned, const char*> flag_names[] = {
    {IFA_F_TEMPORARY, "temporary"},         {IFA_F_NODAD, "nodad"},         {IFA_F_OPTIMISTIC, "optimistic"},
    {IFA_F_DADFAILED, "dadfailed"},         {IFA_F_HOMEADDRESS, "home"},    {IFA_F_DEPRECATED, "deprecated"},
    {IFA_F_TENTATIVE, "tentative"},         {IFA_F_PERMANENT, "permanent"}, {IFA_F_MANAGETEMPADDR, "mngtmpaddr"},
    {IFA_F_NOPREFIXROUTE, "noprefixroute"}, {IFA_F_MCAUTOJOIN, "autojoin"}, {IFA_F_STABLE_PRIVACY, "stable-privacy"}};

constexpr std::pair<unsigned char, const char*> scope_names[] = {
    {RT_SCOPE_UNIVERSE, "global"}, {RT_SCOPE_SITE, "site"}, {RT_SCOPE_LINK, "link"}, {RT_SCOPE_HOST, "host"}};

std::string scope_name(unsigned char scope) {
  for (const auto& [number, name] : scope_names)
    if (number == scope) return name;
  return std::to_string(scope);
}

printed_address printed(const kernel_address& a) {
  printed_address p{a.text, a.interface_name, scope_name(a.scope), {}};
  for (const auto& [bit, name] : flag_names)
    if ((a.flags & bit) != 0) p.flags.emplace_back(name);
  return p;
}

std::vector<std::string> texts_of(const std::vector<kernel_address>& all) {
  std::vector<std::string> texts(all.size());
  std::transform(all.begin(), all.end(), texts.begin(), [](const kernel_address& a) { return a.text; });
  return texts;
}

std::vector<std::string> addresses_in(const std::string& value) {
  std::vector<std::string> all;
  std::istringstream in(value == "null" ? "" : value);
  for (std::string a; std::getline(in, a, ',');) all.push_back(a);
  return all;
}

bool is_same(const value& a, const value& b) { return a.tag == b.tag && a.type == b.type && a.text == b.text; }

}  // namespace

value_events::value_events(event_loop& l, address_list& a, const address_filter& f, bool with_addresses, printer& p,
                           const std::vector<std::string>& instances)
    : _loop(l),
      _addresses(a),
      _filter(f),
      _with_addresses(with_addresses),
      _printer(p),
      _names(instances),
      _last(instances.size()) {}

void value_events::print(const event& e, const value& v) {
  if (!_printer.prints("value")) return;
  const bool has_filter = !_filter.uses_published_value();
  if (has_filter || _with_addresses) read(e.time);
  print(e.index, e.time, v);
  if (has_filter && !_timer && !_is_stopped) _timer = _loop.call_in(reading_interval, [this] { read_again(); });
}

void value_events::stop() {
  _timer = nullptr;
  _is_stopped = true;
}

// All instances publish the addresses of the same machine: a list that is newer than a value serves it, too.
void value_events::read(wall_clock::time_point since) {
  const auto now = _loop.wall_time();
  if (_list && since < _read_at && _read_at <= now) return;
  _read_at = now;
  try {
    _list = _addresses.all();
  } catch (const std::system_error&) {
    _list = std::nullopt;
  }
}

void value_events::read_again() {
  _timer = _loop.call_in(reading_interval, [this] { read_again(); });
  read(_loop.wall_time());
  for (size_t i = 0; _list && i < _last.size(); ++i) {
    const std::optional<shown> last = _last[i];
    if (last && picked(last->what) != last->picked) print(i, _loop.wall_time(), last->what);
  }
}

std::optional<std::vector<std::string>> value_events::picked(const value& v) const {
  if (_filter.uses_published_value()) return addresses_in(without_cut_address(v.text));
  if (!_list) return std::nullopt;
  return texts_of(choose(_filter, *_list));
}

void value_events::print(size_t i, wall_clock::time_point time, const value& v) {
  const std::optional<texts> now = picked(v);
  const std::optional<shown> last = _last[i];
  const bool is_change = !last || !is_same(v, last->what) || (now && now != last->picked);
  _last[i] = {v, now || !last ? now : last->picked};
  printed_line line = {time, _names[i], "value", {{"tag", v.tag}, {"type", v.type, false}, {"value", v.text}}};
  line.fields.push_back({"change", is_change, false});
  line.fields.push_back({"picked", nullptr, !_filter.uses_published_value()});
  if (now) line.fields.back().value = *now;
  line.fields.push_back({"addresses", nullptr, false});
  if (_list) {
    std::vector<printed_address> all;
    std::transform(_list->begin(), _list->end(), std::back_inserter(all), printed);
    line.fields.back().value = all;
  }
  _printer.print(line);
}
