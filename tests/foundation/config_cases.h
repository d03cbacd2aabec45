// The configuration scanner's cases: inputs and the expected calls.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct config_call {
  std::string section, key, value;
};

struct config_case {
  std::string name;
  std::optional<std::string> input;
  std::vector<config_call> calls;
  int commentchar = 0;
};

/// The input is the file NAME.conf in tests/foundation/config. Used for bytes that a literal does not show: byte order
/// marks, carriage returns, zero bytes and other bytes that do not print.
inline constexpr std::nullopt_t from_file = std::nullopt;

inline const std::vector<config_case>& config_cases() {
  using namespace std::literals;
  const std::string mark = "\xEF\xBB\xBF";
  static const std::vector<config_case> all = {
      {"both_begin_comments",
       "key=val#x\n"
       "key=val;x\n"
       "#a=1\n"
       ";b=2\n",
       {{"", "key", "val"}, {"", "key", "val"}}},
      {"both_ordinary_with_another", "! c\n#a=;b !d\n;e=#f!g=h\n", {{"", "#a", ";b"}, {"", ";e", "#f"}}, '!'},
      {"comment_after_section",
       "[a] ; c\n"
       "b=1\n"
       "[c]# d\n"
       "e=2\n",
       {{"a", "", ""}, {"a", "b", "1"}, {"c", "", ""}, {"c", "e", "2"}}},
      {"comment_at_end_of_input", "a=1\n#abc", {{"", "a", "1"}}},
      {"comment_before_equals_hides_it", "key#=val\nb=2\n", {{"", "b", "2"}}},
      {"comment_empties_key", "abc#x\nport=1\n", {{"", "port", "1"}}},
      {"comment_empty", "#\n;\na=1\n", {{"", "a", "1"}}},
      {"comment_ends_at_carriage_return", from_file, {{"", "a", "1"}}},
      {"comment_ends_at_first_line_end_only", "#x\\\na=1\n", {{"", "a", "1"}}},
      {"comment_ends_at_line_feed", "; c\na=1\n", {{"", "a", "1"}}},
      {"comment_holds_syntax", "#[s] k=v ;#\n; [t] #x=y\na=1\n", {{"", "a", "1"}}},
      {"comment_indented", " \t # c\n\t;d\na=1\n", {{"", "a", "1"}}},
      {"comment_with_semicolon_empties_key", "abc;x\nport=1\n", {{"", "port", "1"}}},
      {"comment_with_zero_and_high_bytes", from_file, {{"", "a", "1"}}},
      {"empty", "", {}},
      {"example",
       "# driver settings\n"
       "hostname = my-host   ; the name\n"
       "[main]\n"
       "  Port=  80 \n"
       "path = \"/a b\"\n"
       "empty=\n",
       {{"", "hostname", "my-host"},
        {"main", "", ""},
        {"main", "Port", "80"},
        {"main", "path", "\"/a b\""},
        {"main", "empty", ""}}},
      {"example_crlf",
       from_file,
       {{"", "hostname", "my-host"},
        {"main", "", ""},
        {"main", "Port", "80"},
        {"main", "path", "\"/a b\""},
        {"main", "empty", ""}}},
      {"example_without_last_line_feed",
       "# driver settings\n"
       "hostname = my-host   ; the name\n"
       "[main]\n"
       "  Port=  80 \n"
       "path = \"/a b\"\n"
       "empty=",
       {{"", "hostname", "my-host"},
        {"main", "", ""},
        {"main", "Port", "80"},
        {"main", "path", "\"/a b\""},
        {"main", "empty", ""}}},
      {"hash_is_ordinary_everywhere",
       "#\n"
       "[#s]#t\n"
       "#u=#v ;w\n"
       ";#x=1\n"
       "y=2\n",
       {{"#s", "", ""}, {"#s", "#t#u", "#v"}, {"#s", "y", "2"}},
       ';'},
      {"hash_is_ordinary_in_key", "#key=val\n", {{"", "#key", "val"}}, ';'},
      {"hash_is_ordinary_in_value", "key=val#x\n", {{"", "key", "val#x"}}, ';'},
      {"hash_starts_no_comment_after_key", "abc#x\nport=1\n", {{"", "abc#xport", "1"}}, ';'},
      {"key_of_spaces", " \t=x\n", {{"", "", "x"}}},
      {"key_emptied_by_pair", "a=1\nb=2\n", {{"", "a", "1"}, {"", "b", "2"}}},
      {"key_emptied_by_section", "abc[s]d=1\n", {{"s", "", ""}, {"s", "d", "1"}}},
      {"key_empty", "=x\n", {{"", "", "x"}}},
      {"key_empty_after_pair", "a=1\n=2\n", {{"", "a", "1"}, {"", "", "2"}}},
      {"key_is_case_sensitive", "HostName=MyHost\n", {{"", "HostName", "MyHost"}}},
      {"key_long", std::string(9000, 'k') + "=1\n", {{"", std::string(9000, 'k'), "1"}}},
      {"key_loses_spaces_everywhere", " \t m\ty  k e y \t =1\n", {{"", "mykey", "1"}}},
      {"key_repeated", "a=1\na=2\na=\n", {{"", "a", "1"}, {"", "a", "2"}, {"", "a", ""}}},
      {"key_runs_over_carriage_return", from_file, {{"", "abcport", "1"}}},
      {"key_runs_over_line_feed", "abc\nport=1\n", {{"", "abcport", "1"}}},
      {"key_runs_over_many_lines", from_file, {{"", "abcd", "1"}, {"", "e", "2"}}},
      {"key_with_0xff", from_file, {{"", "\377a\377", "1"}}},
      {"key_with_closing_bracket", "a]b=1\n", {{"", "a]b", "1"}}},
      {"key_with_other_control_bytes", from_file, {{"", "\001\007\010\013\014a\033\177", "1"}}},
      {"key_with_quotes", "\"a'=1\n", {{"", "\"a'", "1"}}},
      {"key_with_zero_bytes", from_file, {{"", "\000a\000"s, "1"}}},
      {"key_loses_inner_space", "my key=1\n", {{"", "mykey", "1"}}},
      {"key_without_equals_at_end_of_input", "a=1\nabc", {{"", "a", "1"}}},
      {"lines_of_spaces", from_file, {{"", "a", "1"}}},
      {"mark_alone", from_file, {}},
      {"mark_before_comment", from_file, {{"", "a", "1"}}},
      {"mark_before_key", from_file, {{"", "a", "1"}}},
      {"mark_before_section", from_file, {{"s", "", ""}, {"s", "a", "1"}}},
      {"mark_cut_to_one_byte", from_file, {}},
      {"mark_cut_to_two_bytes", from_file, {}},
      {"mark_of_one_byte_joins_key", from_file, {{"", "\357a", "1"}}},
      {"mark_of_two_bytes_joins_key", from_file, {{"", "\357\273a", "1"}}},
      {"mark_of_utf16_joins_key", from_file, {{"", "\377\376a", "1"}}},
      {"mark_on_second_line_joins_key", from_file, {{"", "a", "1"}, {"", mark + "b", "2"}}},
      {"mark_twice_joins_key", from_file, {{"", mark + "a", "1"}}},
      {"mark_with_wrong_first_byte_joins_key", from_file, {{"", "\356\273\277a", "1"}}},
      {"mark_with_wrong_second_byte_joins_key", from_file, {{"", "\357\272\277a", "1"}}},
      {"mark_with_wrong_third_byte_joins_key", from_file, {{"", "\357\273\276a", "1"}}},
      {"one_byte", "a", {}},
      {"one_byte_equals", "=", {{"", "", ""}}},
      {"one_line_feed", "\n", {}},
      {"section", "[net]\nk=1\n", {{"net", "", ""}, {"net", "k", "1"}}},
      {"section_and_pair_on_one_line", "[a] b = 1\n", {{"a", "", ""}, {"a", "b", "1"}}},
      {"section_and_text_after", "[a]b\nc=1\n", {{"a", "", ""}, {"a", "bc", "1"}}},
      {"section_brackets_unbalanced", "[a]]b=1\n", {{"a", "", ""}, {"a", "]b", "1"}}},
      {"section_clears_value", "a=5\n[s]\n", {{"", "a", "5"}, {"s", "", ""}}},
      {"section_empty", "[s]\n[]\nk=1\n", {{"s", "", ""}, {"", "", ""}, {"", "k", "1"}}},
      {"section_ended_by_carriage_return", from_file, {{"net", "", ""}, {"net", "k", "1"}}},
      {"section_ended_by_crlf", from_file, {{"net", "", ""}, {"net", "k", "1"}}},
      {"section_ended_by_line_feed", "[net\nk=1\n", {{"net", "", ""}, {"net", "k", "1"}}},
      {"section_contains_spaces", "[ net\t]\n", {{" net\t", "", ""}}},
      {"section_contains_every_other_byte",
       "[a=b;c#d[e\"f g]\nk=1\n",
       {{"a=b;c#d[e\"f g", "", ""}, {"a=b;c#d[e\"f g", "k", "1"}}},
      {"section_long", "[" + std::string(9000, 's') + "]\n", {{std::string(9000, 's'), "", ""}}},
      {"section_not_in_value", "a=[s]\n", {{"", "a", "[s]"}}},
      {"section_of_zero_and_high_bytes", from_file, {{"\000a\377\000"s, "", ""}, {"\000a\377\000"s, "k", "1"}}},
      {"section_replaced",
       "[first]\n"
       "a=1\n"
       "[b]\n"
       "a=1\n",
       {{"first", "", ""}, {"first", "a", "1"}, {"b", "", ""}, {"b", "a", "1"}}},
      {"section_unterminated", "a=1\n[sect", {{"", "a", "1"}}},
      {"section_unterminated_after_another", "[a]\nb=1\n[sect", {{"a", "", ""}, {"a", "b", "1"}}},
      {"section_unterminated_alone", "[", {}},
      {"sections_on_one_line", "[a][b]c=1\n", {{"a", "", ""}, {"b", "", ""}, {"b", "c", "1"}}},
      {"semicolon_is_ordinary_everywhere",
       ";\n"
       "[;s];t\n"
       ";u=;v #w\n"
       "#;x=1\n"
       "y=2\n",
       {{";s", "", ""}, {";s", ";t;u", ";v"}, {";s", "y", "2"}},
       '#'},
      {"semicolon_is_ordinary_in_key", ";key=val\n", {{"", ";key", "val"}}, '#'},
      {"semicolon_is_ordinary_in_value", "key=val;x#y\nb=;\n", {{"", "key", "val;x"}, {"", "b", ";"}}, '#'},
      {"three_bytes", "a=1", {{"", "a", "1"}}},
      {"two_bytes", "a=", {{"", "a", ""}}},
      {"value_at_end_of_input", "a= x y \t", {{"", "a", "x y"}}},
      {"value_bare_carriage_return_skips_to_line_feed", from_file, {{"", "a", "1"}, {"", "d", "4"}}},
      {"value_bare_carriage_returns_only", from_file, {{"", "a", "1"}}},
      {"value_of_spaces", "a= \t \nb=2\n", {{"", "a", ""}, {"", "b", "2"}}},
      {"value_comment_runs_over_carriage_return", from_file, {{"", "a", "1"}, {"", "c", "3"}}},
      {"value_crlf", from_file, {{"", "a", "1"}, {"", "b", "2"}}},
      {"value_emptied_by_comment", "a=;1\nb= #2\nc=3\n", {{"", "a", ""}, {"", "b", ""}, {"", "c", "3"}}},
      {"value_empty", from_file, {{"", "a", ""}, {"", "b", ""}, {"", "c", ""}}},
      {"value_ended_by_comment", "a=1 ; c\nb=2 # d\n", {{"", "a", "1"}, {"", "b", "2"}}},
      {"value_ended_by_comment_at_end_of_input", "a=1;", {{"", "a", "1"}}},
      {"value_ended_by_comment_in_word", "key=val#x\nkey=val;x\n", {{"", "key", "val"}, {"", "key", "val"}}},
      {"value_ended_by_two_carriage_returns", from_file, {{"", "a", "1"}, {"", "b", "2"}}},
      {"value_follows_value", "a=long value\nb=1\nc=\n", {{"", "a", "long value"}, {"", "b", "1"}, {"", "c", ""}}},
      {"value_contains_inner_spaces", "a = x y \nb=x\t \ty\n", {{"", "a", "x y"}, {"", "b", "x\t \ty"}}},
      {"section_applies_to_each_value", "[s]\na=1\nb=2\n", {{"s", "", ""}, {"s", "a", "1"}, {"s", "b", "2"}}},
      {"value_long", "a=" + std::string(70000, 'v') + "\nb=1\n", {{"", "a", std::string(70000, 'v')}, {"", "b", "1"}}},
      {"value_other_control_bytes", from_file, {{"", "a", "\013\014x\033\013\014"}, {"", "b", "\001"}}},
      {"value_plain", "a=1\n", {{"", "a", "1"}}},
      {"value_rest_of_line_is_skipped", "a=1 ; [s] b=2\nc=3\n", {{"", "a", "1"}, {"", "c", "3"}}},
      {"value_spaced", "a = 1\n", {{"", "a", "1"}}},
      {"value_tabbed", "\ta\t=\t1\t\n", {{"", "a", "1"}}},
      {"value_utf8", from_file, {{"", "a", "\303\274\342\202\254"}}},
      {"value_with_0xff", from_file, {{"", "a", "\377\377 b\377"}}},
      {"value_with_backslashes", "a=\\n\\\nb=2\n", {{"", "a", "\\n\\"}, {"", "b", "2"}}},
      {"value_with_equals", "a==1=2\n", {{"", "a", "=1=2"}}},
      {"value_with_quotes", "a=\"x y\"\nb='\nc=\" \"\n", {{"", "a", "\"x y\""}, {"", "b", "'"}, {"", "c", "\" \""}}},
      {"value_zero_bytes_at_end", from_file, {{"", "a", "x"}, {"", "b", "x"}, {"", "c", ""}, {"", "d", ""}}},
      {"value_zero_bytes_inside", from_file, {{"", "a", "\000x"s}, {"", "b", "x\000y"s}, {"", "c", "\000 x"s}}},
  };
  return all;
}
