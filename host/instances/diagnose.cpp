#include "host/instances/diagnose.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

// Without waiting for the other end of a pipe.
int error_of_reading(const std::string& file) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return errno;
  char first = 0;
  const int error = read(fd, &first, 1) < 0 ? errno : 0;
  close(fd);
  return error;
}

constexpr std::pair<std::string_view, const char*> remedies[] = {
    {"not config hostname", ": a line hostname = NAME is needed, see ip6dns.conf(5)"},
    {"hostname contains illegal characters", R"(: none of ' " ( ) : may be in it, see ip6dns.conf(5))"}};

std::string remedy(const std::string& file, const std::string& reason) {
  if (const int error = error_of_reading(file)) return std::string(": ") + std::strerror(error);
  for (const auto& [begin, text] : remedies)
    if (reason.starts_with(begin)) return text;
  return "";
}

}  // namespace

std::string diagnose(const std::string& file, const std::string& reason) {
  const bool is_named = reason.find(file) != std::string::npos;
  return (is_named ? "" : file + ": ") + reason + remedy(file, reason);
}
