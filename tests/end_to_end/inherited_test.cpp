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

}  // namespace

// A shell without job control starts "dachost run ... &" so.
TEST_F(inherited, ignored_SIGINT_stays_ignored) { ignoring("INT", SIGINT); }
TEST_F(inherited, ignored_SIGQUIT_stays_ignored) { ignoring("QUIT", SIGQUIT); }

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
  const ending e = start({"check", "-p", PLUGIN, conf}, {"sh", "-c", R"(exec "$@" <&- 2>&-)", "sh"}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.out, conf + ": ok, host name gw\n");
}
