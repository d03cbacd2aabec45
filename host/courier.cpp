#include "host/courier.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "host/text.h"

namespace {

constexpr auto first_pause = std::chrono::seconds(1);  // before a program that failed is tried again
constexpr auto longest_pause = std::chrono::seconds(60);
constexpr auto moment = std::chrono::seconds(1);    // from one signal to the next
constexpr auto farewell = std::chrono::seconds(2);  // for a program that runs at the end

std::chrono::seconds pause_after(int failures) {
  return failures > 6 ? longest_pause : std::min(first_pause * (1 << (failures - 1)), longest_pause);
}

std::vector<std::string> settings(const order& o, pick which) {
  return {"DAC_INSTANCE=" + o.instance, "DAC_TAG=" + o.tag, "DAC_VALUE=" + picked(which, o.value),
          "DAC_TIME=" + time_stamp(o.time)};
}

std::string in_seconds(std::chrono::nanoseconds n) {
  char text[32] = {};
  std::snprintf(text, sizeof text, "%g s", std::chrono::duration<double>(n).count());
  return text;
}

std::string how_it_ended(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  const int sig = WTERMSIG(status);
  const char* name = sigdescr_np(sig);
  return "ended by signal " + std::to_string(sig) + (name ? std::string(" (") + name + ')' : "");
}

}  // namespace

courier::courier(const exec_options& how, bool once, size_t instances, printer& p, output& err)
    : _how(how), _once(once), _printer(p), _err(err), _jobs(instances) {}

void courier::keep(size_t i, order o) {
  if (_how.program.empty()) return;
  job& j = _jobs[i];
  if (o.value != j.newest.value || o.tag != j.newest.tag) j.failures = 0;
  j.newest = std::move(o);
  j.waits = true;
  j.start = steady_clock::now();
}

void courier::turn() {
  for (job& j : _jobs) {
    if (j.program) end(j);
    if (j.program) press(j);
    if (j.waits && !j.program && is_past(j.start)) begin(j);
  }
}

deadline courier::due() const {
  deadline next;
  for (const job& j : _jobs) {
    if (j.program)
      next = earlier(next, j.next_signal);
    else if (j.waits)
      next = earlier(next, j.start);
  }
  return next;
}

bool courier::is_idle() const {
  return std::none_of(_jobs.begin(), _jobs.end(), [](const job& j) { return j.waits || j.program; });
}

void courier::close() {
  _closed = true;
  for (job& j : _jobs) {
    if (std::exchange(j.waits, false)) abandon(j);
    j.next_signal = std::min(j.next_signal, steady_clock::now() + farewell);
  }
}

// ---------------------------------------------------------------- one program

void courier::begin(job& j) {
  j.waits = false;
  try {
    launch(j);
  } catch (const std::system_error& e) {
    fail(j, std::string("cannot be started: ") + e.what());
  }
}

void courier::launch(job& j) {
  const std::vector<std::string> environment = settings(j.newest, _how.addresses);
  if (_how.dry_run) return _printer.command(wall_clock::now(), j.newest.instance, _how.program, environment);
  j.program = std::make_unique<child>(_how.program, environment);
  j.sent = 0;
  j.next_signal = steady_clock::now() + _how.timeout;
}

void courier::press(job& j) {
  if (!is_past(j.next_signal)) return;
  if (j.sent == SIGKILL) return endure(j);
  j.sent = j.sent == 0 ? SIGTERM : SIGKILL;
  j.program->signal(j.sent);
  j.next_signal = steady_clock::now() + moment;
}

// It keeps its place, until the run ends and leaves it to the system: a disk that does not answer may be behind it.
void courier::endure(job& j) {
  complain(j, std::string("not even SIGKILL ends it; ") + (_closed ? "left to the system" : "nothing else is started"));
  j.next_signal = steady_clock::time_point::max();
  if (!_closed) return;
  _given_up = true;
  j.program.reset();
}

void courier::end(job& j) {
  const std::optional<int> status = j.program->status();
  if (!status) return;
  j.program.reset();
  if (*status != 0 || j.sent != 0) return fail(j, told(j, *status));
  j.failures = 0;
}

// ---------------------------------------------------------------- failures

void courier::fail(job& j, const std::string& what) { complain(j, what + "; " + consequence(j)); }

std::string courier::consequence(job& j) {
  if (j.waits) return "a newer value is next";
  if (_closed || _once) {
    _given_up = true;
    return "not tried again";
  }
  const auto pause = pause_after(++j.failures);
  j.waits = true;
  j.start = steady_clock::now() + pause;
  return "tried again in " + in_seconds(pause);
}

void courier::abandon(const job& j) {
  _given_up = true;
  complain(j, "the newest value is not kept, the run ends");
}

std::string courier::told(const job& j, int status) const {
  if (j.sent == 0) return how_it_ended(status);
  return _closed ? "still ran at the end and was stopped"
                 : "ran longer than " + in_seconds(_how.timeout) + " and was stopped";
}

void courier::complain(const job& j, const std::string& what) {
  _err.line(printable("dachost: " + j.newest.instance + ": " + _how.program + ": " + what));
}
