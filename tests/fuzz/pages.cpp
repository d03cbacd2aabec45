#include "tests/fuzz/pages.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

thread_local bool watching = false;
thread_local bool refusing = false;
thread_local int refusals = 0;
thread_local int mappings = 0;

}  // namespace

// The thread sanitizer maps pages before it has set itself up: no watch has begun by then, and what is not watched goes
// to the system without a word to it. mmap64 is the C library's same function under its second name, which sanitizers
// know too.
#define BEFORE_SANITIZER __attribute__((no_sanitize("thread")))

extern "C" BEFORE_SANITIZER void* mmap(void* at, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
  if (!watching) return reinterpret_cast<void*>(syscall(SYS_mmap, at, length, prot, flags, fd, offset));
  if (refusing) {
    ++refusals;
    return nullptr;
  }
  ++mappings;
  return mmap64(at, length, prot, flags, fd, offset);
}

extern "C" BEFORE_SANITIZER int munmap(void* at, size_t length) noexcept {
  if (watching) --mappings;
  return static_cast<int>(syscall(SYS_munmap, at, length));
}

namespace pages {

watch::watch(bool refuse) {
  watching = true;
  refusing = refuse;
  refusals = 0;
}
watch::~watch() { watching = refusing = false; }
int watch::refused() { return refusals; }

int live() { return mappings; }
void forget() { mappings = 0; }

}  // namespace pages
