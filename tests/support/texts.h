// Splitting and joining texts.
#pragma once

#include <fstream>
#include <iterator>
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

/// The file's contents; empty if it does not exist.
inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
