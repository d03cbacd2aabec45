// Follows a run and reports its state to the service manager and in a file.
#pragma once

#include <string>
#include <vector>

#include "host/commands/status_file.h"
#include "host/display/status.h"
#include "host/loop/event_loop.h"
#include "host/systemd.h"

/// Reports changes at most once a second. Pings the watchdog only while every instance publishes.
class run_status {
 public:
  /// Writes no file if the path is empty.
  run_status(event_loop& l, service_manager& m, const std::vector<std::string>& instances, const std::string& path,
             output& err);

  /// Instance i is new, with this tag.
  void on_tag(size_t i, const std::string& tag);
  void on_value(size_t i, wall_clock::time_point time, const std::string& text);
  /// File i was refused while its old instance runs.
  void on_refused(size_t i, const std::string& what);

  /// A hook of instance i has ended. `failure` is "" after a success. Returns how long hooks had failed before, or "".
  std::string on_hook(size_t i, wall_clock::time_point time, const std::string& failure);

  /// The instances run: for the first time, or again after on_reload().
  void on_ready();
  void on_reload();
  void on_stop();
  /// Waits for the file.
  void finish() { _file.finish(); }

 private:
  void change();
  void update();
  void tick();
  void send(const std::string& state, const std::string& ping = "");
  bool is_healthy() const;

  event_loop& _loop;
  service_manager& _manager;
  std::vector<instance_status> _instances;
  std::vector<steady_clock::time_point> _alive;          // when each instance published last, or was created
  std::vector<steady_clock::time_point> _failing_since;  // by instance, while its hook fails
  std::string _unsent;                                   // the newest state that the manager has not received yet
  steady_clock::time_point _next_update;                 // not before
  event_loop::handle _update, _tick;
  status_file _file;
};
