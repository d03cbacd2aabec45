#include "host/commands/status_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "host/report.h"

using namespace std::chrono_literals;

namespace {

constexpr auto between_writes = 1s;
constexpr auto retry_pause = 10s;

int write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = write(fd, text.data(), text.size());
    if (n == -1 && errno != EINTR) return errno;
    if (n != -1) text.remove_prefix(static_cast<size_t>(n));
  }
  return 0;
}

// The file that replaces the one with this path. It is in the same directory, so that it can. Users have no file with
// this name. The name is always the same, so that the file of a crash is replaced.
std::string replacement(const std::string& path) {
  const size_t name = path.rfind('/') + 1;  // 0 without a directory
  return path.substr(0, name) + '.' + path.substr(name) + ".dachost-tmp";
}

bool is_regular(int fd) {
  struct stat s {};
  return fstat(fd, &s) == 0 && S_ISREG(s.st_mode);
}

constexpr int not_regular = ENXIO;  // as for a FIFO without a reader

// Does not wait for the reader of a FIFO. Returns the descriptor, or -1 and errno.
int open_new(const std::string& path) {
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const int fd = open(path.c_str(), flags, 0644);
  if (fd == -1 || is_regular(fd)) return fd;
  close(fd);
  errno = not_regular;
  return -1;
}

// The errno of a failure, or 0.
int replace(const std::string& path, const std::string& text) {
  const std::string next = replacement(path);
  const int fd = open_new(next);
  if (fd == -1) return errno;
  int error = write_all(fd, text);
  if (close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && rename(next.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) unlink(next.c_str());
  return error;
}

// "" for 0.
std::string describe(int error, const std::string& path) {
  if (error == not_regular) return replacement(path) + ": not a regular file";
  return error == 0 ? "" : std::strerror(error);
}

}  // namespace

std::string unwritable(const std::string& path) {
  const std::string next = replacement(path);
  const int fd = open_new(next);
  if (fd == -1) return errno == ENOSPC || errno == EDQUOT ? "" : describe(errno, path);
  close(fd);
  unlink(next.c_str());
  return "";
}

void status_file::update() {
  if (_path.empty() || _state == state::waiting) return;
  if (_state != state::clean) {
    _state = state::outdated;
    return;
  }
  _state = state::waiting;
  _timer = _loop.call_at(std::max(_loop.now(), _next), [this] { write(); });
}

void status_file::write() {
  _timer = nullptr;
  _retry = nullptr;
  _state = state::writing;
  _loop.run_in_background([this, text = _text()]() -> event_loop::task {
    const int error = replace(_path, text);
    return [this, error] { on_written(describe(error, _path)); };
  });
}

void status_file::on_written(const std::string& error) {
  _next = _loop.now() + between_writes;
  const bool failed_before = std::exchange(_has_failed, !error.empty());
  if (_has_failed) _retry = _loop.call_in(retry_pause, [this] { update(); });
  if (_has_failed && !failed_before)
    report(_err, _path + ": cannot be written: " + error + "; retry every 10 seconds", severity::warning);
  if (!_has_failed && failed_before) report(_err, _path + ": is written again", severity::info);
  if (std::exchange(_state, state::clean) == state::outdated) update();
}

void status_file::finish() {
  if (_state == state::waiting || _retry) write();
  const auto limit = _loop.call_in(2s, [this] { _loop.restore_signals(); });
  _loop.run_until([this] { return _state == state::clean; });
}
