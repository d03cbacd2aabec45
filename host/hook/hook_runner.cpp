#include "host/hook/hook_runner.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "host/display/text.h"
#include "host/report.h"

namespace {

constexpr auto first_pause = std::chrono::seconds(1);  // before the first retry
constexpr auto longest_pause = std::chrono::seconds(60);
constexpr auto kill_delay = std::chrono::seconds(1);  // from one signal to the next
constexpr auto exit_grace = std::chrono::seconds(2);  // for a program that runs at the end

std::chrono::seconds pause_after(int failures) {
  return failures > 6 ? longest_pause : std::min(first_pause * (1 << (failures - 1)), longest_pause);
}

std::string in_seconds(std::chrono::nanoseconds n) {
  char text[32] = {};
  std::snprintf(text, sizeof text, "%g s", std::chrono::duration<double>(n).count());
  return text;
}

std::string describe(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  const int sig = WTERMSIG(status);
  const char* name = sigdescr_np(sig);
  return "ended by signal " + std::to_string(sig) + (name ? std::string(" (") + name + ')' : "");
}

}  // namespace

hook_runner::hook_runner(const environment& e, const hook_options& o, size_t instances, printer& p, output& err)
    : _environment(e), _options(o), _printer(p), _err(err), _hooks(instances) {}

hook_runner::~hook_runner() {
  for (const hook& h : _hooks)
    if (h.exit) _environment.programs.signal(h.program, SIGKILL);
}

void hook_runner::submit(size_t i, update u) {
  if (_options.program.empty()) return;
  hook& h = _hooks[i];
  const update& newest = h.next ? *h.next : h.current;
  if (u.value != newest.value || u.tag != newest.tag) h.failures = 0;
  h.next = std::move(u);
  if (_is_closed) return drop_pending(h);
  if (h.at == stage::idle || h.at == stage::pausing) start(h);
}

bool hook_runner::is_idle() const {
  return std::all_of(_hooks.begin(), _hooks.end(), [](const hook& h) { return h.at == stage::idle; });
}

void hook_runner::close() {
  _is_closed = true;
  for (hook& h : _hooks) {
    drop_pending(h);
    if (h.at != stage::idle) set_deadline(h, std::min(h.deadline, _environment.loop.now() + exit_grace));
  }
}

void hook_runner::start(hook& h) {
  if (!h.next) return;
  h.current = std::move(*h.next);
  h.next.reset();
  h.timer = nullptr;
  h.at = stage::idle;
  try {
    launch(h);
  } catch (const std::system_error& e) {
    fail(h, std::string("cannot be started: ") + e.what());
  }
}

void hook_runner::launch(hook& h) {
  const update& u = h.current;
  const std::vector<std::string> settings = {
      "DAC_INSTANCE=" + u.instance, "DAC_TAG=" + u.tag,
      "DAC_VALUE=" + filtered(_options.addresses, u.value, _environment.addresses), "DAC_TIME=" + time_stamp(u.time)};
  if (_options.dry_run)
    return _printer.print(
        {_environment.loop.wall_time(), u.instance, "exec", {{"program", _options.program}}, settings});
  h.program = _environment.programs.start(_options.program, settings);
  h.exit = _environment.loop.on_exit(h.program, [this, &h](int status) { on_exit(h, status); });
  h.at = stage::running;
  set_deadline(h, _environment.loop.now() + _options.timeout);
}

void hook_runner::on_exit(hook& h, int status) {
  const stage before = std::exchange(h.at, stage::idle);
  h.exit = nullptr;
  h.timer = nullptr;
  if (before == stage::running && status == 0)
    h.failures = 0;
  else
    fail(h, describe_exit(before, status));
  if (h.at == stage::idle && h.next) start(h);
}

void hook_runner::escalate(hook& h) {
  switch (h.at) {
    case stage::running:
      return send(h, SIGTERM, stage::terminating);
    case stage::terminating:
      return send(h, SIGKILL, stage::killing);
    case stage::killing:
    case stage::stuck:
      return report_stuck(h);
    case stage::pausing:
      return start(h);
    case stage::idle:
      break;
  }
}

void hook_runner::send(hook& h, int sig, stage next) {
  _environment.programs.signal(h.program, sig);
  h.at = next;
  set_deadline(h, _environment.loop.now() + kill_delay);
}

// A program that survives SIGKILL (for example, blocked on a dead disk) keeps its place until the run ends, which
// leaves it to the system.
void hook_runner::report_stuck(hook& h) {
  complain(h,
           std::string("not even SIGKILL ends it; ") + (_is_closed ? "left to the system" : "nothing else is started"));
  h.at = stage::stuck;
  h.timer = nullptr;
  h.deadline = steady_clock::time_point::max();
  if (!_is_closed) return;
  _has_given_up = true;
  h.exit = nullptr;
  h.at = stage::idle;
}

void hook_runner::set_deadline(hook& h, steady_clock::time_point when) {
  h.deadline = when;
  h.timer = _environment.loop.call_at(when, [this, &h] { escalate(h); });
}

void hook_runner::fail(hook& h, const std::string& what) { complain(h, what + "; " + schedule_retry(h)); }

std::string hook_runner::schedule_retry(hook& h) {
  if (h.next) return "a newer value is next";
  if (_is_closed || _options.once) {
    _has_given_up = true;
    return "not tried again";
  }
  const auto pause = pause_after(++h.failures);
  h.next = h.current;
  h.at = stage::pausing;
  set_deadline(h, _environment.loop.now() + pause);
  return "tried again in " + in_seconds(pause);
}

void hook_runner::drop_pending(hook& h) {
  if (!h.next) return;
  _has_given_up = true;
  h.current = std::move(*h.next);
  h.next.reset();
  if (h.at == stage::pausing) h.at = stage::idle;
  if (h.at == stage::idle) h.timer = nullptr;
  complain(h, "the newest value is not kept, the run ends");
}

std::string hook_runner::describe_exit(stage at, int status) const {
  if (at == stage::running) return describe(status);
  return _is_closed ? "still ran at the end and was stopped"
                    : "ran longer than " + in_seconds(_options.timeout) + " and was stopped";
}

void hook_runner::complain(const hook& h, const std::string& what) {
  report(_err, h.current.instance + ": " + _options.program + ": " + what);
}
