// Formats text for output.
#pragma once

#include <chrono>
#include <initializer_list>
#include <string>
#include <string_view>

/// The text with every control character written as \xNN, so that it is one line and cannot change a terminal.
std::string printable(std::string_view text);

/// An ASCII letter or digit, an underscore or a hyphen.
bool is_plain(unsigned char c);

/// A JSON document of one line with every control character escaped. Only its strings may contain some.
std::string printable_json(std::string_view document);

/// The fields in printable form, separated by tabs.
std::string tabbed(std::initializer_list<std::string_view> fields);

/// 2026-01-31T12:34:56.789Z
std::string time_stamp(std::chrono::system_clock::time_point t);

/// 00:02:20
std::string clock_text(std::chrono::nanoseconds n);

/// The text of a fixed-size field, terminated or not.
template <size_t SIZE>
std::string_view field(const char (&text)[SIZE]) {
  const std::string_view all(text, SIZE);
  return all.substr(0, all.find('\0'));
}
