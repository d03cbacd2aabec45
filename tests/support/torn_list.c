/*
 * Preloaded into a program: marks its first TORN_LISTS address lists from the kernel as changed while they were read.
 * Does not affect its children.
 */
#include <linux/netlink.h>
#include <stdlib.h>
#include <sys/socket.h>

static int left;

__attribute__((constructor)) static void initialise(void) {
  const char* torn = getenv("TORN_LISTS");
  left = torn ? atoi(torn) + 1 : 0;
  unsetenv("LD_PRELOAD");
}

ssize_t send(int fd, const void* request, size_t size, int flags) {
  if (left > 0) --left;
  return sendto(fd, request, size, flags, NULL, 0);
}

ssize_t recv(int fd, void* buf, size_t size, int flags) {
  const ssize_t n = recvfrom(fd, buf, size, flags, NULL, NULL);
  if (left > 0 && n >= (ssize_t)sizeof(struct nlmsghdr)) ((struct nlmsghdr*)buf)->nlmsg_flags |= NLM_F_DUMP_INTR;
  return n;
}
