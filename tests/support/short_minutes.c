/*
 * Preloaded into a program: its steady clock runs a hundred times as fast, and so do its waits, until the file
 * $REAL_SECONDS_FROM exists. Its children have the real clock. The checking layer is silent in the program: it
 * would report a callback of ten milliseconds as too slow.
 */
#include <poll.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

static char* slow_file;
static long start;
static atomic_long slow_since;  // 0 while the clock is fast

static long nanoseconds(void) {
  struct timespec now;
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000 + now.tv_nsec;
}

static long factor(void) {
  if (slow_since == 0 && slow_file && access(slow_file, F_OK) == 0) slow_since = nanoseconds();
  return slow_since == 0 ? 100 : 1;
}

static struct timespec timespec_of(long n) { return (struct timespec){n / 1000000000, n % 1000000000}; }
static struct timespec shortened(struct timespec t) {
  return timespec_of((t.tv_sec * 1000000000 + t.tv_nsec) / factor());
}

__attribute__((constructor)) static void initialise(void) {
  slow_file = getenv("REAL_SECONDS_FROM");
  start = nanoseconds();
  unsetenv("LD_PRELOAD");
  setenv("DAC_CHECK_ABORT", "0", 1);
  setenv("DAC_CHECK_LOG", "/dev/null", 1);
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  if (clock != CLOCK_MONOTONIC) return (int)syscall(SYS_clock_gettime, clock, now);
  const long f = factor(), real = nanoseconds(), fast_until = f == 1 ? slow_since : real;
  *now = timespec_of(start + (fast_until - start) * 100 + (real - fast_until));
  return 0;
}

int poll(struct pollfd* fds, nfds_t count, int milliseconds) {
  const struct timespec timeout = timespec_of(milliseconds * (1000000L / factor()));
  return (int)syscall(SYS_ppoll, fds, count, milliseconds < 0 ? NULL : &timeout, NULL, 0);
}

int epoll_wait(int fd, struct epoll_event* events, int count, int milliseconds) {
  const int scaled = milliseconds > 0 ? milliseconds / (int)factor() + 1 : milliseconds;
  return (int)syscall(SYS_epoll_pwait, fd, events, count, scaled, NULL, _NSIG / 8);
}

/* Relative times only: an absolute one would have to be translated back. */
int timerfd_settime(int fd, int flags, const struct itimerspec* next, struct itimerspec* old) {
  struct itimerspec scaled = *next;
  if ((flags & TFD_TIMER_ABSTIME) == 0) {
    scaled.it_value = shortened(next->it_value);
    scaled.it_interval = shortened(next->it_interval);
    if (next->it_value.tv_sec + next->it_value.tv_nsec > 0) scaled.it_value.tv_nsec |= 1;
  }
  return (int)syscall(SYS_timerfd_settime, fd, flags, &scaled, old);
}
