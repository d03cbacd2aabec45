#include "tests/support/fake_pages.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/support/before_sanitizer.h"
#include "tests/support/c_heap.h"
#include "tests/support/immortal.h"

// The sanitizer's functions, if one is linked: it must see all mappings.
extern "C" {
[[gnu::weak]] void* __interceptor_mmap(void* at, size_t length, int prot, int flags, int fd, off_t offset);
[[gnu::weak]] int __interceptor_munmap(void* at, size_t length);
}

namespace {

struct state {
  std::recursive_mutex mtx;
  std::map<void*, size_t, std::less<>, c_heap<std::pair<void* const, size_t>>> live;
  int made = 0;
  std::array<void*, 8> latest = {};  // mapping number i is element i % 8
  std::multimap<size_t, void*, std::less<>, c_heap<std::pair<const size_t, void*>>> spare;  // by length
  bool reuses = false;
  bool refuses_all = false;
  bool fails_all = false;
  size_t last_length = 0;
  int last_descriptor = 0;
  long last_offset = -1;
};

state& s() { return immortal<state>(); }

long set_page_size = 0;  // the page size that sysconf returns, or 0 for the machine's

thread_local bool inside = false;  // the bookkeeping itself may map pages

bool ready = false;
// Runs before all initialisers of the program, but after the initialisation of a sanitizer.
[[gnu::constructor(101)]] void get_ready() { ready = true; }

void* real_mmap(void* at, size_t length, int prot, int flags, int fd, off_t offset) {
  if (__interceptor_mmap) return __interceptor_mmap(at, length, prot, flags, fd, offset);
  return reinterpret_cast<void*>(syscall(SYS_mmap, at, length, prot, flags, fd, offset));
}

int real_munmap(void* at, size_t length) {
  if (__interceptor_munmap) return __interceptor_munmap(at, length);
  return static_cast<int>(syscall(SYS_munmap, at, length));
}

/// A spare mapping of this length, or null.
void* take_spare(size_t length) {
  const auto it = s().spare.find(length);
  if (it == s().spare.end()) return nullptr;
  void* p = it->second;
  s().spare.erase(it);
  return p;
}

void* watched_mmap(void* at, size_t length, int prot, int flags, int fd, off_t offset) {
  const bool pool_pages = flags == (MAP_PRIVATE | MAP_ANONYMOUS) && prot == (PROT_READ | PROT_WRITE) && !at;
  if (!pool_pages || inside) return real_mmap(at, length, prot, flags, fd, offset);
  const std::lock_guard hold(s().mtx);
  s().last_length = length;
  s().last_descriptor = fd;
  s().last_offset = offset;
  void*& latest = s().latest[static_cast<size_t>(++s().made) % s().latest.size()];
  latest = nullptr;
  if (fake_pages::mappings.is_next() || s().refuses_all) return nullptr;
  if (s().fails_all) return MAP_FAILED;
  void* p = take_spare(length);
  if (!p) p = real_mmap(at, length, prot, flags, fd, offset);
  latest = p;
  if (p == MAP_FAILED) return p;
  inside = true;
  s().live[p] = length;
  inside = false;
  return p;
}

int watched_munmap(void* at, size_t length) {
  if (!inside) {
    const std::lock_guard hold(s().mtx);
    inside = true;
    const auto it = s().live.find(at);
    const bool is_ours = it != s().live.end() && it->second == length;
    if (is_ours) s().live.erase(it);
    const bool is_spared = is_ours && s().reuses;
    if (is_spared) s().spare.emplace(length, at);
    inside = false;
    if (is_spared) return 0;
  }
  return real_munmap(at, length);
}

}  // namespace

// The thread sanitizer maps pages and queries their size before it is initialised.
extern "C" BEFORE_SANITIZER void* mmap(void* at, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
  if (ready) return watched_mmap(at, length, prot, flags, fd, offset);
  return reinterpret_cast<void*>(syscall(SYS_mmap, at, length, prot, flags, fd, offset));
}

extern "C" BEFORE_SANITIZER int munmap(void* at, size_t length) noexcept {
  if (ready) return watched_munmap(at, length);
  return static_cast<int>(syscall(SYS_munmap, at, length));
}

extern "C" BEFORE_SANITIZER long sysconf(int name) noexcept {
  static long (*real)(int) = nullptr;
  if (!real) real = reinterpret_cast<long (*)(int)>(dlsym(RTLD_NEXT, "sysconf"));
  const long size = __atomic_load_n(&set_page_size, __ATOMIC_RELAXED);
  return name == _SC_PAGESIZE && size != 0 ? size : real(name);
}

namespace fake_pages {

nth mappings;

int made() {
  const std::lock_guard hold(s().mtx);
  return s().made;
}
void* address_of(int i) {
  const std::lock_guard hold(s().mtx);
  if (i < 1 || i > s().made || i + 8 <= s().made) throw std::out_of_range("mapping " + std::to_string(i));
  return s().latest[static_cast<size_t>(i) % s().latest.size()];
}
std::map<void*, size_t> live() {
  const std::lock_guard hold(s().mtx);
  return {s().live.begin(), s().live.end()};
}
size_t last_length() {
  const std::lock_guard hold(s().mtx);
  return s().last_length;
}
int last_descriptor() {
  const std::lock_guard hold(s().mtx);
  return s().last_descriptor;
}
long last_offset() {
  const std::lock_guard hold(s().mtx);
  return s().last_offset;
}
void refuse(int i) {
  const std::lock_guard hold(s().mtx);
  s().refuses_all = s().fails_all = false;
  mappings.refuse(i);
}
void reuse(bool on) {
  const std::lock_guard hold(s().mtx);
  s().reuses = on;
  while (!on && !s().spare.empty()) {
    const auto [length, at] = *s().spare.begin();
    s().spare.erase(s().spare.begin());
    real_munmap(at, length);
  }
}
void refuse_all() {
  const std::lock_guard hold(s().mtx);
  s().refuses_all = true;
}
void fail_all() {
  const std::lock_guard hold(s().mtx);
  s().fails_all = true;
}
void page_size(long bytes) { __atomic_store_n(&set_page_size, bytes, __ATOMIC_RELAXED); }
void reset() {
  const std::lock_guard hold(s().mtx);
  s().made = 0;
  s().refuses_all = s().fails_all = false;
  mappings.refuse(0);
}

}  // namespace fake_pages
