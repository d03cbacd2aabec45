#include "bench/versus.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <utility>

namespace {

using clock_type = std::chrono::steady_clock;

constexpr double most_seconds = 0.002;  // that a round counts for: long ones are to be several, too

bool g_registered = false;

struct spread {
  double low, middle, high;  // quartiles
};

spread quartiles(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const auto at = [&](size_t quarter) { return v.empty() ? 0 : v[(v.size() - 1) * quarter / 4]; };
  return {at(1), at(2), at(3)};
}

struct figures {
  std::vector<double> ours, theirs, ratios;

  void add(double a, double b) {
    ours.push_back(a);
    theirs.push_back(b);
    ratios.push_back(a / b);
  }
};

void print(const std::string& path, const std::string& rival, const char* unit, const spread& ratio, double ours,
           double theirs, size_t rounds) {
  std::printf("%s\t%s\t%.4g\t%.4g\t%.4g\t%.5g\t%.5g\t%s\t%zu\n", path.c_str(), rival.c_str(), ratio.middle, ratio.low,
              ratio.high, ours, theirs, unit, rounds);
  std::fflush(stdout);
}

// ---------------------------------------------------------------- rounds

uint64_t run(const work& w, double& nanoseconds) {
  const auto start = clock_type::now();
  const uint64_t sum = w();
  nanoseconds = std::chrono::duration<double, std::nano>(clock_type::now() - start).count();
  return sum;
}

// Who goes second finds the caches as the other left them, so they take turns.
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
  const spread ratio = quartiles(f.ratios);
  state.counters["low"] = ratio.low;
  state.counters["ratio"] = ratio.middle;
  state.counters["high"] = ratio.high;
  state.counters["ours"] = quartiles(f.ours).middle / operations;
  state.counters["theirs"] = quartiles(f.theirs).middle / operations;
}

// ---------------------------------------------------------------- rows

class row_reporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) report(r);
  }
  bool failed() const { return _failed; }

 private:
  bool _failed = false;

  void report(const Run& r) {
    const std::string& name = r.run_name.function_name;
    if (r.error_occurred) {
      std::fprintf(stderr, "%s: %s\n", name.c_str(), r.error_message.c_str());
      _failed = true;
      return;
    }
    const auto value = [&](const char* counter) { return r.counters.at(counter).value; };
    const size_t tab = name.find('\t');
    print(name.substr(0, tab), name.substr(tab + 1), "ns", {value("low"), value("ratio"), value("high")}, value("ours"),
          value("theirs"), static_cast<size_t>(r.iterations));
  }
};

}  // namespace

void versus(const std::string& path, const std::string& rival, int operations, const work& ours, const work& theirs) {
  const std::string name = path + '\t' + rival;
  const auto body = [=](benchmark::State& state) { measure(state, operations, ours, theirs); };
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the library keeps it
  benchmark::RegisterBenchmark(name.c_str(), body)->UseManualTime();
  g_registered = true;
}

void print_row(const std::string& path, const std::string& rival, const char* unit, const std::vector<double>& ours,
               const std::vector<double>& theirs) {
  figures f;
  for (size_t i = 0; i < ours.size(); ++i) f.add(ours[i], theirs[i]);
  print(path, rival, unit, quartiles(f.ratios), quartiles(f.ours).middle, quartiles(f.theirs).middle, ours.size());
}

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  try {
    enter();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 1;
  }
  row_reporter reporter;
  if (g_registered) benchmark::RunSpecifiedBenchmarks(&reporter);
  return reporter.failed() ? 1 : 0;
}
