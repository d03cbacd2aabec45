#include "tests/support/fake_threads.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <string_view>

namespace {

std::atomic<int> not_joined = 0;

// Not those that a host's callbacks lock.
bool is_plugins(const void* code) {
  Dl_info found;
  return dladdr(code, &found) != 0 && std::string_view(found.dli_fname).ends_with("libip6dns.so");
}

template <class F>
F next(F /*same*/, const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

struct delayed {
  void* (*body)(void*);
  void* argument;
};

void* run_delayed(void* p) {
  const delayed d = *static_cast<delayed*>(p);
  std::free(p);
  fake_threads::before_body();
  return d.body(d.argument);
}

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                              void* argument) noexcept {
  static const auto real = next(&pthread_create, "pthread_create");
  if (fake_threads::threads.is_next()) return EAGAIN;
  if (fake_threads::before_create) fake_threads::before_create();
  if (fake_threads::before_body) {
    argument = new (std::malloc(sizeof(delayed))) delayed{body, argument};  // not counted as a block of the heap
    body = run_delayed;
  }
  const int error = real(thread, attr, body, argument);
  if (error == 0) ++not_joined;
  return error;
}

extern "C" int pthread_join(pthread_t thread, void** result) {
  static const auto real = next(&pthread_join, "pthread_join");
  const int error = real(thread, result);
  if (error == 0) --not_joined;
  return error;
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto real = next(&pthread_mutex_lock, "pthread_mutex_lock");
  nth& locks = fake_threads::locks();
  if (locks.is_armed() && is_plugins(__builtin_return_address(0)) && locks.is_next()) return EAGAIN;
  return real(mutex);
}

namespace fake_threads {

nth threads;
std::function<void()> before_create, before_body;

int unjoined() { return not_joined; }

nth& locks() {
  thread_local nth own;
  return own;
}

}  // namespace fake_threads
