#include "tests/support/fake_files.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

std::atomic<int> files = 0;

FILE* real_fopen(const char* path, const char* mode) {
  static auto* real = reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
  return real(path, mode);
}

ssize_t read_byte(void* file, char* buf, size_t n) {
  if (fake_files::reads.is_next()) {
    errno = EIO;
    return -1;
  }
  return static_cast<ssize_t>(fread(buf, 1, n, static_cast<FILE*>(file)));
}

int seek_to(void* file, off64_t* offset, int origin) {
  if (fseek(static_cast<FILE*>(file), *offset, origin) != 0) return -1;
  *offset = ftell(static_cast<FILE*>(file));
  return 0;
}

int close_file(void* file) {
  --files;
  return fclose(static_cast<FILE*>(file));
}

// An unbuffered stream, so that each byte is a separate read.
FILE* byte_by_byte(FILE* file) {
  FILE* stream = fopencookie(file, "r", {read_byte, nullptr, seek_to, close_file});
  setvbuf(stream, nullptr, _IONBF, 0);
  ++files;
  return stream;
}

}  // namespace

extern "C" FILE* fopen(const char* path, const char* mode) {
  if (std::strcmp(mode, "rt") != 0) return real_fopen(path, mode);
  if (fake_files::opens.is_next()) {
    errno = EMFILE;
    return nullptr;
  }
  FILE* file = real_fopen(path, mode);
  return file ? byte_by_byte(file) : nullptr;
}

namespace fake_files {

nth opens, reads;
int open() { return files; }

}  // namespace fake_files
