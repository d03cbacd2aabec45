#include "bench/versus.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <utility>

namespace {

using clock_type = std::chrono::steady_clock;

constexpr double most_seconds = 0.002;  // that a round counts for, so that long rounds are repeated too

struct figures {
  std::vector<double> ours, theirs, ratios;

  void add(double a, double b) {
    ours.push_back(a);
    theirs.push_back(b);
    ratios.push_back(a / b);
  }
};

double quartile(std::vector<double> v, size_t number) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[(v.size() - 1) * number / 4];
}

void set_counters(benchmark::State& state, const figures& f, int operations, const char* unit) {
  state.counters["ratio"] = quartile(f.ratios, 2);
  state.counters["low"] = quartile(f.ratios, 1);
  state.counters["high"] = quartile(f.ratios, 3);
  state.counters["ours"] = quartile(f.ours, 2) / operations;
  state.counters["theirs"] = quartile(f.theirs, 2) / operations;
  state.SetLabel(unit);
}

// report.py splits the name.
std::string name_of(const std::string& path, const std::string& rival) { return path + " vs " + rival; }

// ---------------------------------------------------------------- rounds

uint64_t run(const work& w, double& nanoseconds) {
  const auto start = clock_type::now();
  const uint64_t sum = w();
  nanoseconds = std::chrono::duration<double, std::nano>(clock_type::now() - start).count();
  return sum;
}

// The contestant that goes second gets the caches of the first, so they take turns.
bool play_round(const work& ours, const work& theirs, bool ours_first, figures& f) {
  double a, b;
  uint64_t sum_a, sum_b;
  if (ours_first) sum_a = run(ours, a);
  sum_b = run(theirs, b);
  if (!ours_first) sum_a = run(ours, a);
  f.add(a, b);
  return sum_a == sum_b;
}

void measure(benchmark::State& state, int operations, const work& ours, const work& theirs) {
  figures f;
  bool ours_first = false;
  while (state.KeepRunning()) {
    ours_first = !ours_first;
    if (!play_round(ours, theirs, ours_first, f)) return state.SkipWithError("the checksums differ");
    state.SetIterationTime(std::min((f.ours.back() + f.theirs.back()) * 1e-9, most_seconds));
  }
  set_counters(state, f, operations, "ns");
}

}  // namespace

void versus(const std::string& path, const std::string& rival, int operations, const work& ours, const work& theirs) {
  const auto body = [=](benchmark::State& state) { measure(state, operations, ours, theirs); };
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): owned by the library
  benchmark::RegisterBenchmark(name_of(path, rival).c_str(), body)->UseManualTime();
}

void add_row(const std::string& path, const std::string& rival, const char* unit, const std::vector<double>& ours,
             const std::vector<double>& theirs) {
  figures f;
  for (size_t i = 0; i < ours.size(); ++i) f.add(ours[i], theirs[i]);
  const auto body = [f, unit](benchmark::State& state) {
    for (auto _ : state) state.SetIterationTime(1);
    set_counters(state, f, 1, unit);
  };
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): owned by the library
  benchmark::RegisterBenchmark(name_of(path, rival).c_str(), body)->UseManualTime()->Iterations(1);
}

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  try {
    enter();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
