// The service manager's end of the notification socket.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

class notify_socket {
 public:
  /// A path, or '@' and a name in the abstract namespace.
  explicit notify_socket(const std::string& address) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::memcpy(a.sun_path, address.data(), address.size());
    if (a.sun_path[0] == '@') a.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
    if (_fd < 0 || bind(_fd, reinterpret_cast<const sockaddr*>(&a), size) != 0) throw std::runtime_error(address);
  }
  ~notify_socket() { close(_fd); }
  notify_socket(const notify_socket&) = delete;
  notify_socket& operator=(const notify_socket&) = delete;

  /// The next notification; "" when none comes in this time.
  std::string receive(std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
    pollfd p = {_fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(limit.count())) <= 0) return "";
    char text[4096];
    const ssize_t n = recv(_fd, text, sizeof text, 0);
    return n < 0 ? "" : std::string(text, static_cast<size_t>(n));
  }
  /// Receives until a notification contains the text, and returns that. Throws when none does within 20 seconds.
  std::string await(const std::string& text) const {
    std::string all;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
      std::string got = receive(std::chrono::milliseconds(100));
      if (got.find(text) != std::string::npos) return got;
      all += got + '\n';
    }
    throw std::runtime_error("waited for: " + text + "\nreceived: " + all);
  }

 private:
  int _fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};
