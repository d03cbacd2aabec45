#include "host/systemd.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

std::string taken(const char* name) {
  const char* value = std::getenv(name);
  std::string text = value ? value : "";
  unsetenv(name);
  return text;
}

// 0 for what is not a number.
uint64_t number(const std::string& text) {
  uint64_t n = 0;
  const char* end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, n);
  return error == std::errc() && last == end ? n : 0;
}

}  // namespace

systemd::systemd() : _address(taken("NOTIFY_SOCKET")) {
  if (_address.size() >= sizeof sockaddr_un::sun_path || !(_address.starts_with('/') || _address.starts_with('@')))
    _address.clear();
  if (_address.starts_with('@')) _address[0] = '\0';
  const std::string pid = taken("WATCHDOG_PID"), interval = taken("WATCHDOG_USEC");
  if (pid.empty() || number(pid) == static_cast<uint64_t>(getpid()))
    _watchdog = std::chrono::microseconds(number(interval));
}

bool systemd::notify(const std::string& lines) {
  if (!is_present()) return true;
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  std::memcpy(to.sun_path, _address.data(), _address.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + _address.size());
  const ssize_t sent =
      sendto(fd, lines.data(), lines.size(), MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to), size);
  close(fd);
  return sent >= 0;
}

bool is_journal(int fd) {
  struct stat s {};
  const char* stream = std::getenv("JOURNAL_STREAM");
  return stream && fstat(fd, &s) == 0 && std::to_string(s.st_dev) + ':' + std::to_string(s.st_ino) == stream;
}
