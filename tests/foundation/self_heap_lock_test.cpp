// The self heap takes its lock before anything else.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>

#include "com/ymlib3/ym_alloctor"

namespace {

thread_local int locked = 0, unlocked = 0;

using spin_call = int (*)(pthread_spinlock_t*);

spin_call real(const char* name) { return reinterpret_cast<spin_call>(dlsym(RTLD_NEXT, name)); }

}  // namespace

extern "C" int pthread_spin_lock(pthread_spinlock_t* lock) noexcept {
  static const spin_call call = real("pthread_spin_lock");
  ++locked;
  return call(lock);
}

extern "C" int pthread_spin_unlock(pthread_spinlock_t* lock) noexcept {
  static const spin_call call = real("pthread_spin_unlock");
  ++unlocked;
  return call(lock);
}

TEST(self_heap_lock, is_taken_before_the_size_is_checked) {
  for (const size_t n : {size_t{56}, size_t{57}, size_t{SIZE_MAX}}) {
    locked = unlocked = 0;
    void* p = get_ym_alloctor_self()->malloc_(n);
    EXPECT_EQ(locked, 1) << n;
    EXPECT_EQ(unlocked, 1) << n;
    EXPECT_EQ(p != nullptr, n <= 56) << n;
    get_ym_alloctor_self()->free_(p);
  }
}
