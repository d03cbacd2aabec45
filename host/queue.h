// Events on their way from the instances' threads to the main thread.
#pragma once

#include <sys/eventfd.h>

#include <mutex>
#include <utility>
#include <vector>

#include "host/descriptor.h"
#include "host/event.h"

class event_queue {
 public:
  /// [any thread]
  void push(event e) {
    const std::lock_guard hold(_mtx);
    _events.push_back(std::move(e));
    if (_events.size() == 1) eventfd_write(_wake.get(), 1);
  }

  /// All events so far, oldest first; the queue is empty then.
  std::vector<event> take() {
    const std::lock_guard hold(_mtx);
    eventfd_t count = 0;
    eventfd_read(_wake.get(), &count);
    return std::exchange(_events, {});
  }

  /// Readable while events wait.
  int fd() const { return _wake.get(); }

 private:
  std::mutex _mtx;
  std::vector<event> _events;
  descriptor _wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"};
};
