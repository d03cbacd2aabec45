// The syntax of configuration files, written only from its description: which calls a text makes, and how many bytes
// have been read by then. Tests compare the scanner with it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace config_model {

class scanner {
 public:
  scanner(std::string_view text, int commentchar) : _text(text), _commentchar(commentchar) {}

  /// Calls callback(section, key, value) until the end of the text or the first result other than 0.
  template <class CALLBACK>
  void scan(CALLBACK callback) {
    if (next() != 0xef || next() != 0xbb || next() != 0xbf) _at = 0;
    for (;;) {
      const int byte = next();
      if (byte == end) return;
      if (byte == ';' || byte == '#') {
        if (begins_comment(byte)) {
          skip_comment();
          _key.clear();
        } else {
          _key += static_cast<char>(byte);
        }
      } else if (byte == '=') {
        const int last = read_value();
        if (callback(_section, _key, _value) != 0) return;
        skip_line(last);
        _key.clear();
      } else if (byte == '[') {
        if (!read_section()) return;
        _key.clear();
        _value.clear();
        if (callback(_section, _key, _value) != 0) return;
      } else if (byte != ' ' && byte != '\t' && byte != '\n' && byte != '\r') {
        _key += static_cast<char>(byte);
      }
    }
  }

  /// Bytes read since the start of the text.
  size_t position() const { return _at; }

 private:
  static constexpr int end = -1;

  int next() { return _at < _text.size() ? static_cast<unsigned char>(_text[_at++]) : end; }

  bool begins_comment(int byte) const { return _commentchar == 0 ? byte == ';' || byte == '#' : byte == _commentchar; }

  void skip_comment() {
    for (int byte = next(); byte != end && byte != '\n' && byte != '\r';) byte = next();
  }

  /// False at the end of the text, which abandons the header.
  bool read_section() {
    _section.clear();
    for (;;) {
      const int byte = next();
      if (byte == end) return false;
      if (byte == ']' || byte == '\n' || byte == '\r') return true;
      _section += static_cast<char>(byte);
    }
  }

  /// Returns the byte that ended the value.
  int read_value() {
    _value.clear();
    int byte = next();
    for (; byte != end && byte != '\n' && byte != '\r' && !begins_comment(byte); byte = next())
      if (!_value.empty() || (byte != ' ' && byte != '\t')) _value += static_cast<char>(byte);
    while (!_value.empty() && (_value.back() == ' ' || _value.back() == '\t' || _value.back() == '\0'))
      _value.pop_back();
    return byte;
  }

  /// `last`: the byte that ended the value.
  void skip_line(int last) {
    while (last != end && last != '\n') last = next();
  }

  std::string_view _text;
  int _commentchar;
  size_t _at = 0;
  std::string _section, _key, _value;
};

}  // namespace config_model
