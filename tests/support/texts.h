// Texts in pieces.
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

/// Empty when there is no such file.
inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
