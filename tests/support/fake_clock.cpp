#include "tests/support/fake_clock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include "tests/support/immortal.h"

namespace {

constexpr auto patience = std::chrono::seconds(20);

struct state {
  std::mutex mtx;
  std::condition_variable changed;
  int64_t now = 1'700'000'000;
  bool free = false;
  bool interrupts = false;
  int readings = 0;
  int64_t ticks = 0;    // wakings so far
  int64_t entered = 0;  // calls of nanosleep so far
  int asleep = 0;
  timespec request{};
  const timespec* remainder = nullptr;
};

state& s() { return immortal<state>(); }

void await(std::unique_lock<std::mutex>& hold, auto condition, const char* what) {
  if (!s().changed.wait_for(hold, patience, condition)) throw std::runtime_error(what);
}

void rest_a_millisecond(std::unique_lock<std::mutex>& hold) {
  hold.unlock();
  const timespec millisecond = {0, 1'000'000};
  syscall(SYS_nanosleep, &millisecond, nullptr);
}

}  // namespace

extern "C" time_t time(time_t* out) noexcept {
  const std::lock_guard hold(s().mtx);
  ++s().readings;
  if (out) *out = s().now;
  return s().now;
}

extern "C" int nanosleep(const timespec* request, timespec* remainder) {
  std::unique_lock hold(s().mtx);
  s().request = *request;
  s().remainder = remainder;
  ++s().entered;
  ++s().asleep;
  s().changed.notify_all();
  const int64_t tick = s().ticks;
  s().changed.wait(hold, [&] { return s().free || s().ticks != tick; });
  --s().asleep;
  const bool interrupted = s().interrupts;
  if (interrupted && remainder) *remainder = *request;
  if (s().free) rest_a_millisecond(hold);
  if (interrupted) errno = EINTR;
  return interrupted ? -1 : 0;
}

namespace fake_clock {

void set(int64_t seconds) {
  const std::lock_guard hold(s().mtx);
  s().now = seconds;
}
void advance(int64_t seconds) {
  const std::lock_guard hold(s().mtx);
  s().now += seconds;
}
int64_t now() {
  const std::lock_guard hold(s().mtx);
  return s().now;
}

void step(int rounds) {
  std::unique_lock hold(s().mtx);
  for (; rounds > 0; --rounds) {
    const int64_t again = s().entered + s().asleep;
    ++s().ticks;
    s().changed.notify_all();
    await(
        hold, [&] { return s().entered >= again; }, "a worker did not come back to sleep");
  }
}
void await_sleepers(int threads) {
  std::unique_lock hold(s().mtx);
  await(
      hold, [&] { return s().asleep == threads; }, "not that many workers asleep");
}
void free_run() {
  const std::lock_guard hold(s().mtx);
  s().free = true;
  s().changed.notify_all();
}
void stepping() {
  const std::lock_guard hold(s().mtx);
  s().free = false;
}

void interrupt_sleeps(bool on) {
  const std::lock_guard hold(s().mtx);
  s().interrupts = on;
}
int readings() {
  const std::lock_guard hold(s().mtx);
  return s().readings;
}
int sleeps() {
  const std::lock_guard hold(s().mtx);
  return static_cast<int>(s().entered);
}
timespec last_request() {
  const std::lock_guard hold(s().mtx);
  return s().request;
}
const timespec* last_remainder() {
  const std::lock_guard hold(s().mtx);
  return s().remainder;
}

}  // namespace fake_clock
