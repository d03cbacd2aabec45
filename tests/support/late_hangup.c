/*
 * Preloaded into a program: sends it SIGHUP each time that it restores the default action of SIGHUP, and again when
 * its static objects are gone. Does not affect its children.
 */
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

static pid_t program;

static void hang_up(void) {
  if (getpid() == program) kill(program, SIGHUP);
}

__attribute__((constructor)) static void initialise(void) {
  program = getpid();
  unsetenv("LD_PRELOAD");
}

__attribute__((destructor)) static void finish(void) { hang_up(); }

int sigaction(int sig, const struct sigaction* action, struct sigaction* before) {
  const int status = ((__typeof__(&sigaction))dlsym(RTLD_NEXT, "sigaction"))(sig, action, before);
  if (sig == SIGHUP && action && action->sa_handler == SIG_DFL) hang_up();
  return status;
}
