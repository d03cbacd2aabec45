#include "host/commands/run_status.h"

#include <algorithm>

#include "host/display/text.h"

using namespace std::chrono_literals;

namespace {

constexpr auto between_updates = 1s;
constexpr auto longest_tick = 10s;
constexpr auto longest_silence = 130s;  // an instance publishes every 120 seconds

}  // namespace

run_status::run_status(event_loop& l, service_manager& m, const std::vector<std::string>& instances,
                       const std::string& path, output& err)
    : _loop(l),
      _manager(m),
      _alive(instances.size(), l.now()),
      _failing_since(instances.size()),
      _next_update(l.now()),
      _file(l, path, err, [this] { return status_document(_instances, _loop.wall_time()); }) {
  for (const std::string& name : instances) _instances.push_back({name, "", "", {}, {}, ""});
}

void run_status::on_tag(size_t i, const std::string& tag) {
  instance_status& s = _instances[i];
  if (s.tag != tag) {  // else the old value is the newest until the new instance publishes
    s.tag = tag;
    s.value.clear();
    s.published.reset();
  }
  s.refusal.clear();
  _alive[i] = _loop.now();
  change();
}

void run_status::on_value(size_t i, wall_clock::time_point time, const std::string& text) {
  _instances[i].value = text;
  _instances[i].published = time;
  _alive[i] = _loop.now();
  change();
}

void run_status::on_refused(size_t i, const std::string& what) {
  _instances[i].refusal = what;
  change();
}

std::string run_status::on_hook(size_t i, wall_clock::time_point time, const std::string& failure) {
  const std::optional<hook_status>& last = _instances[i].hook;
  const int before = last ? last->failures : 0;
  if (before == 0) _failing_since[i] = _loop.now();
  _instances[i].hook = {time, failure.empty() ? 0 : before + 1, failure};
  change();
  if (!failure.empty() || before == 0) return "";
  return "works again after " + std::to_string(before) + (before == 1 ? " failure, " : " failures, ") +
         clock_text(_loop.now() - _failing_since[i]);
}

void run_status::on_ready() {
  send("READY=1\n");
  if (!_tick) tick();
}

void run_status::on_reload() {
  const auto now = std::chrono::duration_cast<std::chrono::microseconds>(_loop.now().time_since_epoch());
  send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.count()) + '\n');
}

void run_status::on_stop() {
  _tick = nullptr;
  send("STOPPING=1\n");
}

void run_status::change() {
  _file.update();
  if (_manager.is_present() && !_update)
    _update = _loop.call_at(std::max(_loop.now(), _next_update), [this] { update(); });
}

void run_status::update() {
  _update = nullptr;
  _next_update = _loop.now() + between_updates;
  send(_unsent);
}

// Updates the ages in the status, too.
void run_status::tick() {
  if (!_manager.is_present()) return;
  const auto half = std::chrono::nanoseconds(_manager.watchdog()) / 2;
  const std::chrono::nanoseconds pause = half > 0s && half < longest_tick ? half : longest_tick;
  _tick = _loop.call_in(pause, [this] { tick(); });
  send(_unsent, half > 0s && is_healthy() ? "WATCHDOG=1\n" : "");
}

void run_status::send(const std::string& state, const std::string& ping) {
  if (!_manager.is_present()) return;
  const bool is_sent = _manager.notify(state + ping + "STATUS=" + status_line(_instances, _loop.wall_time()));
  if (is_sent)
    _unsent.clear();
  else if (!state.empty())
    _unsent = state;
}

bool run_status::is_healthy() const {
  return std::all_of(_alive.begin(), _alive.end(),
                     [now = _loop.now()](steady_clock::time_point t) { return now - t <= longest_silence; });
}
