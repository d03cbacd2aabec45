#include "host/output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

void output::line(std::string_view text) {
  if (_error != 0) return;
  _waiting.append(text).push_back('\n');
  flush();
}

void output::flush() {
  while (waiting() && poll_ready(0) && write_piece()) {
  }
}

void output::drain() {
  while (waiting()) {
    poll_ready(-1);
    write_piece();
  }
}

pollfd output::interest() const {
  const short events = waiting() ? POLLOUT : 0;
  return {_error == 0 ? _fd : -1, events, 0};
}

void output::notice(short revents) {
  if ((revents & POLLOUT) != 0)
    flush();
  else if (revents != 0)
    fail(EPIPE);
}

void output::fail(int error) {
  if (_error == 0) _error = error;
  _waiting.clear();
}

bool output::poll_ready(int timeout_ms) const {
  pollfd p = {_fd, POLLOUT, 0};
  return poll(&p, 1, timeout_ms) > 0;
}

// A pipe that is ready takes PIPE_BUF bytes at once, and blocks on more.
bool output::write_piece() {
  const ssize_t n = write(_fd, _waiting.data(), std::min<size_t>(_waiting.size(), PIPE_BUF));
  if (n < 0 && errno != EAGAIN && errno != EINTR) fail(errno);
  if (n > 0) _waiting.erase(0, static_cast<size_t>(n));
  return n > 0;
}
