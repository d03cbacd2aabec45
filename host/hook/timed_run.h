// One run of a hook: its programs, one after the other, each with a time limit.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "host/hook/process.h"
#include "host/loop/event_loop.h"

constexpr auto default_time_limit = std::chrono::seconds(30);

/// Starts the programs one after the other, even if one fails, as run-parts(8) does. A program that runs longer than
/// the timeout gets SIGTERM and, a second later, SIGKILL.
class timed_run {
 public:
  struct callbacks {
    std::function<void(const std::string& failures)> on_end;   // "" on success; may destroy the run
    std::function<void(const std::string& program)> on_stuck;  // it survives SIGKILL
  };
  timed_run(event_loop& l, launcher& p, std::chrono::nanoseconds timeout, std::vector<std::string> programs,
            std::vector<std::string> settings, callbacks c);
  /// Kills the program without waiting for it.
  ~timed_run();
  timed_run(const timed_run&) = delete;
  timed_run& operator=(const timed_run&) = delete;

  /// Starts the first program. Calls no callback before it returns.
  void start();
  /// Starts no further program. A running program has two seconds to end, then it is stopped. Abandons a stuck program.
  void close();

  bool is_stuck() const { return _at == stage::stuck; }

 private:
  enum class stage { starting, running, terminating, killing, stuck };

  void launch();
  void on_exit(int status);
  void start_next();
  void escalate();
  void send(int sig, stage next);
  void wait_for_end();
  void abandon();
  void end();
  void add_failure(const std::string& what);
  void set_deadline(steady_clock::time_point when);
  std::string describe_exit(int status) const;

  event_loop& _loop;
  launcher& _launcher;
  const std::chrono::nanoseconds _timeout;
  const std::vector<std::string> _programs;
  const std::vector<std::string> _settings;
  callbacks _callbacks;
  size_t _current = 0;  // index of the program that runs or is started next
  std::string _failures;
  stage _at = stage::starting;
  bool _is_closed = false;
  pid_t _program = -1;
  event_loop::handle _exit;
  steady_clock::time_point _deadline = steady_clock::time_point::max();
  event_loop::handle _timer;
};
