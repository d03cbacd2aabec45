// Each kind of request that the system can refuse, refused at its first occurrence, its second and so on. Checks the
// result of the call, that nothing leaks, and that the next call works as usual.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "driver/dac.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_files.h"
#include "tests/support/fake_heap.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/fake_pages.h"
#include "tests/support/fake_threads.h"
#include "tests/support/nth.h"
#include "tests/support/plugin.h"
#include "tests/support/plugin_fixture.h"

namespace {

using strings = std::vector<std::string>;

constexpr char start_message[] = "start wrk_process success.";
constexpr char stop_message[] = "stop wrk_process success.";
constexpr char list_message[] = "get ipv6 address failed.";

/// What the process holds, except the pools' pages, which stay mapped for the next request.
struct holdings {
  long blocks = fake_heap::live();
  int files = fake_files::open();
  int lists = fake_interfaces::outstanding();
  int threads = fake_threads::unjoined();
  bool operator==(const holdings&) const = default;
};

void PrintTo(const holdings& h, std::ostream* out) {
  *out << h.blocks << " blocks, " << h.files << " files, " << h.lists << " lists, " << h.threads << " threads";
}

class fault : public plugin_fixture {
 protected:
  const std::string path = dir.file("hostname=h1\n");

  fault() { live_once(); }

  int create() { return rec.args("drv", path.c_str()).create(lib); }

  /// An instance from create to destroy, without a fault.
  void live_once() {
    fake_clock::advance(1000);
    const int h = create();
    start(h);
    fake_clock::step();
    EXPECT_EQ(lib.isrun(h), 1);
    EXPECT_EQ(info(h), R"({"status":"running","host":"h1"})");
    stop(h);
    lib.destroy(h);
    EXPECT_EQ(rec.journal(), (strings{recorder::log("drv", 0, start_message), recorder::data("h1", address),
                                      recorder::log("drv", 0, stop_message)}));
    rec.clear();
  }

  /// An instance from create to destroy, with this many polls.
  void live_with_polls(int times) {
    fake_clock::advance(1000);
    const int h = create();
    start(h);
    for (int i = 1; i < times; ++i, fake_clock::advance(10)) fake_clock::step();
    fake_clock::step();
    stop(h);
    lib.destroy(h);
  }

  /// Expects that nothing leaked, that `h` (-1 for none) is the only instance, and that another one works.
  void expect_unharmed(const holdings& before, int h = -1) {
    rec.clear();
    EXPECT_EQ(holdings(), before);
    EXPECT_EQ(known(), h < 0 ? std::set<int>{} : std::set{h});
    live_once();
    EXPECT_EQ(holdings(), before);
  }
};

strings with_start_and_stop(strings course) {
  course.insert(course.begin(), recorder::log("drv", 0, start_message));
  course.push_back(recorder::log("drv", 0, stop_message));
  return course;
}

/// The code of the std::system_error that the call throws, or 0 if it returns.
int error_of(const std::function<void()>& call) {
  try {
    call();
    return 0;
  } catch (const std::system_error& e) {
    return e.code().value();
  }
}

/// Whether `part` is `whole` with some characters omitted.
bool is_left_of(const std::string& part, const std::string& whole) {
  size_t at = 0;
  for (const char c : part) {
    at = whole.find(c, at);
    if (at == std::string::npos) return false;
    ++at;
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------- threads

TEST_F(fault, of_a_thread_leaves_the_instance_stopped) {
  const int h = create();
  const holdings before;
  int error = 0;
  const auto call = [&] { error = error_of([&] { lib.start(h); }); };
  const auto after = [&](int i, bool was_met) {
    EXPECT_EQ(error, was_met ? EAGAIN : 0) << i;
    if (!was_met) return;
    EXPECT_EQ(lib.isrun(h), 0);
    EXPECT_EQ(lib.stop(h), 0);
    EXPECT_EQ(rec.journal(), strings{}) << "nothing was stopped";
    expect_unharmed(before, h);
  };
  EXPECT_EQ(fail_each(fake_threads::threads, call, after), 1);
  fake_clock::free_run();
  EXPECT_EQ(lib.stop(h), 0);
  EXPECT_EQ(rec.messages(), (strings{start_message, stop_message}));
  rec.clear();
  fake_clock::stepping();
  expect_unharmed(before, h);
}

// ---------------------------------------------------------------- locks

TEST_F(fault, of_a_lock_is_thrown_as_system_error_by_every_entry_point) {
  char buf[64] = "";
  size_t size = sizeof buf;
  const auto tag = [](auto... /*tag*/) {};
  const struct {
    const char* label;
    std::function<void(int)> call;
  } rows[] = {
      {"dac_start", [&](int h) { lib.start(h); }},
      {"dac_stop", [&](int h) { lib.stop(h); }},
      {"dac_isrun", [&](int h) { lib.isrun(h); }},
      {"dac_devicewriteobj", [&](int h) { lib.devicewriteobj(h); }},
      {"dac_devicewriteval", [&](int h) { lib.devicewriteval(h); }},
      {"dac_getalltags", [&](int h) { lib.getalltags(h, tag, nullptr); }},
      {"dac_getalltagsex", [&](int h) { lib.getalltagsex(h, tag, nullptr); }},
      {"dac_getinfo", [&](int h) { lib.getinfo(h, buf, &size); }},
      {"dac_destroy", [&](int h) { lib.destroy(h); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const holdings none;
    const int h = create();
    const holdings before;
    std::strcpy(buf, "untouched");
    int error = 0;
    const auto after = [&](int i, bool was_met) {
      EXPECT_EQ(error, was_met ? EAGAIN : 0) << i;
      if (!was_met) return;
      EXPECT_STREQ(buf, "untouched");
      expect_unharmed(before, h);
    };
    EXPECT_EQ(fail_each(
                  fake_threads::locks(), [&] { error = error_of([&] { row.call(h); }); }, after),
              1)
        << "to find the instance";
    fake_clock::free_run();
    lib.stop(h);
    fake_clock::stepping();
    lib.destroy(h);
    expect_unharmed(none);
  }
}

TEST_F(fault, of_a_lock_in_create_leaves_no_instance_without_an_owner) {
  const holdings before;
  int handle = -1, error = 0;
  const auto call = [&] { error = error_of([&] { handle = create(); }); };
  const auto after = [&](int i, bool was_met) {
    EXPECT_EQ(error, was_met ? EAGAIN : 0) << i;
    if (was_met) expect_unharmed(before);
  };
  EXPECT_EQ(fail_each(fake_threads::locks(), call, after), 2) << "to register the instance, and to find it";
  EXPECT_EQ(known(), std::set{handle});
}

TEST_F(fault, of_a_second_lock_does_not_affect_a_create_with_a_full_table) {
  while (create() >= 0) {
  }
  fake_threads::locks().refuse(2);
  int handle = 0;
  const int error = error_of([&] { handle = create(); });
  const int locks = fake_threads::locks().seen();
  fake_threads::locks().refuse(0);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(handle, -1);
  EXPECT_EQ(locks, 1) << "no lookup";
}

using fresh_load = plugin_fixture;

TEST_F(fresh_load, has_no_instance_0_after_its_first_create_was_refused_a_lock) {
  const std::string path = dir.file("hostname=h1\n");
  const auto create = [&] { return rec.args("drv", path.c_str()).create(lib); };
  fake_threads::locks().refuse(2);
  const int error = error_of(create);
  fake_threads::locks().refuse(0);
  EXPECT_EQ(error, EAGAIN);
  EXPECT_EQ(known(), std::set<int>{});
  EXPECT_EQ(create(), 1);
}

// ---------------------------------------------------------------- files

TEST_F(fault, of_opening_the_file_refuses_the_instance_with_its_message) {
  const holdings before;
  int handle = -1;
  const auto after = [&](int i, bool was_met) {
    EXPECT_EQ(handle == -1, was_met) << i;
    if (!was_met) return;
    EXPECT_EQ(rec.journal(), strings{recorder::log("drv", 2, "load ip6dns driver config " + path + " failed")});
    expect_unharmed(before);
  };
  EXPECT_EQ(fail_each(
                fake_files::opens, [&] { handle = create(); }, after),
            1);
  lib.destroy(handle);
  expect_unharmed(before);
}

// The first three reads search for a byte order mark. Then the scan starts again and reads until the failure.
TEST_F(fault, of_a_read_is_the_end_of_the_file) {
  const std::string text = "hostname=abcd\nport=1\n";
  const std::string name = "abcd";
  const size_t key = text.find(name);
  dir.file(text);
  const holdings before;
  int handle = -1;
  const auto after = [&](int i, bool was_met) {
    const size_t read = !was_met || i <= 3 ? text.size() : static_cast<size_t>(i) - 4;
    const std::string expected = read > key ? name.substr(0, read - key) : "";
    EXPECT_EQ(handle == -1, expected.empty()) << i;
    if (handle == -1)
      EXPECT_EQ(rec.journal(), strings{recorder::log("drv", 2, "not config hostname in " + path)});
    else
      EXPECT_EQ(info(handle), R"({"status":"stop","host":")" + expected + "\"}") << i;
    lib.destroy(handle);
    dir.file("hostname=h1\n");
    expect_unharmed(before);
    dir.file(text);
  };
  const int reads = fail_each(
      fake_files::reads, [&] { handle = create(); }, after);
  EXPECT_EQ(static_cast<size_t>(reads), 3 + text.size() + 1) << "each byte, and the end";
}

// ---------------------------------------------------------------- addresses

TEST_F(fault, of_an_interface_list_is_logged_and_publishes_null) {
  constexpr int polls = 3;
  const std::string got = recorder::data("h1", address), none = recorder::data("h1", "null");
  const std::string failed = recorder::log("drv", 2, list_message);
  const strings courses[polls + 1] = {
      {failed, none, got}, {got, failed, none, got}, {got, failed, none}, {got},  // the last one without a fault
  };
  const holdings before;
  const auto call = [&] { live_with_polls(polls); };
  const auto after = [&](int i, bool /*was_met*/) {
    EXPECT_EQ(rec.journal(), with_start_and_stop(courses[i - 1])) << i;
    expect_unharmed(before);
  };
  EXPECT_EQ(fail_each(fake_interfaces::list_calls, call, after), polls);
}

TEST_F(fault, of_an_addresss_text_omits_that_address_until_the_next_poll) {
  const std::string a = "2001:db8::1", b = "2001:db8::2", whole = a + "," + b;
  const strings courses[] = {{b, whole}, {a, whole}, {whole, b}, {whole, a}, {whole}};
  const holdings before;
  const auto call = [&] {
    fake_interfaces::set({a, b});
    live_with_polls(2);
    fake_interfaces::set({address});
  };
  const auto after = [&](int i, bool /*was_met*/) {
    EXPECT_EQ(rec.values(), courses[i - 1]) << i;
    EXPECT_EQ(rec.messages(), (strings{start_message, stop_message}));
    expect_unharmed(before);
  };
  EXPECT_EQ(fail_each(fake_interfaces::text_calls, call, after), 4);
}

// ---------------------------------------------------------------- many of them

// A leak shows when it needs another mapping: the first chunk of the smallest class has 2048 blocks, the self heap's
// first chunk 8191 slots.
TEST_F(fault, leaks_nothing_after_many_repetitions) {
  constexpr int blocks = 3000, slots = 9000;
  const int stopped = create(), polling = create();
  start(polling);
  fake_clock::step();
  const auto attempt = [&] { create(); };
  const std::string long_path = dir.file("hostname=h1\n", std::string(200, 'p'));
  const auto attempt_long = [&] { rec.args("drv", long_path.c_str()).create(lib); };
  const auto begin = [&] { lib.start(stopped); };
  const auto poll = [&] {
    fake_clock::advance(10);
    fake_clock::step();
  };
  const struct {
    const char* label;
    nth& occurrences;
    int refused;
    std::function<void()> call;
    int times = blocks;
  } rows[] = {
      {"a lock, to register the instance", fake_threads::locks(), 1, attempt},
      {"a lock, to find the instance", fake_threads::locks(), 2, attempt},
      {"opening the file", fake_files::opens, 1, attempt},
      {"reading the name", fake_files::reads, 4 + static_cast<int>(std::strlen("hostname=")), attempt},
      {"pages for the path", fake_pages::mappings, 1, attempt_long, slots},
      {"a thread", fake_threads::threads, 1, begin},
      {"the interface list", fake_interfaces::list_calls, 1, poll},
      {"an address's text", fake_interfaces::text_calls, 1, poll},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    int met = 0;
    const auto repeat = [&](int n) {
      for (met = 0; n > 0; --n) {
        row.occurrences.refuse(row.refused);
        error_of(row.call);
        met += row.occurrences.seen() >= row.refused ? 1 : 0;
      }
      row.occurrences.refuse(0);
      rec.clear();
    };
    repeat(1);
    const auto mappings = fake_pages::live();
    const holdings before;
    repeat(row.times);
    EXPECT_EQ(met, row.times);
    EXPECT_EQ(fake_pages::live(), mappings);
    EXPECT_EQ(holdings(), before);
    EXPECT_EQ(known(), (std::set{stopped, polling}));
  }
}

// ---------------------------------------------------------------- pages

namespace {

/// One load of the library and one instance, which needs pages of many classes.
class paged_life {
 public:
  static constexpr size_t name_length = 3000;
  const scratch dir;
  const std::string name = [] {
    std::string text;
    while (text.size() < name_length) text += std::to_string(text.size()) + ".";
    return text;
  }();
  const std::string path = dir.file("hostname=" + name + "\n", std::string(200, 'p'));
  strings addresses;
  std::string value;

  paged_life() {
    for (int i = 10; i < 30; ++i) addresses.push_back("2001:db8:1111:2222::" + std::to_string(i));
    for (const std::string& a : addresses) value += (value.empty() ? "" : ",") + a;
  }

  /// The outcome.
  struct seen {
    int handle = -1;
    std::string name, info, value;
    strings messages;
  };

  seen live(const library& lib) const {
    recorder rec;
    seen s;
    fake_clock::advance(1000);
    s.handle = rec.args("drv", path.c_str()).create(lib);
    if (s.handle >= 0) run(lib, rec, s);
    s.messages = rec.messages();
    return s;
  }

  bool is_whole(const seen& s) const { return s.name == name && s.value == value; }
  void expect_whole(const seen& s) const {
    EXPECT_GE(s.handle, 0);
    EXPECT_EQ(s.name, name);
    EXPECT_EQ(s.info, R"({"status":"running","host":")" + name + "\"}");
    EXPECT_EQ(s.value, value);
    EXPECT_EQ(s.messages, (strings{start_message, stop_message}));
  }

  /// Expects that text without storage is dropped and that nothing else fails.
  void expect_left(const seen& s) const {
    if (s.handle < 0) {
      const strings refused = {"load ip6dns driver config  failed", "not config hostname in " + path};
      ASSERT_EQ(s.messages.size(), 1U);
      EXPECT_EQ(std::count(refused.begin(), refused.end(), s.messages[0]), 1) << s.messages[0];
      return;
    }
    EXPECT_TRUE(is_left_of(s.name, name)) << s.name;
    EXPECT_TRUE(is_left_of(s.info, R"({"status":"running","host":")" + name + "\"}")) << s.info;
    EXPECT_TRUE(is_left_of(s.value, value)) << s.value;
    EXPECT_EQ(s.messages, (strings{start_message, stop_message}));
  }

 private:
  void run(const library& lib, recorder& rec, seen& s) const {
    fake_interfaces::set(addresses);
    EXPECT_EQ(lib.start(s.handle), 0);
    fake_clock::await_sleepers(1);
    fake_clock::step();
    s.value = rec.values().at(0);
    const auto note = [](const char* n, int, int, void* to) { *static_cast<std::string*>(to) = n; };
    EXPECT_EQ(lib.getalltags(s.handle, note, &s.name), 0);
    std::vector<char> buf(2 * name_length);
    size_t size = buf.size();
    EXPECT_EQ(lib.getinfo(s.handle, buf.data(), &size), 0);
    s.info = buf.data();
    fake_clock::free_run();
    EXPECT_EQ(lib.stop(s.handle), 0);
    fake_clock::stepping();
    lib.destroy(s.handle);
  }
};

}  // namespace

TEST(fault_of_pages, shortens_texts_or_refuses_the_instance_but_not_the_next_one) {
  const paged_life life;
  fake_interfaces::reset();
  fake_clock::stepping();
  fake_clock::set(1'700'000'000);
  life.live(library());
  fake_interfaces::reset();
  SCOPED_TRACE("");  // allocates before blocks are counted
  const auto mappings = fake_pages::live();
  const holdings before;
  auto lib = std::make_unique<library>();
  std::optional<paged_life::seen> seen;
  int refused = 0, shortened = 0;
  const auto call = [&] { seen = life.live(*lib); };
  const auto after = [&](int i, bool was_met) {
    SCOPED_TRACE(i);
    was_met ? life.expect_left(*seen) : life.expect_whole(*seen);
    refused += seen->handle < 0 ? 1 : 0;
    shortened += seen->handle >= 0 && !life.is_whole(*seen) ? 1 : 0;
    life.expect_whole(life.live(*lib));
    seen.reset();
    lib.reset();
    fake_interfaces::reset();
    EXPECT_EQ(fake_pages::live(), mappings);
    EXPECT_EQ(holdings(), before);
    lib = std::make_unique<library>();
  };
  const int faults = fail_each(fake_pages::mappings, call, after);
  EXPECT_GE(faults, 8) << "a class each for path, key, name, document and addresses, several as they grow";
  EXPECT_GT(refused, 0) << "of a path or a name that could not be stored";
  EXPECT_GT(shortened, 0);
}
