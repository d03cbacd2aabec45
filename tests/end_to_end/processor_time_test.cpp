// dachost waits while there is nothing to do, and does not poll.
#include <gtest/gtest.h>

#include "tests/support/dachost_fixture.h"

using namespace std::chrono_literals;

namespace {

class processor_time : public dachost_fixture {
 protected:
  /// dachost top in place of run.
  process top(texts args) const {
    args.insert(args.begin(), {"top", "-p", built("fake_plugin")});
    return start(args);
  }
  static size_t count(const std::string& text, const std::string& word) {
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
    return n;
  }
};

}  // namespace

TEST_F(processor_time, is_not_used_when_nothing_happens) {
  process p = run({conf("publish a")});
  p.await_out("\tvalue\t");
  expect_quiet(p);
  terminate(p);
}

TEST_F(processor_time, is_not_used_before_a_distant_end) {
  process p = run({"--for", "1000000000", conf("publish a")});
  p.await_out("\tvalue\t");
  expect_quiet(p);
  terminate(p);
}

TEST_F(processor_time, is_not_used_while_a_program_runs) {
  process p = run({"--exec", program("echo begin >did\n" + std::string(wait_for_go)), conf("publish a")});
  await_did("begin");
  expect_quiet(p);
  go();
  terminate(p);
}

TEST_F(processor_time, is_not_used_while_a_program_runs_and_a_newer_value_waits) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--exec", program("echo begin >>did\n" + std::string(wait_for_go)), conf(gw.order() + "publish a")});
  await_did("begin");
  gw.say("publish b");
  p.await_out("\tvalue\tgw\tb\n");
  expect_quiet(p);
  go();
  await_did("begin\nbegin\n");
  terminate(p);
}

TEST_F(processor_time, is_not_used_after_a_program_has_succeeded) {
  process p = run({"--exec", program("echo $DAC_VALUE >>did"), conf("publish a")});
  await_did("a\n");
  expect_quiet(p);
  terminate(p);
}

TEST_F(processor_time, is_not_used_before_a_retry) {
  process p = run({"--exec", program("exit 1"), conf("publish a")});
  p.await_err("retry in about 2 s\n");
  expect_quiet(p);
  p.signal(SIGTERM);
  p.end();
}

TEST_F(processor_time, is_not_used_while_a_program_survives_SIGTERM_at_the_end) {
  process p = run({"--exec", program(ignore_SIGTERM), conf("publish a")});
  await_did("begin");
  p.signal(SIGTERM);
  expect_quiet(p);
  terminate(p);
}

TEST_F(processor_time, is_not_used_while_programs_end_after_the_readers_have_closed) {
  process p = run({"--exec", program(ignore_SIGTERM), conf("publish a")});
  await_did("begin");
  p.close_err();
  p.close_out();
  expect_quiet(p);
  EXPECT_EQ(p.end_unread(), 1);
}

TEST_F(processor_time, is_not_used_after_the_reader_of_standard_error_has_closed) {
  const remote_control gw(dir.path("fifo"));
  const std::string file = conf(gw.order() + "publish a");
  process p = run({"--json", file});
  p.await_out("\"value\":\"a\"");
  gw.say("fail before");
  p.await_err("before");
  p.close_err();
  expect_quiet(p);
  gw.say("fail after");
  gw.say("publish b");
  p.await_out("\"value\":\"b\"");
  expect_quiet(p);
  p.signal(SIGTERM);
  p.end_unread();

  process t = top({file});
  t.await_out("gw ");
  t.close_err();
  expect_quiet(t);
  t.signal(SIGTERM);
  t.end_unread();
}

TEST_F(processor_time, is_not_used_while_output_waits_for_its_reader) {
  process p = run({conf("flood 4000")});
  p.await_out("\tmessage 1 of 4000\n");
  await_settled(p);
  expect_quiet(p);
  p.close_out();
  EXPECT_EQ(p.end_unread(), 1);
}

TEST_F(processor_time, is_not_used_while_output_waits_for_its_reader_after_the_end) {
  process p = run({"--for", "0.001", conf("flood 4000")});
  await_journal("destroy gw 0");
  expect_quiet(p);
  EXPECT_EQ(p.end().status, 0);
}

TEST_F(processor_time, is_not_used_while_once_waits_for_a_value) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--once", conf(gw.order())});
  p.await_out("\ttag\t");
  expect_quiet(p);
  gw.say("publish a");
  EXPECT_EQ(p.end().status, 0);
}

TEST_F(processor_time, is_not_used_between_tables) {
  process p = top({conf("publish a")});
  p.await_out("gw ");
  expect_quiet(p, 2500ms);
  terminate(p);
}

TEST_F(processor_time, is_not_used_while_the_only_table_waits_for_a_value) {
  const remote_control gw(dir.path("fifo"));
  process p = top({"--once", conf(gw.order())});
  std::this_thread::sleep_for(200ms);
  expect_quiet(p);
  gw.say("publish a");
  EXPECT_EQ(p.end().status, 0);
}

// ---------------------------------------------------------------- rates

TEST_F(processor_time, tables_follow_once_a_second_even_if_values_are_published_more_often) {
  const remote_control gw(dir.path("fifo"));
  const auto begin = std::chrono::steady_clock::now();
  process p = top({conf(gw.order() + "publish a")});
  p.await_out("gw ");
  for (int n = 0; n < 100; ++n) {
    gw.say("publish " + std::to_string(n));
    std::this_thread::sleep_for(25ms);
  }
  p.signal(SIGTERM);
  const ending e = p.end();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
  EXPECT_LE(count(e.out, "dachost top"), static_cast<size_t>(seconds.count()) + 2) << e.out;
}

TEST_F(processor_time, retries_observe_their_pauses) {
  process p = run({"--exec", program("date +%s%N >>did; exit 1"), conf("publish a")});
  p.await_err("retry in about 4 s\n");
  const texts starts = lines(did());
  p.signal(SIGTERM);
  p.end();
  ASSERT_GE(starts.size(), 3U);
  EXPECT_GE(std::stol(starts[1]) - std::stol(starts[0]), 745'000'000);
  EXPECT_GE(std::stol(starts[2]) - std::stol(starts[1]), 1'490'000'000);
}
