// The pools' size classes, stated without reading them from the allocator.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace size_classes {

struct row {
  size_t size;
  size_t blocks;  // in every chunk except the first
  size_t first;   // in the first chunk
};
inline constexpr row all[] = {
    {16, 65536, 2048}, {32, 32768, 1024}, {64, 16384, 512}, {96, 10922, 341}, {128, 8192, 256}, {256, 4096, 128},
    {384, 2730, 85},   {512, 2048, 64},   {640, 1638, 51},  {800, 1310, 40},  {1024, 1024, 32}, {1424, 736, 23},
    {2048, 1024, 16},  {3072, 682, 16},   {5120, 409, 16},  {8192, 256, 16},  {12288, 170, 16}, {16384, 128, 16},
    {20480, 102, 16},  {24576, 85, 16},   {32768, 64, 16},  {49152, 42, 16},  {65536, 32, 16},  {131072, 32, 16},
    {262144, 16, 16},  {409600, 10, 10},  {655360, 6, 6},   {1048576, 2, 2},  {2097152, 2, 2},  {4194304, 2, 2}};
inline constexpr size_t count = std::size(all);
static_assert(count == 30);

/// `n` rounded up to whole pages of `page` bytes.
constexpr size_t whole_pages(size_t n, size_t page) { return n % page == 0 ? n : n - n % page + page; }

/// `n` rounded up to this machine's pages.
inline size_t whole_pages(size_t n) { return whole_pages(n, static_cast<size_t>(sysconf(_SC_PAGESIZE))); }

/// The index of the class that serves `n` bytes; `count` when the block gets its own mapping.
inline size_t index_of(size_t n) {
  const auto* c = std::find_if(all, all + count, [n](const row& r) { return n <= r.size; });
  return static_cast<size_t>(c - all);
}

/// The granted size of a request for `n` bytes.
inline size_t granted(size_t n) {
  const size_t i = index_of(n);
  return i < count ? all[i].size : whole_pages(n + 16) - 16;
}

}  // namespace size_classes
