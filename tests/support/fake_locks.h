// Replaces pthread_spin_init, _destroy, _lock and _unlock by functions that record each call. Needs fake_pages.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace fake_locks {

struct event {
  char what;  // 'i' initialise (process-private), 's' initialise (shared), 'd' destroy, '+' lock, '-' unlock
  const void* lock;
  size_t live;  // mappings alive at the call
};

/// Records the calling thread's calls until stop(). One at a time.
class recording {
 public:
  /// `before`, if any, is called before each call takes effect.
  explicit recording(std::function<void(char what)> before = nullptr);
  ~recording() { stop(); }
  recording(const recording&) = delete;
  recording& operator=(const recording&) = delete;

  std::vector<event> stop();

  /// Records one call.
  void add(char what, const void* lock);

 private:
  std::function<void(char)> _before;
  std::vector<event> _events;
};

}  // namespace fake_locks
