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

class streams {
 public:
  streams() {
    posix_spawn_file_actions_init(&_actions);
    posix_spawn_file_actions_addopen(&_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&_actions, STDERR_FILENO, STDOUT_FILENO);
  }
  ~streams() { posix_spawn_file_actions_destroy(&_actions); }
  streams(const streams&) = delete;
  streams& operator=(const streams&) = delete;

  const posix_spawn_file_actions_t* get() const { return &_actions; }

 private:
  posix_spawn_file_actions_t _actions{};
};

// The program starts with the signal settings that the host was started with, and with none blocked.
class attributes {
 public:
  attributes() {
    sigset_t none;
    sigset_t ignored;
    sigemptyset(&none);
    sigemptyset(&ignored);
    sigaddset(&ignored, SIGPIPE);
    posix_spawnattr_init(&_attributes);
    posix_spawnattr_setsigmask(&_attributes, &none);
    posix_spawnattr_setsigdefault(&_attributes, &ignored);
    posix_spawnattr_setpgroup(&_attributes, 0);
    posix_spawnattr_setflags(&_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  ~attributes() { posix_spawnattr_destroy(&_attributes); }
  attributes(const attributes&) = delete;
  attributes& operator=(const attributes&) = delete;

  const posix_spawnattr_t* get() const { return &_attributes; }

 private:
  posix_spawnattr_t _attributes{};
};

pid_t spawn(std::string program, strings settings) {
  const streams s;
  const attributes a;
  char* argv[] = {program.data(), nullptr};
  pid_t pid = -1;
  const int failed = posix_spawnp(&pid, program.c_str(), s.get(), a.get(), argv, environment_with(settings).data());
  if (failed != 0) throw std::system_error(failed, std::generic_category());
  return pid;
}

}  // namespace

pid_t process_launcher::start(const std::string& program, const strings& settings) { return spawn(program, settings); }

void process_launcher::signal(pid_t program, int sig) {
  if (kill(-program, sig) != 0) kill(program, sig);
}
