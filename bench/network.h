// A network of the program's own, with nothing but a loopback interface in it.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>

inline void write_file(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY);
  if (fd < 0 || write(fd, text.data(), text.size()) < 0) throw std::system_error(errno, std::generic_category(), path);
  close(fd);
}

inline void ip(const std::string& commands) {
  std::FILE* f = popen("ip -6 -batch -", "w");
  if (!f || std::fputs(commands.c_str(), f) < 0 || pclose(f) != 0) throw std::runtime_error("ip -6 -batch fails");
}

/// To be called before there is a second thread.
inline void enter_network() {
  const std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
    throw std::system_error(errno, std::generic_category(), "a network namespace");
  write_file("/proc/self/setgroups", "deny");
  write_file("/proc/self/uid_map", "0 " + uid + " 1");
  write_file("/proc/self/gid_map", "0 " + gid + " 1");
  ip("link set lo up\n");
}
