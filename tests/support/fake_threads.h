// pthread_create and pthread_mutex_lock replaced by ones that can refuse.
#pragma once

namespace fake_threads {

/// From now on pthread_create yields `error` and no thread; 0 lets it work again.
void refuse_thread(int error);

/// Of the mutexes that this thread locks from now on, number `i` (1 is the next) is refused with EAGAIN; 0 refuses
/// none.
void refuse_lock(int i);

}  // namespace fake_threads
