// Replaces pthread_create and pthread_mutex_lock by functions that can refuse, and pthread_join by one that counts.
#pragma once

#include <functional>

#include "tests/support/nth.h"

namespace fake_threads {

/// Threads created. A refused one returns EAGAIN.
extern nth threads;

/// Called by pthread_create before the thread exists, and on each new thread before its body. Set while no thread
/// starts.
extern std::function<void()> before_create, before_body;

/// Threads created and not joined yet.
int unjoined();

/// Mutexes that the calling thread locks inside the plug-in, counted while one is to be refused with EAGAIN.
nth& locks();

}  // namespace fake_threads
