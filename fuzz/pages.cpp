#include "fuzz/pages.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

thread_local bool watching = false;
thread_local bool refusing = false;
thread_local int refusals = 0;
thread_local int mappings = 0;

}  // namespace

// mmap64 is the C library's same function under its second name; sanitizers know that one too.
extern "C" void* mmap(void* at, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
  if (refusing) {
    ++refusals;
    return nullptr;
  }
  if (watching) ++mappings;
  return mmap64(at, length, prot, flags, fd, offset);
}

extern "C" int munmap(void* at, size_t length) noexcept {
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
