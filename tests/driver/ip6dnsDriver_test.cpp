// One instance without the entry points: its arguments, its file, what it reports, and the layout of its fields.
#include "driver/ip6dnsDriver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "driver/dac.h"
#include "tests/driver/driver_fixture.h"
#include "tests/support/blocks.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/log_message.h"
#include "tests/support/pools.h"
#include "tests/support/scratch_file.h"

using namespace std::literals;

namespace {

log_message failure(const std::string& text) { return {"drv", DAC_LEVEL_FAILURE, text, 1}; }

using driver = driver_fixture;

constexpr size_t reserved_size = 260;

}  // namespace

// ---------------------------------------------------------------- layout

TEST_F(driver, has_1560_bytes_and_no_virtual_functions) {
  EXPECT_EQ(sizeof d, driver_size);
  EXPECT_FALSE(std::is_polymorphic_v<ip6dnsDriver>);
}

TEST_F(driver, starts_with_every_field_but_the_logger_zero) {
  const auto room = std::make_unique<char[]>(driver_size);
  std::memset(room.get(), 0xA5, driver_size);
  auto* one = new (room.get()) ip6dnsDriver;
  const struct {
    const char* label;
    size_t from, to;
  } rows[] = {{"strings, callbacks, parameters, reserved", hostname_at, reserved_at + reserved_size},
              {"last check, addresses, record, flags, thread", lastcheck_at, driver_size}};
  for (const auto& row : rows)
    EXPECT_EQ(std::string(room.get() + row.from, room.get() + row.to), std::string(row.to - row.from, '\0'))
        << row.label;
  one->~ip6dnsDriver();
}

TEST_F(driver, starts_with_a_logger_of_level_40_without_callback_and_name) {
  EXPECT_EQ(field<int>(8), 40);
  EXPECT_EQ(field<cblog>(16), nullptr);
  EXPECT_EQ(field<void*>(24), nullptr);
  EXPECT_EQ(*reinterpret_cast<const std::string*>(reinterpret_cast<const char*>(&d) + 32), "");
}

TEST_F(driver, holds_each_argument_in_its_field) {
  const scratch_file file("hostname=h1\n");
  ASSERT_TRUE(
      d.Create("drv", file.path().c_str(), on_log, &logparam, aux1, &aux1param, on_data, this, aux2, &aux2param));
  EXPECT_EQ(text(hostname_at), "h1");
  EXPECT_EQ(text(name_at), "drv");
  EXPECT_EQ(text(cfgfile_at), file.path());
  EXPECT_EQ(field<cblog>(cblog_at), &driver::on_log);
  EXPECT_EQ(field<char*>(cblogparam_at), &logparam);
  EXPECT_EQ(field<cbaux>(cbaux1_at), &driver::aux1);
  EXPECT_EQ(field<char*>(cbaux1param_at), &aux1param);
  EXPECT_EQ(field<cbdata>(cbdata_at), &driver::on_data);
  EXPECT_EQ(field<void*>(cbdataparam_at), this);
  EXPECT_EQ(field<cbaux>(cbaux2_at), &driver::aux2);
  EXPECT_EQ(field<char*>(cbaux2param_at), &aux2param);
}

TEST_F(driver, passes_log_callback_parameter_and_name_to_its_logger) {
  const scratch_file file("hostname=h1\n");
  set(8, 5);
  ASSERT_TRUE(create(file.path().c_str(), "a name longer than sixteen characters"));
  EXPECT_EQ(field<int>(8), 40);
  EXPECT_EQ(field<cblog>(16), &driver::on_log);
  EXPECT_EQ(field<void*>(24), this);
  const auto* name = reinterpret_cast<const std::string*>(reinterpret_cast<const char*>(&d) + 32);
  EXPECT_EQ(*name, "a name longer than sixteen characters");
}

TEST_F(driver, is_stopped_and_has_not_polled_after_it_is_configured) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  EXPECT_EQ(bytes(reserved_at, reserved_at + reserved_size), std::string(reserved_size, '\0'));
  EXPECT_EQ(bytes(lastcheck_at, driver_size), std::string(driver_size - lastcheck_at, '\0'));
  EXPECT_FALSE(d.IsRun());
  EXPECT_EQ(fake_interfaces::lists(), 0);
}

TEST_F(driver, stores_the_worker_s_state_in_its_fields) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  fake_interfaces::set({"2001:db8::10"});
  start(d);
  EXPECT_EQ(field<int64_t>(lastcheck_at), now);
  EXPECT_EQ(text(lastip6_at), "2001:db8::10");
  EXPECT_EQ(text(ip6_at), "2001:db8::10");
  EXPECT_EQ(field<dac_tagvalue>(tag_at).time, 10 * now);
  EXPECT_STREQ(field<dac_tagvalue>(tag_at).name, "h1");
  EXPECT_STREQ(field<dac_tagvalue>(tag_at).value, "2001:db8::10");
  EXPECT_EQ(flag(stop_at), 0);
  EXPECT_EQ(flag(running_at), 1);
  EXPECT_NE(field<void*>(thread_at), nullptr);
  stop(d);
  EXPECT_EQ(bytes(stop_at, driver_size), std::string(driver_size - stop_at, '\0'));
}

TEST_F(driver, stores_the_published_text_after_the_callback_returns) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  published({"2001:db8::10"});
  EXPECT_EQ(last_at_data, std::vector{""s});
  EXPECT_EQ(text(lastip6_at), "2001:db8::10");
}

TEST_F(driver, Stop_without_a_worker_changes_and_logs_nothing) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  const std::string before = bytes(0, driver_size);
  d.Stop();
  EXPECT_EQ(bytes(0, driver_size), before);
  EXPECT_EQ(messages, std::vector<log_message>{});
}

TEST_F(driver, has_joined_its_thread_before_it_logs_the_stop) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  start(d);
  stop(d);
  EXPECT_EQ(thread_at_stop, nullptr);
}

TEST_F(driver, Stop_sets_the_stop_flag_to_1) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  start(d);
  std::thread stopper([&] { d.Stop(); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (flag(stop_at) == 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_EQ(flag(stop_at), 1);
  EXPECT_EQ(flag(running_at), 1) << "it sleeps";
  fake_clock::free_run();
  stopper.join();
  fake_clock::stepping();
}

TEST_F(driver, Start_clears_the_stop_flag) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  set<int32_t>(stop_at, 1);
  start(d);
  EXPECT_EQ(flag(stop_at), 0);
  EXPECT_EQ(flag(running_at), 1);
  stop(d);
  EXPECT_EQ(records.size(), 1U);
}

TEST_F(driver, logs_its_progress_at_level_30) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  set(8, 29);
  start(d);
  stop(d);
  EXPECT_EQ(messages.size(), 0U);
  set(8, 30);
  start(d);
  stop(d);
  EXPECT_EQ(messages.size(), 2U);
}

// ---------------------------------------------------------------- arguments

TEST_F(driver, a_missing_argument_is_refused_without_a_message_and_changes_nothing) {
  const scratch_file file("hostname=h1\n");
  const char* path = file.path().c_str();
  const struct {
    const char* label;
    const char* name;
    const char* cfgfile;
    cbaux aux;
  } rows[] = {{"null name", nullptr, path, aux1},
              {"empty name", "", path, aux1},
              {"null path", "drv", nullptr, aux1},
              {"empty path", "drv", "", aux1},
              {"null aux1", "drv", path, nullptr}};
  const std::string before = bytes(0, driver_size);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_FALSE(d.Create(row.name, row.cfgfile, on_log, this, row.aux, &aux1param, on_data, this, aux2, &aux2param));
    EXPECT_EQ(bytes(0, driver_size), before);
  }
  EXPECT_EQ(messages, std::vector<log_message>{});
}

TEST_F(driver, only_name_path_and_first_auxiliary_callback_are_required) {
  const scratch_file file("hostname=h1\n");
  EXPECT_TRUE(
      d.Create("drv", file.path().c_str(), nullptr, nullptr, aux1, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(text(hostname_at), "h1");
}

TEST_F(driver, a_failure_without_a_log_callback_is_silent) {
  EXPECT_FALSE(
      d.Create("drv", "/nonexistent/ip6dns.conf", nullptr, this, aux1, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(messages, std::vector<log_message>{});
}

TEST_F(driver, name_and_path_are_copies) {
  const scratch_file file("hostname=h1\n");
  std::string name = "drv", path = file.path();
  ASSERT_TRUE(create(path.c_str(), name.c_str()));
  const std::string copy = path;
  name.assign(name.size(), 'x');
  path.assign(path.size(), 'x');
  EXPECT_EQ(text(name_at), "drv");
  EXPECT_EQ(text(cfgfile_at), copy);
}

TEST_F(driver, copies_the_name_before_the_path) {
  const std::string name(80, 'n'), path(80, '/');  // they take blocks of 256, with room to grow
  const std::vector<void*> offered = pools::take(256, 2);
  pools::give({offered[1], offered[0]});  // the last freed block is reused first
  d.Create(name.c_str(), (path + "none").c_str(), nullptr, nullptr, aux1, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(field<char*>(name_at) - 8, offered[0]);
  EXPECT_EQ(field<char*>(cfgfile_at) - 8, offered[1]);
}

// ---------------------------------------------------------------- configuration

TEST_F(driver, reads_its_host_name_from_the_last_hostname_line) {
  const struct {
    const char* label;
    std::string text, hostname;
  } rows[] = {
      {"alone", "hostname=myhost", "myhost"},
      {"with spaces and a comment", " hostname = my-host   ; the name\n", "my-host"},
      {"in mixed case", "HostName=MyHost\n", "MyHost"},
      {"in capitals", "HOSTNAME=MYHOST\n", "MYHOST"},
      {"with spaces in the key", "host name=h1\n", "h1"},
      {"in a section", "[main]\nport=80\nhostname=h1\n", "h1"},
      {"in front of sections", "hostname=h1\n[main]\n[other]\nport=1\n", "h1"},
      {"twice", "hostname=first-and-longer\nhostname=h2\n", "h2"},
      {"in two sections", "[a]\nhostname=h1\n[b]\nHOSTNAME=second-and-longer\n", "second-and-longer"},
      {"empty and then not", "hostname=\nhostname=h1\n", "h1"},
      {"among other keys", "interval=5\nhostname=h1\nport=80\nhost=h2\nname=h3\n", "h1"},
      {"with longer and shorter keys", "hostname=h1\nhostnames=h2\nhostnam=h3\nxhostname=h4\nhostname2=h5\n", "h1"},
      {"with a key that continues after a zero byte", "hostname=h1\nhostname\0=h2\nhost\0ame=h3\n"s, "h1"},
      {"with an empty key", "hostname=h1\n=h2\n", "h1"},
      {"with comments", "hostname=h1\n#hostname=h2\n;hostname=h3\n", "h1"},
      {"after a byte order mark", "\xEF\xBB\xBFhostname=h1\n", "h1"},
      {"with both line ends", "port=1\r\nhostname=h1\r\nx=y\r\n", "h1"},
      {"with spaces inside", "hostname = my host\tname \n", "my host\tname"},
      {"with dots and dashes", "hostname=a.b-c_d\n", "a.b-c_d"},
      {"with bytes above 127", "hostname=h\xc3\xb6st\xff\n", "h\xc3\xb6st\xff"},
      {"with a zero byte inside", "hostname=a\0b\n"s, "a\0b"s},
      {"with every kind of other bracket", "hostname=[a]{b}<c>/\\=\n", "[a]{b}<c>/\\="},
      {"of 5000 characters", "hostname=" + std::string(5000, 'h') + "\n", std::string(5000, 'h')},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_TRUE(create_from(row.text));
    EXPECT_EQ(text(hostname_at), row.hostname);
    EXPECT_EQ(messages, std::vector<log_message>{});
  }
}

TEST_F(driver, a_missing_host_name_is_refused_with_one_message) {
  const struct {
    const char* label;
    const char* text;
  } rows[] = {{"empty file", ""},
              {"byte order mark alone", "\xEF\xBB\xBF"},
              {"other keys", "interval=5\nport=80\nhostnames=h1\n"},
              {"no value", "hostname\n"},
              {"empty value", "hostname=\n"},
              {"value of spaces", "hostname = \t \n"},
              {"commented value", "hostname=;h1\n"},
              {"commented line", "#hostname=h1\n"},
              {"empty value after a valid one", "hostname=h1\nhostname=\n"},
              {"stray text in front of the key", "stray\nhostname=h1\n"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const scratch_file file(row.text);
    messages.clear();
    EXPECT_FALSE(create(file.path().c_str()));
    EXPECT_EQ(messages, std::vector{failure("not config hostname in " + file.path())});
    EXPECT_EQ(text(hostname_at), "");
  }
}

TEST_F(driver, a_host_name_with_a_forbidden_character_is_refused_with_one_message) {
  const std::string names[] = {"a:b",
                               "x(1)",
                               "(",
                               ")x",
                               "x'",
                               "'",
                               "\"quoted\"",
                               "a\"",
                               ":",
                               "a:(b)'\"",
                               "a\0:"s,
                               "\xff:",
                               std::string(1000, 'a') + ":"};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const scratch_file file("hostname=" + name + "\n");
    messages.clear();
    EXPECT_FALSE(create(file.path().c_str()));
    EXPECT_EQ(messages, std::vector{failure("hostname contains illegal characters in " + file.path())});
  }
}

TEST_F(driver, exactly_five_characters_are_forbidden) {
  for (int c = 0; c <= 255; ++c) {
    const auto one_of = [c](std::string_view those) {
      return those.find(static_cast<char>(c)) != std::string_view::npos;
    };
    if (one_of("\n\r;#")) continue;  // end the value
    const bool forbidden = one_of("'\"():");
    const std::string hostname = {'a', static_cast<char>(c), 'b'};
    messages.clear();
    EXPECT_EQ(create_from("hostname=" + hostname + "\n"), !forbidden) << c;
    EXPECT_EQ(messages.size(), forbidden ? 1U : 0U) << c;
  }
}

TEST_F(driver, a_valid_host_name_after_a_forbidden_one_is_accepted) {
  EXPECT_TRUE(create_from("hostname=a:b\nhostname=h1\n"));
  EXPECT_EQ(messages, std::vector<log_message>{});
}

TEST_F(driver, a_file_that_cannot_be_opened_is_refused_with_one_message) {
  for (const std::string path : {"/nonexistent/ip6dns.conf", "/dev/null/ip6dns.conf", "no%such%file%s"}) {
    messages.clear();
    EXPECT_FALSE(create(path.c_str()));
    EXPECT_EQ(messages, std::vector{failure("load ip6dns driver config " + path + " failed")});
  }
}

TEST_F(driver, a_directory_opens_and_has_no_host_name) {
  EXPECT_FALSE(create("/"));
  EXPECT_EQ(messages, std::vector{failure("not config hostname in /")});
}

TEST_F(driver, the_file_is_closed_before_the_message_is_written) {
  const scratch_file nothing(""), forbidden("hostname=a:b\n");
  const long before = open_descriptors();
  for (const char* path : {nothing.path().c_str(), forbidden.path().c_str(), "/nonexistent/ip6dns.conf"})
    EXPECT_FALSE(create(path));
  EXPECT_EQ(open_during_log, std::vector<long>(3, before));
  EXPECT_TRUE(create_from("hostname=h1\n"));
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(driver, loading_changes_only_the_host_name) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  const std::string front = bytes(0, hostname_at), rest = bytes(name_at, driver_size);
  const scratch_file file("hostname=another:name that is longer\nport=1\n");
  EXPECT_TRUE(d.loadConfig(file.path().c_str()));
  EXPECT_EQ(text(hostname_at), "another:name that is longer");
  EXPECT_EQ(bytes(0, hostname_at), front);
  EXPECT_EQ(bytes(name_at, driver_size), rest);
}

TEST_F(driver, loading_fails_without_a_change_if_the_file_does_not_open) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  const scratch_file other("port=1\n");
  const std::string before = bytes(0, driver_size);
  EXPECT_FALSE(d.loadConfig(""));
  EXPECT_FALSE(d.loadConfig("/nonexistent/ip6dns.conf"));
  EXPECT_TRUE(d.loadConfig(other.path().c_str()));
  EXPECT_EQ(bytes(0, driver_size), before);
  EXPECT_EQ(text(hostname_at), "h1");
  EXPECT_EQ(messages, std::vector<log_message>{});
}

// ---------------------------------------------------------------- end

TEST_F(driver, destruction_releases_all_storage) {
  const scratch_file file("hostname=a-host-name-longer-than-one-small-block\n");
  const size_t before = blocks::live();
  auto one = std::make_unique<ip6dnsDriver>();
  ASSERT_TRUE(one->Create("an instance name", file.path().c_str(), nullptr, nullptr, aux1, nullptr, nullptr, nullptr,
                          nullptr, nullptr));
  EXPECT_EQ(blocks::live(), before + 3);
  one.reset();
  EXPECT_EQ(blocks::live(), before);
}

// A pool reuses the last freed block first, and all five strings are in blocks of one size.
TEST_F(driver, destruction_releases_the_strings_from_the_last_to_the_first) {
  const std::string address = "2001:1db8:1111:2222:3333:4444:5555:6666", same(address.size(), 'x');
  const size_t n = address.size();
  const scratch_file file("hostname=" + same + "\n");
  const std::string path = std::string(n - std::min(n, file.path().size()), '/') + file.path();
  auto one = std::make_unique<ip6dnsDriver>();
  ASSERT_TRUE(
      one->Create(same.c_str(), path.c_str(), nullptr, nullptr, aux1, nullptr, nullptr, nullptr, nullptr, nullptr));
  fake_interfaces::set({address});
  start(*one);
  stop(*one);
  std::vector<void*> strings;
  for (const size_t at : {hostname_at, name_at, cfgfile_at, lastip6_at, ip6_at}) {
    strings.push_back(pools::read<char*>(reinterpret_cast<const char*>(one.get()) + at) - 8);
    ASSERT_EQ(ym::allocator::usable_(strings.back()), 96U);
  }
  one.reset();
  const std::vector<void*> taken = pools::take(96, 5);
  pools::give(taken);
  EXPECT_EQ(taken, strings);
}

TEST_F(driver, destruction_does_not_stop_the_worker) {
  alignas(ip6dnsDriver) char room[driver_size];
  auto* one = new (room) ip6dnsDriver;
  pools::write<int32_t>(one, running_at, 1);
  pools::write<uintptr_t>(one, thread_at, 1);  // not a thread object
  one->~ip6dnsDriver();
  SUCCEED();
}

// ---------------------------------------------------------------- what the host asks

namespace {

struct tag {
  std::string name;
  int type, flag;
  std::string text1, text2;
  void* param;
  bool operator==(const tag&) const = default;
};

std::vector<tag> tags;

void on_tag(const char* name, int type, int flag, void* param) {
  tags.push_back({name, type, flag, "(none)", "(none)", param});
}
void on_tagex(const char* name, int type, int flag, const char* text1, const char* text2, void* param) {
  tags.push_back({name, type, flag, text1, text2, param});
}

}  // namespace

TEST_F(driver, reports_one_tag_with_the_full_host_name) {
  for (const std::string& hostname : {"h1"s, std::string(79, 'h'), std::string(80, 'h'), std::string(500, 'h')}) {
    ASSERT_TRUE(create_from("hostname=" + hostname + "\n"));
    tags.clear();
    d.GetAllTags(on_tag, this);
    d.GetAllTagsEx(on_tagex, &logparam);
    EXPECT_EQ(tags, (std::vector<tag>{{hostname, 6, 1, "(none)", "(none)", this},
                                      {hostname, 6, 1, "", "ipv6 address", &logparam}}));
  }
}

TEST_F(driver, reports_a_tag_without_a_name_before_it_is_configured) {
  tags.clear();
  d.GetAllTags(on_tag, nullptr);
  d.GetAllTagsEx(on_tagex, nullptr);
  EXPECT_EQ(tags, (std::vector<tag>{{"", 6, 1, "(none)", "(none)", nullptr}, {"", 6, 1, "", "ipv6 address", nullptr}}));
}

TEST_F(driver, reports_its_status_and_host_name) {
  EXPECT_EQ(info(), R"({"status":"stop"})");
  ASSERT_TRUE(create_from("hostname=h1\n"));
  EXPECT_EQ(info(), R"({"status":"stop","host":"h1"})");
  set<int32_t>(running_at, 1);
  EXPECT_EQ(info(), R"({"status":"running","host":"h1"})");
  EXPECT_TRUE(d.IsRun());
  set<int32_t>(running_at, -2);
  EXPECT_EQ(info(), R"({"status":"running","host":"h1"})");
  EXPECT_TRUE(d.IsRun());
}

TEST_F(driver, reports_running_even_without_a_host_name) {
  set<int32_t>(running_at, 1);
  EXPECT_EQ(info(), R"({"status":"running"})");
}

TEST_F(driver, reports_no_host_if_the_last_file_left_its_name_empty) {
  EXPECT_FALSE(create_from("hostname=h1\nhostname=\n"));
  EXPECT_EQ(info(), R"({"status":"stop"})");
}

TEST_F(driver, escapes_its_host_name) {
  ASSERT_TRUE(create_from("hostname=a/b\\c\td\be\ff\n"));
  EXPECT_EQ(info(), R"({"status":"stop","host":"a\/b\\c\td\be\ff"})");
  EXPECT_FALSE(create_from("hostname=a\"b\n"));
  EXPECT_EQ(info(), R"({"status":"stop","host":"a\"b"})");
}

TEST_F(driver, writes_its_status_if_the_size_is_at_least_the_length_and_returns_one_less) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  const std::string document = R"({"status":"stop","host":"h1"})";
  const size_t length = document.size();
  for (const size_t size : {size_t{0}, size_t{1}, length - 1, length, length + 1, length + 50}) {
    SCOPED_TRACE(size);
    std::string buf(100, '#'), expected = buf;
    const std::string written = size >= length ? document + '\0' : "\0"s;
    expected.replace(0, written.size(), written);
    size_t n = size;
    d.GetInfo(buf.data(), &n);
    EXPECT_EQ(buf, expected);
    EXPECT_EQ(n, length - 1);
  }
}

TEST_F(driver, status_reports_leave_no_storage_allocated) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  const size_t before = blocks::live();
  EXPECT_EQ(info(), R"({"status":"stop","host":"h1"})");
  EXPECT_EQ(blocks::live(), before);
}

// ---------------------------------------------------------------- record

namespace {

/// 26 public addresses whose comma-separated text has `n` characters, 961 to 1039.
std::vector<std::string> addresses_of_length(size_t n) {
  std::vector<std::string> addresses(26, "2001:1db8:1111:2222:3333:4444:5555:6");
  size_t left = n - 961;
  for (std::string& a : addresses)
    for (int i = 0; i < 3 && left > 0; ++i, --left) a += '6';
  return addresses;
}

std::string joined(const std::vector<std::string>& addresses) {
  std::string text;
  for (const std::string& a : addresses) text += (text.empty() ? "" : ",") + a;
  return text;
}

/// A record as the host reads it, byte by byte.
std::string record(const std::string& name, const std::string& value) {
  std::string bytes(1104, '\0');
  const auto len = static_cast<uint16_t>(value.size());
  bytes.replace(0, name.size(), name);
  bytes[96] = 6;
  std::memcpy(&bytes[102], &len, sizeof len);
  bytes.replace(104, value.size(), value);
  return bytes;
}

std::string bytes_of(const dac_tagvalue& tag) { return {reinterpret_cast<const char*>(&tag), sizeof tag}; }

}  // namespace

TEST(dac_tagvalue, has_1104_bytes_and_fixed_offsets) {
  const struct {
    const char* label;
    size_t offset, size, expected_offset, expected_size;
  } rows[] = {
      {"name", offsetof(dac_tagvalue, name), sizeof(dac_tagvalue::name), 0, 80},
      {"time", offsetof(dac_tagvalue, time), sizeof(dac_tagvalue::time), 80, 8},
      {"reserved, first", offsetof(dac_tagvalue, reserved1), sizeof(dac_tagvalue::reserved1), 88, 8},
      {"type", offsetof(dac_tagvalue, type), sizeof(dac_tagvalue::type), 96, 1},
      {"reserved, second", offsetof(dac_tagvalue, reserved2), sizeof(dac_tagvalue::reserved2), 97, 5},
      {"len", offsetof(dac_tagvalue, len), sizeof(dac_tagvalue::len), 102, 2},
      {"value", offsetof(dac_tagvalue, value), sizeof(dac_tagvalue::value), 104, 1000},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.offset, row.expected_offset) << row.label;
    EXPECT_EQ(row.size, row.expected_size) << row.label;
  }
  EXPECT_EQ(sizeof(dac_tagvalue), 1104U);
  EXPECT_TRUE(std::is_signed_v<decltype(dac_tagvalue::time)>);
  EXPECT_TRUE(std::is_unsigned_v<decltype(dac_tagvalue::len)>);
}

TEST_F(driver, publishes_a_record_with_every_other_byte_zero) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  EXPECT_EQ(bytes_of(published({"2001:db8::10", "2001:db8:1::20"})), record("h1", "2001:db8::10,2001:db8:1::20"));
}

TEST_F(driver, publishes_null_if_there_is_no_address) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  EXPECT_EQ(bytes_of(published({"::1"})), record("h1", "null"));
}

TEST_F(driver, cuts_the_name_in_the_record_to_79_characters) {
  for (const size_t n : {size_t{1}, size_t{78}, size_t{79}, size_t{80}, size_t{81}, size_t{100}, size_t{2000}}) {
    SCOPED_TRACE(n);
    const std::string hostname = std::string(n - 1, 'h') + "e";
    records.clear();
    ASSERT_TRUE(create_from("hostname=" + hostname + "\n"));
    fake_clock::advance(1000);
    EXPECT_EQ(bytes_of(published({"2001:db8::1"})), record(hostname.substr(0, 79), "2001:db8::1"));
  }
}

TEST_F(driver, cuts_the_value_in_the_record_to_999_characters) {
  ASSERT_TRUE(create_from("hostname=h1\n"));
  for (const size_t n : {size_t{998}, size_t{999}, size_t{1000}, size_t{1001}, size_t{1039}}) {
    SCOPED_TRACE(n);
    const std::vector<std::string> addresses = addresses_of_length(n);
    ASSERT_EQ(joined(addresses).size(), n);
    records.clear();
    fake_clock::advance(1000);
    EXPECT_EQ(bytes_of(published(addresses)), record("h1", joined(addresses).substr(0, 999)));
  }
}

TEST_F(driver, publishes_an_empty_name_before_it_is_configured) {
  set(cbdata_at, &driver::on_data);
  set<void*>(cbdataparam_at, this);
  EXPECT_EQ(bytes_of(published({"2001:db8::1"})), record("", "2001:db8::1"));
}
