// The scanner: the cases of config_cases.h, the start of the input, the callback, memory; and the file stream.
#include "com/ymlib3/ym_config"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "com/ymlib3/ym_string"
#include "tests/foundation/config_cases.h"
#include "tests/support/blocks.h"
#include "tests/support/scratch.h"
#include "tests/support/scratch_file.h"
#include "tests/support/texts.h"
#include "tests/support/threads.h"

using namespace std::literals;
namespace fs = std::filesystem;
using text = ym::string_<>;
using config = ym::config<text>;

namespace {

thread_local std::vector<std::string> opened;  // modes in which this thread opened files

std::string quoted(std::string_view s) {
  constexpr char digits[] = "0123456789abcdef";
  std::string out = "\"";
  for (const char c : s) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') out += '\\';
    if (byte >= 0x20 && byte <= 0x7e)
      out += c;
    else
      out += {'\\', 'x', digits[byte / 16], digits[byte % 16]};
  }
  return out + "\"";
}

std::string quoted(const text& s) { return quoted({s.c_str(), s.size()}); }

/// One call as text: section, key and value in quotation marks.
std::string call(std::string_view section, std::string_view key, std::string_view value) {
  return quoted(section) + " " + quoted(key) + " " + quoted(value) + "\n";
}

/// Scans `in` until call number `last` (0: to the end) and returns the calls as text. Fails unless the scan returns
/// true.
template <class STREAM>
std::string scan(STREAM& in, int commentchar = 0, int last = 0) {
  std::string calls;
  const auto note = [&](const text& section, const text& key, const text& value) {
    calls += quoted(section) + " " + quoted(key) + " " + quoted(value) + "\n";
    return --last == 0 ? 1 : 0;
  };
  EXPECT_TRUE(config().scan(&in, note, commentchar));
  return calls;
}

/// The scanner takes any stream that has these two.
class memory_stream {
 public:
  explicit memory_stream(std::string bytes) : _bytes(std::move(bytes)) {}
  int get() { return _at < _bytes.size() ? static_cast<unsigned char>(_bytes[_at++]) : -1; }
  void rewind() { _at = 0; }

 private:
  std::string _bytes;
  size_t _at = 0;
};

std::string scan_text(std::string_view bytes, int commentchar = 0) {
  memory_stream in{std::string(bytes)};
  return scan(in, commentchar);
}

const fs::path directory = fs::path(SOURCE_DIR) / "tests/foundation/config";

fs::path file_of(const config_case& c) { return directory / (c.name + ".conf"); }

std::string input_of(const config_case& c) { return c.input ? *c.input : read_file(file_of(c)); }

std::string calls_of(const config_case& c) {
  std::string calls;
  for (const config_call& each : c.calls) calls += call(each.section, each.key, each.value);
  return calls;
}

const config_case& find_case(std::string_view name) {
  for (const config_case& c : config_cases())
    if (c.name == name) return c;
  throw std::invalid_argument(std::string(name));
}

}  // namespace

extern "C" std::FILE* fopen(const char* path, const char* mode) {
  static auto* real = reinterpret_cast<std::FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
  opened.emplace_back(mode);
  return real(path, mode);
}

// ---------------------------------------------------------------- cases

TEST(config_cases, each_makes_the_expected_calls) {
  for (const config_case& c : config_cases()) {
    SCOPED_TRACE(c.name);
    const scratch_file file(input_of(c));
    ym::rstream_file in;
    ASSERT_TRUE(in.open(file.path().c_str()));
    EXPECT_EQ(scan(in, c.commentchar), calls_of(c));
  }
}

TEST(config_cases, each_makes_the_expected_calls_from_memory) {
  for (const config_case& c : config_cases()) EXPECT_EQ(scan_text(input_of(c), c.commentchar), calls_of(c)) << c.name;
}

TEST(config_cases, each_file_belongs_to_one_case) {
  std::multiset<std::string> expected, found;
  for (const config_case& c : config_cases())
    if (!c.input) expected.insert(file_of(c).filename());
  for (const auto& entry : fs::directory_iterator(directory)) found.insert(entry.path().filename());
  EXPECT_EQ(found, expected);
}

TEST(config_cases, line_feeds_and_both_line_ends_make_the_same_calls) {
  const config_case &example = find_case("example"), &crlf = find_case("example_crlf");
  std::string without = input_of(crlf);
  EXPECT_EQ(std::erase(without, '\r'), 6U);
  EXPECT_EQ(without, input_of(example));
  EXPECT_EQ(calls_of(crlf), calls_of(example));
}

// ---------------------------------------------------------------- start of the input

TEST(config, a_null_stream_is_refused_without_a_call) {
  int calls = 0;
  const auto note = [&](const text&, const text&, const text&) { return ++calls; };
  EXPECT_FALSE(config().scan(static_cast<ym::rstream_file*>(nullptr), note, 0));
  EXPECT_FALSE(config().scan(static_cast<memory_stream*>(nullptr), note, ';'));
  EXPECT_EQ(calls, 0);
}

TEST(config, a_stream_that_is_not_open_is_empty) {
  ym::rstream_file in;
  EXPECT_EQ(scan(in), "");
  EXPECT_FALSE(in.is_open());
}

TEST(config, any_stream_that_has_get_and_rewind_can_be_scanned) {
  EXPECT_EQ(scan_text("[s]\nhostname = h1 ; c\n"), call("s", "", "") + call("s", "hostname", "h1"));
  EXPECT_EQ(scan_text("\xEF\xBB\xBF"
                      "a=1"),
            call("", "a", "1"));
}

TEST(config, a_second_scan_starts_over_at_the_first_byte) {
  memory_stream in("[s]\na=1\n");
  const std::string first = scan(in);
  EXPECT_EQ(first, call("s", "", "") + call("s", "a", "1"));
  EXPECT_EQ(scan(in), first);
}

TEST(config, a_second_scan_reads_the_byte_order_mark_as_part_of_the_key) {
  memory_stream in(
      "\xEF\xBB\xBF"
      "a=1\n");
  EXPECT_EQ(scan(in), call("", "a", "1"));
  EXPECT_EQ(scan(in), call("",
                           "\xEF\xBB\xBF"
                           "a",
                           "1"));
}

TEST(config, a_scan_that_finds_a_byte_order_mark_continues_after_it) {
  memory_stream in(
      "a=1\n\xEF\xBB\xBF"
      "b=2\n");
  EXPECT_EQ(scan(in, 0, 1), call("", "a", "1"));
  EXPECT_EQ(scan(in), call("", "b", "2"));
}

// ---------------------------------------------------------------- callback

TEST(config, the_callback_can_end_the_scan_at_every_kind_of_call) {
  const std::string bytes = "a=1\n[s]\nb=2\nc=3\n";
  const std::string all[] = {call("", "a", "1"), call("s", "", ""), call("s", "b", "2"), call("s", "c", "3")};
  std::string until;
  for (int last = 1; last <= 4; ++last) {
    SCOPED_TRACE(last);
    memory_stream in(bytes);
    EXPECT_EQ(scan(in, 0, last), until += all[last - 1]);
  }
}

TEST(config, every_result_except_0_ends_the_scan) {
  for (const int result : {1, 2, -1, 256, INT32_MIN}) {
    SCOPED_TRACE(result);
    int calls = 0;
    memory_stream in("a=1\nb=2\n");
    EXPECT_TRUE(config().scan(
        &in, [&](const text&, const text&, const text&) { return ++calls, result; }, 0));
    EXPECT_EQ(calls, 1);
  }
}

TEST(config, an_ended_scan_leaves_the_stream_after_the_last_byte_read) {
  const struct {
    const char* label;
    const char* bytes;
    int next;
  } rows[] = {
      {"value ended by a line feed", "a=1\nb", 'b'},       {"value ended by a carriage return", "a=1\r\nb", '\n'},
      {"value ended by a comment", "a=1;xb", 'x'},         {"value ended by the end of input", "a=1", -1},
      {"section ended by a bracket", "[s]b", 'b'},         {"section ended by a line feed", "[s\nb", 'b'},
      {"section ended by a carriage return", "[s\rb", 'b'}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    memory_stream in(row.bytes);
    EXPECT_NE(scan(in, 0, 1), "");
    EXPECT_EQ(in.get(), row.next);
  }
}

TEST(config, an_empty_callback_throws_at_its_first_call) {
  const size_t before = blocks::live();
  for (const char* bytes : {"a=1\n", "[s]\n"}) {
    memory_stream in(bytes);
    EXPECT_THROW(config().scan(&in, nullptr, 0), std::bad_function_call) << bytes;
  }
  memory_stream in("abc # c\n[s");
  EXPECT_TRUE(config().scan(&in, nullptr, 0));
  EXPECT_EQ(blocks::live(), before);
}

TEST(config, scan_passes_on_what_the_callback_throws) {
  memory_stream in("a=1\n");
  const auto fail = [](const text&, const text&, const text&) -> int { throw std::runtime_error("callback"); };
  EXPECT_THROW(config().scan(&in, fail, 0), std::runtime_error);
}

TEST(config, one_scanner_scans_a_second_stream_during_a_call) {
  config scanner;
  std::string calls;
  const auto inner = [&](const text& section, const text& key, const text& value) {
    calls += "inner " + quoted(section) + quoted(key) + quoted(value) + "\n";
    return 0;
  };
  const auto outer = [&](const text& section, const text& key, const text& value) {
    memory_stream in("[t]\nb=2\n");
    EXPECT_TRUE(scanner.scan(&in, inner, 0));
    calls += "outer " + quoted(section) + quoted(key) + quoted(value) + "\n";
    return 0;
  };
  memory_stream in("[s] a=1\n");
  EXPECT_TRUE(scanner.scan(&in, outer, 0));
  const std::string inner_calls = "inner \"t\"\"\"\"\"\ninner \"t\"\"b\"\"2\"\n";
  EXPECT_EQ(calls, inner_calls + "outer \"s\"\"\"\"\"\n" + inner_calls + "outer \"s\"\"a\"\"1\"\n");
}

TEST(config, threads_scan_separate_streams_at_the_same_time) {
  const config_case& example = find_case("example");
  const scratch_file file(input_of(example));
  std::vector<std::string> calls(4);
  in_threads(calls.size(), [&](size_t me) {
    ym::rstream_file in;
    if (in.open(file.path().c_str())) calls[me] = scan(in);
  });
  EXPECT_EQ(calls, std::vector<std::string>(4, calls_of(example)));
}

// ---------------------------------------------------------------- memory

TEST(config, scan_releases_all_storage) {
  const size_t before = blocks::live();
  const std::string bytes = "[a section longer than one block]\na key = a value longer than one block\n[unterminated";
  for (const int last : {0, 1, 2}) {
    memory_stream in(bytes);
    EXPECT_NE(scan(in, 0, last), "");
    EXPECT_EQ(blocks::live(), before) << last;
  }
}

TEST(config, the_scan_drops_bytes_that_get_no_storage_and_continues) {
  const blocks::exhausted none(32);
  EXPECT_EQ(scan_text("[sectionname]\nlonghostname = longvalue # c\nab=cd\n"),
            call("section", "", "") + call("section", "longhos", "longval") + call("section", "ab", "cd"));
}

TEST(config, without_storage_every_call_gets_empty_strings) {
  const blocks::exhausted none(16);
  EXPECT_EQ(scan_text("[s]\na=1\n=2\n"), call("", "", "") + call("", "", "") + call("", "", ""));
}

// ---------------------------------------------------------------- file

TEST(rstream_file, is_not_open_until_a_file_is_opened) {
  ym::rstream_file in;
  EXPECT_FALSE(in.is_open());
  EXPECT_EQ(in.get(), -1);
}

TEST(rstream_file, opens_a_file_for_reading_as_text) {
  const scratch_file file("ab");
  ym::rstream_file in;
  opened.clear();
  EXPECT_TRUE(in.open(file.path().c_str()));
  EXPECT_TRUE(in.is_open());
  EXPECT_EQ(opened, std::vector<std::string>{"rt"});
}

TEST(rstream_file, reads_each_byte_as_a_number_from_0_to_255) {
  std::string bytes;
  for (int c = 0; c <= 255; ++c) bytes += static_cast<char>(c);
  const scratch_file file(bytes);
  ym::rstream_file in;
  ASSERT_TRUE(in.open(file.path().c_str()));
  for (int c = 0; c <= 255; ++c) ASSERT_EQ(in.get(), c);
  EXPECT_EQ(in.get(), -1);
  EXPECT_EQ(in.get(), -1);
}

TEST(rstream_file, rewinds_to_the_first_byte_even_from_the_end) {
  const scratch_file file("ab");
  ym::rstream_file in;
  ASSERT_TRUE(in.open(file.path().c_str()));
  EXPECT_EQ(in.get(), 'a');
  in.rewind();
  EXPECT_EQ(in.get(), 'a');
  EXPECT_EQ(in.get(), 'b');
  EXPECT_EQ(in.get(), -1);
  in.rewind();
  EXPECT_EQ(in.get(), 'a');
}

TEST(rstream_file, rewinding_a_closed_stream_does_nothing) {
  ym::rstream_file in;
  in.rewind();
  EXPECT_FALSE(in.is_open());
  EXPECT_EQ(in.get(), -1);
}

TEST(rstream_file, an_empty_and_a_null_path_open_nothing) {
  opened.clear();
  for (const char* path : {"", static_cast<const char*>(nullptr)}) {
    ym::rstream_file in;
    EXPECT_FALSE(in.open(path));
    EXPECT_FALSE(in.is_open());
    EXPECT_EQ(in.get(), -1);
  }
  EXPECT_EQ(opened, std::vector<std::string>{});
}

TEST(rstream_file, a_missing_file_does_not_open) {
  ym::rstream_file in;
  EXPECT_FALSE(in.open("/nonexistent/ip6dns.conf"));
  EXPECT_FALSE(in.is_open());
  EXPECT_EQ(in.get(), -1);
}

TEST(rstream_file, a_directory_opens_and_is_at_its_end) {
  ym::rstream_file in;
  EXPECT_TRUE(in.open(testing::TempDir().c_str()));
  EXPECT_TRUE(in.is_open());
  EXPECT_EQ(in.get(), -1);
  EXPECT_EQ(scan(in), "");
}

TEST(rstream_file, cannot_be_copied) {
  EXPECT_FALSE(std::is_copy_constructible_v<ym::rstream_file>);
  EXPECT_FALSE(std::is_copy_assignable_v<ym::rstream_file>);
}

TEST(rstream_file, closes_its_file_when_it_is_destroyed) {
  const scratch_file file("ab");
  const long before = open_descriptors();
  {
    ym::rstream_file in;
    ASSERT_TRUE(in.open(file.path().c_str()));
    EXPECT_EQ(open_descriptors(), before + 1);
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST(rstream_file, opening_another_closes_the_first) {
  const scratch_file first("a"), second("b");
  const long before = open_descriptors();
  ym::rstream_file in;
  ASSERT_TRUE(in.open(first.path().c_str()));
  ASSERT_TRUE(in.open(second.path().c_str()));
  EXPECT_EQ(open_descriptors(), before + 1);
  EXPECT_EQ(in.get(), 'b');
}

TEST(rstream_file, a_failed_opening_closes_the_first) {
  const scratch_file file("a");
  const long before = open_descriptors();
  for (const char* path : {"", "/nonexistent/ip6dns.conf"}) {
    ym::rstream_file in;
    ASSERT_TRUE(in.open(file.path().c_str()));
    EXPECT_FALSE(in.open(path));
    EXPECT_FALSE(in.is_open());
    EXPECT_EQ(open_descriptors(), before);
  }
}

TEST(rstream_file, stays_open_after_a_scan) {
  const scratch_file file("a=1\n");
  ym::rstream_file in;
  ASSERT_TRUE(in.open(file.path().c_str()));
  EXPECT_EQ(scan(in), call("", "a", "1"));
  EXPECT_TRUE(in.is_open());
  in.rewind();
  EXPECT_EQ(in.get(), 'a');
}

// A pipe with some bytes, after which reading fails: the reader does not block, and the writer stays open.
TEST(rstream_file, a_read_error_is_the_end_of_input) {
  const scratch dir;
  const std::string path = dir.path("fifo");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int writer = ::open(path.c_str(), O_RDWR);
  const std::string bytes =
      "\xEF\xBB\xBF"
      "a=1\nb=2 # c\nstray";
  ASSERT_EQ(::write(writer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  const int reader = ::dup(writer);  // the number of the stream's descriptor
  ::close(reader);
  ym::rstream_file in;
  ASSERT_TRUE(in.open(path.c_str()));
  ASSERT_EQ(fcntl(reader, F_SETFL, O_NONBLOCK), 0);
  EXPECT_EQ(scan(in), call("", "a", "1") + call("", "b", "2"));
  EXPECT_EQ(in.get(), -1);
  EXPECT_EQ(errno, EAGAIN);
  ::close(writer);
}
