// Every event that dachost waits for wakes it at once.
//
// The next event or timer hides a lost wake-up, so a single one is hard to detect on a loaded machine. Each test has 30
// in a row, which take less than 25 seconds only if each takes less than a second.
#include <gtest/gtest.h>

#include "tests/support/dachost_fixture.h"

using namespace std::chrono_literals;

namespace {

class wake_up : public dachost_fixture {
 protected:
  template <class F>
  static void thirty_times(const F& act) {
    const auto end = std::chrono::steady_clock::now() + 25s;
    for (int n = 0; n < 30; ++n) {
      act(std::to_string(n));
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "after " << n;
    }
  }
};

}  // namespace

TEST_F(wake_up, a_published_value_is_printed_at_once) {
  const remote_control gw(dir.path("fifo"));
  process p = run({conf(gw.order())});
  thirty_times([&](const std::string& n) {
    gw.say("publish " + n);
    p.await_out("\tvalue\tgw\t" + n + '\n');
  });
  terminate(p);
}

TEST_F(wake_up, a_published_value_starts_a_program_at_once) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--exec", program("echo $DAC_VALUE. >>did"), conf(gw.order())});
  thirty_times([&](const std::string& n) {
    gw.say("publish " + n);
    await_did(n + ".\n");
  });
  terminate(p);
}

TEST_F(wake_up, the_end_of_a_program_starts_the_next_at_once) {
  const remote_control gw(dir.path("fifo"));
  const std::string body = "echo $DAC_VALUE. >>did\nwhile ! [ -e go$DAC_VALUE ]; do sleep 0.02; done";
  process p = run({"--exec", program(body), conf(gw.order() + "publish 0")});
  await_did("0.\n");
  int next = 0;
  thirty_times([&](const std::string& n) {
    const std::string newer = std::to_string(++next);
    gw.say("publish " + newer);
    p.await_out("\tvalue\tgw\t" + newer + '\n');
    dir.file("", "go" + n);
    await_did(newer + ".\n");
  });
  dir.file("", "go30");
  terminate(p);
}

TEST_F(wake_up, the_end_of_a_program_is_reported_at_once_when_it_failed) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--exec", program("exit $DAC_VALUE"), conf(gw.order())});
  int status = 0;
  thirty_times([&](const std::string&) {
    const std::string next = std::to_string(++status);
    gw.say("publish " + next);
    p.await_err("exit status " + next + "; retry in about 1 s\n");
  });
  p.signal(SIGTERM);
  p.end();
}

TEST_F(wake_up, SIGHUP_reloads_at_once) {
  process p = run({conf("publish first")});
  p.await_out("\tfirst\n");
  thirty_times([&](const std::string& n) {
    conf("publish value" + n);
    p.signal(SIGHUP);
    p.await_out("\tvalue" + n + '\n');
  });
  terminate(p);
}

TEST_F(wake_up, a_refusal_is_reported_at_once) {
  process p = run({conf("publish first")});
  p.await_out("\tfirst\n");
  thirty_times([&](const std::string& n) {
    conf("refuse reason" + n);
    p.signal(SIGHUP);
    p.await_err(": reason" + n + ';');
  });
  terminate(p);
}

// The messages are more than a pipe holds, and no new line makes dachost try again once the reader reads.
TEST_F(wake_up, a_reader_that_reads_again_gets_the_rest_at_once) {
  const remote_control gw(dir.path("fifo"));
  process p = run({conf(gw.order())});
  thirty_times([&](const std::string& n) {
    gw.say("flood 2000");
    gw.say("publish end" + n);
    std::this_thread::sleep_for(100ms);
    p.await_out("\tend" + n + '\n');
  });
  terminate(p);
}

TEST_F(wake_up, a_reader_of_standard_error_that_reads_again_gets_the_rest_at_once) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--json", "--events", "value", conf(gw.order())});
  thirty_times([&](const std::string& n) {
    gw.say("failures 2000");
    gw.say("fail end" + n);
    std::this_thread::sleep_for(100ms);
    p.await_err(": end" + n + '\n');
  });
  terminate(p);
}

TEST_F(wake_up, once_ends_with_the_end_of_the_last_program) {
  const std::string file = conf("publish a"), prog = program("sleep 0.02");
  thirty_times([&](const std::string&) { EXPECT_EQ(run({"--once", "--exec", prog, file}).end().status, 0); });
}

TEST_F(wake_up, SIGTERM_ends_the_run_at_once) {
  const std::string file = conf("publish a");
  thirty_times([&](const std::string&) {
    process p = run({file});
    p.await_out("\tvalue\t");
    terminate(p);
  });
}

TEST_F(wake_up, the_end_of_the_last_program_ends_the_run) {
  const std::string file = conf("publish a"), prog = program("echo begin >did\n" + std::string(wait_for_go));
  thirty_times([&](const std::string&) {
    process p = run({"--exec", prog, file});
    await_did("begin");
    p.signal(SIGTERM);
    go();
    EXPECT_EQ(p.end().status, 0);
    for (const char* name : {"go", "did"}) std::filesystem::remove(dir.path(name));
  });
}
