#include "host/child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string_view>
#include <system_error>
#include <thread>

#include "host/deadline.h"

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

// The signals that the host blocks or ignores for itself are the program's as ever.
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

child::child(const std::string& program, const strings& settings) : _pid(spawn(program, settings)) {}

// One that not even SIGKILL ends is left to the system: the host is about to end.
child::~child() {
  if (_pid < 0) return;
  signal(SIGKILL);
  const auto end = steady_clock::now() + std::chrono::milliseconds(500);
  while (waitpid(_pid, nullptr, WNOHANG) == 0 && steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void child::signal(int sig) const {
  if (kill(-_pid, sig) != 0) kill(_pid, sig);
}

// While it is not yet waited for, its number and its group's belong to nobody else: the time to kill the group.
std::optional<int> child::status() {
  siginfo_t ended{};
  if (waitid(P_PID, static_cast<id_t>(_pid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid == 0)
    return std::nullopt;
  signal(SIGKILL);
  int status = 0;
  waitpid(_pid, &status, 0);
  _pid = -1;
  return status;
}
