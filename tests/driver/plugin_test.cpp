// The entry points of the built library and an instance's life, as a host sees them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "driver/dac.h"
#include "tests/support/fake_clock.h"
#include "tests/support/plugin.h"
#include "tests/support/plugin_fixture.h"

namespace {

using strings = std::vector<std::string>;

constexpr char start_message[] = "start wrk_process success.";
constexpr char stop_message[] = "stop wrk_process success.";

// What the enumeration callbacks were called with; `param` is the list itself.
void on_tag(const char* name, int type, int flag, void* param) {
  const std::string call = std::string(name) + "|" + std::to_string(type) + "|" + std::to_string(flag);
  static_cast<strings*>(param)->push_back(call);
}
void on_tagex(const char* name, int type, int flag, const char* text1, const char* text2, void* param) {
  on_tag(name, type, flag, param);
  static_cast<strings*>(param)->back() += std::string("|") + text1 + "|" + text2;
}

class plugin : public plugin_fixture {
 protected:
  /// Another instance from the file of the previous one.
  int create_another() { return rec.args("drv", dir.path("ip6dns.conf").c_str()).create(lib); }

  // The full host name, from the tag list.
  std::string hostname(int h) const {
    strings names;
    const auto callback = [](const char* name, int, int, void* param) {
      static_cast<strings*>(param)->emplace_back(name);
    };
    EXPECT_EQ(lib.getalltags(h, callback, &names), 0);
    return names.size() == 1 ? names[0] : std::to_string(names.size()) + " tags";
  }
};

}  // namespace

// ---------------------------------------------------------------- version, handles

TEST_F(plugin, reports_its_version_as_a_number_and_as_a_text) {
  EXPECT_EQ(lib.getversion(), 500);
  EXPECT_STREQ(*lib.verson, "version 5.0.0.2");
}

TEST_F(plugin, exports_its_table_of_instances) { EXPECT_NE(lib.symbol("g_dachandls"), nullptr); }

TEST_F(plugin, creates_stopped_instances_with_handles_from_0) {
  for (int h = 0; h < 5; ++h) {
    EXPECT_EQ(create(), h);
    EXPECT_EQ(lib.isrun(h), 0);
  }
  EXPECT_EQ(rec.journal(), strings{});
}

TEST_F(plugin, does_not_reuse_a_destroyed_handle_at_once) {
  ASSERT_EQ(create(), 0);
  lib.destroy(0);
  EXPECT_EQ(create(), 1);
  EXPECT_EQ(known(), std::set{1});
}

TEST_F(plugin, holds_1024_instances_and_refuses_one_more_without_a_message) {
  ASSERT_EQ(create(), 0);
  for (int h = 1; h < 1024; ++h) ASSERT_EQ(create_another(), h);
  EXPECT_EQ(create_another(), -1);
  EXPECT_EQ(rec.args("", nullptr).create(lib), -1);
  EXPECT_EQ(create_from(""), -1);
  EXPECT_EQ(rec.journal(), strings{});
  lib.destroy(5);
  EXPECT_EQ(create(), 1024) << "a refusal by a full table uses up no handle number";
  EXPECT_EQ(create_another(), -1);
}

TEST_F(plugin, counts_handles_to_2048_and_continues_at_1) {
  ASSERT_EQ(create(), 0);
  for (int h = 1; h <= 2048; ++h) {
    lib.destroy(h - 1);
    ASSERT_EQ(create_another(), h);
  }
  EXPECT_EQ(create(), 1);
  EXPECT_EQ(create(), 2);
}

TEST_F(plugin, skips_handles_in_use_when_it_counts_from_1_again) {
  for (const int h : {0, 1, 2, 3, 4}) ASSERT_EQ(create(), h);
  lib.destroy(3);
  for (int h = 5; h <= 2048; ++h) {
    ASSERT_EQ(create_another(), h);
    lib.destroy(h);
  }
  EXPECT_EQ(create(), 3);
  EXPECT_EQ(create(), 5);
}

TEST_F(plugin, accepts_only_handles_of_its_instances) {
  ASSERT_EQ(create(), 0);
  ASSERT_EQ(create(), 1);
  lib.destroy(1);
  // 1024 and 2048 are in the bucket of 0.
  for (const int h : {1, 2, 1024, 2048, 2049, 12345, -1, -1024, INT_MAX, INT_MIN}) {
    SCOPED_TRACE(h);
    strings tags;
    char buf[] = "untouched";
    size_t size = 7;
    EXPECT_EQ(lib.start(h), -1);
    EXPECT_EQ(lib.stop(h), -1);
    EXPECT_EQ(lib.isrun(h), 0);
    EXPECT_EQ(lib.devicewriteobj(h), -1);
    EXPECT_EQ(lib.devicewriteval(h), -1);
    EXPECT_EQ(lib.getalltags(h, on_tag, &tags), -1);
    EXPECT_EQ(lib.getalltagsex(h, on_tagex, &tags), -1);
    EXPECT_EQ(tags, strings{});
    EXPECT_EQ(lib.getinfo(h, buf, &size), -1);
    EXPECT_STREQ(buf, "untouched");
    EXPECT_EQ(size, 7U);
    EXPECT_EQ(lib.getinfo(h, nullptr, nullptr), -1);
    lib.destroy(h);
  }
  EXPECT_EQ(known(), std::set{0});
  EXPECT_EQ(rec.journal(), strings{});
}

// ---------------------------------------------------------------- refused instances

TEST_F(plugin, refuses_missing_arguments_without_a_message_and_uses_up_a_handle) {
  const std::string path = dir.file("hostname=h1\n");
  const arguments good = rec.args("drv", path.c_str());
  const struct {
    const char* label;
    std::function<void(arguments&)> spoil;
  } rows[] = {
      {"no name", [](arguments& a) { a.name = nullptr; }},
      {"empty name", [](arguments& a) { a.name = ""; }},
      {"no path", [](arguments& a) { a.cfgfile = nullptr; }},
      {"empty path", [](arguments& a) { a.cfgfile = ""; }},
      {"no fifth argument", [](arguments& a) { a.aux1 = nullptr; }},
      {"nothing at all", [](arguments& a) { a = {}; }},
  };
  int last = -1;
  for (const auto& [label, spoil] : rows) {
    SCOPED_TRACE(label);
    arguments bad = good;
    spoil(bad);
    EXPECT_EQ(bad.create(lib), -1);
    EXPECT_EQ(good.create(lib), last + 2);
    last += 2;
  }
  EXPECT_EQ(known(), (std::set{1, 3, 5, 7, 9, 11}));
  EXPECT_EQ(rec.journal(), strings{});
}

TEST_F(plugin, requires_no_callback_except_the_fifth_argument) {
  arguments a = rec.args("drv", "");
  const std::string path = dir.file("hostname=h1\n");
  const std::string bad = dir.file("", "bad.conf");
  a = {"drv", path.c_str(), nullptr, nullptr, a.aux1, nullptr, nullptr, nullptr, nullptr, nullptr};
  ASSERT_EQ(a.create(lib), 0);
  start(0);
  fake_clock::step();
  stop(0);
  a.cfgfile = bad.c_str();
  EXPECT_EQ(a.create(lib), -1);
  EXPECT_EQ(known(), std::set{0});
}

TEST_F(plugin, refuses_a_bad_configuration_with_one_message) {
  const struct {
    const char* label;
    const char* config;
    const char* before;  // the message around the path
    const char* after;
  } rows[] = {
      {"empty file", "", "not config hostname in ", ""},
      {"comments only", "# hostname=a\n; hostname=b\n", "not config hostname in ", ""},
      {"other keys only", "interval=5\nport = 80\n", "not config hostname in ", ""},
      {"a longer key", "hostname2=a\n", "not config hostname in ", ""},
      {"a shorter key", "hostnam=a\n", "not config hostname in ", ""},
      {"empty key", "=a\n", "not config hostname in ", ""},
      {"empty value", "hostname=\n", "not config hostname in ", ""},
      {"value of spaces", "hostname= \t \n", "not config hostname in ", ""},
      {"empty value after a valid one", "hostname=a\nhostname=\n", "not config hostname in ", ""},
      {"apostrophe", "hostname=a'b\n", "hostname contains illegal characters in ", ""},
      {"quotation mark", "hostname=\"a\"\n", "hostname contains illegal characters in ", ""},
      {"opening parenthesis", "hostname=(a\n", "hostname contains illegal characters in ", ""},
      {"closing parenthesis", "hostname=a)\n", "hostname contains illegal characters in ", ""},
      {"both parentheses", "hostname=x(1)\n", "hostname contains illegal characters in ", ""},
      {"colon", "hostname=a:b\n", "hostname contains illegal characters in ", ""},
      {"colon after a zero byte", nullptr, "hostname contains illegal characters in ", ""},
  };
  int spent = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const std::string config = row.config ? row.config : std::string("hostname=a\0:\n", 13);
    const std::string message = row.before + dir.path("ip6dns.conf") + row.after;
    EXPECT_EQ(create_from(config), -1);
    EXPECT_EQ(rec.journal(), strings{recorder::log("drv", 2, message)});
    rec.clear();
    ++spent;
  }
  EXPECT_EQ(known(), std::set<int>{});
  EXPECT_EQ(create(), spent);
}

TEST_F(plugin, names_the_file_that_it_cannot_open) {
  const std::string missing = dir.path("missing.conf");
  EXPECT_EQ(rec.args("drv", missing.c_str()).create(lib), -1);
  EXPECT_EQ(rec.journal(), strings{recorder::log("drv", 2, "load ip6dns driver config " + missing + " failed")});
  EXPECT_EQ(known(), std::set<int>{});
}

TEST_F(plugin, reads_no_host_name_from_a_directory) {
  const std::string here = dir.path(".");
  EXPECT_EQ(rec.args("drv", here.c_str()).create(lib), -1);
  EXPECT_EQ(rec.journal(), strings{recorder::log("drv", 2, "not config hostname in " + here)});
}

TEST_F(plugin, delivers_messages_of_up_to_30719_characters) {
  const size_t around = std::strlen("load ip6dns driver config  failed");
  const std::string fits(30719 - around, 'x');
  EXPECT_EQ(rec.args("drv", fits.c_str()).create(lib), -1);
  EXPECT_EQ(rec.messages(), strings{"load ip6dns driver config " + fits + " failed"});
  rec.clear();
  EXPECT_EQ(rec.args("drv", (fits + "x").c_str()).create(lib), -1);
  EXPECT_EQ(rec.journal(), strings{});
}

TEST_F(plugin, has_closed_the_file_and_holds_no_lock_when_it_logs_a_failure) {
  const std::string path = dir.file("");
  bool was_called = false;
  rec.during_log = [&] {
    was_called = true;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      EXPECT_NE(std::filesystem::read_symlink(fd, gone), path);
    }
    EXPECT_TRUE(is_known(0)) << "removed after the message";
  };
  EXPECT_EQ(rec.args("drv", path.c_str()).create(lib), -1);
  EXPECT_TRUE(was_called);
  EXPECT_FALSE(is_known(0));
}

// ---------------------------------------------------------------- configuration

TEST_F(plugin, reads_the_host_name_from_its_file) {
  const struct {
    const char* label;
    std::string config;
    std::string expected;
  } rows[] = {
      {"plain", "hostname=myhost\n", "myhost"},
      {"no line end", "hostname=myhost", "myhost"},
      {"carriage return and line feed", "port=1\r\nhostname=myhost\r\n", "myhost"},
      {"byte order mark", "\xEF\xBB\xBFhostname=myhost\n", "myhost"},
      {"mixed case key", "HostName=myhost\n", "myhost"},
      {"upper case key", "HOSTNAME=MyHost\n", "MyHost"},
      {"spaces and a comment", "\t hostname = my-host   ; the name\n", "my-host"},
      {"the last one wins", "hostname=a\nport=1\nHostname=b\n", "b"},
      {"a valid one after an empty one", "hostname=\nhostname=b\n", "b"},
      {"in a section", "[main]\nhostname=a\n[other]\nport=80\n", "a"},
      {"other keys", "interval=5\nhostname=a\nport=80\n", "a"},
      {"dots, minus, underscore", "hostname=a.b-c_d\n", "a.b-c_d"},
      {"a space inside", "hostname=my host\n", "my host"},
      {"bytes above 127", "hostname=h\xC3\xA4us\xFF\n", "h\xC3\xA4us\xFF"},
      {"other marks", "hostname=a[b]=c/d\\e,f!\n", "a[b]=c/d\\e,f!"},
      {"300 characters", "hostname=" + std::string(300, 'n') + "\n", std::string(300, 'n')},
  };
  for (const auto& [label, config, expected] : rows) {
    SCOPED_TRACE(label);
    const int h = create_from(config);
    EXPECT_EQ(hostname(h), expected);
    lib.destroy(h);
  }
  EXPECT_EQ(rec.journal(), strings{});
}

TEST_F(plugin, copies_the_arguments_of_create) {
  std::string name = "the instance", path = dir.file("hostname=a\n");
  ASSERT_EQ(rec.args(name.c_str(), path.c_str()).create(lib), 0);
  name.assign(name.size(), '?');
  path.assign(path.size(), '?');
  start(0);
  EXPECT_EQ(rec.journal(), strings{recorder::log("the instance", 0, start_message)});
}

TEST_F(plugin, reads_its_file_only_once) {
  ASSERT_EQ(create("before"), 0);
  start(0);
  dir.file("hostname=after\n");
  stop(0);
  start(0);
  fake_clock::step();
  EXPECT_EQ(hostname(0), "before");
  EXPECT_STREQ(rec.publications().at(0).record.name, "before");
}

// ---------------------------------------------------------------- life

TEST_F(plugin, logs_exactly_these_messages_from_create_to_destroy) {
  const int h = create("h1");
  EXPECT_EQ(lib.isrun(h), 0);
  EXPECT_EQ(lib.stop(h), 0);
  EXPECT_EQ(rec.journal(), strings{});

  start(h);
  EXPECT_EQ(lib.isrun(h), 1);
  EXPECT_EQ(rec.journal(), strings{recorder::log("drv", 0, start_message)});
  fake_clock::step();
  stop(h);
  EXPECT_EQ(lib.isrun(h), 0);
  EXPECT_EQ(lib.stop(h), 0);
  start(h);
  EXPECT_EQ(lib.isrun(h), 1);
  stop(h);
  lib.destroy(h);

  EXPECT_FALSE(is_known(h));
  const strings expected = {recorder::log("drv", 0, start_message), recorder::data("h1", address),
                            recorder::log("drv", 0, stop_message), recorder::log("drv", 0, start_message),
                            recorder::log("drv", 0, stop_message)};
  EXPECT_EQ(rec.journal(), expected);
}

TEST_F(plugin, logs_start_and_stop_after_they_happened) {
  const int h = create();
  std::vector<int> running;
  rec.during_log = [&] { running.push_back(lib.isrun(h)); };
  start(h);
  stop(h);
  EXPECT_EQ(running, (std::vector{1, 0}));
}

TEST_F(plugin, treats_instances_separately) {
  recorder other;
  ASSERT_EQ(create("first"), 0);
  ASSERT_EQ(other.args("drv2", dir.file("hostname=second\n").c_str()).create(lib), 1);
  start(0);
  EXPECT_EQ(lib.isrun(1), 0);
  start(1);
  fake_clock::step();
  stop(0);
  EXPECT_EQ(lib.isrun(1), 1);
  stop(1);
  EXPECT_EQ(rec.journal(), (strings{recorder::log("drv", 0, start_message), recorder::data("first", address),
                                    recorder::log("drv", 0, stop_message)}));
  EXPECT_EQ(other.journal(), (strings{recorder::log("drv2", 0, start_message), recorder::data("second", address),
                                      recorder::log("drv2", 0, stop_message)}));
}

TEST_F(plugin, stops_after_the_workers_sleep_and_accepts_other_calls_meanwhile) {
  const int h = create();
  start(h);
  caller stopper([&] { EXPECT_EQ(lib.stop(h), 0); });
  EXPECT_TRUE(stopper.waits());
  EXPECT_EQ(lib.isrun(h), 1);
  EXPECT_EQ(info(h), R"({"status":"running","host":"h1"})");
  EXPECT_EQ(create(), h + 1);
  EXPECT_EQ(rec.messages(), strings{start_message});

  finish(h, [&] { stopper.join(); });
  EXPECT_EQ(rec.messages(), (strings{start_message, stop_message}));
  EXPECT_EQ(lib.isrun(h), 0);
}

TEST_F(plugin, starts_a_second_worker_if_it_is_started_twice) {
  const auto host = [&] {
    const int h = create();
    lib.start(h);
    fake_clock::await_sleepers(1);
    lib.start(h);
    fake_clock::await_sleepers(2);
    const bool both = rec.messages() == strings{start_message, start_message} && lib.isrun(h) == 1;
    _exit(both ? 0 : 1);  // no thread can join the first worker any more
  };
  EXPECT_EXIT(host(), testing::ExitedWithCode(0), "");
}

// ---------------------------------------------------------------- what the host asks

TEST_F(plugin, refuses_device_writes_with_any_arguments) {
  const int h = create();
  EXPECT_EQ(lib.devicewriteobj(h), 4);
  EXPECT_EQ(lib.devicewriteobj(h, nullptr, 17, "x"), 4);
  EXPECT_EQ(lib.devicewriteval(h, &h, nullptr, nullptr, nullptr), 4);
  lib.destroy(h);
  EXPECT_EQ(lib.devicewriteobj(h, nullptr), -1);
  EXPECT_EQ(lib.devicewriteval(h, nullptr), -1);
}

TEST_F(plugin, has_one_device_write_under_two_names) {
  EXPECT_EQ(lib.symbol("dac_devicewriteobj"), lib.symbol("dac_devicewriteval"));
}

TEST_F(plugin, lists_its_one_tag_on_the_callers_thread) {
  const std::string names[] = {"h1", std::string(100, 'n')};
  for (const std::string& name : names) {
    const int h = create(name);
    const auto list = [&] {
      strings tags;
      EXPECT_EQ(lib.getalltags(h, on_tag, &tags), 0);
      EXPECT_EQ(lib.getalltagsex(h, on_tagex, &tags), 0);
      return tags;
    };
    const strings expected = {name + "|6|1", name + "|6|1||ipv6 address"};
    EXPECT_EQ(list(), expected);
    start(h);
    EXPECT_EQ(list(), expected) << "while the worker runs";
  }
}

TEST_F(plugin, reports_status_and_host_name) {
  const int h = create("h1");
  EXPECT_EQ(info(h), R"({"status":"stop","host":"h1"})");
  start(h);
  EXPECT_EQ(info(h), R"({"status":"running","host":"h1"})");
  stop(h);
  EXPECT_EQ(info(h), R"({"status":"stop","host":"h1"})");
}

TEST_F(plugin, writes_the_status_if_the_text_without_terminator_fits) {
  const std::string doc = R"({"status":"running","host":"h1"})";
  ASSERT_EQ(doc.size(), 32U);
  const struct {
    const char* label;
    size_t size;
    const char* text;
  } rows[] = {
      {"room to spare", 64, doc.c_str()},
      {"room for the end too", 33, doc.c_str()},
      {"33 bytes into a buffer of 32", 32, doc.c_str()},
      {"one too few", 31, ""},
      {"one byte", 1, ""},
      {"no byte: the end is written all the same", 0, ""},
  };
  start(create("h1"));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    std::string buf(70, '#'), expected = buf;
    expected.replace(0, std::strlen(row.text) + 1, row.text, std::strlen(row.text) + 1);
    size_t size = row.size;
    EXPECT_EQ(lib.getinfo(0, buf.data(), &size), 0);
    EXPECT_EQ(buf, expected);
    EXPECT_EQ(size, 31U);
  }
}

TEST_F(plugin, getinfo_accepts_a_size_above_INT_MAX) {
  const std::string doc = R"({"status":"stop","host":"h1"})";
  const int h = create("h1");
  for (const size_t room : {size_t{INT_MAX} + 1, size_t{UINT_MAX}, size_t{UINT_MAX} + 1, SIZE_MAX / 2 + 1, SIZE_MAX}) {
    SCOPED_TRACE(room);
    char buf[64] = "#";
    size_t size = room;
    EXPECT_EQ(lib.getinfo(h, buf, &size), 0);
    EXPECT_EQ(buf, doc);
    EXPECT_EQ(size, doc.size() - 1);
  }
}

TEST_F(plugin, escapes_the_host_name_in_the_status) {
  const struct {
    const char* label;
    const char* hostname;
    const char* expected;
  } rows[] = {
      {"slash", "a/b", R"(a\/b)"},
      {"backslash", R"(a\b)", R"(a\\b)"},
      {"tab", "a\tb", R"(a\tb)"},
      {"backspace", "a\bb", R"(a\bb)"},
      {"form feed", "a\fb", R"(a\fb)"},
      {"all of them", "/\\\t\b\f.", R"(\/\\\t\b\f.)"},
      {"vertical tab, raw", "a\vb", "a\vb"},
      {"other control characters, raw", "a\x01\x1F\x7F", "a\x01\x1F\x7F"},
      {"bytes above 127, raw", "h\xC3\xA4us\xFF", "h\xC3\xA4us\xFF"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const int h = create(row.hostname);
    EXPECT_EQ(info(h), std::string(R"({"status":"stop","host":")") + row.expected + "\"}");
  }
}

TEST_F(plugin, reports_the_full_text_of_a_long_host_name) {
  const std::string name(1000, 'n');
  EXPECT_EQ(info(create(name)), R"({"status":"stop","host":")" + name + "\"}");
}

// ---------------------------------------------------------------- threads

TEST_F(plugin, can_be_called_from_its_callbacks) {
  const int h = create();
  strings seen;
  const auto ask = [&] { seen.push_back(info(h) + std::to_string(lib.isrun(h)) + hostname(h)); };
  rec.during_log = rec.during_data = ask;
  start(h);
  fake_clock::step();
  stop(h);
  const std::string running = R"({"status":"running","host":"h1"}1h1)", stopped = R"({"status":"stop","host":"h1"}0h1)";
  EXPECT_EQ(seen, (strings{running, running, stopped}));
}

TEST_F(plugin, a_tag_callback_can_call_every_entry_point) {
  const int h = create("h1");
  int calls = 0;
  std::function<void()> inside = [&] {
    ++calls;
    EXPECT_EQ(hostname(h), "h1");
    EXPECT_EQ(info(h), R"({"status":"stop","host":"h1"})");
    EXPECT_EQ(lib.isrun(h), 0);
    EXPECT_EQ(lib.devicewriteobj(h), 4);
    EXPECT_EQ(lib.getversion(), 500);
    const int other = create_another();
    start(other);
    stop(other);
    lib.destroy(other);
    EXPECT_FALSE(is_known(other));
  };
  const auto tag = [](const char*, int, int, void* param) { (*static_cast<std::function<void()>*>(param))(); };
  const auto tagex = [](const char*, int, int, const char*, const char*, void* param) {
    (*static_cast<std::function<void()>*>(param))();
  };
  EXPECT_EQ(lib.getalltags(h, tag, &inside), 0);
  EXPECT_EQ(lib.getalltagsex(h, tagex, &inside), 0);
  EXPECT_EQ(calls, 2);
}

namespace {

/// A pipe with a path. A reader of the path waits until finish(), which writes the text and closes the pipe.
class named_pipe {
 public:
  named_pipe(const std::string& path, std::string text) : _text(std::move(text)) {
    if (mkfifo(path.c_str(), 0600) == 0) _writer = ::open(path.c_str(), O_RDWR);
    if (_writer < 0) throw std::runtime_error("no pipe " + path);
  }
  ~named_pipe() { finish(); }
  named_pipe(const named_pipe&) = delete;
  named_pipe& operator=(const named_pipe&) = delete;

  void finish() {
    if (_writer < 0) return;
    EXPECT_EQ(::write(_writer, _text.data(), _text.size()), static_cast<ssize_t>(_text.size()));
    ::close(_writer);
    _writer = -1;
  }

 private:
  std::string _text;
  int _writer = -1;
};

}  // namespace

TEST_F(plugin, no_entry_point_waits_while_another_threads_create_reads_its_file) {
  const int h = create("h1");
  fake_clock::free_run();
  std::atomic<bool> done = false;
  int slow = -1;
  std::unique_ptr<caller> reader, others;  // joined after the pipe is closed
  // With the mark, the scanner does not seek.
  named_pipe pipe(dir.path("pipe"), "\xEF\xBB\xBFhostname=slow\n");
  reader = std::make_unique<caller>([&] { slow = rec.args("drv", dir.path("pipe").c_str()).create(lib); });
  ASSERT_TRUE(reader->waits());
  others = std::make_unique<caller>([&] {
    EXPECT_EQ(lib.start(h), 0);
    EXPECT_GE(lib.isrun(h), 0);
    EXPECT_EQ(lib.stop(h), 0);
    EXPECT_EQ(hostname(h), "h1");
    EXPECT_EQ(lib.getalltagsex(
                  h, [](auto...) {}, nullptr),
              0);
    EXPECT_EQ(info(h), R"({"status":"stop","host":"h1"})");
    EXPECT_EQ(lib.devicewriteobj(h), 4);
    EXPECT_EQ(lib.devicewriteval(h), 4);
    const int other = create_another();
    EXPECT_EQ(other, h + 2) << "the slow one is registered";
    lib.destroy(other);
    done = true;
  });
  await([&] { return done.load(); }, "an entry point waits for a file that another thread reads");
  pipe.finish();
  reader->join();
  EXPECT_EQ(slow, h + 1);
  EXPECT_EQ(hostname(slow), "slow");
  fake_clock::stepping();
}

TEST_F(plugin, can_be_called_from_several_threads_at_once) {
  constexpr int rounds = 40;
  fake_clock::free_run();
  const auto host = [&](const std::string& name) {
    recorder mine;
    const std::string path = dir.file("hostname=" + name + "\n", name);
    for (int i = 0; i < rounds; ++i) {
      const int h = mine.args(name.c_str(), path.c_str()).create(lib);
      EXPECT_EQ(hostname(h), name);
      EXPECT_EQ(lib.start(h), 0);
      EXPECT_EQ(lib.devicewriteval(h), 4);
      EXPECT_EQ(lib.stop(h), 0);
      EXPECT_EQ(info(h), R"({"status":"stop","host":")" + name + "\"}");
      lib.destroy(h);
    }
    EXPECT_EQ(mine.messages().size(), 2U * rounds);
  };
  {
    const caller a([&] { host("a"); }), b([&] { host("b"); }), c([&] { host("c"); }), d([&] { host("d"); });
  }
  EXPECT_EQ(known(), std::set<int>{});
  EXPECT_EQ(create(), 4 * rounds);
}
