// The worker of the built library on a fake clock: when it polls, when it publishes, and
// the record, byte for byte.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "driver/dac.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_heap.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/plugin.h"
#include "tests/support/plugin_fixture.h"

namespace {

using strings = std::vector<std::string>;

constexpr char failure_message[] = "get ipv6 address failed.";

std::string join(const strings& addresses) {
  std::string text;
  for (const std::string& a : addresses) text += (text.empty() ? "" : ",") + a;
  return text;
}

// Twenty-five addresses that make a text of 999 characters.
strings addresses_of_999_characters() {
  strings addresses;
  for (int i = 0; i < 25; ++i) addresses.push_back("2001:1db8:1111:2222:3333:4444:5555:66" + std::to_string(10 + i));
  return addresses;
}

class worker : public plugin_fixture {
 protected:
  int h = -1;

  /// A worker past its first poll, which was at `t0`, and past the publication that goes with it; a test that has none
  /// ends here.
  void start_and_poll() {
    h = create();
    start(h);
    fake_clock::step();
    if (rec.publications().size() != 1 || fake_interfaces::lists() != 1)
      throw std::runtime_error("a worker does not poll and publish once");
  }

  /// One round at that time.
  void round_at(int64_t seconds) {
    fake_clock::set(seconds);
    fake_clock::step();
  }
};

}  // namespace

// ---------------------------------------------------------------- rounds

TEST_F(worker, sleeps_a_tenth_of_a_second_before_its_first_poll) {
  start(create());
  EXPECT_EQ(fake_clock::last_request().tv_sec, 0);
  EXPECT_EQ(fake_clock::last_request().tv_nsec, 100'000'000);
  EXPECT_EQ(fake_clock::last_remainder(), nullptr);
  EXPECT_EQ(fake_interfaces::lists(), 0);
  EXPECT_EQ(rec.values(), strings{});

  fake_clock::step();
  EXPECT_EQ(fake_interfaces::lists(), 1);
  EXPECT_EQ(rec.values(), strings{address});
}

TEST_F(worker, sleeps_the_same_in_rounds_with_and_without_a_poll) {
  start_and_poll();
  const int before = fake_clock::sleeps();
  for (const int64_t at : {t0, t0 + 1, t0 + 10, t0 + 130}) {
    round_at(at);
    EXPECT_EQ(fake_clock::last_request().tv_nsec, 100'000'000);
    EXPECT_EQ(fake_clock::last_remainder(), nullptr);
  }
  EXPECT_EQ(fake_clock::sleeps(), before + 4);
}

TEST_F(worker, polls_again_when_the_clock_is_10_seconds_away_in_either_direction) {
  const struct {
    const char* label;
    int64_t by;
    int polls;
  } rows[] = {
      {"no time at all", 0, 0},     {"9 seconds later", 9, 0},    {"10 seconds later", 10, 1},
      {"a minute later", 60, 1},    {"9 seconds earlier", -9, 0}, {"10 earlier", -10, 1},
      {"a minute earlier", -60, 1}, {"back to 1970", -t0, 1},     {"ten years on", t0 / 5, 1},
  };
  start_and_poll();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    round_at(t0 + 1'000);  // far from t0: a separate poll, from which the next one counts
    round_at(t0);
    const int before = fake_interfaces::lists();
    round_at(t0 + row.by);
    EXPECT_EQ(fake_interfaces::lists(), before + row.polls);
  }
}

TEST_F(worker, counts_the_10_seconds_from_its_latest_poll) {
  start_and_poll();
  for (int s = 1; s <= 35; ++s) {
    round_at(t0 + s);
    EXPECT_EQ(fake_interfaces::lists(), 1 + s / 10) << s;
  }
  round_at(t0 + 44);
  EXPECT_EQ(fake_interfaces::lists(), 5);
  round_at(t0 + 53);
  EXPECT_EQ(fake_interfaces::lists(), 5);
  round_at(t0 + 54);
  EXPECT_EQ(fake_interfaces::lists(), 6);
}

TEST_F(worker, first_polls_at_second_10_of_a_clock_that_starts_in_1970) {
  fake_clock::set(0);
  start(create());
  round_at(0);
  round_at(9);
  EXPECT_EQ(fake_interfaces::lists(), 0);
  round_at(10);
  EXPECT_EQ(rec.values(), strings{address});
}

TEST_F(worker, frees_every_interface_list) {
  start_and_poll();
  for (int s = 10; s <= 50; s += 10) round_at(t0 + s);
  EXPECT_EQ(fake_interfaces::frees(), 6);
  EXPECT_EQ(fake_interfaces::outstanding(), 0);
}

// ---------------------------------------------------------------- publications

TEST_F(worker, publishes_a_changed_text_at_the_next_poll) {
  start_and_poll();
  fake_interfaces::set({"2001:db8::20"});
  round_at(t0 + 9);
  EXPECT_EQ(rec.values(), strings{address});
  round_at(t0 + 10);
  EXPECT_EQ(rec.values(), (strings{address, "2001:db8::20"}));
  fake_interfaces::set({"2001:db8::20", "2001:db8:1::20"});
  round_at(t0 + 20);
  EXPECT_EQ(rec.values().back(), "2001:db8::20,2001:db8:1::20");
  fake_interfaces::set({"2001:db8:1::20", "2001:db8::20"});
  round_at(t0 + 30);
  EXPECT_EQ(rec.values().back(), "2001:db8:1::20,2001:db8::20");
  EXPECT_EQ(rec.values().size(), 4U);
}

TEST_F(worker, publishes_an_unchanged_text_when_the_clock_is_120_seconds_away_in_either_direction) {
  const struct {
    const char* label;
    int64_t by;
    size_t publications;
  } rows[] = {
      {"10 seconds later", 10, 0},    {"119 seconds later", 119, 0},    {"120 seconds later", 120, 1},
      {"121 seconds later", 121, 1},  {"a year later", 31'536'000, 1},  {"10 seconds earlier", -10, 0},
      {"60 seconds earlier", -60, 0}, {"119 seconds earlier", -119, 0}, {"120 seconds earlier", -120, 1},
      {"back to 1970", -t0, 1},
  };
  start_and_poll();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    round_at(t0 + 1'000'000);
    round_at(t0);
    const size_t before = rec.values().size();
    const int polls = fake_interfaces::lists();
    round_at(t0 + row.by);
    EXPECT_EQ(fake_interfaces::lists(), polls + 1);
    EXPECT_EQ(rec.values().size(), before + row.publications);
  }
}

TEST_F(worker, publishes_an_unchanged_text_every_120_seconds) {
  start_and_poll();
  for (int s = 10; s <= 600; s += 10) {
    round_at(t0 + s);
    EXPECT_EQ(rec.values().size(), 1U + static_cast<size_t>(s / 120)) << s;
  }
}

TEST_F(worker, counts_the_120_seconds_from_its_latest_publication) {
  start_and_poll();
  fake_interfaces::set({"2001:db8::20"});
  round_at(t0 + 60);
  round_at(t0 + 120);
  round_at(t0 + 179);
  EXPECT_EQ(rec.values(), (strings{address, "2001:db8::20"}));
  round_at(t0 + 189);
  EXPECT_EQ(rec.values(), (strings{address, "2001:db8::20", "2001:db8::20"}));
}

TEST_F(worker, publishes_null_without_a_message_if_there_is_no_public_address) {
  fake_interfaces::set({"::1", "fe80::1", "fec0::1", "ff02::1", "::ffff:192.0.2.1", "::192.0.2.1", "ipv4", "none"});
  start(h = create("h1"));
  fake_clock::step();
  EXPECT_EQ(rec.journal(),
            (strings{recorder::log("drv", 0, "start wrk_process success."), recorder::data("h1", "null")}));
}

TEST_F(worker, publishes_public_addresses_in_the_systems_order) {
  fake_interfaces::set({"::1", "2001:db8::20", "fe80::1", "fd00::5", "none", "::", "2001:db8::10", "fe7f::1"});
  start(create());
  fake_clock::step();
  EXPECT_EQ(rec.values(), strings{"2001:db8::20,fd00::5,::,2001:db8::10,fe7f::1"});
}

TEST_F(worker, publishes_the_loss_of_the_address_and_its_return_as_changes) {
  fake_interfaces::set({});
  start(create());
  fake_clock::step();
  fake_interfaces::set({address});
  round_at(t0 + 10);
  fake_interfaces::set({"fe80::1"});
  round_at(t0 + 20);
  round_at(t0 + 30);
  EXPECT_EQ(rec.values(), (strings{"null", address, "null"}));
}

TEST_F(worker, logs_every_failed_list_and_publishes_null) {
  start_and_poll();
  rec.clear();
  fake_interfaces::fail(-1);
  round_at(t0 + 9);
  round_at(t0 + 10);
  round_at(t0 + 19);
  round_at(t0 + 20);
  round_at(t0 + 129);
  round_at(t0 + 139);
  fake_interfaces::fail(0);
  round_at(t0 + 150);
  const std::string failed = recorder::log("drv", 2, failure_message);
  const strings expected = {failed,
                            recorder::data("h1", "null"),  // changed
                            failed,                        // unchanged
                            failed,                        // unchanged for 119 seconds
                            failed,
                            recorder::data("h1", "null"),  // for 129
                            recorder::data("h1", address)};
  EXPECT_EQ(rec.journal(), expected);
}

TEST_F(worker, treats_a_failed_list_like_an_empty_one) {
  fake_interfaces::fail(-1);
  start(create());
  fake_clock::step();
  fake_interfaces::fail(0);
  fake_interfaces::set({});
  round_at(t0 + 10);
  EXPECT_EQ(rec.values(), strings{"null"});
}

TEST_F(worker, publishes_a_change_beyond_the_end_of_the_record) {
  strings addresses = addresses_of_999_characters();
  addresses.emplace_back("2001:db8::1");
  fake_interfaces::set(addresses);
  start(create());
  fake_clock::step();
  addresses.back() = "2001:db8::2";
  fake_interfaces::set(addresses);
  round_at(t0 + 10);
  const std::string cut = join(addresses_of_999_characters());
  EXPECT_EQ(rec.values(), (strings{cut, cut}));
}

TEST_F(worker, polls_and_logs_failures_even_without_a_data_callback) {
  arguments a = rec.args("drv", "");
  const std::string path = dir.file("hostname=h1\n");
  a.cfgfile = path.c_str();
  a.data = nullptr;
  fake_interfaces::fail(-1);
  start(a.create(lib));
  fake_clock::step();
  round_at(t0 + 10);
  fake_interfaces::fail(0);
  round_at(t0 + 20);
  round_at(t0 + 160);
  EXPECT_EQ(fake_interfaces::lists(), 4);
  EXPECT_EQ(rec.messages(), (strings{"start wrk_process success.", failure_message, failure_message}));
  EXPECT_EQ(rec.values(), strings{});
}

// ---------------------------------------------------------------- the record

TEST_F(worker, fills_the_record_byte_for_byte) {
  strings of_1000 = addresses_of_999_characters();
  of_1000.back() = "2001:db8:12:11:1::1";
  of_1000.emplace_back("2001:db8:1:1:1:1:1:1");
  strings of_998 = addresses_of_999_characters();
  of_998.back() = "2001:1db8:1111:2222:3333:4444:5555:666";
  const struct {
    const char* label;
    size_t name;  // length
    strings addresses;
    size_t value;  // length of the whole text
  } rows[] = {
      {"no address", 2, {}, 0},
      {"shortest", 1, {"::"}, 2},
      {"usual", 12, {"2001:db8::10", "2001:db8:1::20"}, 27},
      {"name of 78", 78, {"2001:db8::10"}, 12},
      {"name of 79", 79, {"2001:db8::10"}, 12},
      {"name of 80", 80, {"2001:db8::10"}, 12},
      {"name of 100", 100, {"2001:db8::10"}, 12},
      {"value of 998", 79, of_998, 998},
      {"value of 999", 80, addresses_of_999_characters(), 999},
      {"value of 1000", 80, of_1000, 1000},
      {"value of 4039, name of 5000", 5000, strings(101, "2001:1db8:1111:2222:3333:4444:5555:6666"), 4039},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const std::string name = std::string(row.name - 1, 'n') + "e";
    ASSERT_EQ(join(row.addresses).size(), row.value);
    fake_interfaces::set(row.addresses);
    rec.clear();
    h = create(name);
    start(h);
    fake_clock::step();
    stop(h);
    lib.destroy(h);

    const std::string value = row.addresses.empty() ? "null" : join(row.addresses).substr(0, 999);
    const auto length = static_cast<uint16_t>(value.size());
    std::string expected(1104, '\0');
    expected.replace(0, std::min<size_t>(row.name, 79), name, 0, 79);
    expected[96] = 6;
    std::memcpy(expected.data() + 102, &length, 2);
    expected.replace(104, value.size(), value);

    const auto publications = rec.publications();
    ASSERT_EQ(publications.size(), 1U);
    const dac_tagvalue& r = publications[0].record;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&r), sizeof r), expected);
    EXPECT_EQ(publications[0].count, 1);
  }
}

TEST_F(worker, delivers_time_0_and_no_bytes_of_the_previous_record) {
  fake_interfaces::set({"2001:db8:1111:2222:3333:4444:5555:6666"});
  start(create("h1"));
  fake_clock::step();
  fake_interfaces::set({"2001:db8::"});
  round_at(t0 + 10);
  round_at(t0 + 130);
  const auto publications = rec.publications();
  ASSERT_EQ(publications.size(), 3U);
  dac_tagvalue expected = {};
  std::memcpy(expected.name, "h1", 2);
  std::memcpy(expected.value, "2001:db8::", 10);
  expected.type = 6;
  expected.len = 10;
  for (const int i : {1, 2}) EXPECT_EQ(std::memcmp(&publications[static_cast<size_t>(i)].record, &expected, 1104), 0);
  EXPECT_EQ(publications[0].record.time, 0);
}

TEST_F(worker, delivers_the_record_on_its_thread) {
  start_and_poll();
  round_at(t0 + 120);
  const auto publications = rec.publications();
  ASSERT_EQ(publications.size(), 2U);
  EXPECT_NE(publications[0].thread, std::this_thread::get_id());
  EXPECT_EQ(publications[1].thread, publications[0].thread);
}

// ---------------------------------------------------------------- stop and start again

TEST_F(worker, retains_its_latest_poll_from_one_start_to_the_next) {
  start_and_poll();
  stop(h);
  fake_interfaces::set({"2001:db8::20"});
  fake_clock::set(t0 + 9);
  start(h);
  round_at(t0 + 9);
  EXPECT_EQ(fake_interfaces::lists(), 1);
  round_at(t0 + 10);
  EXPECT_EQ(fake_interfaces::lists(), 2);
  EXPECT_EQ(rec.values(), (strings{address, "2001:db8::20"}));
}

TEST_F(worker, retains_its_latest_publication_from_one_start_to_the_next) {
  start_and_poll();
  stop(h);
  fake_clock::set(t0 + 100);
  start(h);
  round_at(t0 + 100);
  round_at(t0 + 119);
  EXPECT_EQ(rec.values(), strings{address});
  stop(h);
  start(h);
  round_at(t0 + 129);
  EXPECT_EQ(rec.values(), (strings{address, address}));
}

TEST_F(worker, publishes_at_its_first_poll_in_every_new_instance) {
  start_and_poll();
  stop(h);
  lib.destroy(h);
  h = create();
  start(h);
  fake_clock::step();
  EXPECT_EQ(rec.values(), (strings{address, address}));
}

TEST_F(worker, releases_the_memory_of_its_start_at_its_end) {
  const std::string path = dir.file("hostname=h1\n");
  arguments a = rec.args("drv", path.c_str());
  a.log = nullptr;  // no callbacks: they would allocate
  a.data = nullptr;
  h = a.create(lib);
  const long before = fake_heap::live();
  ASSERT_EQ(lib.start(h), 0);
  fake_clock::await_sleepers(1);
  EXPECT_GE(fake_heap::live() - before, 1);
  fake_clock::step();
  fake_clock::free_run();
  EXPECT_EQ(lib.stop(h), 0);
  EXPECT_EQ(fake_heap::live(), before);
}

TEST_F(worker, stop_waits_for_a_slow_data_callback) {
  std::mutex mtx;
  std::condition_variable changed;
  bool is_inside = false, may_go = false;
  rec.during_data = [&] {
    std::unique_lock hold(mtx);
    is_inside = true;
    changed.notify_all();
    changed.wait(hold, [&] { return may_go; });
  };
  h = create();
  start(h);
  fake_clock::free_run();
  {
    std::unique_lock hold(mtx);
    EXPECT_TRUE(changed.wait_for(hold, std::chrono::seconds(20), [&] { return is_inside; }));
  }
  caller stopper([&] { EXPECT_EQ(lib.stop(h), 0); });
  EXPECT_TRUE(stopper.waits());
  EXPECT_EQ(lib.isrun(h), 1);
  {
    const std::lock_guard hold(mtx);
    may_go = true;
    changed.notify_all();
  }
  finish(h, [&] { stopper.join(); });
  EXPECT_EQ(lib.isrun(h), 0);
  EXPECT_EQ(rec.journal(),
            (strings{recorder::log("drv", 0, "start wrk_process success."), recorder::data("h1", address),
                     recorder::log("drv", 0, "stop wrk_process success.")}));
}
