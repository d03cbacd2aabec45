// A file with a path but no directory.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "tests/fuzz/target.h"

namespace fuzz {

class memory_file {
 public:
  explicit memory_file(std::string_view text) : _fd(memfd_create("fuzz", MFD_CLOEXEC)) {
    require(_fd >= 0, "a file in memory can be had");
    require(::write(_fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "it takes the text");
  }
  ~memory_file() { ::close(_fd); }
  memory_file(const memory_file&) = delete;
  memory_file& operator=(const memory_file&) = delete;

  /// Opening it reads from the start.
  std::string path() const { return "/proc/self/fd/" + std::to_string(_fd); }

 private:
  int _fd;
};

}  // namespace fuzz
