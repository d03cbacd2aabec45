#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace {

using steady_clock = std::chrono::steady_clock;
constexpr auto timeout = std::chrono::seconds(20);
constexpr auto pause_between = std::chrono::milliseconds(5);

struct pipe_ends {
  int reading;
  int writing;
};

pipe_ends open_pipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
  return {fds[0], fds[1]};
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all(texts.size() + 1);  // the last one stays null
  std::transform(texts.begin(), texts.end(), all.begin(), [](std::string& text) { return text.data(); });
  return all;
}

std::vector<std::string> own_environment() {
  std::vector<std::string> all;
  for (char** e = environ; *e; ++e) all.emplace_back(*e);
  return all;
}

int exit_status(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

}  // namespace

process::process(std::vector<std::string> argv, const process_settings& s) : _limit(s.limit) {
  std::vector<std::string> environment = own_environment();
  environment.insert(environment.end(), s.environment.begin(), s.environment.end());
  const pipe_ends out = open_pipe();
  const pipe_ends err = open_pipe();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out.writing, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err.writing, STDERR_FILENO);
  if (!s.out_file.empty())
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, s.out_file.c_str(), O_WRONLY | O_CREAT, 0600);
  if (s.out_closed) posix_spawn_file_actions_addclose(&actions, STDOUT_FILENO);
  if (s.out_fd >= 0) posix_spawn_file_actions_adddup2(&actions, s.out_fd, STDOUT_FILENO);
  if (s.err_closed) posix_spawn_file_actions_addclose(&actions, STDERR_FILENO);
  // A shell without job control starts the tests in the background with these ignored.
  sigset_t keyboard;
  sigemptyset(&keyboard);
  for (const int sig : {SIGINT, SIGQUIT}) sigaddset(&keyboard, sig);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigdefault(&attributes, &keyboard);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const int failed =
      posix_spawnp(&_pid, argv[0].c_str(), &actions, &attributes, pointers(argv).data(), pointers(environment).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(out.writing);
  close(err.writing);
  _out.fd = out.reading;
  _err.fd = err.reading;
  if (failed != 0) throw std::system_error(failed, std::generic_category(), argv[0]);
}

process::~process() {
  if (_pid > 0) {
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
  }
  _out.close();
  _err.close();
}

// After its end the number would name every process.
void process::signal(int sig) const {
  if (_pid > 0) kill(_pid, sig);
}

void process::close_out() { _out.close(); }
void process::close_err() { _err.close(); }

void process::await_out(const std::string& text) {
  await([&] { return _out.text.find(text) != std::string::npos; }, text);
}
void process::await_err(const std::string& text) {
  await([&] { return _err.text.find(text) != std::string::npos; }, text);
}

void process::read_out(size_t size) {
  await([&] { return _out.text.size() >= size; }, std::to_string(size) + " bytes");
}

ending process::end() {
  await([this] { return _out.fd < 0 && _err.fd < 0; }, "the end of its output");
  return {end_unread(), _out.text, _err.text};
}

int process::end_unread() {
  if (!eventually([this] { return has_ended(); })) throw std::runtime_error("it does not end");
  return exit_status(_status);
}

void process::await(const std::function<bool()>& condition, const std::string& what) {
  const auto end = steady_clock::now() + _limit;
  while (!condition()) {
    if ((_out.fd < 0 && _err.fd < 0) || steady_clock::now() >= end)
      throw std::runtime_error("waited for: " + what + "\nits output: " + _out.text + "\nits errors: " + _err.text);
    read_streams();
  }
}

void process::read_streams() {
  pollfd fds[] = {{_out.fd, POLLIN, 0}, {_err.fd, POLLIN, 0}};
  poll(fds, 2, 100);
  if (fds[0].revents != 0 && !_out.read_some()) _out.close();
  if (fds[1].revents != 0 && !_err.read_some()) _err.close();
}

bool process::has_ended() {
  if (_pid > 0 && waitpid(_pid, &_status, WNOHANG) == _pid) _pid = -1;
  return _pid < 0;
}

bool process::stream::read_some() {
  char buf[65536];
  const ssize_t n = read(fd, buf, sizeof buf);
  if (n > 0) text.append(buf, static_cast<size_t>(n));
  return n > 0;
}

void process::stream::close() {
  if (fd >= 0) ::close(std::exchange(fd, -1));
}

bool eventually(const std::function<bool()>& condition) {
  const auto end = steady_clock::now() + timeout;
  while (!condition()) {
    if (steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(pause_between);
  }
  return true;
}
