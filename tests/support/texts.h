// Splitting and joining texts.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using texts = std::vector<std::string>;

inline texts split(const std::string& text, char separator) {
  texts parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

inline texts lines(const std::string& text) { return split(text, '\n'); }

/// The file's contents; empty if it does not exist. A file in /proc may disappear while it is read.
inline std::string read_file(const std::string& path) {
  std::ostringstream contents;
  contents << std::ifstream(path, std::ios::binary).rdbuf();
  return contents.str();
}
