// Lines on their way to a descriptor that takes what the test allows.
#include "host/loop/output.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include "tests/host/scripted_loop.h"

using namespace std::chrono_literals;
using readiness = event_loop::readiness;

namespace {

size_t allocated() {
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

class outputs : public testing::Test {
 protected:
  scripted_loop loop;
  scripted_loop::sink& sink = loop.sinks[1];
  output out{loop, 1};
  output err{loop, 2};

  readiness watched() const { return loop.watch_of(1) ? loop.watch_of(1)->r : readiness::readable; }
};

}  // namespace

TEST_F(outputs, a_line_is_written_at_once) {
  EXPECT_TRUE(out.is_empty());
  out.line("one");
  out.put("two");
  EXPECT_EQ(sink.text, "one\ntwo");
  EXPECT_TRUE(out.is_empty());
  EXPECT_EQ(out.error(), 0);
}

TEST_F(outputs, are_not_the_journal_unless_they_are_said_to_be) {
  EXPECT_FALSE(out.is_journal());
  EXPECT_TRUE(output(loop, 3, true).is_journal());
}

TEST_F(outputs, a_descriptor_is_watched_for_its_other_end_from_the_beginning) {
  ASSERT_TRUE(loop.watch_of(1));
  EXPECT_EQ(watched(), readiness::none);
  loop.wake(1);
  EXPECT_EQ(out.error(), EPIPE);
  EXPECT_FALSE(loop.watch_of(1)) << "a watch on a closed pipe would be ready all the time";
}

TEST_F(outputs, the_first_failure_is_reported_when_it_occurs) {
  std::vector<int> reported;
  out.on_failure([&reported](int error) { reported.push_back(error); });
  out.line("one");
  EXPECT_EQ(reported, std::vector<int>{});
  out.fail(ENOSPC);
  out.fail(EPIPE);
  EXPECT_EQ(reported, std::vector<int>{ENOSPC});
}

TEST_F(outputs, a_watch_is_not_replaced_while_lines_are_taken) {
  const auto before = loop.watch_of(1)->handler.lock();
  out.line("one");
  out.put("two");
  EXPECT_EQ(loop.watch_of(1)->handler.lock(), before);
}

TEST_F(outputs, bytes_that_are_not_taken_wait_for_room) {
  sink.answers = {2, -EAGAIN};
  out.line("one");
  EXPECT_EQ(sink.text, "on");
  EXPECT_FALSE(out.is_empty());
  EXPECT_EQ(watched(), readiness::writable);
  const auto before = loop.watch_of(1)->handler.lock();
  sink.answers = {-EAGAIN};
  out.line("two");
  EXPECT_EQ(loop.watch_of(1)->handler.lock(), before) << "one watch serves until there is room";
  loop.wake(1);
  EXPECT_EQ(sink.text, "one\ntwo\n");
  EXPECT_TRUE(out.is_empty());
  EXPECT_EQ(watched(), readiness::none);
  EXPECT_EQ(out.error(), 0);
}

TEST_F(outputs, bytes_arrive_once_and_in_order_however_they_are_taken) {
  std::string expected;
  for (int n = 0; n < 60; ++n) {
    const std::string text(static_cast<size_t>(n % 7), static_cast<char>('a' + n % 26));
    expected += text + '\n';
    sink.answers = {n % 5, -EAGAIN};
    out.line(text);
    EXPECT_EQ(sink.text, expected.substr(0, sink.text.size()));
    EXPECT_EQ(out.is_empty(), sink.text == expected);
  }
  sink.answers.clear();
  loop.wake(1);
  EXPECT_EQ(sink.text, expected);
}

TEST_F(outputs, bytes_that_are_written_take_no_memory) {
  const std::string text(999, 'x');
  const size_t before = allocated();
  for (int n = 0; n < 1000; ++n) {
    out.line(text);
    sink.text.clear();
  }
  EXPECT_LT(allocated(), before + 100'000);
  for (int n = 0; n < 1000; ++n) {
    sink.answers = {n == 0 ? 999 : 1000, -EAGAIN};
    out.line(text);
    EXPECT_FALSE(out.is_empty()) << "the last byte always waits";
    sink.text.clear();
  }
  EXPECT_LT(allocated(), before + 100'000);
}

TEST_F(outputs, an_error_drops_pending_and_later_lines) {
  sink.answers = {2, -ENOSPC};
  out.line("one");
  EXPECT_EQ(out.error(), ENOSPC);
  EXPECT_TRUE(out.is_empty());
  EXPECT_FALSE(loop.watch_of(1));
  out.line("two");
  out.put("three");
  EXPECT_EQ(sink.text, "on");
  EXPECT_TRUE(out.is_empty());
  EXPECT_FALSE(loop.watch_of(1));
}

TEST_F(outputs, a_full_descriptor_that_cannot_be_watched_is_an_error) {
  loop.unwatchable = 1;
  sink.answers = {-EAGAIN};
  out.line("one");
  EXPECT_EQ(out.error(), EAGAIN);
}

TEST_F(outputs, an_error_of_one_is_an_error) {
  sink.answers = {-EPERM};
  out.line("one");
  EXPECT_EQ(out.error(), EPERM);
  EXPECT_EQ(sink.calls, 1);
}

TEST_F(outputs, the_first_error_counts) {
  out.fail(ENOSPC);
  out.fail(EPIPE);
  EXPECT_EQ(out.error(), ENOSPC);
}

TEST_F(outputs, fail_drops_pending_lines) {
  sink.answers = {1, -EAGAIN};
  out.line("one");
  out.fail(ETIME);
  EXPECT_TRUE(out.is_empty());
  EXPECT_FALSE(loop.watch_of(1));
}

TEST_F(outputs, drain_waits_for_readers_before_a_stop) {
  sink.answers = {-EAGAIN};
  out.line("one");
  loop.sinks[2].answers = {-EAGAIN};
  err.line("two");
  const auto limit = loop.call_in(1000s, [this] { loop.wake(1); });
  const auto later = loop.call_in(2000s, [this] { loop.wake(2); });
  drain(loop, out, err, [] { return false; });
  EXPECT_EQ(sink.text, "one\n");
  EXPECT_EQ(loop.sinks[2].text, "two\n");
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(outputs, drain_gives_up_a_second_after_a_stop) {
  sink.answers = {-EAGAIN};
  out.line("one");
  bool is_to_stop = false;
  const auto stop = loop.call_in(5s, [&] { is_to_stop = true; });
  const auto before = loop.now();
  drain(loop, out, err, [&] { return is_to_stop; });
  EXPECT_EQ(loop.now() - before, 6s);
  EXPECT_EQ(out.error(), ETIME);
  EXPECT_EQ(err.error(), 0);
}

TEST_F(outputs, drain_of_empty_outputs_returns_at_once) {
  const auto before = loop.now();
  drain(loop, out, err, [] { return true; });
  EXPECT_EQ(loop.now(), before);
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(outputs, drain_or_die_restores_signals_while_it_waits) {
  drain_or_die(loop, out, err);
  EXPECT_FALSE(loop.is_restored);
  loop.sinks[2].answers = {-EAGAIN};
  err.line("two");
  const auto later = loop.call_in(2000s, [this] { loop.wake(2); });
  drain_or_die(loop, out, err);
  EXPECT_TRUE(loop.is_restored);
  EXPECT_EQ(loop.sinks[2].text, "two\n");
}
