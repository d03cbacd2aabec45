#include "host/signals.h"

#include <sys/signalfd.h>

namespace {

bool is_ignored(int sig) {
  struct sigaction a {};
  return sigaction(sig, nullptr, &a) == 0 && a.sa_handler == SIG_IGN;
}

// A shell without job control starts background commands with SIGINT and SIGQUIT ignored: the keys that send them are
// meant for the foreground. A blocked signal is queued even when it is ignored, so those stay unblocked.
sigset_t block_answered() {
  sigset_t set;
  sigemptyset(&set);
  for (const int sig : {SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&set, sig);
  for (const int sig : {SIGINT, SIGQUIT})
    if (!is_ignored(sig)) sigaddset(&set, sig);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::signal(SIGCHLD, SIG_DFL);  // ignored by whoever started the host, it would hide how children end
  return set;
}

}  // namespace

signals::signals() : _set(block_answered()), _fd(signalfd(-1, &_set, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd") {}

int signals::next() {
  signalfd_siginfo info{};
  const ssize_t n = read(_fd.get(), &info, sizeof info);
  return n == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}
