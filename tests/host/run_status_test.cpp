// What the service manager learns about a run, step by step in virtual time.
#include "host/commands/run_status.h"

#include <gtest/gtest.h>

#include <utility>

#include "tests/host/scripted_loop.h"
#include "tests/support/json_schema.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

using namespace std::chrono_literals;

namespace {

class scripted_manager : public service_manager {
 public:
  bool present = true;
  bool accepts = true;
  std::chrono::microseconds interval{0};
  texts sent;

  bool is_present() const override { return present; }
  std::chrono::microseconds watchdog() const override { return interval; }
  bool notify(const std::string& lines) override {
    if (accepts) sent.push_back(lines);
    return accepts;
  }
};

class run_statuses : public testing::Test {
 protected:
  scripted_loop loop;
  scripted_manager manager;
  scratch dir;
  std::string path;  // of the status file
  output err{loop, 2};
  std::unique_ptr<run_status> status;

  void make(const texts& instances = {"gw"}) {
    status = std::make_unique<run_status>(loop, manager, instances, path, err);
    for (size_t i = 0; i < instances.size(); ++i) status->on_tag(i, instances[i] + ".example");
    status->on_ready();
    loop.pass(0s);
    manager.sent.clear();
  }
  void publish(size_t i = 0, const std::string& value = "2001:db8::10") { status->on_value(i, loop.wall, value); }
  /// What has been sent last, after the time has passed.
  std::string after(std::chrono::nanoseconds n) {
    loop.pass(n);
    loop.wall += std::chrono::duration_cast<wall_clock::duration>(n);
    return manager.sent.empty() ? "" : manager.sent.back();
  }
  /// The watchdog was pinged during that time.
  bool is_pinged(std::chrono::nanoseconds n) {
    manager.sent.clear();
    loop.pass(n);
    for (const std::string& s : manager.sent)
      if (s.find("WATCHDOG=1\n") != std::string::npos) return true;
    return false;
  }
};

}  // namespace

TEST_F(run_statuses, READY_is_sent_with_the_first_status) {
  status = std::make_unique<run_status>(loop, manager, texts{"gw"}, path, err);
  status->on_tag(0, "gw.example");
  EXPECT_EQ(manager.sent, texts{});
  status->on_ready();
  ASSERT_FALSE(manager.sent.empty());
  EXPECT_EQ(manager.sent[0], "READY=1\nSTATUS=gw.example not published yet");
}

TEST_F(run_statuses, nothing_is_sent_and_no_timer_runs_without_a_manager) {
  manager.present = false;
  make();
  publish();
  loop.pass(10s);
  status->on_reload();
  EXPECT_EQ(loop.timers(), 0U);
  status->on_stop();
  EXPECT_EQ(manager.sent, texts{});
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(run_statuses, a_value_is_reported_and_many_at_most_once_a_second) {
  make();
  loop.pass(1s);
  publish();
  EXPECT_EQ(after(0s), "STATUS=gw.example = 2001:db8::10");
  for (int n = 0; n < 100; ++n) publish(0, "2001:db8::" + std::to_string(n));
  EXPECT_EQ(after(999ms), "STATUS=gw.example = 2001:db8::10");
  EXPECT_EQ(after(1ms), "STATUS=gw.example = 2001:db8::99");
  EXPECT_EQ(manager.sent.size(), 2U);
}

TEST_F(run_statuses, a_hook_is_reported_with_its_age_which_is_renewed) {
  make();
  loop.pass(1s);
  publish();
  EXPECT_EQ(status->on_hook(0, loop.wall, ""), "");
  EXPECT_EQ(after(0s), "STATUS=gw.example = 2001:db8::10, hook ok 0 s ago");
  loop.wall += 12s;
  EXPECT_EQ(after(10s), "STATUS=gw.example = 2001:db8::10, hook ok 12 s ago");
}

TEST_F(run_statuses, a_hook_that_works_again_is_reported_with_its_failures_and_their_time) {
  make();
  EXPECT_EQ(status->on_hook(0, loop.wall, "exit status 1"), "");
  EXPECT_EQ(after(1s), "STATUS=gw.example not published yet, hook failed 0 s ago: exit status 1");
  loop.pass(59s);
  EXPECT_EQ(status->on_hook(0, loop.wall, "exit status 2"), "");
  EXPECT_EQ(status->on_hook(0, loop.wall, "exit status 3"), "");
  EXPECT_EQ(after(1s), "STATUS=gw.example not published yet, hook failed 3 times 0 s ago: exit status 3");
  loop.pass(79s);
  EXPECT_EQ(status->on_hook(0, loop.wall, ""), "works again after 3 failures, 00:02:20");
  EXPECT_EQ(status->on_hook(0, loop.wall, ""), "");
  EXPECT_EQ(status->on_hook(0, loop.wall, "exit status 1"), "");
  loop.pass(3h + 61s);
  EXPECT_EQ(status->on_hook(0, loop.wall, ""), "works again after 1 failure, 03:01:01");
}

TEST_F(run_statuses, a_reload_is_RELOADING_until_READY) {
  make();
  status->on_reload();
  EXPECT_EQ(manager.sent.back(), "RELOADING=1\nMONOTONIC_USEC=1000000000\nSTATUS=gw.example not published yet");
  status->on_ready();
  EXPECT_EQ(manager.sent.back(), "READY=1\nSTATUS=gw.example not published yet");
}

TEST_F(run_statuses, a_refused_reload_is_visible_until_the_file_is_accepted) {
  make();
  publish();
  loop.pass(1s);
  status->on_refused(0, "bad\nfile; the old instance continues");
  EXPECT_EQ(after(1s), "STATUS=gw.example = 2001:db8::10; bad\\x0afile; the old instance continues");
  publish();
  EXPECT_EQ(after(60s), "STATUS=gw.example = 2001:db8::10; bad\\x0afile; the old instance continues");
  status->on_tag(0, "new.example");
  EXPECT_EQ(after(1s), "STATUS=new.example not published yet");
}

TEST_F(run_statuses, a_reload_preserves_the_value_of_an_unchanged_name) {
  path = dir.path("status");
  make();
  publish();
  loop.pass(1s);
  status->on_tag(0, "gw.example");
  loop.pass(1s);
  EXPECT_EQ(manager.sent.back(), "STATUS=gw.example = 2001:db8::10");
  const std::string before = read_file(path);
  EXPECT_NE(before.find(R"("value":"2001:db8::10","published":"1970-01-01T00:00:00.000Z")"), std::string::npos)
      << before;
  publish(0, "2001:db8::11");
  EXPECT_EQ(after(1s), "STATUS=gw.example = 2001:db8::11");
}

TEST_F(run_statuses, a_new_name_has_no_value_and_no_time) {
  path = dir.path("status");
  make();
  publish();
  loop.pass(1s);
  status->on_tag(0, "new.example");
  loop.pass(1s);
  EXPECT_EQ(manager.sent.back(), "STATUS=new.example not published yet");
  const std::string text = read_file(path);
  EXPECT_NE(text.find(R"("tag":"new.example","value":null,"published":null,)"), std::string::npos) << text;
}

TEST_F(run_statuses, the_watchdog_is_pinged_only_while_every_instance_publishes) {
  manager.interval = 120s;
  make({"a", "b"});
  EXPECT_TRUE(is_pinged(10s)) << "they are new";
  loop.pass(90s);
  publish(0);
  EXPECT_TRUE(is_pinged(30s)) << "b has 130 seconds";
  EXPECT_FALSE(is_pinged(100s)) << "b is silent";
  publish(1);
  EXPECT_FALSE(is_pinged(10s)) << "a has been silent for more than 130 seconds";
  publish(0);
  EXPECT_TRUE(is_pinged(10s));
}

TEST_F(run_statuses, a_new_instance_has_130_seconds_to_publish) {
  manager.interval = 120s;
  make();
  loop.pass(129s);
  status->on_tag(0, "gw.example");
  EXPECT_TRUE(is_pinged(100s));
  EXPECT_TRUE(is_pinged(30s)) << "the silence of the old instance does not count";
  EXPECT_FALSE(is_pinged(130s));
}

TEST_F(run_statuses, the_watchdog_is_pinged_twice_an_interval_and_not_without_one) {
  manager.interval = 2s;
  make();
  for (int n = 0; n < 10; ++n) EXPECT_TRUE(is_pinged(1s));
  manager.interval = 0s;
  EXPECT_FALSE(is_pinged(60s) && is_pinged(60s));
}

TEST_F(run_statuses, a_state_that_was_not_sent_is_sent_again_and_a_ping_is_not) {
  manager.interval = 120s;
  manager.accepts = false;
  make();
  status->on_reload();
  status->on_ready();
  loop.pass(200s);
  EXPECT_EQ(manager.sent, texts{});
  manager.accepts = true;
  EXPECT_EQ(after(10s), "READY=1\nSTATUS=gw.example not published yet");
  EXPECT_EQ(after(10s), "STATUS=gw.example not published yet");
}

TEST_F(run_statuses, a_state_that_was_not_sent_is_sent_with_the_next_change) {
  manager.accepts = false;
  make();
  manager.accepts = true;
  publish();
  EXPECT_EQ(after(1s), "READY=1\nSTATUS=gw.example = 2001:db8::10");
  publish(0, "2001:db8::11");
  EXPECT_EQ(after(1s), "STATUS=gw.example = 2001:db8::11");
}

TEST_F(run_statuses, STOPPING_ends_the_timers) {
  make();
  publish();
  loop.pass(1s);
  status->on_stop();
  EXPECT_EQ(manager.sent.back(), "STOPPING=1\nSTATUS=gw.example = 2001:db8::10");
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(run_statuses, the_file_is_written_at_most_once_a_second_and_its_newest_text_at_the_end) {
  path = dir.path("status");
  make();
  const auto value = [this] { return read_file(path).find(R"("value":"2001:db8::99")") != std::string::npos; };
  publish(0, "2001:db8::99");
  loop.pass(900ms);
  EXPECT_FALSE(value());
  const int works = loop.works;
  loop.pass(100ms);
  EXPECT_TRUE(value());
  EXPECT_EQ(loop.works, works + 1);
  publish(0, "null");
  status->finish();
  EXPECT_NE(read_file(path).find(R"("value":"null")"), std::string::npos);
  loop.pass(100s);
  EXPECT_EQ(loop.works, works + 2) << "nothing has changed";
}

TEST_F(run_statuses, the_file_has_what_changed_while_it_was_written) {
  path = dir.path("status");
  make();
  loop.holds_work = true;
  publish(0, "a");
  loop.pass(10s);
  publish(0, "b");
  publish(0, "c");
  loop.pass(10s);
  EXPECT_EQ(loop.held_work(), 1U) << "the disk is slow";
  loop.holds_work = false;
  loop.release_work();
  loop.pass(1s);
  EXPECT_NE(read_file(path).find(R"("value":"c")"), std::string::npos);
}

TEST_F(run_statuses, the_file_that_cannot_be_written_is_reported_once_and_when_it_can) {
  path = dir.path("missing/status");
  make();
  for (int n = 0; n < 3; ++n) {
    publish(0, std::to_string(n));
    loop.pass(1s);
  }
  EXPECT_EQ(loop.sinks[2].text,
            "dachost: " + path + ": cannot be written: No such file or directory; retry every 10 seconds\n");
  std::filesystem::create_directory(dir.path("missing"));
  publish(0, "4");
  loop.pass(1s);
  EXPECT_EQ(lines(loop.sinks[2].text).back(), "dachost: " + path + ": is written again");
  EXPECT_FALSE(std::filesystem::exists(dir.path("missing/.status.dachost-tmp")));
}

TEST_F(run_statuses, the_end_waits_two_seconds_for_the_file_and_then_for_a_signal) {
  path = dir.path("status");
  make();
  loop.pass(1s);
  loop.holds_work = true;
  publish(0, "a");
  loop.pass(0s);
  const auto late = loop.call_in(10s, [this] {
    EXPECT_TRUE(loop.is_restored);
    loop.release_work();
  });
  const auto early = loop.call_in(1900ms, [this] { EXPECT_FALSE(loop.is_restored); });
  status->finish();
}

TEST(status_document, is_valid_and_has_nulls_for_what_is_not_known) {
  const wall_clock::time_point now{1000s};
  std::vector<instance_status> all(3);
  all[0].instance = "a\xff\x1b";
  all[0].tag = "a.example";
  all[1] = {"b", "b.example", "::1", now, hook_status{now - 200s, 2, "exit status 1"}, "b.conf: bad"};
  all[2] = {"c", "c.example", "::2", now, hook_status{now, 0, ""}, ""};
  const std::string text = status_document(all, now);
  EXPECT_EQ(schema_errors("dachost.status.schema.json", text), "");
  EXPECT_EQ(text, R"({"schema":1,"time":"1970-01-01T00:16:40.000Z","instances":[)"
                  "{\"instance\":\"a\xef\xbf\xbd\\u001b\","
                  R"("tag":"a.example","value":null,"published":null,"hook":null,"refused":null},)"
                  R"({"instance":"b","tag":"b.example","value":"::1","published":"1970-01-01T00:16:40.000Z","hook":)"
                  R"({"result":"failed","time":"1970-01-01T00:13:20.000Z","failures":2,"text":"exit status 1"},)"
                  R"("refused":"b.conf: bad"},)"
                  R"({"instance":"c","tag":"c.example","value":"::2","published":"1970-01-01T00:16:40.000Z","hook":)"
                  R"({"result":"ok","time":"1970-01-01T00:16:40.000Z","failures":0,"text":""},"refused":null}]})"
                  "\n");
}

TEST(status_of_several, counts_them_and_names_the_first_failure) {
  const wall_clock::time_point now{1000s};
  std::vector<instance_status> all(3);
  EXPECT_EQ(status_line(all, now), "3 instances, 0 published");
  all[0].value = "null";
  all[1] = {"b", "b.example", "::1", now, hook_status{now - 200s, 1, "exit status 1"}, "b.conf: bad"};
  all[2].hook = {now - 5s, 0, ""};
  EXPECT_EQ(status_line(all, now),
            "3 instances, 2 published; 1 hooks failing, the first: b: hook failed 3 min ago: exit status 1; 1 "
            "files refused, the first: b.conf: bad");
}

TEST(status_of_one, has_ages_in_units_that_fit) {
  const wall_clock::time_point now{1000h};
  const auto age = [now](std::chrono::seconds s) {
    const std::string line = status_line({{"a", "a", "v", now, hook_status{now - s, 0, ""}, ""}}, now);
    return line.substr(line.find("hook ok ") + 8);
  };
  EXPECT_EQ(age(-5s), "0 s ago");
  EXPECT_EQ(age(119s), "119 s ago");
  EXPECT_EQ(age(120s), "2 min ago");
  EXPECT_EQ(age(7199s), "119 min ago");
  EXPECT_EQ(age(2h), "2 h ago");
  EXPECT_EQ(age(47h), "47 h ago");
  EXPECT_EQ(age(48h), "2 d ago");
}

TEST(status_of_one, is_short_printable_UTF_8) {
  EXPECT_EQ(status_line({{"a", "\xff\x1b", "v", {}, {}, ""}}, {}), "\xef\xbf\xbd\\x1b = v");
  EXPECT_EQ(status_line({{"a", std::string(5000, 'x'), "v", {}, {}, ""}}, {}), std::string(2000, 'x'));
  const auto times = [](int n, const std::string& text) {
    std::string all;
    while (n-- > 0) all += text;
    return all;
  };
  EXPECT_EQ(status_line({{"a", 'x' + times(1500, "\xc3\xa9"), "v", {}, {}, ""}}, {}), 'x' + times(999, "\xc3\xa9"));
  EXPECT_EQ(status_line({{"a", std::string(1500, '\xff'), "v", {}, {}, ""}}, {}), times(666, "\xef\xbf\xbd"));
}
