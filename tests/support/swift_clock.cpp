// For LD_PRELOAD: time() runs a hundred times as fast, so that a worker polls in every round.
#include <chrono>
#include <ctime>

namespace {

using steady_clock = std::chrono::steady_clock;
using hundredths = std::chrono::duration<time_t, std::centi>;

const steady_clock::time_point start = steady_clock::now();

}  // namespace

extern "C" time_t time(time_t* out) noexcept {
  constexpr time_t then = 1'700'000'000;
  const time_t now = then + std::chrono::floor<hundredths>(steady_clock::now() - start).count();
  if (out) *out = now;
  return now;
}
