// The pools' size classes as they stand in the documents, one row each.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace fuzz {

struct size_class {
  size_t size;
  size_t per_chunk;  // blocks, of every chunk but the first
  size_t first;      // blocks of the first chunk
};
inline constexpr size_class size_classes[] = {
    {16, 65536, 2048}, {32, 32768, 1024}, {64, 16384, 512}, {96, 10922, 341}, {128, 8192, 256}, {256, 4096, 128},
    {384, 2730, 85},   {512, 2048, 64},   {640, 1638, 51},  {800, 1310, 40},  {1024, 1024, 32}, {1424, 736, 23},
    {2048, 1024, 16},  {3072, 682, 16},   {5120, 409, 16},  {8192, 256, 16},  {12288, 170, 16}, {16384, 128, 16},
    {20480, 102, 16},  {24576, 85, 16},   {32768, 64, 16},  {49152, 42, 16},  {65536, 32, 16},  {131072, 32, 16},
    {262144, 16, 16},  {409600, 10, 10},  {655360, 6, 6},   {1048576, 2, 2},  {2097152, 2, 2},  {4194304, 2, 2}};
inline constexpr size_t classes = std::size(size_classes);
static_assert(classes == 30);

inline size_t whole_pages(size_t n) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return n % page == 0 ? n : n - n % page + page;
}

/// The number of the class that serves `n` bytes; `classes` when a mapping of its own does.
inline size_t class_of(size_t n) {
  const auto* c = std::find_if(size_classes, size_classes + classes, [n](const size_class& s) { return n <= s.size; });
  return static_cast<size_t>(c - size_classes);
}

/// What a request of `n` bytes is granted.
inline size_t granted(size_t n) {
  const size_t i = class_of(n);
  return i < classes ? size_classes[i].size : whole_pages(n + 16) - 16;
}

}  // namespace fuzz
