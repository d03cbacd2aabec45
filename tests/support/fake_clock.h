// Replaces time and nanosleep: the test sets the clock and decides when a worker's round continues.
#pragma once

#include <cstdint>
#include <ctime>

namespace fake_clock {

/// Sets the result of time().
void set(int64_t seconds);
void advance(int64_t seconds);
int64_t now();

/// Initially, a thread that sleeps stays asleep until step() or free_run().
/// step() wakes every sleeper once, `rounds` times over, and returns when all of them sleep again. Throws if one of
/// them does not within 20 seconds. Use free_run() for threads that are about to end.
void step(int rounds = 1);
/// Waits until `threads` threads sleep; throws after 20 seconds.
void await_sleepers(int threads);
/// Makes each sleep a real millisecond, so that workers can be stopped.
void free_run();
void stepping();

/// Sets whether each sleep ends as if a signal interrupted it.
void interrupt_sleeps(bool on);

/// Calls of time so far.
int readings();
/// Calls of nanosleep so far, and the latest request and remainder argument.
int sleeps();
timespec last_request();
const timespec* last_remainder();

}  // namespace fake_clock
