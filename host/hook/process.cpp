#include "host/hook/process.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <string_view>
#include <system_error>

namespace {

using strings = std::vector<std::string>;

std::string_view name_of(std::string_view setting) { return setting.substr(0, setting.find('=')); }

bool sets(const strings& settings, std::string_view name) {
  for (const std::string& s : settings)
    if (name_of(s) == name) return true;
  return false;
}

std::vector<char*> environment_with(strings& settings) {
  std::vector<char*> all;
  for (char** e = environ; *e; ++e)
    if (!sets(settings, name_of(*e))) all.push_back(*e);
  for (std::string& s : settings) all.push_back(s.data());
  all.push_back(nullptr);
  return all;
}

// The program reads nothing, prints to standard error, and leads a process group. It starts with no signal blocked and
// with SIGPIPE not ignored, as the host itself was started.
class spawn_settings {
 public:
  spawn_settings() {
    posix_spawn_file_actions_init(&actions);
    int failed = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (failed == 0) failed = posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    if (failed != 0) {
      posix_spawn_file_actions_destroy(&actions);
      throw std::system_error(failed, std::generic_category());
    }
    sigset_t none;
    sigset_t ignored;
    sigemptyset(&none);
    sigemptyset(&ignored);
    sigaddset(&ignored, SIGPIPE);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &ignored);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  ~spawn_settings() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  spawn_settings(const spawn_settings&) = delete;
  spawn_settings& operator=(const spawn_settings&) = delete;

  posix_spawn_file_actions_t actions{};
  posix_spawnattr_t attributes{};
};

pid_t spawn(std::string program, strings settings) {
  const spawn_settings s;
  char* argv[] = {program.data(), nullptr};
  pid_t pid = -1;
  const int failed =
      posix_spawnp(&pid, program.c_str(), &s.actions, &s.attributes, argv, environment_with(settings).data());
  if (failed != 0) throw std::system_error(failed, std::generic_category());
  return pid;
}

}  // namespace

pid_t process_launcher::start(const std::string& program, const strings& settings) { return spawn(program, settings); }

void process_launcher::signal(pid_t program, int sig) {
  if (kill(-program, sig) != 0) kill(program, sig);
}
