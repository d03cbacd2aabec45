// The only place where the host waits and reads clocks.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <utility>

#include "host/interface.h"

using steady_clock = std::chrono::steady_clock;
using wall_clock = std::chrono::system_clock;

/// Calls handlers one at a time, all on the thread that runs the loop. Functions without [any thread] may be called
/// only on that thread.
class event_loop : public interface {
 public:
  using task = std::function<void()>;
  /// Ends a timer, a watch or a wait when it is destroyed: its handler is not called after that.
  struct registration : interface {};
  using handle = std::unique_ptr<registration>;
  enum class readiness { none, readable, writable };

  virtual steady_clock::time_point now() const = 0;
  /// [any thread]
  virtual wall_clock::time_point wall_time() const = 0;

  /// Calls handlers until the condition holds. Checks the condition before each handler.
  virtual void run_until(const std::function<bool()>& condition) = 0;

  /// Calls the task in the loop, after the tasks that were posted before. [any thread]
  virtual void post(task t) = 0;
  /// Calls `work`, which may block and must not throw, on a separate thread, and posts the task that it returns. If
  /// the system refuses a thread, calls `work` on this thread.
  virtual void run_in_background(std::function<task()> work) = 0;

  /// Calls work(0) to work(n - 1), up to 512 of them at once, and returns when all have returned. Fewer at once when
  /// the system refuses threads. [any thread]
  virtual void parallel_for(size_t n, const std::function<void(size_t)>& work) = 0;

  /// Calls the task once.
  virtual handle call_at(steady_clock::time_point when, task t) = 0;
  handle call_in(std::chrono::nanoseconds delay, task t) { return call_at(now() + delay, std::move(t)); }

  /// Calls the task whenever the descriptor is ready or its other end has closed. Returns null for a regular file or
  /// /dev/null, which are always ready.
  virtual handle watch(int fd, readiness r, task t) = 0;
  /// Writes as much as possible without blocking. Returns the number of bytes or a negative errno; -EAGAIN: try later.
  virtual ssize_t write(int fd, std::string_view bytes) = 0;

  /// Calls back for each of these signals. SIGINT, SIGQUIT and SIGTSTP stay ignored if the parent process ignores
  /// them.
  virtual handle on_signals(std::initializer_list<int> signals, std::function<void(int)> f) = 0;
  /// Restores the default action of SIGINT, SIGQUIT and SIGTERM, even for a signal that was already handled.
  virtual void restore_signals() = 0;
  /// Stops the process as SIGTSTP does by default. Returns when it continues.
  virtual void suspend() = 0;

  /// Calls back once with the child's wait status. Before that, kills the rest of the process group that the child
  /// leads, and reaps the child.
  virtual handle on_exit(pid_t child, std::function<void(int)> f) = 0;

  /// Ends the process even if work still runs on other threads.
  [[noreturn]] virtual void exit(int status) = 0;
};

/// Throws std::system_error.
std::unique_ptr<event_loop> make_event_loop();
