// Hands every published value to a hook: a program that is started for it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/display/printer.h"
#include "host/hook/address_filter.h"
#include "host/hook/process.h"
#include "host/loop/event_loop.h"
#include "host/loop/output.h"

struct hook_options {
  std::string program;  // empty: none
  std::chrono::nanoseconds timeout = std::chrono::seconds(30);
  address_filter addresses = {};
  bool dry_run = false;
  bool once = false;  // do not retry
};

/// A value as an instance published it.
struct update {
  wall_clock::time_point time;
  std::string instance;
  std::string tag;
  std::string value;
};

/// One program at a time for each instance. While it runs, or a retry is pending, the newest value replaces the ones
/// before.
class hook_runner {
 public:
  /// What it uses of the outside.
  struct environment {
    event_loop& loop;
    launcher& programs;
    address_list& addresses;
  };
  hook_runner(const environment& e, const hook_options& o, size_t instances, printer& p, output& err);
  /// Kills what still runs, without waiting for it.
  ~hook_runner();
  hook_runner(const hook_runner&) = delete;
  hook_runner& operator=(const hook_runner&) = delete;

  /// Without a program in the options every value counts as handed over.
  void submit(size_t i, update u);
  /// Starts no more programs. One that runs has two seconds to end, and is killed then.
  void close();

  /// No program runs, and none is to be started.
  bool is_idle() const;
  /// A value was not handed over successfully and will not be retried.
  bool has_given_up() const { return _has_given_up; }

 private:
  enum class stage { idle, pausing, running, terminating, killing, stuck };

  struct hook {
    stage at = stage::idle;
    update current;              // what the program was started with last
    std::optional<update> next;  // what it is to be started with
    int failures = 0;            // with this value, in a row
    pid_t program = -1;
    event_loop::handle exit;
    steady_clock::time_point deadline;
    event_loop::handle timer;
  };

  void start(hook& h);
  void launch(hook& h);
  void on_exit(hook& h, int status);
  void escalate(hook& h);
  void send(hook& h, int sig, stage next);
  void report_stuck(hook& h);
  void fail(hook& h, const std::string& what);
  std::string schedule_retry(hook& h);
  void drop_pending(hook& h);
  void set_deadline(hook& h, steady_clock::time_point when);
  std::string describe_exit(stage at, int status) const;
  void complain(const hook& h, const std::string& what);

  const environment _environment;
  const hook_options& _options;
  printer& _printer;
  output& _err;
  std::vector<hook> _hooks;
  bool _is_closed = false;
  bool _has_given_up = false;
};
