// A second thread, asleep: the C library then takes its locks, as in every host of the plug-in.
#pragma once

#include <semaphore>
#include <thread>

class other_thread {
 public:
  ~other_thread() { _end.release(); }

 private:
  std::binary_semaphore _end{0};
  std::jthread _thread{[this] { _end.acquire(); }};
};
