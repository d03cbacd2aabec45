// Programs that the host starts.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "host/interface.h"

/// Starts programs and sends them signals. event_loop::on_exit() awaits their end and reaps them.
class launcher : public interface {
 public:
  /// Starts `program`, a path or a name on PATH, as the leader of a process group. Adds `settings` (NAME=VALUE) to the
  /// host's environment. The program's standard input is empty, and its output goes to the host's standard error.
  /// Throws std::system_error if it cannot be started.
  virtual pid_t start(const std::string& program, const std::vector<std::string>& settings) = 0;
  /// Signals the program's whole group.
  virtual void signal(pid_t program, int sig) = 0;
};

class process_launcher : public launcher {
 public:
  pid_t start(const std::string& program, const std::vector<std::string>& settings) override;
  void signal(pid_t program, int sig) override;
};
