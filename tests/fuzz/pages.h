// mmap and munmap replaced: mappings are counted and can be refused, within the calls that a target watches.
#pragma once

namespace pages {

/// While it lives, the mappings of this thread are counted, and yield null if it says so. One at a time.
class watch {
 public:
  explicit watch(bool refuse = false);
  ~watch();
  watch(const watch&) = delete;
  watch& operator=(const watch&) = delete;

  /// Mappings refused so far.
  static int refused();
};

/// Watched mappings that have not been unmapped since.
int live();
/// Forgets them.
void forget();

}  // namespace pages
