// Rewrites a file when its contents change.
#pragma once

#include <functional>
#include <string>

#include "host/loop/event_loop.h"
#include "host/loop/output.h"

/// Why the file cannot be written, or "". Does not change it. A full disk is no reason: it may have room later.
std::string unwritable(const std::string& path);

/// Replaces the file atomically, at most once a second, on a background thread: a disk that hangs does not delay the
/// loop. Retries ten seconds after a failure. Reports the first of several failures in a row, and their end.
class status_file {
 public:
  /// `text` returns the new contents of the file. If the path is empty, no file is written.
  status_file(event_loop& l, std::string path, output& err, std::function<std::string()> text)
      : _loop(l), _path(std::move(path)), _err(err), _text(std::move(text)) {}

  /// Call this when the text has changed.
  void update();
  /// Waits until the newest text is written. Stop signals end the wait by ending the process after two seconds.
  void finish();

 private:
  enum class state { clean, waiting, writing, outdated };  // outdated: changed while it is written

  void write();
  void on_written(const std::string& error);

  event_loop& _loop;
  const std::string _path;
  output& _err;
  const std::function<std::string()> _text;
  state _state = state::clean;
  bool _has_failed = false;
  steady_clock::time_point _next;  // not before
  event_loop::handle _timer;
  event_loop::handle _retry;  // after a failure
};
