// The scanner on unusual input: comment characters that have another meaning or are outside 0 to 255, and a pipe.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "com/ymlib3/ym_config"
#include "com/ymlib3/ym_string"
#include "tests/support/scratch.h"
#include "tests/support/scratch_file.h"

namespace {

using text = ym::string_<>;
using call = std::array<std::string, 3>;  // section, key, value
using calls = std::vector<call>;

std::string copy(const text& s) { return {s.c_str(), s.size()}; }

template <class STREAM>
calls scan(STREAM& in, int commentchar) {
  calls found;
  const auto note = [&](const text& section, const text& key, const text& value) {
    found.push_back({copy(section), copy(key), copy(value)});
    return 0;
  };
  EXPECT_TRUE(ym::config<text>().scan(&in, note, commentchar));
  return found;
}

calls scan_file(std::string_view bytes, int commentchar) {
  const scratch_file file(bytes);
  ym::rstream_file in;
  EXPECT_TRUE(in.open(file.path().c_str()));
  return scan(in, commentchar);
}

calls scan_pipe(std::string_view bytes) {
  const scratch dir;
  const std::string path = dir.path("pipe");
  if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error(path);
  const int writer = ::open(path.c_str(), O_RDWR);
  ym::rstream_file in;
  EXPECT_TRUE(in.open(path.c_str()));
  EXPECT_EQ(::write(writer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  ::close(writer);
  return scan(in, 0);
}

}  // namespace

// ---------------------------------------------------------------- comment characters

TEST(config_input, a_comment_character_begins_a_comment_even_if_it_has_another_meaning) {
  const struct {
    const char* label;
    int commentchar;
    const char* bytes;
    calls expected;
  } rows[] = {
      {"equals sign: no line has a value", '=', "[s]\na=1\nb;c#d\n", {{"s", "", ""}}},
      {"equals sign ends no section", '=', "[s=t]\n", {{"s=t", "", ""}}},
      {"opening bracket: no section", '[', "[s]\na=1\nb=2[3]\n", {{"", "a", "1"}, {"", "b", "2"}}},
      {"opening bracket empties the key", '[', "a[s]\nb=1\n", {{"", "b", "1"}}},
      {"space before the key", ' ', " a=1\nb=2\n", {{"", "b", "2"}}},
      {"space in the key", ' ', "a b=1\nc=2\n", {{"", "c", "2"}}},
      {"space ends a value", ' ', "a=1 2\n", {{"", "a", "1"}}},
      {"space before a value ends it", ' ', "a= 1\nb=\t2\n", {{"", "a", ""}, {"", "b", "2"}}},
      {"tab ends a value", '\t', "a= 1\t2\nb\tc=3\n", {{"", "a", "1"}}},
      {"line feed after a value", '\n', "a=1\nb=2\n", {{"", "a", "1"}, {"", "b", "2"}}},
      {"line feed without a value skips the next line", '\n', "a\nb=1\nc=2\n", {{"", "c", "2"}}},
      {"line feed after a section skips the next line", '\n', "[s]\na=1\nb=2\n", {{"s", "", ""}, {"s", "b", "2"}}},
      {"carriage return without a value skips up to the next line end", '\r', "a\rb=1\rc=2\n", {{"", "c", "2"}}},
      {"carriage return ends a value, its line continues", '\r', "a=1\rb=2\nc=3\n", {{"", "a", "1"}, {"", "c", "3"}}},
      {"byte above 127", 0xA7, "a=1\xA7x\n\xA7y=2\nb=3;4\n", {{"", "a", "1"}, {"", "b", "3;4"}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(scan_file(row.bytes, row.commentchar), row.expected);
  }
}

TEST(config_input, a_comment_character_outside_0_to_255_begins_no_comment) {
  const calls expected = {{"s", "", ""}, {"s", ";a", "1#2;3"}, {"s", "#\xFF", "4\xFF"}};
  for (const int commentchar : {256, 256 + ';', 256 + '#', 0x10000 + ';', -1, ';' - 256, '#' - 256, -2147483647 - 1}) {
    SCOPED_TRACE(commentchar);
    EXPECT_EQ(scan_file("[s]\n;a=1#2;3\n#\xFF=4\xFF\n", commentchar), expected);
  }
}

// ---------------------------------------------------------------- pipes

// A pipe is not seekable, so the three bytes that are compared with the mark are lost.
TEST(config_input, a_pipe_without_a_byte_order_mark_loses_its_first_three_bytes) {
  EXPECT_EQ(scan_pipe("hostname=h1\nport=80\n"), (calls{{"", "tname", "h1"}, {"", "port", "80"}}));
  EXPECT_EQ(scan_pipe("a=1\nb=2\n"), (calls{{"", "b", "2"}}));
}

TEST(config_input, a_pipe_with_a_byte_order_mark_is_read_completely) {
  EXPECT_EQ(scan_pipe("\xEF\xBB\xBFhostname=h1\n"), (calls{{"", "hostname", "h1"}}));
}
