#include "host/instances/diagnose.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "host/instances/config_file.h"

namespace {

int error_of_reading(const std::string& file) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  char first = 0;
  const int error = read(fd, &first, 1) < 0 ? errno : 0;
  close(fd);
  return error;
}

constexpr std::pair<std::string_view, const char*> remedies[] = {
    {"not config hostname", ": a line hostname = NAME is needed, see ip6dns.conf(5)"},
    {"hostname contains illegal characters", R"(: none of ' " ( ) : may be in it, see ip6dns.conf(5))"}};

std::string line_to_correct(const std::string& file) {
  const std::string like = hostname_like_line(file);
  if (!like.empty()) return "; check " + like;
  const std::string unused = first_unused_line(file);
  return unused.empty() ? "" : "; " + unused;
}

std::string remedy(const std::string& file, const std::string& reason) {
  if (!unreadable(file).empty()) return "";
  if (const int error = error_of_reading(file)) return std::string(": ") + std::strerror(error);
  const std::string hidden = hidden_hostname(file);
  if (!hidden.empty() && reason.starts_with("not config hostname")) return ": " + hidden;
  for (const auto& [begin, text] : remedies)
    if (reason.starts_with(begin)) return text + line_to_correct(file);
  return "";
}

}  // namespace

std::string diagnose(const std::string& file, const std::string& reason) {
  if (reason.empty())
    return file + ": refused without a reason; the plug-in may have no room for another instance" +
           remedy(file, reason);
  const bool is_named = reason.find(file) != std::string::npos;
  return (is_named ? "" : file + ": ") + reason + remedy(file, reason);
}
