#include "tests/support/no_descriptors.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace {

constinit bool is_refused = false;

}  // namespace

no_descriptors::no_descriptors() { is_refused = true; }
no_descriptors::~no_descriptors() { is_refused = false; }

extern "C" {

FILE* fopen64(const char* file, const char* mode) {
  if (!is_refused) return reinterpret_cast<decltype(&fopen64)>(dlsym(RTLD_NEXT, "fopen64"))(file, mode);
  errno = EMFILE;
  return nullptr;
}

int openat(int directory, const char* file, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  if (!is_refused) return static_cast<int>(syscall(SYS_openat, directory, file, flags, mode));
  errno = EMFILE;
  return -1;
}
}
