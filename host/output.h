// Lines on their way to a descriptor.
#pragma once

#include <poll.h>

#include <string>
#include <string_view>

/// Writes each line as soon as the descriptor takes it. A reader that does not read makes lines wait here and never
/// makes the caller wait. After a failure lines are dropped.
class output {
 public:
  explicit output(int fd) : _fd(fd) {}

  void line(std::string_view text);

  /// Writes what the descriptor takes without waiting.
  void flush();
  /// Writes all that waits, however long the reader takes.
  void drain();
  bool waiting() const { return !_waiting.empty(); }

  /// What a poll loop watches; its answer goes to notice(), which finds out about a reader that has gone.
  pollfd interest() const;
  void notice(short revents);

  /// The errno of the first failure, or 0.
  int error() const { return _error; }
  /// Drops what waits, and every line to come.
  void fail(int error);

 private:
  int _fd;
  int _error = 0;
  std::string _waiting;

  bool poll_ready(int timeout_ms) const;
  bool write_piece();
};
