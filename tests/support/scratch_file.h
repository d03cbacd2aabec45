// A file with a path but without a directory, and the number of files that this process holds open.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

/// Exists in memory during the object's lifetime. Only this process can open its path.
class scratch_file {
 public:
  explicit scratch_file(std::string_view text) : _fd(memfd_create("scratch", MFD_CLOEXEC)) {
    if (_fd < 0 || ::write(_fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
      throw std::system_error(errno, std::generic_category(), "cannot write a scratch file");
  }
  ~scratch_file() { ::close(_fd); }
  scratch_file(const scratch_file&) = delete;
  scratch_file& operator=(const scratch_file&) = delete;

  const std::string& path() const { return _path; }

 private:
  int _fd;
  std::string _path = "/proc/self/fd/" + std::to_string(_fd);
};

/// Descriptors open in this process.
inline long open_descriptors() {
  // The iterator always has one more open.
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}
