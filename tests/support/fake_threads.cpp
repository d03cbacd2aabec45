#include "tests/support/fake_threads.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <string_view>

namespace {

// A host's callbacks lock mutexes of their own.
bool is_plugins(const void* code) {
  Dl_info found;
  return dladdr(code, &found) != 0 && std::string_view(found.dli_fname).ends_with("libip6dns.so");
}

template <class F>
F next(F /*same*/, const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                              void* argument) noexcept {
  static const auto real = next(&pthread_create, "pthread_create");
  if (fake_threads::threads.is_next()) return EAGAIN;
  return real(thread, attr, body, argument);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto real = next(&pthread_mutex_lock, "pthread_mutex_lock");
  nth& locks = fake_threads::locks();
  if (locks.is_armed() && is_plugins(__builtin_return_address(0)) && locks.is_next()) return EAGAIN;
  return real(mutex);
}

namespace fake_threads {

nth threads;

nth& locks() {
  thread_local nth own;
  return own;
}

}  // namespace fake_threads
