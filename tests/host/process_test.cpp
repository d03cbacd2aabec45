// Programs that the host starts, and the signals that they get.
#include "host/hook/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <system_error>

#include "tests/support/scratch.h"
#include "tests/support/texts.h"

namespace {

/// What a function finds in its variables when it does not set them.
void fill_stack() {
  char filling[16384];
  std::memset(filling, 0xff, sizeof filling);
  asm volatile("" : : "r"(filling) : "memory");
}

/// Makes one descriptor a copy of another while it lives.
class replaced {
 public:
  replaced(int fd, int by) : _fd(fd), _before(fcntl(fd, F_DUPFD_CLOEXEC, 10)) { dup2(by, fd); }
  ~replaced() {
    dup2(_before, _fd);
    close(_before);
  }
  replaced(const replaced&) = delete;
  replaced& operator=(const replaced&) = delete;

 private:
  int _fd;
  int _before;
};

class programs : public testing::Test {
 protected:
  scratch dir;
  process_launcher launcher;

  std::string script(const std::string& body) const {
    std::string file = dir.file("#!/bin/sh\n" + body + '\n', "script");
    EXPECT_EQ(chmod(file.c_str(), 0700), 0);
    return file;
  }
  static int wait(pid_t pid) {
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
  }
  int run(const std::string& program, const texts& settings = {}) {
    fill_stack();
    return wait(launcher.start(program, settings));
  }
  std::string result() const { return read_file(dir.path("result")); }
  /// A line of the program's /proc/self/status.
  std::string status_line(const std::string& name) {
    EXPECT_EQ(run(script("exec grep '^" + name + ":' /proc/self/status >" + dir.path("result"))), 0);
    return result();
  }
};

/// Sets a signal's action while it lives.
class with_signal {
 public:
  with_signal(int sig, void (*action)(int)) : _sig(sig), _before(std::signal(sig, action)) {}
  ~with_signal() { std::signal(_sig, _before); }
  with_signal(const with_signal&) = delete;
  with_signal& operator=(const with_signal&) = delete;

 private:
  int _sig;
  void (*_before)(int);
};

/// A child process whose exit status is the number of times that it has got SIGRTMIN when the pipe closes.
class counter {
 public:
  counter() {
    if (pipe2(_pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGRTMIN);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    _pid = fork();
    if (_pid != 0) return;
    close(_pipe[1]);
    char byte = 0;
    while (read(_pipe[0], &byte, 1) < 0) {
    }
    int n = 0;
    for (const timespec at_once = {0, 0}; sigtimedwait(&set, nullptr, &at_once) == SIGRTMIN;) ++n;
    _exit(n);
  }
  ~counter() { close(_pipe[0]); }
  counter(const counter&) = delete;
  counter& operator=(const counter&) = delete;

  pid_t pid() const { return _pid; }
  void close_pipe() const { close(_pipe[1]); }
  int count() const {
    int status = -1;
    waitpid(_pid, &status, 0);
    return WEXITSTATUS(status);
  }

 private:
  int _pipe[2] = {-1, -1};
  pid_t _pid = -1;
};

}  // namespace

TEST_F(programs, get_the_hosts_environment_and_each_setting_once) {
  setenv("DAC_TAG", "inherited", 1);
  setenv("DAC_TAGS", "longer", 1);
  setenv("DAC_TA", "shorter", 1);
  setenv("XAC_TAG", "similar", 1);
  // A list of this size is not in a block that the C library reuses unchanged.
  for (int n = 0; n < 300; ++n) setenv(("FILLER" + std::to_string(n)).c_str(), "", 1);
  texts expected;
  for (char** e = environ; *e; ++e)
    if (std::string(*e) != "DAC_TAG=inherited") expected.emplace_back(*e);
  expected.insert(expected.end(), {"DAC_TAG=own", "DAC_VALUE=a=b"});
  mallopt(M_PERTURB, 0x5a);  // new memory has other bytes than 0
  EXPECT_EQ(run(script("tr '\\0' '\\n' </proc/$$/environ >" + dir.path("result")), {"DAC_TAG=own", "DAC_VALUE=a=b"}),
            0);
  mallopt(M_PERTURB, 0);
  for (int n = 0; n < 300; ++n) unsetenv(("FILLER" + std::to_string(n)).c_str());
  texts found = lines(result());
  std::erase_if(found, [](const std::string& s) { return s.starts_with("_=") || s.starts_with("PWD="); });
  std::erase_if(expected, [](const std::string& s) { return s.starts_with("_=") || s.starts_with("PWD="); });
  EXPECT_EQ(found, expected);
  for (const char* name : {"DAC_TAG", "DAC_TAGS", "DAC_TA", "XAC_TAG"}) unsetenv(name);
}

TEST_F(programs, read_nothing_and_print_to_standard_error) {
  const std::string file = dir.path("printed");
  const int to = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const std::string program = script("readlink /proc/$$/fd/0\ncat\necho error >&2\necho output");
  int status = -1;
  {
    const replaced in(STDIN_FILENO, to);
    const replaced err(STDERR_FILENO, to);
    status = run(program);
  }
  close(to);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(read_file(file), "/dev/null\nerror\noutput\n");
}

TEST_F(programs, are_found_on_PATH) {
  EXPECT_EQ(run("true"), 0);
  EXPECT_EQ(run("false"), 1 << 8);
}

TEST_F(programs, lead_their_process_group) {
  const pid_t pid = launcher.start(script("while :; do sleep 1000; done"), {});
  EXPECT_EQ(getpgid(pid), pid);
  launcher.signal(pid, SIGKILL);
  EXPECT_EQ(wait(pid), SIGKILL);
}

TEST_F(programs, start_with_no_signal_blocked) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &before);
  const std::string line = status_line("SigBlk");
  sigprocmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(line, "SigBlk:\t0000000000000000\n");
}

TEST_F(programs, start_with_the_ignored_signals_of_the_host_except_SIGPIPE) {
  const with_signal pipe(SIGPIPE, SIG_IGN);
  const with_signal interrupt(SIGUSR1, SIG_IGN);
  const std::string line = status_line("SigIgn");
  const unsigned long ignored = std::stoul(line.substr(line.find('\t')), nullptr, 16);
  EXPECT_EQ(ignored & 1UL << (SIGPIPE - 1), 0U) << line;
  EXPECT_NE(ignored & 1UL << (SIGUSR1 - 1), 0U) << line;
}

TEST_F(programs, that_cannot_be_started_are_an_error) {
  try {
    launcher.start(dir.path("missing"), {});
    FAIL() << "no exception";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code().value(), ENOENT);
  }
}

TEST_F(programs, leave_no_memory_allocated_in_the_host) {
  const auto fail = [this] { EXPECT_THROW(launcher.start(dir.path("missing"), {"A=b"}), std::system_error); };
  fail();
  const size_t before = mallinfo2().uordblks;
  for (int n = 0; n < 100; ++n) fail();
  EXPECT_LT(mallinfo2().uordblks, before + 5000);
}

TEST_F(programs, a_signal_reaches_each_process_of_a_group_once) {
  const counter leader;
  setpgid(leader.pid(), leader.pid());
  const counter member;
  setpgid(member.pid(), leader.pid());
  launcher.signal(leader.pid(), SIGRTMIN);
  member.close_pipe();
  leader.close_pipe();
  EXPECT_EQ(leader.count(), 1);
  EXPECT_EQ(member.count(), 1);
}

TEST_F(programs, a_signal_reaches_a_process_without_a_group_of_its_number) {
  const counter alone;
  launcher.signal(alone.pid(), SIGRTMIN);
  alone.close_pipe();
  EXPECT_EQ(alone.count(), 1);
}
