// The signals the host answers, read from a descriptor: nothing runs in a handler.
#pragma once

#include <csignal>

#include "host/descriptor.h"

/// Blocks SIGINT, SIGQUIT, SIGTERM, SIGHUP and SIGCHLD in this thread and in those that it starts from here on. SIGINT
/// and SIGQUIT stay ignored when the parent process ignores them.
class signals {
 public:
  signals();

  /// Readable while a signal waits.
  int fd() const { return _fd.get(); }
  /// The next signal that waits, or 0.
  int next();

 private:
  sigset_t _set;
  descriptor _fd;
};
