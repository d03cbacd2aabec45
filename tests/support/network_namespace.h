// A network namespace with nothing in it except the loopback interface.
#pragma once

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

/// Writes the text into an existing file. False when that fails.
inline bool write_file(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text << std::flush;
  return file.good();
}

/// Runs commands of `ip -6`, one per line. False when one fails.
inline bool ip(const std::string& commands) {
  std::FILE* f = popen("ip -6 -batch -", "w");
  if (!f) return false;
  const bool written = std::fputs((commands + "\n").c_str(), f) >= 0;
  return pclose(f) == 0 && written;
}

/// Moves the process into a new network namespace. Throws when the kernel does not allow it. The process has one
/// thread.
inline void enter_network() {
  const std::string uid = "0 " + std::to_string(getuid()) + " 1", gid = "0 " + std::to_string(getgid()) + " 1";
  // A plain user gets a network namespace only as root of a user namespace. A process that a privileged user starts
  // there has no privilege outside.
  const bool as_user = unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 && write_file("/proc/self/setgroups", "deny") &&
                       write_file("/proc/self/uid_map", uid) && write_file("/proc/self/gid_map", gid);
  if (!as_user && unshare(CLONE_NEWNET) != 0)
    throw std::system_error(errno, std::generic_category(),
                            "the kernel allows no network namespace, neither in a user namespace nor to this user");
  if (!ip("link set lo up"))
    throw std::runtime_error("the loopback interface cannot be brought up; is ip (iproute2) installed?");
}
