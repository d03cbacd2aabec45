// Replaces the calls that write a file (open, write, fchmod, fsync, close, rename): each can fail, and a write can
// accept a part of its bytes.
#pragma once

#include <cerrno>
#include <deque>
#include <string>
#include <vector>

#include "tests/support/nth.h"

namespace fake_disk {

/// Records the calls, and decides which fail, from its construction to its end. One at a time.
struct recording {
  recording();
  ~recording();
  recording(const recording&) = delete;
  recording& operator=(const recording&) = delete;

  nth calls;
  int error = EIO;                // of the call that fails
  std::deque<size_t> most_bytes;  // that the next writes accept; 0: interrupted by a signal
  std::vector<std::string> made;  // calls, each with the name of its file
  int inheritable = 0;            // files that were opened without O_CLOEXEC
};

}  // namespace fake_disk
