// Formats instances as lines of a table.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The current state of one instance.
struct row {
  std::string instance;
  int handle = -1;
  bool runs = false;
  std::optional<std::chrono::seconds> age;  // of the last publication; none before the first
  size_t published = 0;
  size_t errors = 0;
  std::string host;
  std::string value;
};

constexpr size_t unlimited = SIZE_MAX;

/// The text as the locale's terminal can show it, cut to `width` columns; a text that was cut ends with '>'.
std::string fitted(std::string_view text, size_t width);

/// The heading and a line for each row with aligned columns, none wider than `width`. Value and host name come last
/// because they are the longest.
std::vector<std::string> table(const std::vector<row>& rows, size_t width = unlimited);
