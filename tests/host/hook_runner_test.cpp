// The life of a hook's programs, step by step in virtual time.
#include "host/hook/hook_runner.h"

#include <gtest/gtest.h>

#include <csignal>
#include <system_error>

#include "tests/host/scripted_loop.h"

using namespace std::chrono_literals;
using texts = std::vector<std::string>;

namespace {

constexpr int exited(int status) { return status << 8; }

class scripted_launcher : public launcher {
 public:
  struct start_call {
    std::string program;
    texts settings;
  };
  struct signal_call {
    pid_t program;
    int sig;
    bool operator==(const signal_call&) const = default;
  };
  std::vector<start_call> starts;
  std::vector<signal_call> signals;
  bool fails = false;

  pid_t start(const std::string& program, const texts& settings) override {
    starts.push_back({program, settings});
    if (fails) throw std::system_error(ENOENT, std::generic_category());
    return 100 + static_cast<pid_t>(starts.size());
  }
  void signal(pid_t program, int sig) override { signals.push_back({program, sig}); }
};

class scripted_addresses : public address_list {
 public:
  bool fails = false;
  std::vector<kernel_address> all() override {
    if (fails) throw std::system_error(EAGAIN, std::generic_category(), "netlink");
    return {{"2001:db8::1", {{{0x20, 0x01, 0x0d, 0xb8}}}, "eth0", 0, 0}};
  }
};

std::ostream& operator<<(std::ostream& out, const scripted_launcher::signal_call& c) {
  return out << "signal " << c.sig << " to " << c.program;
}

class hooks : public testing::Test {
 protected:
  scripted_loop loop;
  scripted_launcher programs;
  scripted_addresses addresses;
  hook_options options;
  output out{loop, 1};
  output err{loop, 2};
  std::unique_ptr<printer> lines = make_text_printer(out);
  std::unique_ptr<hook_runner> runner;

  hooks() { options.program = "hook"; }

  void make(size_t instances = 1) {
    runner = std::make_unique<hook_runner>(hook_runner::environment{loop, programs, addresses}, options, instances,
                                           *lines, err);
  }
  void submit(const std::string& value, const std::string& tag = "a.example", size_t i = 0) {
    runner->submit(i, {loop.wall, i == 0 ? "gw" : "gw" + std::to_string(i), tag, value});
  }
  /// The program that was started last ends.
  void end(int status) { loop.end(last(), status); }
  pid_t last() const { return 100 + static_cast<pid_t>(programs.starts.size()); }
  size_t starts() const { return programs.starts.size(); }
  std::string last_value() const { return programs.starts.back().settings.at(2); }
  /// What has been reported since the last call, without "dachost: ".
  std::string reported() {
    std::string text = std::exchange(loop.sinks[2].text, "");
    for (size_t at = 0; (at = text.find("dachost: ")) != std::string::npos;) text.erase(at, 9);
    return text;
  }
};

}  // namespace

TEST_F(hooks, a_program_gets_instance_tag_value_and_time) {
  make();
  loop.wall = wall_clock::time_point(1s + 5ms);
  submit("2001:db8::1");
  ASSERT_EQ(starts(), 1U);
  EXPECT_EQ(programs.starts[0].program, "hook");
  EXPECT_EQ(programs.starts[0].settings, (texts{"DAC_INSTANCE=gw", "DAC_TAG=a.example", "DAC_VALUE=2001:db8::1",
                                                "DAC_TIME=1970-01-01T00:00:01.005Z"}));
}

TEST_F(hooks, nothing_is_started_without_a_program) {
  options.program.clear();
  make();
  submit("a");
  EXPECT_EQ(starts(), 0U);
  EXPECT_TRUE(runner->is_idle());
  runner->close();
  submit("b");
  EXPECT_FALSE(runner->has_given_up());
}

TEST_F(hooks, defaults_are_thirty_seconds_and_all_addresses) {
  const hook_options o;
  EXPECT_EQ(o.timeout, 30s);
  EXPECT_TRUE(o.addresses.uses_published_value());
  EXPECT_FALSE(o.dry_run);
  EXPECT_FALSE(o.once);
}

TEST_F(hooks, a_success_leaves_nothing_pending) {
  make();
  EXPECT_TRUE(runner->is_idle());
  submit("a");
  EXPECT_FALSE(runner->is_idle());
  EXPECT_EQ(loop.timers(), 1U);
  end(0);
  EXPECT_TRUE(runner->is_idle());
  EXPECT_EQ(loop.timers(), 0U);
  EXPECT_EQ(loop.awaited(), 0U);
  loop.pass(1000s);
  EXPECT_EQ(starts(), 1U);
  EXPECT_FALSE(runner->has_given_up());
  runner = nullptr;
  EXPECT_TRUE(programs.signals.empty()) << "the process number may belong to another program by now";
  EXPECT_EQ(reported(), "");
}

TEST_F(hooks, idle_means_that_all_are) {
  make(2);
  submit("a", "t", 1);
  EXPECT_FALSE(runner->is_idle());
  submit("b", "t", 0);
  end(0);
  EXPECT_FALSE(runner->is_idle());
}

TEST_F(hooks, the_newest_of_several_values_follows_a_program) {
  make();
  submit("a");
  submit("b");
  submit("c");
  EXPECT_EQ(starts(), 1U);
  end(0);
  ASSERT_EQ(starts(), 2U);
  EXPECT_EQ(last_value(), "DAC_VALUE=c");
  end(0);
  EXPECT_EQ(starts(), 2U);
}

TEST_F(hooks, pauses_double_up_to_a_minute) {
  make();
  submit("a");
  size_t n = 1;
  for (const int pause : {1, 2, 4, 8, 16, 32, 60, 60, 60}) {
    end(exited(3));
    EXPECT_EQ(reported(), "gw: hook: exit status 3; tried again in " + std::to_string(pause) + " s\n");
    EXPECT_FALSE(runner->is_idle());
    loop.pass(std::chrono::seconds(pause) - 1ns);
    EXPECT_EQ(starts(), n) << pause;
    loop.pass(1ns);
    EXPECT_EQ(starts(), ++n) << pause;
  }
  for (int k = 0; k < 60; ++k) {
    end(exited(3));
    loop.pass(60s);
    EXPECT_EQ(starts(), ++n) << k;
  }
}

TEST_F(hooks, an_empty_value_is_one_like_others) {
  make();
  submit("", "");
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; tried again in 1 s\n");
}

TEST_F(hooks, a_retry_has_its_whole_timeout) {
  options.timeout = 5s;
  make();
  submit("a");
  loop.pass(4s);
  end(exited(1));
  loop.pass(1s);
  loop.pass(5s - 1ns);
  EXPECT_TRUE(programs.signals.empty());
  loop.pass(1ns);
  EXPECT_EQ(programs.signals.size(), 1U);
}

TEST_F(hooks, a_success_resets_the_pause) {
  make();
  submit("a");
  end(exited(1));
  loop.pass(1s);
  end(exited(1));
  loop.pass(2s);
  end(0);
  submit("a");
  reported();
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; tried again in 1 s\n");
}

TEST_F(hooks, the_same_value_starts_at_once_and_does_not_reset_the_pause) {
  make();
  submit("a");
  end(exited(1));
  loop.pass(1s);
  end(exited(1));
  reported();
  submit("a");
  EXPECT_EQ(starts(), 3U);
  EXPECT_EQ(loop.timers(), 1U);
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; tried again in 4 s\n");
}

TEST_F(hooks, another_value_or_tag_starts_at_once_and_resets_the_pause) {
  make();
  submit("a");
  end(exited(1));
  loop.pass(1s);
  end(exited(1));
  submit("b");
  EXPECT_EQ(starts(), 3U);
  reported();
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; tried again in 1 s\n");
  submit("b", "b.example");
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; tried again in 1 s\n");
}

TEST_F(hooks, a_newer_value_replaces_a_failed_one_at_once) {
  make();
  submit("a");
  submit("b");
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; a newer value is next\n");
  ASSERT_EQ(starts(), 2U);
  EXPECT_EQ(last_value(), "DAC_VALUE=b");
}

TEST_F(hooks, a_program_that_cannot_be_started_is_tried_again) {
  make();
  programs.fails = true;
  submit("a");
  EXPECT_EQ(reported(), "gw: hook: cannot be started: No such file or directory; tried again in 1 s\n");
  programs.fails = false;
  loop.pass(1s);
  EXPECT_EQ(starts(), 2U);
  end(0);
  EXPECT_TRUE(runner->is_idle());
}

TEST_F(hooks, reasons_name_status_or_signal) {
  make();
  submit("a");
  end(exited(3));
  loop.pass(1s);
  end(SIGSEGV);
  loop.pass(2s);
  end(34);
  EXPECT_EQ(reported(),
            "gw: hook: exit status 3; tried again in 1 s\n"
            "gw: hook: ended by signal 11 (Segmentation fault); tried again in 2 s\n"
            "gw: hook: ended by signal 34; tried again in 4 s\n");
}

TEST_F(hooks, a_program_that_is_late_gets_SIGTERM_and_then_SIGKILL) {
  options.timeout = 1500ms;
  make();
  submit("a");
  const pid_t program = last();
  loop.pass(1500ms - 1ns);
  EXPECT_TRUE(programs.signals.empty());
  loop.pass(1ns);
  const std::vector<scripted_launcher::signal_call> first = {{program, SIGTERM}};
  EXPECT_EQ(programs.signals, first);
  loop.pass(1s - 1ns);
  EXPECT_EQ(programs.signals, first);
  loop.pass(1ns);
  EXPECT_EQ(programs.signals, (std::vector<scripted_launcher::signal_call>{{program, SIGTERM}, {program, SIGKILL}}));
  end(SIGKILL);
  EXPECT_EQ(reported(), "gw: hook: ran longer than 1.5 s and was stopped; tried again in 1 s\n");
  EXPECT_EQ(loop.timers(), 1U);
}

TEST_F(hooks, a_late_program_fails_whatever_its_status) {
  options.timeout = 1s;
  make();
  submit("a");
  loop.pass(1s);
  end(0);
  EXPECT_EQ(reported(), "gw: hook: ran longer than 1 s and was stopped; tried again in 1 s\n");
}

TEST_F(hooks, a_program_that_survives_SIGKILL_is_reported_once_and_keeps_its_place) {
  make();
  submit("a");
  loop.pass(32s - 1ns);
  EXPECT_EQ(reported(), "");
  loop.pass(1ns);
  EXPECT_EQ(reported(), "gw: hook: not even SIGKILL ends it; nothing else is started\n");
  EXPECT_EQ(loop.timers(), 0U);
  submit("b");
  loop.pass(1000s);
  EXPECT_EQ(reported(), "");
  EXPECT_EQ(starts(), 1U);
  EXPECT_FALSE(runner->is_idle());
  EXPECT_FALSE(runner->has_given_up());
  end(SIGKILL);
  EXPECT_EQ(starts(), 2U);
  EXPECT_EQ(last_value(), "DAC_VALUE=b");
}

TEST_F(hooks, the_end_gives_a_program_two_seconds) {
  make();
  submit("a");
  loop.pass(10s);
  runner->close();
  loop.pass(2s - 1ns);
  EXPECT_TRUE(programs.signals.empty());
  loop.pass(1ns);
  ASSERT_EQ(programs.signals.size(), 1U);
  EXPECT_FALSE(runner->is_idle());
  EXPECT_FALSE(runner->has_given_up());
  end(SIGTERM);
  EXPECT_EQ(reported(), "gw: hook: still ran at the end and was stopped; not tried again\n");
  EXPECT_TRUE(runner->is_idle());
  EXPECT_TRUE(runner->has_given_up());
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(hooks, the_end_does_not_postpone_a_timeout) {
  make();
  submit("a");
  loop.pass(29s);
  runner->close();
  loop.pass(1s);
  EXPECT_EQ(programs.signals.size(), 1U);
}

TEST_F(hooks, a_success_at_the_end_is_one) {
  make();
  submit("a");
  runner->close();
  end(0);
  EXPECT_TRUE(runner->is_idle());
  EXPECT_FALSE(runner->has_given_up());
  EXPECT_EQ(reported(), "");
}

TEST_F(hooks, the_end_does_not_disturb_an_idle_hook) {
  make();
  submit("a");
  end(0);
  runner->close();
  EXPECT_EQ(loop.timers(), 0U);
  EXPECT_EQ(reported(), "");
}

TEST_F(hooks, a_value_that_waits_at_the_end_is_dropped) {
  make(2);
  submit("a");
  submit("b");
  runner->close();
  EXPECT_EQ(reported(), "gw: hook: the newest value is not kept, the run ends\n");
  EXPECT_TRUE(runner->has_given_up());
  EXPECT_EQ(loop.timers(), 1U);
  end(0);
  EXPECT_EQ(starts(), 1U);
  EXPECT_TRUE(runner->is_idle());
}

TEST_F(hooks, a_retry_that_waits_at_the_end_is_dropped) {
  make();
  submit("a");
  end(exited(1));
  reported();
  runner->close();
  EXPECT_EQ(reported(), "gw: hook: the newest value is not kept, the run ends\n");
  EXPECT_TRUE(runner->is_idle());
  EXPECT_EQ(loop.timers(), 0U);
  EXPECT_TRUE(runner->has_given_up());
}

TEST_F(hooks, a_value_after_the_end_is_dropped) {
  make(2);
  submit("a");
  runner->close();
  submit("b");
  submit("c", "t", 1);
  EXPECT_EQ(reported(),
            "gw: hook: the newest value is not kept, the run ends\n"
            "gw1: hook: the newest value is not kept, the run ends\n");
  EXPECT_EQ(starts(), 1U);
  EXPECT_EQ(loop.timers(), 1U);
  end(0);
  EXPECT_EQ(starts(), 1U);
  EXPECT_TRUE(runner->is_idle());
}

TEST_F(hooks, a_program_that_survives_SIGKILL_is_left_to_the_system_at_the_end) {
  make();
  submit("a");
  loop.pass(100s);
  reported();
  runner->close();
  loop.pass(2s - 1ns);
  EXPECT_FALSE(runner->is_idle());
  EXPECT_FALSE(runner->has_given_up());
  loop.pass(1ns);
  EXPECT_EQ(reported(), "gw: hook: not even SIGKILL ends it; left to the system\n");
  EXPECT_TRUE(runner->is_idle());
  EXPECT_TRUE(runner->has_given_up());
  EXPECT_EQ(loop.timers(), 0U);
  EXPECT_EQ(loop.awaited(), 0U);
}

TEST_F(hooks, once_means_no_retry) {
  options.once = true;
  make();
  submit("a");
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; not tried again\n");
  EXPECT_TRUE(runner->is_idle());
  EXPECT_TRUE(runner->has_given_up());
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(hooks, a_dry_run_prints_what_would_be_started) {
  options.dry_run = true;
  make();
  loop.wall = wall_clock::time_point(2s);
  submit("a");
  EXPECT_EQ(loop.sinks[1].text,
            "1970-01-01T00:00:02.000Z\tgw\texec\thook\tDAC_INSTANCE=gw\tDAC_TAG=a.example\tDAC_VALUE=a\t"
            "DAC_TIME=1970-01-01T00:00:02.000Z\n");
  EXPECT_EQ(starts(), 0U);
  EXPECT_TRUE(runner->is_idle());
}

TEST_F(hooks, a_dry_run_after_a_failure_leaves_nothing_pending) {
  options.dry_run = true;
  options.addresses.which = address_filter::kind::stable;
  make();
  addresses.fails = true;
  submit("2001:db8::1,2001:db8::2");
  EXPECT_EQ(reported(), "gw: hook: cannot be started: netlink: Resource temporarily unavailable; tried again in 1 s\n");
  EXPECT_FALSE(runner->is_idle());
  addresses.fails = false;
  submit("2001:db8::1,2001:db8::3");
  EXPECT_NE(loop.sinks[1].text.find("\tDAC_VALUE=2001:db8::1\t"), std::string::npos) << loop.sinks[1].text;
  EXPECT_TRUE(runner->is_idle());
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(hooks, destruction_kills_what_runs) {
  make(3);
  submit("a");
  submit("b", "t", 2);
  runner = nullptr;
  EXPECT_EQ(programs.signals, (std::vector<scripted_launcher::signal_call>{{101, SIGKILL}, {102, SIGKILL}}));
  EXPECT_EQ(loop.awaited(), 0U);
  EXPECT_EQ(loop.timers(), 0U);
}
