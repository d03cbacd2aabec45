// A file that is gone with its owner.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

class temporary_file {
 public:
  explicit temporary_file(const std::string& content) {
    const int fd = mkstemp(_path.data());
    const bool written = fd >= 0 && write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    close(fd);
    if (!written) throw std::runtime_error("cannot write " + _path);
  }
  ~temporary_file() { unlink(_path.c_str()); }
  temporary_file(const temporary_file&) = delete;
  temporary_file& operator=(const temporary_file&) = delete;

  const char* path() const { return _path.c_str(); }

 private:
  std::string _path = "/tmp/ip6dns_bench.XXXXXX";
};
