/*
 * Preloaded into a program: its steady clock runs a hundred times as fast, and timers expire accordingly. The programs
 * that it starts have the real clock.
 */
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

static const long factor = 100;
static long start;

static long nanoseconds(void) {
  struct timespec now;
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000 + now.tv_nsec;
}

__attribute__((constructor)) static void take_over(void) {
  start = nanoseconds();
  unsetenv("LD_PRELOAD");
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  if (clock != CLOCK_MONOTONIC) return (int)syscall(SYS_clock_gettime, clock, now);
  const long hasty = start + (nanoseconds() - start) * factor;
  now->tv_sec = hasty / 1000000000;
  now->tv_nsec = hasty % 1000000000;
  return 0;
}

int timerfd_settime(int fd, int flags, const struct itimerspec* new_time, struct itimerspec* old_time) {
  struct itimerspec real = *new_time;
  if (flags == 0) {
    const long wait = (new_time->it_value.tv_sec * 1000000000 + new_time->it_value.tv_nsec) / factor;
    real.it_value.tv_sec = wait / 1000000000;
    real.it_value.tv_nsec = wait % 1000000000;
    if (wait == 0 && new_time->it_value.tv_nsec != 0) real.it_value.tv_nsec = 1;
  }
  return (int)syscall(SYS_timerfd_settime, fd, flags, &real, old_time);
}
