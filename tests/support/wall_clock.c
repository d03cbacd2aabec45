/*
 * Preloaded into a program: the file $WALL_CLOCK sets CLOCK_REALTIME. "=SECONDS.MILLISECONDS" stops it at that time,
 * "SECONDS" adds to it. Its children have the real clock.
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static char* file;

__attribute__((constructor)) static void initialise(void) {
  file = getenv("WALL_CLOCK");
  unsetenv("LD_PRELOAD");
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  const int status = (int)syscall(SYS_clock_gettime, clock, now);
  if (clock != CLOCK_REALTIME || !file) return status;
  char text[64] = "";
  const int fd = open(file, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return status;
  const ssize_t n = read(fd, text, sizeof text - 1);
  close(fd);
  long seconds = 0, milliseconds = 0;
  if (n > 0 && sscanf(text, "=%ld.%3ld", &seconds, &milliseconds) == 2) {
    now->tv_sec = seconds;
    now->tv_nsec = milliseconds * 1000000;
  } else if (n > 0) {
    now->tv_sec += atol(text);
  }
  return status;
}
