// A file that lives as long as the object, and the files that this process holds open.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

class scratch_file {
 public:
  explicit scratch_file(std::string_view text) : _path(testing::TempDir() + "scratch-XXXXXX") {
    const int fd = mkstemp(_path.data());
    if (fd < 0) throw std::runtime_error("no scratch file: " + _path);
    ::close(fd);
    write(text);
  }
  ~scratch_file() { std::remove(_path.c_str()); }
  scratch_file(const scratch_file&) = delete;
  scratch_file& operator=(const scratch_file&) = delete;

  const std::string& path() const { return _path; }

 private:
  std::string _path;

  void write(std::string_view text) const {
    std::FILE* file = std::fopen(_path.c_str(), "wb");
    if (!file || std::fwrite(text.data(), 1, text.size(), file) != text.size()) throw std::runtime_error(_path);
    std::fclose(file);
  }
};

/// Descriptors open in this process.
inline long open_descriptors() {
  // The walk has one open itself, always the same one more.
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}
