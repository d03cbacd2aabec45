// Programs of --exec: their limits, the pauses between retries, and what they find in their environment.
#include <gtest/gtest.h>

#include "tests/support/dachost_fixture.h"

using namespace std::chrono_literals;

namespace {

class exec_limits : public dachost_fixture {
 protected:
  /// A program that prints its environment as the system gave it, one variable per line.
  std::string prints_environment(const std::string& more = "") const {
    return program("tr '\\0' '\\n' </proc/$$/environ | grep -a ^DAC_ >>did; echo . >>did\n" + more);
  }
  static void expect_each_once(const texts& environment) {
    for (const char* name : {"DAC_INSTANCE=", "DAC_TAG=", "DAC_VALUE=", "DAC_TIME=", "DAC_PREVIOUS=",
                             "DAC_PREVIOUS_TAG=", "DAC_REASON="}) {
      const auto has_name = [&](const std::string& line) { return line.starts_with(name); };
      EXPECT_EQ(std::count_if(environment.begin(), environment.end(), has_name), 1) << name;
    }
  }
  static std::string time_of_value(const std::string& out, const std::string& value) {
    for (const std::string& line : lines(out))
      if (line.ends_with("\tvalue\tgw\t" + value)) return line.substr(0, line.find('\t'));
    return "";
  }
  static void end(process& p) {
    p.signal(SIGTERM);
    p.end();
  }
};

}  // namespace

// ---------------------------------------------------------------- time limits

TEST_F(exec_limits, a_run_that_timed_out_does_not_count_against_the_next) {
  const remote_control gw(dir.path("fifo"));
  const std::string body = "echo $DAC_VALUE >>did; [ $(wc -l <did) -gt 1 ] || exec sleep 1000; sleep 0.1";
  process p = run({"--exec-timeout", "0.5", "--exec", program(body), conf(gw.order() + "publish a")});
  await_did("a\na\n");
  gw.say("publish b");
  await_did("b\n");
  gw.say("publish c");
  await_did("c\n");
  const texts err = lines(terminate(p).err);
  ASSERT_EQ(err.size(), 2U);
  EXPECT_EQ(err[0] + '\n', hook_message("stopped after 0.5 s; retry in about 1 s"));
  EXPECT_NE(err[1].find("works again after 1 failure"), std::string::npos) << err[1];
  EXPECT_EQ(did(), "a\na\nb\nc\n");
}

// Two runs that together take longer than the limit, and the pause between them.
TEST_F(exec_limits, a_retry_has_the_whole_limit) {
  const std::string body = "sleep 2.5; echo $DAC_VALUE >>did; [ $(wc -l <did) -gt 1 ]";
  process p = run({"--exec-timeout", "5", "--exec", program(body), conf("publish a")});
  await_did("a\na\n");
  const texts err = lines(terminate(p).err);
  ASSERT_EQ(err.size(), 2U);
  EXPECT_EQ(err[0] + '\n', hook_message("exit status 1; retry in about 1 s"));
  EXPECT_NE(err[1].find("works again after 1 failure"), std::string::npos) << err[1];
}

TEST_F(exec_limits, a_program_within_its_limit_runs_to_its_end) {
  process p = run({"--once", "--exec-timeout", "6", "--exec", program("sleep 1.5; echo done >did"), conf("publish a")});
  EXPECT_EQ(p.end().status, 0);
  EXPECT_EQ(did(), "done\n");
}

TEST_F(exec_limits, SIGKILL_follows_SIGTERM_after_a_second) {
  const std::string body =
      "trap 'date +%s%N >>did' TERM; echo $$ >pid; while :; do sleep 0.02; date +%s%N >>last; done";
  process p = run({"--once", "--exec-timeout", "0.3", "--exec", program(body), conf("publish a")});
  EXPECT_TRUE(p.end().err.ends_with(hook_message("stopped after 0.3 s; no retry")));
  const long asked = std::stol(lines(did()).at(0)), last = std::stol(lines(read_file(dir.path("last"))).back());
  EXPECT_GT(last - asked, 700'000'000) << "it has a second to end";
}

// ---------------------------------------------------------------- pauses

TEST_F(exec_limits, a_newer_value_starts_at_once_though_the_failed_one_waits_a_minute) {
  const remote_control gw(dir.path("fifo"));
  const std::string slow = dir.path("slow");
  process p = run({"--exec", program("echo $DAC_VALUE >>did; [ $DAC_VALUE = b ]"), conf(gw.order() + "publish a")},
                  preloaded(built("short_minutes"), {"REAL_SECONDS_FROM=" + slow}));
  p.await_err("retry in about 60 s\n");
  dir.file("", "slow");                // from here on a minute takes a minute
  std::this_thread::sleep_for(700ms);  // a retry that was due as the clock changed is over
  gw.say("publish b");
  await_did("b\n");
  terminate(p);
}

TEST_F(exec_limits, a_success_resets_the_pause) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--exec", program("! [ -e fail ]; status=$?; echo run >>did; exit $status"), conf(gw.order())});
  dir.file("", "fail");
  gw.say("publish a");
  p.await_err("retry in about 2 s\n");
  std::filesystem::remove(dir.path("fail"));
  await_did("run\nrun\nrun\n");
  gw.say("publish b");
  await_did("run\nrun\nrun\nrun\n");
  dir.file("", "fail");
  gw.say("publish a");
  await_did("run\nrun\nrun\nrun\nrun\n");
  const std::string recovery = "works again after 2 failures, ";
  p.await_err('\n' + hook_message("exit status 1; retry in about 1 s"));  // the first line has none before it
  const texts reports = lines(p.err());
  ASSERT_EQ(reports.size(), 4U) << p.err();
  EXPECT_EQ(reports[1] + '\n', hook_message("exit status 1; retry in about 2 s"));
  EXPECT_NE(reports[2].find(recovery), std::string::npos) << reports[2];
  EXPECT_EQ(reports[3] + '\n', hook_message("exit status 1; retry in about 1 s"));
  end(p);
}

TEST_F(exec_limits, the_same_value_published_again_does_not_reset_the_pause) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--exec", program("echo run >>did; exit 1"), conf(gw.order() + "publish a")},
                  preloaded(built("short_minutes"), {"REAL_SECONDS_FROM=" + dir.path("slow")}));
  p.await_err("retry in about 60 s\n");
  dir.file("", "slow");                // from here on a minute takes a minute
  std::this_thread::sleep_for(700ms);  // a retry that was due as the clock changed is over
  const std::string before = did();
  gw.say("publish a");
  gw.say("fail after it");
  p.await_out("after it\n");
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(did(), before);
  gw.say("publish b");
  p.await_err("60 s\n" + hook_message("exit status 1; retry in about 1 s"));
  end(p);
}

TEST_F(exec_limits, a_failed_value_is_not_tried_again_after_a_newer_one_succeeded) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--exec", program("echo $DAC_VALUE >>did; [ $DAC_VALUE = b ]"), conf(gw.order() + "publish a")});
  p.await_err("retry in about 1 s\n");
  gw.say("publish b");
  await_did("b\n");
  const std::string before = did();
  std::this_thread::sleep_for(2500ms);
  EXPECT_EQ(did(), before);
  terminate(p);
}

TEST_F(exec_limits, pauses_of_one_instance_do_not_delay_another) {
  const remote_control a(dir.path("a.fifo")), b(dir.path("b.fifo"));
  process p = run({"--exec", program("echo $DAC_INSTANCE$DAC_VALUE >>did; [ $DAC_INSTANCE = b ]"),
                   conf(a.order() + "publish 0", "a"), conf(b.order(), "b")});
  p.await_err("retry in about 4 s\n");
  for (int n = 0; n < 20; ++n) {
    b.say("publish " + std::to_string(n));
    await_did('b' + std::to_string(n) + '\n');
  }
  EXPECT_LE(lines(p.err()).size(), 4U) << "20 values of b took no pause of a";
  terminate(p);
}

// ---------------------------------------------------------------- the environment

TEST_F(exec_limits, DAC_variables_are_in_the_environment_once_though_inherited) {
  const ending e = run({"--once", "--exec", prints_environment(), conf("publish a")},
                       {"env", "DAC_INSTANCE=x", "DAC_TAG=x", "DAC_VALUE=x", "DAC_TIME=x", "DAC_TIMES=unchanged"})
                       .end();
  EXPECT_EQ(e.err, "");
  texts all = lines(did());
  expect_each_once(all);
  EXPECT_EQ(std::count(all.begin(), all.end(), "DAC_TIMES=unchanged"), 1);
  for (const char* line : {"DAC_INSTANCE=gw", "DAC_TAG=gw", "DAC_VALUE=a"})
    EXPECT_EQ(std::count(all.begin(), all.end(), line), 1) << line;
}

TEST_F(exec_limits, DAC_variables_are_of_the_latest_value_in_every_run) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--exec", prints_environment(), conf(gw.order())});
  for (const std::string value : {"a", "b", "c"}) {
    gw.say("publish " + value);
    await_did("DAC_VALUE=" + value + '\n');
    await_did(".\n");
  }
  const ending e = terminate(p);
  for (const std::string value : {"a", "b", "c"})
    EXPECT_NE(did().find("DAC_VALUE=" + value + "\nDAC_TIME=" + time_of_value(e.out, value) + '\n'), std::string::npos)
        << did();
}

TEST_F(exec_limits, DAC_TIME_of_a_retry_is_the_time_of_the_value) {
  process p = run({"--exec", prints_environment("[ $(grep -c DAC_TIME did) -ge 3 ]"), conf("publish a")});
  p.await_out("\tvalue\t");
  EXPECT_TRUE(eventually([&] { return lines(did()).size() >= 21; })) << did();
  const std::string time = time_of_value(terminate(p).out, "a");
  ASSERT_NE(time, "");
  texts all = lines(did());
  EXPECT_EQ(std::count(all.begin(), all.end(), "DAC_TIME=" + time), 3) << did();
}
