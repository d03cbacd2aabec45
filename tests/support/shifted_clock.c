/*
 * Preloaded into a program: adds the seconds in the file $CLOCK_SHIFT to time(). Its children have the real clock.
 */
#include <fcntl.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

static char* shift_file;

__attribute__((constructor)) static void initialise(void) {
  shift_file = getenv("CLOCK_SHIFT");
  unsetenv("LD_PRELOAD");
}

static long shift(void) {
  char text[32] = "";
  const int fd = shift_file ? open(shift_file, O_RDONLY | O_CLOEXEC) : -1;
  if (fd < 0) return 0;
  const ssize_t n = read(fd, text, sizeof text - 1);
  close(fd);
  return n > 0 ? atol(text) : 0;
}

time_t time(time_t* out) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const time_t seconds = now.tv_sec + shift();
  if (out) *out = seconds;
  return seconds;
}
