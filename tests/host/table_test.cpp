// Instances as lines of a table, in a UTF-8 locale.
#include "host/display/table.h"

#include <gtest/gtest.h>

#include <clocale>

#include "host/display/text.h"

using namespace std::chrono_literals;
using texts = std::vector<std::string>;

namespace {

class table_lines : public testing::Test {
 protected:
  table_lines() { EXPECT_TRUE(std::setlocale(LC_CTYPE, "C.UTF-8")); }
};

row gateway() { return {"gateway", 0, true, 12s, 3, 0, "gateway.example", "2001:db8::10,fd00::5"}; }
row pump() { return {"pump", 2048, false, std::nullopt, 0, 17, "p", ""}; }

}  // namespace

TEST_F(table_lines, are_aligned_under_their_headings) {
  EXPECT_EQ(table({gateway(), pump()}),
            (texts{"INSTANCE  HANDLE  RUNS  AGE  PUBS  ERRORS  HOST NAME        VALUE",
                   "gateway        0  yes   12s     3       0  gateway.example  2001:db8::10,fd00::5",
                   "pump        2048  no      -     0      17  p                -"}));
}

TEST_F(table_lines, without_rows_are_the_heading_alone) {
  EXPECT_EQ(table({}), texts{"INSTANCE  HANDLE  RUNS  AGE  PUBS  ERRORS  HOST NAME  VALUE"});
}

TEST_F(table_lines, are_cut_at_the_width_and_end_with_a_mark) {
  EXPECT_EQ(table({gateway()}, 75),
            (texts{"INSTANCE  HANDLE  RUNS  AGE  PUBS  ERRORS  HOST NAME        VALUE",
                   "gateway        0  yes   12s     3       0  gateway.example  2001:db8::10,f>"}));
  for (size_t width = 0; width <= 90; ++width)
    for (const std::string& line : table({gateway(), pump()}, width)) EXPECT_LE(line.size(), width) << line;
}

TEST_F(table_lines, limit_a_long_name_to_its_share_when_cut) {
  row r = gateway();
  r.instance = std::string(200, 'i');
  r.host = std::string(200, 'h');
  const std::string line = table({r}, 80).at(1);
  EXPECT_EQ(line, std::string(19, 'i') + ">       0  yes   12s     3       0  " + std::string(19, 'h') + ">  20>");
  EXPECT_EQ(table({r}).at(1).find("2001:db8::10,fd00::5"), 200U + 35U + 200U + 2U) << "not cut, it gets what it needs";
}

TEST_F(table_lines, count_columns_and_not_bytes) {
  row r = gateway();
  r.instance = "t\xc3\xbcr\xe6\x97\xa5";  // a wide character takes two columns
  EXPECT_TRUE(table({r}).at(1).starts_with("t\xc3\xbcr\xe6\x97\xa5          0  yes")) << table({r}).at(1);
}

TEST_F(table_lines, fitted_text_is_what_a_terminal_can_show) {
  const struct {
    const char* label;
    std::string text;
    size_t width;
    const char* expected;
  } rows[] = {
      {"what fits", "abc", 3, "abc"},
      {"one too many", "abcd", 3, "ab>"},
      {"one column", "ab", 1, ">"},
      {"no column", "ab", 0, ""},
      {"nothing", "", 0, ""},
      {"a wide character at the edge", "a\xe6\x97\xa5z", 3, "a>"},
      {"a wide character that fits", "a\xe6\x97\xa5", 3, "a\xe6\x97\xa5"},
      {"a control character", "a\x1b[m", 9, "a\\x1b[m"},
      {"bytes that are no text", "a\xff\xfe z", 5, "a?? z"},
      {"a character cut off by its field", "a\xe6\x97", 9, "a??"},
      {"a control character of Unicode",
       "a\xc2\x9b"
       "1m",
       12, "a\\xc2\\x9b1m"},
  };
  for (const auto& r : rows) EXPECT_EQ(fitted(r.text, r.width), r.expected) << r.label;
}

TEST_F(table_lines, control_characters_end_with_their_text) {
  const std::string_view text = "\xc2\x80";
  EXPECT_EQ(printable(text), "\\xc2\\x80");
  EXPECT_EQ(printable(text.substr(0, 1)), "\xc2");
}

TEST_F(table_lines, are_question_marks_where_the_locale_has_no_such_character) {
  ASSERT_TRUE(std::setlocale(LC_CTYPE, "C"));
  EXPECT_EQ(fitted("t\xc3\xbcr", 9), "t??r");
}
