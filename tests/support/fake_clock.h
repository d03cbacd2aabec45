// time and nanosleep replaced: the test owns the clock and decides when a worker's round may go on.
#pragma once

#include <cstdint>
#include <ctime>

namespace fake_clock {

/// What time() tells from now on.
void set(int64_t seconds);
void advance(int64_t seconds);
int64_t now();

/// Stepping, the state at the start: a thread that sleeps stays asleep until step() or free_run().
/// step() wakes every sleeper once, `rounds` times over, and returns when all of them sleep again. Throws when one of
/// them does not within 20 seconds; wake threads that are about to end with free_run().
void step(int rounds = 1);
/// Waits until `threads` threads sleep; throws after 20 seconds.
void await_sleepers(int threads);
/// From now on sleeps take a real millisecond, so that workers can be stopped.
void free_run();
void stepping();

/// From now on whether each sleep ends as one that a signal interrupted.
void interrupt_sleeps(bool on);

/// Calls of time so far.
int readings();
/// Calls of nanosleep so far, and the latest request and remainder argument.
int sleeps();
timespec last_request();
const timespec* last_remainder();

}  // namespace fake_clock
