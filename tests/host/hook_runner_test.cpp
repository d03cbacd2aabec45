// The life of a hook's programs, step by step in virtual time.
#include "host/hook/hook_runner.h"

#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "host/hook/programs.h"
#include "tests/host/scripted_loop.h"
#include "tests/support/no_descriptors.h"
#include "tests/support/scratch.h"

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

/// 2001:db8::1, 2001:db8::2 ... by their last group, each with the flags that a test sets.
class scripted_addresses : public address_list {
 public:
  bool fails = false;
  int calls = 0;
  std::map<unsigned char, unsigned> flags = {{1, 0}};
  std::vector<kernel_address> all() override {
    ++calls;
    if (fails) throw std::system_error(EAGAIN, std::generic_category(), "netlink");
    std::vector<kernel_address> list;
    list.reserve(flags.size());
    for (const auto& [n, f] : flags)
      list.push_back({"2001:db8::" + std::to_string(n), {{{0x20, 0x01, 0x0d, 0xb8}}}, "eth0", 0, f});
    return list;
  }
};

class scripted_records : public hook_store {
 public:
  std::map<std::string, hook_record> saved;
  std::string fails;    // with this reason
  std::string refused;  // the instance whose record cannot be saved
  int saves = 0;        // that were tried
  bool hangs = false;   // saves end in write()
  std::vector<std::function<void()>> started;
  std::optional<hook_record> load(const std::string& instance) override {
    if (!fails.empty()) throw std::runtime_error(fails);
    const auto found = saved.find(instance);
    return found == saved.end() ? std::nullopt : std::optional(found->second);
  }
  void save(const std::string& instance, const hook_record& r, std::function<void(const std::string&)> done) override {
    ++saves;
    if (hangs)
      started.emplace_back([=, this] { replace(instance, r, done); });
    else
      replace(instance, r, done);
  }
  /// The disk has written everything.
  void write() {
    for (const auto& s : std::exchange(started, {})) s();
  }

 private:
  void replace(const std::string& instance, const hook_record& r, const std::function<void(const std::string&)>& done) {
    if (!fails.empty()) return done(fails);
    if (instance == refused) return done("state/" + instance + ": Is a directory");
    saved[instance] = r;
    done("");
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
  scripted_records records;
  double random = 0.5;  // pauses are neither longer nor shorter
  hook_options options;
  output out{loop, 1};
  output err{loop, 2};
  std::unique_ptr<printer> lines = make_text_printer(out);
  std::unique_ptr<hook_runner> runner;

  hooks() { options.program = "hook"; }

  void make(size_t instances = 1) {
    const auto next_random = [this] { return random; };
    runner = std::make_unique<hook_runner>(hook_runner::environment{loop, programs, addresses, records, next_random},
                                           options, instances, *lines, err);
  }
  void submit(const std::string& value, const std::string& tag = "a.example", size_t i = 0) {
    runner->submit(i, {loop.wall, i == 0 ? "gw" : "gw" + std::to_string(i), tag, value});
    loop.pass(0s);
  }
  /// The program that was started last ends.
  void end(int status) { loop.end(last(), status); }
  pid_t last() const { return 100 + static_cast<pid_t>(programs.starts.size()); }
  size_t starts() const { return programs.starts.size(); }
  /// A variable that the program that was started last got.
  std::string last(const std::string& name) const {
    for (const std::string& s : programs.starts.back().settings)
      if (s.starts_with(name + '=')) return s.substr(name.size() + 1);
    return "no " + name;
  }
  std::string last_value() const { return last("DAC_VALUE"); }
  /// What has been reported since the last call, without "dachost: ".
  std::string reported() {
    std::string text = std::exchange(loop.sinks[2].text, "");
    for (size_t at = 0; (at = text.find("dachost: ")) != std::string::npos;) text.erase(at, 9);
    return text;
  }
  /// The reported lines about addresses.
  std::string reported_addresses() {
    std::istringstream all(reported());
    std::string text;
    for (std::string line; std::getline(all, line);)
      if (line.starts_with("addresses: ")) text += line + '\n';
    return text;
  }
};

}  // namespace

TEST_F(hooks, a_program_gets_instance_tag_value_time_previous_value_and_reason) {
  make();
  loop.wall = wall_clock::time_point(1s + 5ms);
  submit("2001:db8::1");
  ASSERT_EQ(starts(), 1U);
  EXPECT_EQ(programs.starts[0].program, "hook");
  EXPECT_EQ(programs.starts[0].settings,
            (texts{"DAC_INSTANCE=gw", "DAC_TAG=a.example", "DAC_VALUE=2001:db8::1", "DAC_TIME=1970-01-01T00:00:01.005Z",
                   "DAC_PREVIOUS=", "DAC_PREVIOUS_TAG=", "DAC_REASON=first"}));
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

TEST_F(hooks, have_documented_defaults) {
  const hook_options o;
  EXPECT_EQ(o.hold, 5min);
  EXPECT_EQ(o.again, 24h);
  EXPECT_EQ(o.splay, 0s);
  EXPECT_EQ(o.jobs, 8U);
  EXPECT_EQ(o.state, "");
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
  end(0);
  EXPECT_TRUE(runner->is_idle());
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
  EXPECT_EQ(last_value(), "c");
  end(0);
  EXPECT_EQ(starts(), 2U);
}

TEST_F(hooks, pauses_double_up_to_a_minute) {
  make();
  submit("a");
  size_t n = 1;
  for (const int pause : {1, 2, 4, 8, 16, 32, 60, 60, 60}) {
    end(exited(3));
    EXPECT_EQ(reported(), "gw: hook: exit status 3; retry in about " + std::to_string(pause) + " s\n");
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
  EXPECT_EQ(reported(), "gw: hook: exit status 1; retry in about 1 s\n");
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

TEST_F(hooks, a_retry_gets_the_time_of_the_newest_publication) {
  make();
  loop.wall = wall_clock::time_point(1s);
  submit("a");
  end(exited(1));
  loop.wall = wall_clock::time_point(121s);
  submit("a");
  loop.pass(1s);
  ASSERT_EQ(starts(), 2U);
  EXPECT_EQ(last("DAC_TIME"), "1970-01-01T00:02:01.000Z");
}

TEST_F(hooks, a_success_resets_the_pause) {
  options.again = 1h;
  make();
  submit("a");
  end(exited(1));
  loop.pass(1s);
  end(exited(1));
  loop.pass(2s);
  end(0);
  loop.pass(1h);
  reported();
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; retry in about 1 s\n");
}

TEST_F(hooks, the_same_value_neither_starts_a_program_nor_resets_the_pause) {
  make();
  submit("a");
  end(exited(1));
  loop.pass(1s);
  end(exited(1));
  reported();
  submit("a");
  loop.pass(2s - 1ns);
  EXPECT_EQ(starts(), 2U);
  loop.pass(1ns);
  EXPECT_EQ(starts(), 3U);
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; retry in about 4 s\n");
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
  EXPECT_EQ(reported(), "gw: hook: exit status 1; retry in about 1 s\n");
  submit("b", "b.example");
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; retry in about 1 s\n");
}

TEST_F(hooks, a_newer_value_replaces_a_failed_one_at_once) {
  make();
  submit("a");
  submit("b");
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; the newer value is next\n");
  ASSERT_EQ(starts(), 2U);
  EXPECT_EQ(last_value(), "b");
}

TEST_F(hooks, a_value_that_is_full_is_reported_once_and_so_is_its_end) {
  make();
  const std::string full = "2001:db8::1," + std::string(987, '5');
  submit(full);
  end(0);
  EXPECT_EQ(reported(), "addresses: the published value is full; --pick global and --pick stable do not use it\n");
  submit(full);
  EXPECT_EQ(reported(), "");
  submit("2001:db8::2");
  EXPECT_EQ(reported(), "addresses: the published value is no longer full\n");
}

TEST_F(hooks, a_full_value_of_one_instance_is_reported_until_no_value_is_full) {
  make(2);
  const std::string full = "2001:db8::1," + std::string(987, '5');
  submit(full);
  submit("2001:db8::2", "a.example", 1);
  loop.pass(25s);
  EXPECT_EQ(reported(), "addresses: the published value is full; --pick global and --pick stable do not use it\n");
  submit("2001:db8::2");
  EXPECT_EQ(reported(), "addresses: the published value is no longer full\n");
}

TEST_F(hooks, a_program_that_cannot_be_started_is_tried_again) {
  make();
  programs.fails = true;
  submit("a");
  EXPECT_EQ(reported(), "gw: hook: cannot be started: No such file or directory; retry in about 1 s\n");
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
            "gw: hook: exit status 3; retry in about 1 s\n"
            "gw: hook: ended by signal 11 (Segmentation fault); retry in about 2 s\n"
            "gw: hook: ended by signal 34; retry in about 4 s\n");
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
  EXPECT_EQ(reported(), "gw: hook: stopped after 1.5 s; retry in about 1 s\n");
}

TEST_F(hooks, a_late_program_fails_with_any_status) {
  options.timeout = 1s;
  make();
  submit("a");
  loop.pass(1s);
  end(0);
  EXPECT_EQ(reported(), "gw: hook: stopped after 1 s; retry in about 1 s\n");
}

TEST_F(hooks, a_program_that_survives_SIGKILL_is_reported_once_and_blocks_its_instance) {
  make();
  submit("a");
  loop.pass(32s - 1ns);
  EXPECT_EQ(reported(), "");
  loop.pass(1ns);
  EXPECT_EQ(reported(), "gw: hook: still runs after SIGKILL; no other program is started for this instance\n");
  submit("b");
  loop.pass(1000s);
  EXPECT_EQ(reported(), "");
  EXPECT_EQ(starts(), 1U);
  EXPECT_FALSE(runner->is_idle());
  EXPECT_FALSE(runner->has_given_up());
  end(SIGKILL);
  EXPECT_EQ(starts(), 2U);
  EXPECT_EQ(last_value(), "b");
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
  EXPECT_EQ(reported(), "gw: hook: stopped at the end; no retry\n");
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
  EXPECT_EQ(reported(), "gw: hook: the run ends before the program gets the newest value\n");
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
  EXPECT_EQ(reported(), "gw: hook: the run ends before the program gets the newest value\n");
  EXPECT_TRUE(runner->is_idle());
  EXPECT_EQ(loop.timers(), 0U);
  EXPECT_TRUE(runner->has_given_up());
}

TEST_F(hooks, a_value_after_the_end_is_ignored) {
  make(2);
  submit("a");
  runner->close();
  submit("b");
  submit("c", "t", 1);
  EXPECT_EQ(starts(), 1U);
  end(0);
  EXPECT_EQ(starts(), 1U);
  EXPECT_TRUE(runner->is_idle());
  EXPECT_EQ(loop.timers(), 0U);
}

// The addresses have not been read yet.
TEST_F(hooks, a_value_just_before_the_end_starts_a_program) {
  options.addresses.which = address_filter::kind::global;
  make();
  runner->submit(0, {loop.wall, "gw", "a.example", "a"});
  EXPECT_FALSE(runner->is_idle());
  runner->close();
  EXPECT_EQ(starts(), 1U) << "it is read at the end";
  EXPECT_FALSE(runner->is_idle());
  end(0);
  EXPECT_FALSE(runner->has_given_up());
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
  EXPECT_EQ(reported(), "gw: hook: still runs after SIGKILL; no retry\n");
  EXPECT_TRUE(runner->is_idle());
  EXPECT_TRUE(runner->has_given_up());
  EXPECT_EQ(loop.timers(), 0U);
  EXPECT_EQ(loop.awaited(), 0U);
  runner = nullptr;
  EXPECT_EQ(programs.signals, (std::vector<scripted_launcher::signal_call>{{101, SIGTERM}, {101, SIGKILL}}));
}

TEST_F(hooks, the_end_does_not_wait_for_the_next_reading_of_the_addresses) {
  make();
  submit("a");
  end(0);
  loop.pass(9s);
  submit("b");
  runner->close();
  loop.pass(1s);
  end(0);
  EXPECT_TRUE(runner->is_idle());
}

// The number of a process that has ended may belong to another program.
TEST_F(hooks, a_run_that_has_ended_sends_no_signal) {
  timed_run run(loop, programs, 5s, {"hook"}, {}, {[](const std::string&) {}, [](const std::string&) {}});
  run.start();
  end(0);
  loop.pass(1h);
  EXPECT_TRUE(programs.signals.empty());
}

TEST_F(hooks, once_means_no_retry) {
  options.once = true;
  make();
  submit("a");
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; no retry\n");
  EXPECT_TRUE(runner->is_idle());
  EXPECT_TRUE(runner->has_given_up());
  loop.pass(1000s);
  EXPECT_EQ(starts(), 1U);
  runner->close();
  EXPECT_EQ(reported(), "") << "it has been reported";
}

TEST_F(hooks, a_dry_run_prints_what_would_be_started) {
  options.dry_run = true;
  make();
  loop.wall = wall_clock::time_point(2s);
  submit("a");
  EXPECT_EQ(loop.sinks[1].text,
            "1970-01-01T00:00:02.000Z\tgw\texec\thook\tDAC_INSTANCE=gw\tDAC_TAG=a.example\tDAC_VALUE=a\t"
            "DAC_TIME=1970-01-01T00:00:02.000Z\tDAC_PREVIOUS=\tDAC_PREVIOUS_TAG=\tDAC_REASON=first\n");
  EXPECT_EQ(starts(), 0U);
  EXPECT_TRUE(runner->is_idle());
}

TEST_F(hooks, a_dry_run_does_not_wait_for_the_splay) {
  options.dry_run = true;
  options.splay = 100s;
  random = 0.3;
  make();
  submit("a");
  EXPECT_NE(loop.sinks[1].text.find("\tDAC_VALUE=a\t"), std::string::npos) << loop.sinks[1].text;
  EXPECT_TRUE(runner->is_idle());
}

TEST_F(hooks, a_dry_run_prints_changes_only_and_saves_nothing) {
  options.dry_run = true;
  make();
  submit("a");
  submit("a");
  loop.pass(1h);
  submit("b");
  const std::string printed = loop.sinks[1].text;
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 2);
  EXPECT_NE(printed.find("\tDAC_PREVIOUS=a\tDAC_PREVIOUS_TAG=a.example\tDAC_REASON=change\n"), std::string::npos)
      << printed;
  EXPECT_EQ(records.saves, 0);
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

// ---------------------------------------------------------------- what a hook gets

class filtered_hooks : public hooks {
 protected:
  filtered_hooks() { options.addresses.which = address_filter::kind::stable; }
};

TEST_F(filtered_hooks, get_the_kernels_addresses_and_the_time_when_they_were_read) {
  addresses.flags = {{1, 0}, {2, IFA_F_DEPRECATED}, {3, 0}};
  make();
  runner->submit(0, {loop.wall, "gw", "a.example", "2001:db8::77"});
  loop.wall = wall_clock::time_point(7s);
  loop.pass(0s);
  EXPECT_EQ(last_value(), "2001:db8::1,2001:db8::3");
  EXPECT_EQ(last("DAC_TIME"), "1970-01-01T00:00:07.000Z");
}

TEST_F(filtered_hooks, read_the_addresses_once_for_values_that_come_together) {
  make(3);
  for (size_t i = 0; i < 3; ++i) runner->submit(i, {loop.wall, "gw" + std::to_string(i), "t", "x"});
  loop.pass(0s);
  EXPECT_EQ(starts(), 3U);
  EXPECT_EQ(addresses.calls, 1);
}

TEST_F(filtered_hooks, read_the_addresses_every_ten_seconds_for_all_instances) {
  make(3);
  loop.pass(100s);
  EXPECT_EQ(addresses.calls, 0) << "no value has been published";
  for (size_t i = 0; i < 3; ++i) submit("x", "t", i);
  EXPECT_EQ(addresses.calls, 3);
  loop.pass(10s - 1ns);
  EXPECT_EQ(addresses.calls, 3);
  loop.pass(1ns);
  EXPECT_EQ(addresses.calls, 4);
  loop.pass(100s);
  EXPECT_EQ(addresses.calls, 14);
}

TEST_F(filtered_hooks, run_when_the_flags_of_an_address_change) {
  addresses.flags = {{1, 0}, {2, 0}};
  make();
  submit("x");
  end(0);
  addresses.flags[1] = IFA_F_DEPRECATED;
  loop.pass(10s);
  ASSERT_EQ(starts(), 2U);
  EXPECT_EQ(last_value(), "2001:db8::2");
  EXPECT_EQ(last("DAC_PREVIOUS"), "2001:db8::1,2001:db8::2");
  EXPECT_EQ(last("DAC_REASON"), "change");
}

TEST_F(filtered_hooks, hold_their_addresses_while_the_list_cannot_be_read) {
  make();
  addresses.fails = true;
  submit("x");
  loop.pass(5s);
  EXPECT_EQ(starts(), 0U);
  EXPECT_EQ(addresses.calls, 6) << "every second";
  EXPECT_EQ(reported(), "addresses: netlink: Resource temporarily unavailable; retry every second\n") << "once";
  addresses.fails = false;
  loop.pass(1s);
  EXPECT_EQ(reported(), "addresses: can be read again\n");
  EXPECT_EQ(starts(), 1U);
  end(0);
  addresses.fails = true;
  loop.pass(1h);
  EXPECT_EQ(starts(), 1U);
  EXPECT_EQ(reported(), "addresses: netlink: Resource temporarily unavailable; retry every second\n");
}

TEST_F(filtered_hooks, are_reported_once_when_no_address_passes_and_once_when_one_does) {
  options.hold = 5min;
  make(2);
  for (size_t i = 0; i < 2; ++i) submit("x", "t", i);
  EXPECT_EQ(reported_addresses(), "");
  addresses.flags[1] = IFA_F_DEPRECATED;
  loop.pass(30s);
  EXPECT_EQ(reported_addresses(), "addresses: none passes --pick stable; hooks get null if this lasts for 00:05:00\n");
  for (size_t i = 0; i < 2; ++i) submit("x", "t", i);
  loop.pass(1h);
  EXPECT_EQ(reported_addresses(), "") << "once";
  addresses.flags[1] = 0;
  loop.pass(30s);
  EXPECT_EQ(reported_addresses(), "addresses: at least one passes --pick stable\n");
  addresses.flags[1] = IFA_F_DEPRECATED;
  loop.pass(30s);
  EXPECT_EQ(reported_addresses(), "addresses: none passes --pick stable; hooks get null if this lasts for 00:05:00\n")
      << "again";
}

TEST_F(filtered_hooks, are_reported_without_a_time_if_they_get_null_at_once) {
  addresses.flags = {};
  options.addresses.interfaces = {"eth0", "eth1"};
  options.hold = 0s;
  make();
  submit("x");
  EXPECT_EQ(reported(), "addresses: none passes --pick stable --interface eth0 --interface eth1; hooks get null\n");
  EXPECT_EQ(last_value(), "null");
  options.hold = 5min;
  options.once = true;
  options.addresses = {.excluded = {"eth2"}};
  make();
  submit("x");
  EXPECT_EQ(reported(), "addresses: none passes --interface !eth2; hooks get null\n");
}

TEST_F(filtered_hooks, are_not_reported_while_the_list_cannot_be_read) {
  make();
  addresses.flags = {};
  addresses.fails = true;
  submit("x");
  EXPECT_EQ(reported().find("none passes"), std::string::npos);
}

TEST_F(hooks, without_a_filter_are_not_reported_when_there_is_no_address) {
  make();
  submit("null");
  loop.pass(1h);
  EXPECT_EQ(reported_addresses(), "");
}

TEST_F(filtered_hooks, fail_with_once_if_the_list_cannot_be_read) {
  options.once = true;
  make();
  addresses.fails = true;
  submit("x");
  EXPECT_EQ(reported(), "addresses: netlink: Resource temporarily unavailable; no retry\n");
  EXPECT_TRUE(runner->is_idle());
  EXPECT_TRUE(runner->has_given_up());
}

// ---------------------------------------------------------------- hold

TEST_F(filtered_hooks, get_null_only_after_the_hold) {
  make();
  submit("x");
  end(0);
  loop.pass(1h);
  addresses.flags.clear();
  submit("null");
  loop.pass(5min - 1ns);
  EXPECT_EQ(starts(), 1U);
  loop.pass(1ns);
  ASSERT_EQ(starts(), 2U);
  EXPECT_EQ(last_value(), "null");
  EXPECT_EQ(last("DAC_PREVIOUS"), "2001:db8::1");
  end(0);
  addresses.flags = {{2, 0}};
  submit("x");
  EXPECT_EQ(last_value(), "2001:db8::2");
  EXPECT_EQ(last("DAC_PREVIOUS"), "null");
}

TEST_F(filtered_hooks, get_no_null_if_an_address_comes_back_within_the_hold) {
  make();
  submit("x");
  end(0);
  for (int n = 0; n < 5; ++n) {
    addresses.flags.clear();
    submit("null");
    loop.pass(4min);
    addresses.flags = {{1, 0}};
    submit("x");
    loop.pass(2min);
  }
  EXPECT_EQ(starts(), 1U);
}

TEST_F(filtered_hooks, hold_from_the_start) {
  options.hold = 20s;
  addresses.flags.clear();
  make();
  loop.pass(5s);
  submit("null");
  loop.pass(15s - 1ns);
  EXPECT_EQ(starts(), 0U);
  loop.pass(1ns);
  ASSERT_EQ(starts(), 1U);
  EXPECT_EQ(last_value(), "null");
}

TEST_F(hooks, hold_the_published_value_too) {
  make();
  submit("a");
  end(0);
  submit("null");
  loop.pass(5min - 1ns);
  EXPECT_EQ(starts(), 1U);
  loop.pass(1ns);
  EXPECT_EQ(last_value(), "null");
}

TEST_F(hooks, hold_from_the_first_null_and_not_from_the_last_reading) {
  make();
  submit("a");
  end(0);
  loop.pass(9s);
  submit("null");
  loop.pass(5min - 1ns);
  EXPECT_EQ(starts(), 1U);
  loop.pass(1ns);
  EXPECT_EQ(starts(), 2U);
}

TEST_F(hooks, hold_the_last_of_several_values_that_come_together) {
  make();
  submit("a");
  runner->submit(0, {loop.wall, "gw", "a.example", "b"});
  runner->submit(0, {loop.wall, "gw", "a.example", "null"});
  end(0);
  loop.pass(0s);
  EXPECT_EQ(last_value(), "b");
}

TEST_F(hooks, retry_with_the_last_addresses_during_the_hold) {
  make();
  submit("a");
  submit("null");
  end(exited(1));
  loop.pass(1s);
  EXPECT_EQ(starts(), 2U);
  EXPECT_EQ(last_value(), "a");
}

TEST_F(hooks, delay_a_new_name_until_the_hold_ends) {
  options.hold = 1min;
  make();
  submit("a");
  end(0);
  submit("null", "b.example");
  loop.pass(1min - 1ns);
  EXPECT_EQ(starts(), 1U);
  loop.pass(1ns);
  EXPECT_EQ(last("DAC_TAG"), "b.example");
  EXPECT_EQ(last_value(), "null");
}

TEST_F(hooks, do_not_hold_with_once_or_without_a_duration) {
  for (const bool once : {true, false}) {
    options.once = once;
    options.hold = once ? 5min : 0s;
    records.saved.clear();
    make();
    submit("null");
    EXPECT_EQ(last_value(), "null");
    end(0);
  }
  EXPECT_EQ(starts(), 2U);
}

// ---------------------------------------------------------------- when a hook runs

TEST_F(hooks, run_for_a_change_of_value_or_name_only) {
  options.again = 0s;
  make();
  submit("a");
  end(0);
  for (int n = 0; n < 1000; ++n) {
    loop.pass(120s);
    submit("a");
  }
  EXPECT_EQ(starts(), 1U);
  submit("b");
  EXPECT_EQ(last("DAC_REASON"), "change");
  EXPECT_EQ(last("DAC_PREVIOUS"), "a");
  end(0);
  submit("b", "b.example");
  EXPECT_EQ(last("DAC_REASON"), "change");
  EXPECT_EQ(last("DAC_PREVIOUS"), "b");
  EXPECT_EQ(last("DAC_PREVIOUS_TAG"), "a.example");
  EXPECT_EQ(starts(), 3U);
}

TEST_F(hooks, run_again_after_a_day) {
  make();
  submit("a");
  loop.pass(1s);
  end(0);
  for (size_t day = 2; day < 5; ++day) {
    loop.pass(24h - 1ns);
    EXPECT_EQ(starts(), day - 1);
    loop.pass(1ns);
    EXPECT_EQ(starts(), day);
    EXPECT_EQ(last("DAC_REASON"), "again");
    EXPECT_EQ(last("DAC_PREVIOUS"), "a");
    end(0);
  }
}

TEST_F(hooks, count_the_day_from_the_last_success) {
  make();
  submit("a");
  end(0);
  loop.pass(23h);
  submit("b");
  end(0);
  loop.pass(24h - 1ns);
  EXPECT_EQ(starts(), 2U);
  loop.pass(1ns);
  EXPECT_EQ(starts(), 3U);
}

TEST_F(hooks, retry_after_a_failure_of_a_run_again) {
  options.again = 1h;
  make();
  submit("a");
  end(0);
  loop.pass(1h);
  end(exited(1));
  loop.pass(1s);
  EXPECT_EQ(starts(), 3U);
  EXPECT_EQ(last("DAC_REASON"), "retry");
  EXPECT_EQ(last("DAC_PREVIOUS"), "a");
  end(0);
  loop.pass(1h - 1ns);
  EXPECT_EQ(starts(), 3U);
}

TEST_F(hooks, name_the_reason_of_each_run) {
  make();
  submit("a");
  EXPECT_EQ(last("DAC_REASON"), "first");
  end(exited(1));
  loop.pass(1s);
  EXPECT_EQ(last("DAC_REASON"), "retry");
  submit("b");
  end(exited(1));
  EXPECT_EQ(last("DAC_REASON"), "first") << "no run has succeeded";
  EXPECT_EQ(last_value(), "b");
  end(0);
  submit("c");
  EXPECT_EQ(last("DAC_REASON"), "change");
  end(exited(1));
  loop.pass(1s);
  EXPECT_EQ(last("DAC_REASON"), "retry");
}

// The failed run may have changed something.
TEST_F(hooks, run_when_the_value_returns_after_a_failed_run) {
  make();
  submit("a");
  end(0);
  submit("b");
  end(exited(1));
  submit("a");
  ASSERT_EQ(starts(), 3U);
  EXPECT_EQ(last_value(), "a");
  EXPECT_EQ(last("DAC_REASON"), "change");
  EXPECT_EQ(last("DAC_PREVIOUS"), "a");
}

TEST_F(hooks, retry_when_the_failed_value_returns_while_another_is_queued) {
  options.jobs = 1;
  make(2);
  submit("a");
  submit("x", "t", 1);
  submit("b");
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; the newer value is next\n");
  submit("a");
  end(0);
  loop.pass(1s - 1ns);
  EXPECT_EQ(starts(), 2U);
  loop.pass(1ns);
  ASSERT_EQ(starts(), 3U);
  EXPECT_EQ(last_value(), "a");
  EXPECT_EQ(last("DAC_REASON"), "retry");
}

TEST_F(hooks, do_not_run_when_the_value_returns_before_the_run) {
  options.jobs = 1;
  make(2);
  submit("a");
  end(0);
  submit("x", "t", 1);
  submit("b");
  submit("a");
  end(0);
  loop.pass(1h);
  EXPECT_EQ(starts(), 2U);
  EXPECT_TRUE(runner->is_idle());
}

// ---------------------------------------------------------------- pauses, jobs, splay

TEST_F(hooks, pauses_are_up_to_a_quarter_shorter_or_longer) {
  const std::pair<double, std::chrono::microseconds> rows[] = {{0, 750ms}, {0.25, 875ms}, {0.999, 1249500us}};
  for (const auto& [r, pause] : rows) {
    random = r;
    make();
    submit("a");
    end(exited(1));
    const size_t before = starts();
    loop.pass(pause - 1us);
    EXPECT_EQ(starts(), before) << r;
    loop.pass(1us);
    EXPECT_EQ(starts(), before + 1) << r;
    EXPECT_EQ(reported(), "gw: hook: exit status 1; retry in about 1 s\n");
  }
}

TEST_F(hooks, at_most_eight_programs_run_at_once_and_the_others_start_in_order) {
  make(20);
  for (size_t i = 0; i < 20; ++i) submit("a", "t", i);
  EXPECT_EQ(starts(), 8U);
  submit("b", "t", 8);
  for (size_t n = 8; n < 20; ++n) {
    loop.end(101 + static_cast<pid_t>(n - 8), 0);
    ASSERT_EQ(starts(), n + 1);
    EXPECT_EQ(last("DAC_INSTANCE"), "gw" + std::to_string(n));
    EXPECT_EQ(last_value(), n == 8 ? "b" : "a") << "the newest value wins";
  }
  EXPECT_FALSE(runner->is_idle());
}

TEST_F(hooks, a_failure_to_start_does_not_prevent_the_next_program) {
  options.jobs = 1;
  make(3);
  programs.fails = true;
  for (size_t i = 0; i < 3; ++i) submit("a", "t", i);
  EXPECT_EQ(starts(), 3U);
}

TEST_F(hooks, a_program_that_survives_SIGKILL_does_not_count_as_a_job) {
  options.jobs = 1;
  make(3);
  submit("a");
  submit("a", "t", 1);
  loop.pass(32s - 1ns);
  EXPECT_EQ(starts(), 1U);
  loop.pass(1ns);
  EXPECT_EQ(starts(), 2U);
  submit("a", "t", 2);
  loop.end(101, SIGKILL);
  EXPECT_EQ(starts(), 2U) << "one job runs";
  loop.end(102, 0);
  EXPECT_EQ(starts(), 3U);
}

TEST_F(hooks, a_queued_value_is_dropped_at_the_end) {
  options.jobs = 1;
  make(2);
  submit("a");
  submit("a", "t", 1);
  runner->close();
  EXPECT_EQ(reported(), "gw1: hook: the run ends before the program gets the newest value\n");
  end(0);
  EXPECT_EQ(starts(), 1U);
  EXPECT_TRUE(runner->is_idle());
}

TEST_F(hooks, the_first_run_waits_for_a_random_part_of_the_splay) {
  options.splay = 100s;
  random = 0.3;
  make();
  loop.pass(10s);
  submit("a");
  EXPECT_FALSE(runner->is_idle());
  submit("b");
  loop.pass(20s - 1ns);
  EXPECT_EQ(starts(), 0U);
  loop.pass(1ns);
  ASSERT_EQ(starts(), 1U);
  EXPECT_EQ(last_value(), "b");
  end(0);
  submit("c");
  EXPECT_EQ(starts(), 2U) << "a later run does not wait";
}

// ---------------------------------------------------------------- state

TEST_F(hooks, save_what_a_successful_run_got) {
  make(2);
  loop.wall = wall_clock::time_point(7s);
  submit("a");
  end(exited(1));
  EXPECT_TRUE(records.saved.empty());
  loop.pass(1s);
  loop.wall = wall_clock::time_point(9s);
  end(0);
  ASSERT_EQ(records.saved.size(), 1U);
  EXPECT_EQ(records.saved["gw"].tag, "a.example");
  EXPECT_EQ(records.saved["gw"].value, "a");
  EXPECT_EQ(records.saved["gw"].time, loop.wall);
  submit("b", "t", 1);
  end(0);
  EXPECT_EQ(records.saved["gw1"].value, "b");
}

TEST_F(hooks, do_not_run_after_a_restart_with_unchanged_addresses_until_a_day_has_passed) {
  loop.wall = wall_clock::time_point(1000h);
  records.saved["gw"] = {"a.example", "a", loop.wall - 23h};
  make();
  submit("a");
  EXPECT_TRUE(runner->is_idle());
  loop.pass(1h - 1ns);
  EXPECT_EQ(starts(), 0U);
  loop.pass(1ns);
  EXPECT_EQ(starts(), 1U);
  EXPECT_EQ(last("DAC_REASON"), "again");
}

TEST_F(hooks, begin_with_a_short_pause_after_a_restart) {
  records.saved["gw"] = {"a.example", "a", loop.wall};
  make();
  submit("a");
  loop.pass(24h);
  end(exited(1));
  EXPECT_EQ(reported(), "gw: hook: exit status 1; retry in about 1 s\n");
}

TEST_F(hooks, run_after_a_restart_with_other_addresses_or_another_name) {
  records.saved["gw"] = {"a.example", "a", loop.wall};
  make();
  submit("b");
  EXPECT_EQ(last("DAC_REASON"), "change");
  EXPECT_EQ(last("DAC_PREVIOUS"), "a");
  records.saved["gw"] = {"a.example", "b", loop.wall};
  make();
  submit("b", "b.example");
  EXPECT_EQ(last("DAC_REASON"), "change");
  EXPECT_EQ(last("DAC_PREVIOUS_TAG"), "a.example");
}

TEST_F(hooks, hold_the_saved_addresses_during_the_hold_after_a_restart) {
  records.saved["gw"] = {"a.example", "a", loop.wall};
  make();
  submit("null");
  loop.pass(4min);
  submit("a");
  loop.pass(1h);
  EXPECT_EQ(starts(), 0U);
  submit("null");
  loop.pass(5min);
  EXPECT_EQ(last_value(), "null");
  EXPECT_EQ(last("DAC_PREVIOUS"), "a");
}

TEST_F(hooks, run_again_within_a_day_if_the_clock_was_set_back) {
  records.saved["gw"] = {"a.example", "a", loop.wall + 1000h};
  make();
  submit("a");
  loop.pass(24h - 1ns);
  EXPECT_EQ(starts(), 0U);
  loop.pass(1ns);
  EXPECT_EQ(starts(), 1U);
  end(0);
  loop.wall -= 1000h;
  loop.pass(24h);
  EXPECT_EQ(starts(), 2U);
}

TEST_F(hooks, run_at_once_after_a_long_time_off) {
  records.saved["gw"] = {"a.example", "a", loop.wall - 100000h};
  make();
  submit("a");
  EXPECT_EQ(last("DAC_REASON"), "again");
}

TEST_F(hooks, wait_for_the_splay_before_a_run_that_is_due_at_the_start) {
  options.splay = 100s;
  random = 0.3;
  records.saved["gw"] = {"a.example", "a", loop.wall - 100000h};
  make();
  submit("a");
  loop.pass(30s - 1ns);
  EXPECT_EQ(starts(), 0U);
  loop.pass(1ns);
  EXPECT_EQ(last("DAC_REASON"), "again");
}

TEST_F(hooks, ignore_a_damaged_record_and_report_it_once) {
  records.fails = "state/gw: damaged";
  make();
  submit("a");
  EXPECT_EQ(last("DAC_REASON"), "first");
  EXPECT_EQ(reported(), "state/gw: damaged; ignored\n");
  submit("b");
  EXPECT_EQ(reported(), "");
}

TEST_F(hooks, report_once_that_the_state_is_not_saved_and_save_it_later) {
  make(2);
  submit("a");
  submit("a", "t", 1);
  records.fails = "state: No space left on device";
  loop.end(101, 0);
  loop.end(102, 0);
  loop.pass(100s);
  EXPECT_EQ(reported(), "state: No space left on device; the state is not saved\n");
  records.fails.clear();
  loop.pass(10s);
  EXPECT_EQ(reported(), "the state is saved again\n");
  EXPECT_EQ(records.saved["gw"].value, "a");
  EXPECT_EQ(records.saved["gw1"].value, "a");
  const int saves = records.saves;
  loop.pass(1h);
  EXPECT_EQ(records.saves, saves);
}

TEST_F(hooks, save_the_records_of_the_others_if_one_cannot_be_saved) {
  records.refused = "gw1";
  make(3);
  for (const size_t i : {0U, 1U, 2U}) submit("a", "t", i);
  for (const pid_t program : {102, 101, 103}) loop.end(program, 0);
  loop.pass(1h);
  EXPECT_EQ(records.saved["gw"].value, "a");
  EXPECT_EQ(records.saved["gw2"].value, "a");
  EXPECT_EQ(reported(), "state/gw1: Is a directory; the state is not saved\n");
  records.refused.clear();
  loop.pass(10s);
  EXPECT_EQ(records.saved["gw1"].value, "a");
  EXPECT_EQ(reported(), "the state is saved again\n");
}

TEST_F(hooks, save_the_state_at_the_end_if_that_was_not_possible_before) {
  records.fails = "state: No space left on device";
  make();
  submit("a");
  end(0);
  records.fails.clear();
  runner->close();
  EXPECT_EQ(records.saved["gw"].value, "a");
}

TEST_F(hooks, continue_while_the_disk_hangs_and_save_the_newest_state_after_that) {
  records.hangs = true;
  make(2);
  submit("a");
  end(0);
  EXPECT_FALSE(runner->is_idle());
  submit("b");
  EXPECT_EQ(last("DAC_VALUE"), "b");
  end(0);
  submit("c", "t", 1);
  end(0);
  loop.pass(1h);
  EXPECT_EQ(records.saves, 1);
  records.write();
  records.write();
  EXPECT_FALSE(runner->is_idle());
  records.write();
  EXPECT_TRUE(runner->is_idle());
  EXPECT_EQ(records.saves, 3);
  EXPECT_EQ(records.saved["gw"].value, "b");
  EXPECT_EQ(records.saved["gw1"].value, "c");
}

TEST_F(hooks, wait_at_the_end_until_the_state_is_saved) {
  records.hangs = true;
  make();
  submit("a");
  end(0);
  runner->close();
  EXPECT_FALSE(runner->is_idle());
  records.write();
  EXPECT_TRUE(runner->is_idle());
}

TEST_F(hooks, save_the_state_again_every_ten_seconds_and_not_with_each_value) {
  records.fails = "state: No space left on device";
  make();
  submit("a");
  end(0);
  for (int n = 0; n < 9; ++n) {
    loop.pass(1s);
    submit("a");
  }
  EXPECT_EQ(records.saves, 1);
  loop.pass(1s);
  EXPECT_EQ(records.saves, 2);
}

// ---------------------------------------------------------------- directories

class hook_directories : public hooks {
 protected:
  scratch dir;

  hook_directories() { options.program = dir.path(""); }
  void add(const std::string& name, mode_t mode = 0700) const { EXPECT_EQ(chmod(dir.file("", name).c_str(), mode), 0); }
  /// The programs that were started, without the directory.
  texts started() const {
    texts names;
    for (const auto& s : programs.starts) names.push_back(s.program.substr(s.program.rfind('/') + 1));
    return names;
  }
  /// What has been reported, with DIR as the directory.
  std::string failures() {
    std::string text = reported();
    for (size_t at = 0; (at = text.find(options.program)) != std::string::npos;)
      text.replace(at, options.program.size(), "DIR/");
    return text;
  }
};

TEST_F(hook_directories, are_run_in_the_order_of_run_parts) {
  for (const char* name : {"b", "a", "B", "10_x", "9", "a-b", "_", "-", "A", "Z", "z", "0"}) add(name);
  for (const char* name : {"@x", "[x", "`x", "{x", ":x", "a.sh", "a~", "x y", "\xc3\xa4", ".hidden"}) add(name);
  add("not-executable", 0600);
  std::filesystem::create_directory(dir.path("directory"));
  std::filesystem::create_symlink(dir.path("a"), dir.path("link"));
  std::filesystem::create_symlink(dir.path("missing"), dir.path("broken"));
  make();
  submit("v");
  const texts expected = {"-", "0", "10_x", "9", "A", "B", "Z", "_", "a", "a-b", "b", "link", "z"};
  for (size_t n = 1; n <= expected.size(); ++n) {
    ASSERT_EQ(started(), texts(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(n)));
    EXPECT_EQ(programs.starts[n - 1].settings, programs.starts[0].settings);
    EXPECT_TRUE(records.saved.empty());
    end(0);
  }
  EXPECT_EQ(started(), expected);
  EXPECT_EQ(records.saved["gw"].value, "v");
  EXPECT_EQ(reported(), "");
}

TEST_F(hook_directories, run_the_other_programs_after_a_failure_and_then_fail) {
  for (const char* name : {"a", "b", "c"}) add(name);
  make();
  submit("v");
  end(exited(3));
  end(0);
  end(SIGSEGV);
  EXPECT_EQ(started(), (texts{"a", "b", "c"}));
  EXPECT_EQ(failures(),
            "gw: DIR/a: exit status 3, DIR/c: ended by signal 11 (Segmentation fault); retry in about 1 s\n");
  loop.pass(1s);
  EXPECT_EQ(started(), (texts{"a", "b", "c", "a"}));
  EXPECT_EQ(last("DAC_REASON"), "retry");
}

TEST_F(hook_directories, run_the_other_programs_after_one_that_cannot_be_started) {
  for (const char* name : {"a", "b"}) add(name);
  make();
  programs.fails = true;
  submit("v");
  EXPECT_EQ(started(), (texts{"a", "b"}));
  loop.pass(0s);
  EXPECT_EQ(failures(),
            "gw: DIR/a: cannot be started: No such file or directory, DIR/b: cannot be started: "
            "No such file or directory; retry in about 1 s\n");
}

// The program before it has ended, and its process number may belong to another program.
TEST_F(hook_directories, send_no_signal_for_a_program_that_cannot_be_started_after_another) {
  for (const char* name : {"a", "b"}) add(name);
  make();
  submit("v");
  programs.fails = true;
  loop.end(101, 0);
  loop.pass(0s);
  EXPECT_TRUE(programs.signals.empty());
  EXPECT_EQ(failures(), "gw: DIR/b: cannot be started: No such file or directory; retry in about 1 s\n");
}

TEST_F(hook_directories, that_cannot_be_opened_are_an_error_with_the_reason) {
  add("a");
  const std::string directory = options.program;
  try {
    const no_descriptors none;
    programs_of(directory);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Too many open files");
  }
}

TEST_F(hook_directories, give_each_program_the_whole_timeout) {
  for (const char* name : {"a", "b"}) add(name);
  options.timeout = 5s;
  make();
  submit("v");
  loop.pass(4s);
  end(0);
  loop.pass(5s - 1ns);
  EXPECT_TRUE(programs.signals.empty());
  loop.pass(1ns);
  end(SIGTERM);
  EXPECT_EQ(failures(), "gw: DIR/b: stopped after 5 s; retry in about 1 s\n");
}

TEST_F(hook_directories, start_no_further_program_at_the_end) {
  for (const char* name : {"a", "b", "c"}) add(name);
  make();
  submit("v");
  runner->close();
  end(0);
  EXPECT_EQ(started(), texts{"a"});
  EXPECT_EQ(failures(), "gw: DIR/b: not started before the end; no retry\n");
  EXPECT_TRUE(runner->is_idle());
  EXPECT_TRUE(runner->has_given_up());
}

TEST_F(hook_directories, are_read_for_each_run) {
  add("a");
  make();
  submit("v");
  end(0);
  add("b");
  submit("w");
  end(0);
  EXPECT_EQ(started(), (texts{"a", "a", "b"}));
  end(0);
  for (const char* name : {"a", "b"}) std::filesystem::remove(dir.path(name));
  submit("x");
  EXPECT_EQ(failures(), "gw: DIR/: no program in this directory, see run-parts(8); retry in about 1 s\n");
  add("c");
  loop.pass(1s);
  EXPECT_EQ(started().back(), "c");
}

TEST_F(hooks, a_path_of_a_program_is_started_as_it_is) {
  const scratch dir;
  options.program = dir.file("", "hook.sh");
  make();
  submit("v");
  ASSERT_EQ(starts(), 1U);
  EXPECT_EQ(programs.starts[0].program, options.program);
}

// ---------------------------------------------------------------- at the start

class hook_check : public testing::Test {
 public:
  hook_check(const hook_check&) = delete;
  hook_check& operator=(const hook_check&) = delete;

 protected:
  scratch dir;
  const std::string path_before = std::getenv("PATH");

  hook_check() { setenv("PATH", ("/nowhere:" + dir.path("bin") + ":/bin").c_str(), 1); }
  ~hook_check() override { setenv("PATH", path_before.c_str(), 1); }

  std::string add(const std::string& name, mode_t mode = 0700, const std::string& text = "") const {
    std::filesystem::create_directories(std::filesystem::path(dir.path(name)).parent_path());
    EXPECT_EQ(chmod(dir.file(text, name).c_str(), mode), 0);
    return dir.path(name);
  }
  std::string script(const std::string& text, const std::string& name = "script") const {
    return add(name, 0700, text);
  }
  /// "" if the hook is accepted.
  static std::string reason_against(const std::string& hook) {
    try {
      check_hook(hook);
      return "";
    } catch (const std::invalid_argument& e) {
      const std::string begin = "--exec: " + hook + ": ", text = e.what();
      EXPECT_TRUE(text.starts_with(begin)) << text;
      return text.substr(begin.size());
    }
  }
};

TEST_F(hook_check, accepts_executable_files_and_names_on_the_path) {
  EXPECT_EQ(reason_against(add("a.sh")), "");
  add("bin/on-path");
  EXPECT_EQ(reason_against("on-path"), "");
  EXPECT_EQ(reason_against("sh"), "");
}

TEST_F(hook_check, searches_the_working_directory_for_an_empty_part_of_the_path) {
  add("here");
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(dir.path(""));
  EXPECT_EQ(reason_against("here"), "not found on PATH");
  for (const char* path : {"", ":/bin", "/bin:", "/nowhere::/bin"}) {
    setenv("PATH", path, 1);
    EXPECT_EQ(reason_against("here"), "") << path;
  }
  std::filesystem::current_path(before);
}

TEST_F(hook_check, searches_the_systems_directories_without_a_path) {
  unsetenv("PATH");
  EXPECT_EQ(reason_against("sh"), "");
  EXPECT_EQ(reason_against("on-path"), "not found on PATH");
}

TEST_F(hook_check, refuses_what_cannot_be_started) {
  EXPECT_EQ(reason_against(dir.path("missing")), "not found");
  EXPECT_EQ(reason_against(add("plain", 0600)), "not executable");
  EXPECT_EQ(reason_against("/dev/null"), "not executable");
  add("bin/plain", 0600);
  std::filesystem::create_directory(dir.path("bin/folder"));
  for (const char* name : {"missing", "plain", "folder"}) EXPECT_EQ(reason_against(name), "not found on PATH");
}

TEST_F(hook_check, refuses_a_directory_without_a_program) {
  const std::string none = "no program in this directory";
  std::filesystem::create_directories(dir.path("hooks/folder"));
  EXPECT_EQ(reason_against(dir.path("hooks")), none + ", see run-parts(8)");
  add("hooks/plain", 0600);
  EXPECT_EQ(reason_against(dir.path("hooks")), none + ": plain is not executable");
  add("hooks/b c");
  EXPECT_EQ(reason_against(dir.path("hooks")), none + ": b c is skipped because of its name, see run-parts(8)");
  add("hooks/zero.py");
  add("hooks/a.sh");
  EXPECT_EQ(reason_against(dir.path("hooks")),
            none + ": a.sh is skipped because of the \".\" in its name, see run-parts(8)");
  add("hooks/a");
  EXPECT_EQ(reason_against(dir.path("hooks")), "");
}

TEST_F(hook_check, accepts_a_directory_whose_path_has_a_slash) {
  add("hooks/a");
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(dir.path(""));
  EXPECT_EQ(reason_against("./hooks"), "");
  EXPECT_EQ(reason_against("hooks"), "not found on PATH");
  std::filesystem::current_path(before);
}

// ---------------------------------------------------------------- scripts

TEST_F(hook_check, accepts_scripts_whose_interpreter_can_be_started) {
  setenv("PATH", "/bin", 1);
  for (const char* text :
       {"#!/bin/sh", "#!/bin/sh\n", "#! /bin/sh -e\n", "#!\t/bin/sh\t-e\nexit", "#!/usr/bin/env sh\n",
        "#!/usr/bin/env sh \t\n", "#!/usr/bin/env -S sh -e\n", "#!/usr/bin/env\n", "#!/usr/bin/env A=b sh\n",
        "\x7f"
        "ELF",
        "#", "", "#!/usr/bin/perl -w\r\n"})
    EXPECT_EQ(reason_against(script(text)), "") << text;
}

// env(1) finds it there and not on PATH.
TEST_F(hook_check, accepts_an_interpreter_for_env_in_the_working_directory) {
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path("/");
  EXPECT_EQ(reason_against(script("#!/usr/bin/env bin/sh\n")), "");
  std::filesystem::current_path(before);
}

TEST_F(hook_check, refuses_a_script_whose_interpreter_cannot_be_started) {
  const std::string plain = add("plain", 0600), folder = dir.path("");
  const std::string crlf = "; its lines end with CR LF, and must end with LF";
  setenv("PATH", "/bin", 1);
  const struct row {
    std::string text;
    std::string reason;
  } rows[] = {{"#!/no/such/sh\n", "its interpreter /no/such/sh is not found"},
              {"#! /no/such/sh -e\n", "its interpreter /no/such/sh is not found"},
              {"#!/no/such/sh", "its interpreter /no/such/sh is not found"},
              {"#!" + plain + '\n', "its interpreter " + plain + " is not executable"},
              {"#!" + folder + '\n', "its interpreter " + folder + " is not executable"},
              {"#!sh\n", "its interpreter sh is not found"},
              {"#!/bin/sh\r\n", "its interpreter /bin/sh\r is not found" + crlf},
              {"#!/bin/sh\r", "its interpreter /bin/sh\r is not found" + crlf},
              {"#!/bin/sh -e\r\n", "its lines end with CR LF, and must end with LF"},
              {"#!/usr/bin/env no-such\n", "its interpreter no-such is not found on PATH"},
              {"#!/usr/bin/env sh\r\n", "its interpreter sh\r is not found on PATH" + crlf},
              {"#!\n", "its first line names no interpreter"},
              {"#! \t", "its first line names no interpreter"}};
  for (const row& r : rows) EXPECT_EQ(reason_against(script(r.text)), r.reason) << r.text;
}

// The kernel reads 256 bytes of a script and does not start an interpreter whose name may continue after them.
TEST_F(hook_check, refuses_a_script_whose_interpreter_has_too_long_a_name) {
  const auto script_for = [this](size_t length) {
    std::string name = dir.path(std::string(100, 'x'));
    std::filesystem::create_directory(name);
    name += '/';
    name.resize(length, 'x');
    std::filesystem::create_symlink("/bin/sh", name);
    return script("#!" + name + '\n');
  };
  EXPECT_EQ(reason_against(script_for(253)), "");
  EXPECT_NE(reason_against(script_for(255)), "");
}

TEST_F(hook_check, accepts_a_script_that_cannot_be_read) {
  const std::string file = script("#!/no/such/sh\n");
  EXPECT_EQ(chmod(file.c_str(), 0100), 0);
  EXPECT_EQ(reason_against(file), access(file.c_str(), R_OK) == 0 ? "its interpreter /no/such/sh is not found" : "");
}

TEST_F(hook_check, checks_every_script_in_a_directory) {
  script("#!/bin/sh\n", "hooks/10-good");
  const std::string bad = script("#!/no/such/sh\n", "hooks/20-bad");
  EXPECT_EQ(reason_against(dir.path("hooks")), bad + ": its interpreter /no/such/sh is not found");
}

TEST_F(hook_check, checks_the_scripts_on_the_path) {
  script("#!/no/such/sh\n", "bin/prog");
  setenv("PATH", dir.path("bin").c_str(), 1);
  EXPECT_EQ(reason_against("prog"), "its interpreter /no/such/sh is not found");
  setenv("PATH", (dir.path("bin") + ':' + dir.path("later")).c_str(), 1);
  script("#!/no/such/perl\n", "later/prog");
  EXPECT_EQ(reason_against("prog"), "its interpreter /no/such/sh is not found") << "the first one";
  script("#!/bin/sh\n", "later/prog");
  EXPECT_EQ(reason_against("prog"), "") << "posix_spawnp() continues the search";
}

// ---------------------------------------------------------------- events

TEST_F(hooks, an_observer_gets_every_result) {
  options.timeout = 1s;
  make(2);
  texts got;
  runner->observe([&got](const hook_event& e) {
    got.push_back(std::to_string(e.index) + ' ' + std::to_string(static_cast<int>(e.level)) + ' ' + e.result + ' ' +
                  e.text);
  });
  submit("a", "t", 1);
  end(exited(1));
  EXPECT_EQ(std::exchange(got, {}), texts{"1 4 failed hook: exit status 1; retry in about 1 s"});
  submit("b", "t", 1);
  end(0);
  EXPECT_EQ(std::exchange(got, {}), texts{"1 6 ok "});
  submit("a");
  loop.pass(3s);
  EXPECT_EQ(std::exchange(got, {}),
            texts{"0 3 stuck hook: still runs after SIGKILL; no other program is started for this instance"});
  submit("b");
  submit("c", "t", 1);
  submit("d", "t", 1);
  runner->close();
  EXPECT_EQ(std::exchange(got, {}), (texts{"0 4 dropped hook: the run ends before the program gets the newest value",
                                           "1 4 dropped hook: the run ends before the program gets the newest value"}));
}

TEST_F(hooks, an_observer_gets_the_last_success_that_was_saved) {
  loop.wall = wall_clock::time_point(1000h);
  records.saved["gw"] = {"a.example", "a", loop.wall - 1h};
  make();
  texts got;
  runner->observe([&](const hook_event& e) {
    got.push_back(e.result + std::string(" before ") + std::to_string((loop.wall - e.time) / 1min) + " min");
  });
  submit("a");
  EXPECT_EQ(got, texts{"saved before 60 min"});
  submit("b");
  end(0);
  EXPECT_EQ(got, (texts{"saved before 60 min", "ok before 0 min"}));
}

TEST_F(hooks, a_dry_run_says_why_it_starts_nothing) {
  records.saved["gw"] = {"a.example", "a", wall_clock::time_point(1s)};
  options.dry_run = true;
  loop.wall = wall_clock::time_point(2s);
  make();
  submit("a");
  EXPECT_EQ(reported(), "gw: hook: not started, because nothing has changed since 1970-01-01T00:00:01.000Z\n");
  submit("a");
  submit("b");
  EXPECT_EQ(reported(), "");
  EXPECT_NE(loop.sinks[1].text.find("DAC_VALUE=b\t"), std::string::npos);
}

TEST_F(hooks, a_dry_run_shows_what_runs_again_though_nothing_has_changed) {
  records.saved["gw"] = {"a.example", "a", wall_clock::time_point(1s)};
  options.dry_run = true;
  loop.wall = wall_clock::time_point(25h);
  make();
  submit("a");
  EXPECT_EQ(reported(), "");
  EXPECT_NE(loop.sinks[1].text.find("DAC_REASON=again\n"), std::string::npos);
}

TEST_F(hooks, an_observer_of_a_dry_run_gets_nothing) {
  options.dry_run = true;
  make();
  runner->observe([](const hook_event& e) { ADD_FAILURE() << e.result; });
  submit("a");
}
