#include "host/side_by_side.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr size_t most_threads = 512;

}  // namespace

void side_by_side(size_t n, const std::function<void(size_t)>& work) {
  std::atomic<size_t> next = 0;
  const auto take_turns = [&] {
    for (size_t i = next++; i < n; i = next++) work(i);
  };
  std::vector<std::jthread> helpers;
  try {
    while (helpers.size() + 1 < std::min(n, most_threads)) helpers.emplace_back(take_turns);
  } catch (const std::system_error&) {
    // The threads that are there, this one at least, do the rest.
  }
  take_turns();
}
