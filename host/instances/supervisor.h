// Runs the instances: starts them, reads their files again on SIGHUP, passes on what they report, and stops them.
#pragma once

#include <string>
#include <vector>

#include "host/event.h"
#include "host/instances/fleet.h"
#include "host/interface.h"
#include "host/loop/event_loop.h"

/// Receives what a supervisor reports about its instances.
class fleet_observer : public interface {
 public:
  /// File i has a new instance, with this tag.
  virtual void on_tag(size_t i, const tag& t) = 0;
  /// What an instance reported in a callback.
  virtual void on(const event& e, const value& v) = 0;
  virtual void on(const event& e, const message& m) = 0;
  /// File i was refused: the reason and the consequence.
  virtual void on_refused(size_t i, const std::string& what) = 0;
  /// A reload begins: the files will be read again.
  virtual void on_reload() {}
  /// The instances run, including those whose new files were refused.
  virtual void on_loaded() {}
};

/// Runs blocking calls into the plug-in in the background, so that they never delay a signal.
class supervisor {
 public:
  /// Handles SIGHUP, SIGINT, SIGQUIT and SIGTERM until it is destroyed.
  supervisor(event_loop& l, const plugin& p, const std::vector<std::string>& files, fleet_observer& o);

  const fleet& instances() const { return _fleet; }

  /// Starts an instance for each file. Returns when they run, or when is_to_stop().
  void start_all();
  /// True after a stop signal, after a file was refused at the start, or if an instance could not be started.
  bool is_to_stop() const { return _cause != cause::none; }
  /// Stops and destroys all instances. Returns false if the plug-in does not return within 30 seconds. Then only
  /// event_loop::exit() can end the process.
  bool stop();

  bool has_refused() const { return _cause == cause::refusal; }
  /// Why an instance could not be started, or "".
  const std::string& failure() const { return _failure; }

 private:
  // The new instance of file `index`, or null if the file was refused, and what was reported during the creation.
  struct creation {
    size_t index;
    std::unique_ptr<instance> made;
    std::vector<event> reports;
    std::string reason;
  };
  using batch = std::shared_ptr<std::vector<creation>>;
  // Loading creates, replaces and starts instances. Stuck: the plug-in did not return in time.
  enum class state { loading, running, stopping, stopped, stuck };
  enum class cause { none, signal, refusal, failure };

  void answer(int sig);
  void load();
  batch create(const std::vector<size_t>& files);
  creation create(size_t i);
  void on_created(const std::vector<size_t>& files, const batch& b);
  void refuse(const creation& c);
  void stop_old(const batch& b);
  void start_new(const batch& b);
  std::string start(const batch& b) const;
  void settle();
  void stop_fleet();
  void destroy_fleet();
  void dispatch(const event& e);

  event_loop& _loop;
  const plugin& _plugin;
  fleet_observer& _observer;
  fleet _fleet;
  state _state = state::stopped;
  cause _cause = cause::none;    // why the instances are to be stopped
  std::vector<size_t> _to_load;  // files to be read
  std::string _failure;
  event_loop::handle _signals;
};
