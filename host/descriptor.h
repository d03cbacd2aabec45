// An owned file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <system_error>

class descriptor {
 public:
  /// Takes over `fd`; when it is negative, throws what errno tells, naming the call that failed.
  descriptor(int fd, const char* call) : _fd(fd) {
    if (fd < 0) throw std::system_error(errno, std::generic_category(), call);
  }
  ~descriptor() { close(_fd); }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;

  int get() const { return _fd; }

 private:
  int _fd;
};
