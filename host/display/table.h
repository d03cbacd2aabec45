// Instances as lines of a table.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One instance as it stands.
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

/// The text as the locale's terminal can show it, cut to `width` columns; where something is cut off, '>' is the last.
std::string fitted(std::string_view text, size_t width);

/// The heading and a line for each row, columns one below the other, none wider than `width`. Value and host name come
/// last: they are what gets long.
std::vector<std::string> table(const std::vector<row>& rows, size_t width = unlimited);
