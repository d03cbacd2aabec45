// What dachost inherits from the process that starts it: ignored signals, closed descriptors, the environment.
#include <gtest/gtest.h>

#include "tests/support/dachost_fixture.h"

namespace {

class inherited : public dachost_fixture {
 protected:
  /// Starts a run with the signal ignored, sends the signal, and ends the run once published values show that the
  /// signal did not end it. A run that ends may still print the first of them.
  void ignoring(const std::string& name, int sig) const {
    const remote_control gw(dir.path("fifo"));
    process p = run({dir.file(gw.order(), "gw.conf")}, {"env", "--ignore-signal=" + name});
    p.await_out("\ttag\t");
    p.signal(sig);
    for (const std::string value : {"first", "second", "third"}) {
      gw.say("publish " + value);
      p.await_out("\tvalue\tgw\t" + value + '\n');
    }
    terminate(p);
  }
};

/// One with room for what is written, which is not read.
class unread_terminal {
 public:
  unread_terminal() : _reader(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (grantpt(_reader) + unlockpt(_reader) != 0) throw std::runtime_error("no terminal");
    _fd = open(name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
  ~unread_terminal() {
    close(_fd);
    close(_reader);
  }
  unread_terminal(const unread_terminal&) = delete;
  unread_terminal& operator=(const unread_terminal&) = delete;

  int fd() const { return _fd; }
  std::string name() const { return ptsname(_reader); }

 private:
  int _reader;
  int _fd = -1;
};

}  // namespace

// A shell without job control starts "dachost run ... &" so.
TEST_F(inherited, ignored_SIGINT_stays_ignored) { ignoring("INT", SIGINT); }
TEST_F(inherited, ignored_SIGQUIT_stays_ignored) { ignoring("QUIT", SIGQUIT); }

TEST_F(inherited, blocked_SIGUSR1_stays_blocked_to_the_end) {
  process p = run({conf("publish a")}, {"env", "--block-signal=USR1"});
  p.await_out("\tvalue\t");
  p.signal(SIGUSR1);
  EXPECT_EQ(terminate(p).err, "");
}

TEST_F(inherited, ignored_SIGCHLD_hides_no_exit_status) {
  const std::string conf = dir.file("publish a", "gw.conf");
  const texts ignored = {"env", "--ignore-signal=CHLD"};
  const ending failed = run({"--once", "--exec", program("exit 3"), conf}, ignored).end();
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.err, hook_message("exit status 3; no retry"));
  const ending waited =
      run({"--once", "--exec", program("sh -c 'exit 4' & wait $!; echo $? >did"), conf}, ignored).end();
  EXPECT_EQ(waited.status, 0) << waited.err;
  EXPECT_EQ(did(), "4\n") << "the program has the signal's default action too";
}

TEST_F(inherited, closed_standard_error_accepts_the_output_of_a_program) {
  const std::string conf = dir.file("publish a", "gw.conf");
  const std::string prints = program("set -e; echo to standard output; echo to standard error >&2; echo printed >did");
  const ending e = run({"--once", "--exec", prints, conf}, {}, {.err_closed = true}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(did(), "printed\n");
}

TEST_F(inherited, closed_descriptors_are_not_those_of_the_configuration_file) {
  const std::string conf = dir.file("hostname=gw", "gw.conf");
  const ending e = start({"check", "-p", built("plugin"), conf}, {"sh", "-c", R"(exec "$@" <&- 2>&-)", "sh"}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.out, conf + ": ok, host name gw\n");
}

TEST_F(inherited, limit_of_descriptors_that_the_event_loop_exceeds_is_reported_with_status_1) {
  if (built("needs_descriptors") == "1") GTEST_SKIP() << "the sanitizer opens a pipe to examine an object";
  const ending e = start({"check", "-p", built("plugin"), conf("")}, {"prlimit", "--nofile=6"}).end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.out, "");
  EXPECT_EQ(lines(e.err).size(), 1U) << e.err;
  EXPECT_TRUE(e.err.starts_with("dachost: ") && e.err.ends_with(": Too many open files\n")) << e.err;
}

TEST_F(inherited, terminal_is_not_open_in_a_program) {
  const unread_terminal t;
  const std::string lists = program("exec ls -l /proc/self/fd >did");
  EXPECT_EQ(run({"--once", "--exec", lists, conf("publish a")}, {}, {.out_fd = t.fd()}).end_unread(), 0);
  EXPECT_NE(did().find("/dev/null"), std::string::npos) << did();
  EXPECT_EQ(did().find(t.name()), std::string::npos) << did();
}
