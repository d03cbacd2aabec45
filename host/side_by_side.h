// Many waits at the same time.
#pragma once

#include <cstddef>
#include <functional>

/// Calls work(0) to work(n - 1), up to 512 of them at once, and returns when all have returned. Fewer at once when
/// the system has no more threads to give.
void side_by_side(size_t n, const std::function<void(size_t)>& work);
