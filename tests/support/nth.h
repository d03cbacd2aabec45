// Requests that the system can refuse, counted by the functions that replace the system's.
#pragma once

#include <atomic>

/// Counts occurrences and decides which one fails. [any thread]
class nth {
 public:
  /// Restarts the count; number `i` (1 is the next) fails, 0 none.
  void refuse(int i) {
    _seen = 0;
    _refused = i;
    _all_after = false;
  }
  /// Restarts the count; number `i` and all after it fail.
  void refuse_from(int i) {
    refuse(i);
    _all_after = true;
  }
  /// One more occurrence: whether it is the one.
  bool is_next() {
    const int n = ++_seen;
    return _all_after ? n >= _refused : n == _refused;
  }
  /// Occurrences since the latest refuse().
  int seen() const { return _seen; }
  bool is_armed() const { return _refused != 0; }

 private:
  std::atomic<int> _seen = 0, _refused = 0;
  std::atomic<bool> _all_after = false;
};

/// Makes occurrence 1, 2, ... fail, each in a separate call, until a call has no such occurrence. Returns how many
/// failed. `after` gets the number, and whether the call had that occurrence.
template <class CALL, class AFTER>
int fail_each(nth& occurrences, CALL call, AFTER after) {
  for (int i = 1;; ++i) {
    occurrences.refuse(i);
    call();
    const bool was_met = occurrences.seen() >= i;
    occurrences.refuse(0);
    after(i, was_met);
    if (!was_met) return i - 1;
  }
}
