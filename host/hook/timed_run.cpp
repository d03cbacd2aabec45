#include "host/hook/timed_run.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

namespace {

constexpr auto kill_delay = std::chrono::seconds(1);  // from one signal to the next
constexpr auto exit_grace = std::chrono::seconds(2);  // for a program that runs at the end

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

timed_run::timed_run(event_loop& l, launcher& p, std::chrono::nanoseconds timeout, std::vector<std::string> programs,
                     std::vector<std::string> settings, callbacks c)
    : _loop(l),
      _launcher(p),
      _timeout(timeout),
      _programs(std::move(programs)),
      _settings(std::move(settings)),
      _callbacks(std::move(c)) {}

timed_run::~timed_run() {
  if (_exit) _launcher.signal(_program, SIGKILL);
}

void timed_run::start() {
  try {
    launch();
  } catch (const std::system_error& e) {
    add_failure(std::string("cannot be started: ") + e.what());
    _at = stage::starting;
    set_deadline(_loop.now());  // the next one
  }
}

void timed_run::close() {
  _is_closed = true;
  set_deadline(std::min(_deadline, _loop.now() + exit_grace));
}

void timed_run::launch() {
  _program = _launcher.start(_programs[_current], _settings);
  _exit = _loop.on_exit(_program, [this](int status) { on_exit(status); });
  _at = stage::running;
  set_deadline(_loop.now() + _timeout);
}

void timed_run::on_exit(int status) {
  _exit = nullptr;
  if (_at != stage::running || status != 0) add_failure(describe_exit(status));
  start_next();
}

void timed_run::start_next() {
  if (++_current == _programs.size()) return end();
  if (!_is_closed) return start();
  add_failure("not started before the end");
  end();
}

void timed_run::escalate() {
  switch (_at) {
    case stage::starting:
      return start_next();
    case stage::running:
      return send(SIGTERM, stage::terminating);
    case stage::terminating:
      return send(SIGKILL, stage::killing);
    case stage::killing:
      return wait_for_end();
    case stage::stuck:
      return abandon();
  }
}

void timed_run::send(int sig, stage next) {
  _launcher.signal(_program, sig);
  _at = next;
  set_deadline(_loop.now() + kill_delay);
}

// A program may survive SIGKILL, for example blocked on a dead disk.
void timed_run::wait_for_end() {
  _at = stage::stuck;
  _deadline = steady_clock::time_point::max();
  _is_closed ? abandon() : _callbacks.on_stuck(_programs[_current]);
}

void timed_run::abandon() {
  _exit = nullptr;
  add_failure("still runs after SIGKILL");
  end();
}

void timed_run::end() {
  _timer = nullptr;
  const auto on_end = std::move(_callbacks.on_end);
  on_end(std::string(_failures));  // may destroy this
}

void timed_run::add_failure(const std::string& what) {
  if (!_failures.empty()) _failures += ", ";
  _failures += _programs[_current] + ": " + what;
}

void timed_run::set_deadline(steady_clock::time_point when) {
  _deadline = when;
  _timer = _loop.call_at(when, [this] { escalate(); });
}

std::string timed_run::describe_exit(int status) const {
  if (_at == stage::running) return describe(status);
  return _is_closed ? "stopped at the end" : "stopped after " + in_seconds(_timeout);
}
