// The calls that a scan of a configuration text must make, defined line by line:
//
//   A line ends at a line feed. Carriage returns divide it into parts, except those after a value. A part is any number
//   of [section] with text between them, and then nothing, a comment, or "=" and a value. Other text, without its
//   spaces, is added to the key, whose "=" may be on a later line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

struct config_call {
  std::string section, key, value;
  bool operator==(const config_call&) const = default;
};

class config_model {
 public:
  std::vector<config_call> calls;
  size_t read;  // bytes of the text that have been read at the end of the scan

  /// `comments`: the characters that begin a comment. The call number `last` ends the scan.
  config_model(std::string_view text, std::string_view comments, size_t last)
      : read(text.size()), _text(text), _comments(comments), _marks("=[" + _comments), _last(last) {
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    while (!text.empty() && calls.size() < _last) line(cut(text, "\n"));
  }

 private:
  std::string_view _text;
  std::string _comments, _marks;
  size_t _last;
  std::string _section, _key;

  /// Removes from `text` everything up to and including the first of `ends`, and returns what was before that.
  static std::string_view cut(std::string_view& text, std::string_view ends) {
    const std::string_view before = text.substr(0, text.find_first_of(ends));
    text.remove_prefix(before.size() == text.size() ? text.size() : before.size() + 1);
    return before;
  }

  bool is_at_end(std::string_view part) const { return part.data() + part.size() == _text.data() + _text.size(); }

  void line(std::string_view text) {
    while (!is_value(cut(text, "\r")) && !text.empty()) {
    }
  }

  /// Whether the part has a value or ended the scan. Then the rest of its line is ignored.
  bool is_value(std::string_view part) {
    while (calls.size() < _last) {
      const std::string_view stray = part.substr(0, part.find_first_of(_marks));
      for (const char c : stray)
        if (c != ' ' && c != '\t') _key += c;
      if (stray.size() == part.size()) return false;
      const char mark = part[stray.size()];
      part.remove_prefix(stray.size() + 1);
      if (mark == '=') return add_value(part);
      if (mark != '[') _key.clear();
      if (mark != '[' || !add_section(part)) return false;
    }
    return true;
  }

  // False if the text ends within it.
  bool add_section(std::string_view& part) {
    if (part.find(']') == std::string_view::npos && is_at_end(part)) return false;
    const std::string_view name = cut(part, "]");
    _section = name;
    _key.clear();
    add("", name.data() + name.size());
    return true;
  }

  bool add_value(std::string_view part) {
    const std::string_view all = part.substr(0, part.find_first_of(_comments));
    std::string_view value = all;
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t' || value.back() == 0)) value.remove_suffix(1);
    add(value, all.data() + all.size());
    _key.clear();
    return true;
  }

  // `end`: the byte that ended section or value.
  void add(std::string_view value, const char* end) {
    calls.push_back({_section, _key, std::string(value)});
    if (calls.size() < _last) return;
    const auto at = static_cast<size_t>(end - _text.data());
    read = at < _text.size() ? at + 1 : at;
  }
};

}  // namespace fuzz
