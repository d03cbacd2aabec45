// A program that the host started.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// Leads a process group of its own, which ends with it: what the program leaves running there is killed.
class child {
 public:
  /// Starts `program`, a path or a name on PATH, with these NAME=VALUE in the environment beside the host's. It reads
  /// nothing, and prints to the host's standard error. Throws std::system_error when it cannot be started.
  child(const std::string& program, const std::vector<std::string>& settings);
  ~child();
  child(const child&) = delete;
  child& operator=(const child&) = delete;

  /// To the whole group.
  void signal(int sig) const;
  /// The wait status once the program has ended, as the system gives it.
  std::optional<int> status();

 private:
  pid_t _pid;
};
