/*
 * Preloaded into a program: makes one call fail. REFUSED is "CALL NUMBER ERROR": the call with that number (0 is the
 * first) of CALL fails with the errno ERROR; with ERROR 0 a write accepts half its bytes. Then creates the file
 * REFUSED_MARK. Does not affect the program's children.
 */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

static char call[32];
static char mark[256];
static int refused_number;
static int error;
static atomic_int is_in_main;
static atomic_int calls;

__attribute__((constructor)) static void prepare(void) {
  const char* refused = getenv("REFUSED");
  const char* file = getenv("REFUSED_MARK");
  if (refused && sscanf(refused, "%31s %d %d", call, &refused_number, &error) != 3) abort();
  if (file) snprintf(mark, sizeof mark, "%s", file);
  unsetenv("LD_PRELOAD");
  unsetenv("REFUSED");
  unsetenv("REFUSED_MARK");
}

/* Does not affect the construction of the program's static objects. */
static int (*real_main)(int, char**, char**);

static int counted_main(int argc, char** argv, char** envp) {
  is_in_main = 1;
  const int status = real_main(argc, argv, envp);
  is_in_main = 0;
  return status;
}

#define REAL(name) ((__typeof__(&(name)))dlsym(RTLD_NEXT, #name))

extern int __libc_start_main(int (*main)(int, char**, char**), int argc, char** argv, void (*init)(void),
                             void (*fini)(void), void (*rtld_fini)(void), void* stack_end);

int __libc_start_main(int (*main)(int, char**, char**), int argc, char** argv, void (*init)(void), void (*fini)(void),
                      void (*rtld_fini)(void), void* stack_end) {
  real_main = main;
  return REAL(__libc_start_main)(counted_main, argc, argv, init, fini, rtld_fini, stack_end);
}

static int is_refused(const char* name) {
  if (!is_in_main || strcmp(call, name) != 0 || atomic_fetch_add(&calls, 1) != refused_number) return 0;
  syscall(SYS_close, syscall(SYS_openat, AT_FDCWD, mark, O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  errno = error;
  return 1;
}

int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions, const posix_spawnattr_t* attr,
                 char* const argv[], char* const envp[]) {
  if (is_refused("posix_spawnp")) return error;
  return REAL(posix_spawnp)(pid, file, actions, attr, argv, envp);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
  if (is_refused("pthread_create")) return error;
  return REAL(pthread_create)(thread, attr, start, arg);
}

int open(const char* file, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return is_refused("open") ? -1 : (int)syscall(SYS_openat, AT_FDCWD, file, flags, mode);
}

ssize_t read(int fd, void* buf, size_t size) { return is_refused("read") ? -1 : syscall(SYS_read, fd, buf, size); }

static const char* write_to(int fd) {
  struct stat s;
  if (fd == STDOUT_FILENO) return "write_out";
  if (fd == STDERR_FILENO) return "write_err";
  return fstat(fd, &s) == 0 && S_ISREG(s.st_mode) ? "write_file" : "write"; /* "write": the event loop's pipes */
}

ssize_t write(int fd, const void* buf, size_t size) {
  if (!is_refused(write_to(fd))) return syscall(SYS_write, fd, buf, size);
  return error == 0 ? syscall(SYS_write, fd, buf, size / 2) : -1;
}

int fchmod(int fd, mode_t mode) { return is_refused("fchmod") ? -1 : (int)syscall(SYS_fchmod, fd, mode); }

int fsync(int fd) { return is_refused("fsync") ? -1 : (int)syscall(SYS_fsync, fd); }

int rename(const char* from, const char* to) {
  return is_refused("rename") ? -1 : (int)syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0);
}

int socket(int domain, int type, int protocol) {
  return is_refused("socket") ? -1 : (int)syscall(SYS_socket, domain, type, protocol);
}

ssize_t send(int fd, const void* buf, size_t size, int flags) {
  return is_refused("send") ? -1 : sendto(fd, buf, size, flags, NULL, 0);
}

ssize_t recv(int fd, void* buf, size_t size, int flags) {
  return is_refused("recv") ? -1 : recvfrom(fd, buf, size, flags, NULL, NULL);
}

int poll(struct pollfd* fds, nfds_t n, int timeout) { return is_refused("poll") ? -1 : REAL(poll)(fds, n, timeout); }

int epoll_create1(int flags) { return is_refused("epoll_create1") ? -1 : (int)syscall(SYS_epoll_create1, flags); }

/* Only for the standard descriptors: the event loop does not check the result for its own. */
int epoll_ctl(int set, int operation, int fd, struct epoll_event* event) {
  const int printed = operation == EPOLL_CTL_ADD && (fd == STDOUT_FILENO || fd == STDERR_FILENO);
  return printed && is_refused("epoll_ctl") ? -1 : (int)syscall(SYS_epoll_ctl, set, operation, fd, event);
}

int epoll_wait(int set, struct epoll_event* events, int size, int timeout) {
  return is_refused("epoll_wait") ? -1 : REAL(epoll_wait)(set, events, size, timeout);
}

int eventfd(unsigned value, int flags) { return is_refused("eventfd") ? -1 : (int)syscall(SYS_eventfd2, value, flags); }

int timerfd_create(clockid_t clock, int flags) {
  return is_refused("timerfd_create") ? -1 : (int)syscall(SYS_timerfd_create, clock, flags);
}

int pipe(int ends[2]) { return is_refused("pipe") ? -1 : (int)syscall(SYS_pipe2, ends, 0); }

int waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
  return is_refused("waitid") ? -1 : REAL(waitid)(type, id, info, options);
}

pid_t waitpid(pid_t pid, int* status, int options) {
  return is_refused("waitpid") ? -1 : REAL(waitpid)(pid, status, options);
}

extern void* __libc_malloc(size_t size);

extern void* __libc_realloc(void* at, size_t size);

void* malloc(size_t size) { return is_refused("malloc") ? NULL : __libc_malloc(size); }
void* realloc(void* at, size_t size) { return is_refused("malloc") ? NULL : __libc_realloc(at, size); }
