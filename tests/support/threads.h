// The same work in several threads.
#pragma once

#include <functional>
#include <thread>
#include <vector>

/// Runs `work` in `n` threads, each with its number from 0 on, and waits for all of them.
inline void in_threads(size_t n, const std::function<void(size_t)>& work) {
  std::vector<std::thread> threads(n);
  for (size_t i = 0; i < n; ++i) threads[i] = std::thread(work, i);
  for (std::thread& t : threads) t.join();
}
