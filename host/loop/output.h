// A queue of lines for a descriptor.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "host/loop/event_loop.h"

/// Writes each line as soon as the descriptor accepts it. Until then the line is queued; the caller never waits. After
/// a failure, lines are dropped.
class output {
 public:
  /// The journal reads a level at the start of each line.
  output(event_loop& l, int fd, bool is_journal = false);
  bool is_journal() const { return _is_journal; }

  void line(std::string_view text);
  /// Bytes without an end of line, as a terminal's screen needs them.
  void put(std::string_view bytes);

  bool is_empty() const { return _sent == _waiting.size(); }

  /// The errno of the first failure, or 0.
  int error() const { return _error; }
  /// Drops the pending lines and all later ones.
  void fail(int error);
  /// Calls `f` with the errno of the first failure, when it occurs.
  void on_failure(std::function<void(int)> f) { _on_failure = std::move(f); }

 private:
  event_loop& _loop;
  int _fd;
  bool _is_journal;
  int _error = 0;
  std::function<void(int)> _on_failure = [](int) {};
  std::string _waiting;
  size_t _sent = 0;  // bytes of _waiting
  event_loop::readiness _watched = event_loop::readiness::none;
  event_loop::handle _watch;

  void flush();
  void wait_for_room();
  void forget_sent();
  void watch(event_loop::readiness r);
};

/// Runs the loop until both outputs are written. Once `is_to_stop` holds, waits at most one more second and drops the
/// rest.
void drain(event_loop& l, output& out, output& err, const std::function<bool()>& is_to_stop);
/// Runs the loop until both outputs are written. Stop signals end the process, even one that was handled before.
void drain_or_die(event_loop& l, output& out, output& err);
