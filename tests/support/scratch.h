// A directory for files that several processes open.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

/// Removed with the object.
class scratch {
 public:
  scratch() {
    if (!mkdtemp(_path.data())) throw std::runtime_error("cannot create the directory " + _path);
  }
  ~scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  scratch(const scratch&) = delete;
  scratch& operator=(const scratch&) = delete;

  std::string path(const std::string& name) const { return _path + "/" + name; }
  /// Writes the file `name` and returns its path.
  std::string file(const std::string& text, const std::string& name = "ip6dns.conf") const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }

 private:
  std::string _path = std::filesystem::temp_directory_path() / "ip6dns-XXXXXX";
};
