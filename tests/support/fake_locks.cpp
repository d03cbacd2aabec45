#include "tests/support/fake_locks.h"

#include <dlfcn.h>
#include <pthread.h>

#include <utility>

#include "tests/support/fake_pages.h"

namespace {

thread_local fake_locks::recording* current = nullptr;

void note(char what, volatile void* lock) {
  if (current) current->add(what, const_cast<void*>(lock));
}

template <class F>
F* real(F* /*replaced*/, const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int pthread_spin_init(pthread_spinlock_t* lock, int shared) noexcept {
  note(shared == 0 ? 'i' : 's', lock);
  return real(pthread_spin_init, "pthread_spin_init")(lock, shared);
}
extern "C" int pthread_spin_destroy(pthread_spinlock_t* lock) noexcept {
  note('d', lock);
  return real(pthread_spin_destroy, "pthread_spin_destroy")(lock);
}
extern "C" int pthread_spin_lock(pthread_spinlock_t* lock) noexcept {
  static auto* const next = real(pthread_spin_lock, "pthread_spin_lock");
  note('+', lock);
  return next(lock);
}
extern "C" int pthread_spin_unlock(pthread_spinlock_t* lock) noexcept {
  static auto* const next = real(pthread_spin_unlock, "pthread_spin_unlock");
  note('-', lock);
  return next(lock);
}

namespace fake_locks {

recording::recording(std::function<void(char what)> before) : _before(std::move(before)) { current = this; }

std::vector<event> recording::stop() {
  current = nullptr;
  return std::move(_events);
}

void recording::add(char what, const void* lock) {
  if (_before) _before(what);
  _events.push_back({what, lock, fake_pages::live().size()});
}

}  // namespace fake_locks
