// Gives the addresses of this machine to a hook: a program that runs when they change.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/display/printer.h"
#include "host/hook/address_filter.h"
#include "host/hook/process.h"
#include "host/hook/state_directory.h"
#include "host/hook/timed_run.h"
#include "host/loop/event_loop.h"
#include "host/loop/output.h"
#include "host/report.h"

struct hook_options {
  std::string program;  // or a directory of programs; empty: none
  std::chrono::nanoseconds timeout = default_time_limit;
  address_filter addresses = {};
  std::chrono::nanoseconds hold = std::chrono::minutes(5);   // before "null" replaces addresses
  std::chrono::nanoseconds again = std::chrono::hours(24);   // after a success, with the same value; 0: never
  std::chrono::nanoseconds splay = std::chrono::seconds(0);  // longest delay of the first run
  size_t jobs = 8;                                           // programs at once
  std::string state;                                         // directory; empty: none
  bool dry_run = false;
  bool once = false;  // no hold, no retry
};

/// A value as an instance published it.
struct update {
  wall_clock::time_point time;
  std::string instance;
  std::string tag;
  std::string value;
};

/// How a run of a hook ended, or why there is none.
struct hook_event {
  size_t index;        // of the instance
  severity level;      // info after a success
  const char* result;  // ok, failed, stuck, dropped, or saved: ok before a restart
  std::string text;    // why; empty after a success
  wall_clock::time_point time;
};

/// Runs the hook of each instance when its name or its filtered addresses differ from what the last successful run got,
/// and again after some time. Runs one hook at a time per instance, with the newest value.
class hook_runner {
 public:
  /// The interfaces that it uses.
  struct environment {
    event_loop& loop;
    launcher& programs;
    address_list& addresses;
    hook_store& records;
    std::function<double()> random;  // at least 0, less than 1
  };
  hook_runner(const environment& e, const hook_options& o, size_t instances, printer& p, output& err);
  hook_runner(const hook_runner&) = delete;
  hook_runner& operator=(const hook_runner&) = delete;

  /// Calls `f` for each event. Events other than successes are also reported on standard error.
  void observe(std::function<void(const hook_event&)> f) { _observer = std::move(f); }

  /// Does nothing if the options name no program.
  void submit(size_t i, const update& u);
  /// Starts no more programs. A running program has two seconds to end, then it is stopped.
  void close();

  /// True if no program runs, and none will be started until something changes or `again` has passed.
  bool is_idle() const;
  /// True if a value was not handled and will not be retried.
  bool has_given_up() const { return _has_given_up; }

 private:
  using time_point = steady_clock::time_point;
  static constexpr time_point never = time_point::max();
  enum class stage { idle, pausing, queued, running };

  struct hook {
    stage at = stage::idle;
    update published = {};              // the newest; without an instance: none yet
    std::optional<hook_record> target;  // what the next run gets
    std::optional<hook_record> done;    // what the last successful run got
    std::optional<hook_record> tried;   // what the latest run got, unless it succeeded
    int failures = 0;                   // with this value, in a row
    time_point earliest;                // of the first run
    time_point null_from;               // when the hold ends; never: there are addresses
    time_point retry = never;
    time_point again = never;
    event_loop::handle timer;
    std::unique_ptr<timed_run> run;
  };

  void read_addresses();
  void read_addresses_at(time_point when);
  std::optional<std::string> kernel_value();
  void report_room();
  void report_choice(const std::string& value);
  void offer_published(hook& h);
  void offer(hook& h, const hook_record& r);
  bool is_pending(const hook& h) const;
  time_point due(const hook& h) const;
  void consider(hook& h);
  void wait(hook& h, time_point when);
  void start_queued();
  size_t jobs() const;
  void start(hook& h, const hook_record& target);
  const char* reason_for(const hook& h) const;
  void run_programs(hook& h, const std::vector<std::string>& settings);
  void finish(hook& h, const std::string& failures);
  void succeed(hook& h);
  std::string schedule_retry(hook& h);
  void report(const hook& h, severity level, const char* result, const std::string& what);
  void notify(const hook& h, severity level, const char* result, const std::string& what,
              wall_clock::time_point time) const;
  void load_record(hook& h);
  void schedule_again(hook& h, std::chrono::nanoseconds age);
  void save_records(const std::set<const hook*>& all);
  void save_next();
  void on_saved(const hook& h, const std::string& failure);

  const environment _environment;
  const hook_options& _options;
  printer& _printer;
  output& _err;
  std::function<void(const hook_event&)> _observer;
  std::vector<hook> _hooks;
  std::deque<hook*> _queue;
  std::set<const hook*> _to_save;
  std::set<const hook*> _unsaved;  // the latest attempt failed
  bool _is_saving = false;
  outage _list_outage;
  outage _room_outage;    // of a published value
  outage _choice_outage;  // no address passes the filter
  outage _state_outage;
  time_point _next_reading = never;
  event_loop::handle _reading;
  bool _is_closed = false;
  bool _has_given_up = false;
};
