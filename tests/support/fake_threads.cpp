#include "tests/support/fake_threads.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<int> thread_error = 0;
thread_local int locks = 0;
thread_local int refused_lock = 0;

template <class F>
F next(F /*same*/, const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                              void* argument) noexcept {
  static const auto real = next(&pthread_create, "pthread_create");
  if (thread_error != 0) return thread_error;
  return real(thread, attr, body, argument);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto real = next(&pthread_mutex_lock, "pthread_mutex_lock");
  if (++locks == refused_lock) return EAGAIN;
  return real(mutex);
}

namespace fake_threads {

void refuse_thread(int error) { thread_error = error; }
void refuse_lock(int i) {
  locks = 0;
  refused_lock = i;
}

}  // namespace fake_threads
