#include "tests/support/fake_disk.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <string_view>

namespace {

constinit fake_disk::recording* current = nullptr;  // these functions are called before and after main()

std::map<int, std::string>& opened() {
  static std::map<int, std::string> names;
  return names;
}

bool is_recorded(int fd) { return current && opened().contains(fd); }

bool fails(const char* call, std::string_view file) {
  current->made.push_back(std::string(call) + ' ' + std::string(file.substr(file.rfind('/') + 1)));
  if (!current->calls.is_next()) return false;
  errno = current->error;
  return true;
}

bool fails(const char* call, int fd) { return is_recorded(fd) && fails(call, opened().at(fd)); }

}  // namespace

namespace fake_disk {

recording::recording() { current = this; }
recording::~recording() {
  current = nullptr;
  opened().clear();
}

}  // namespace fake_disk

extern "C" {

int open(const char* file, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  if (current && fails("open", file)) return -1;
  const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, file, flags, mode));
  if (current && fd >= 0) opened()[fd] = file;
  if (current && (flags & O_CLOEXEC) == 0) ++current->inheritable;
  return fd;
}

ssize_t write(int fd, const void* buf, size_t size) {
  if (fails("write", fd)) return -1;
  if (is_recorded(fd) && !current->most_bytes.empty()) {
    size = std::min(size, current->most_bytes.front());
    current->most_bytes.pop_front();
    if (size == 0) {
      errno = EINTR;
      return -1;
    }
  }
  return syscall(SYS_write, fd, buf, size);
}

int fchmod(int fd, mode_t mode) noexcept {
  return fails("fchmod", fd) ? -1 : static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

int fsync(int fd) { return fails("fsync", fd) ? -1 : static_cast<int>(syscall(SYS_fsync, fd)); }

// Closes the file even if it fails, as the kernel does.
int close(int fd) {
  const bool has_failed = fails("close", fd);
  const int error = errno;
  if (current) opened().erase(fd);
  const int result = static_cast<int>(syscall(SYS_close, fd));
  if (!has_failed) return result;
  errno = error;
  return -1;
}

int rename(const char* from, const char* to) noexcept {
  return current && fails("rename", from) ? -1
                                          : static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

}  // extern "C"
