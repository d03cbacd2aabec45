// Compares two contestants in one run with Google Benchmark.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// One contestant's round. Both contestants must return the same checksum in every round.
using work = std::function<uint64_t()>;

/// Registers a benchmark. In each round `ours` and `theirs` run once and take turns at going first; the round's result
/// is the ratio of their times. Its counters are the quartiles of the ratios (low, ratio, high) and the median times of
/// one operation in nanoseconds (ours, theirs). A round has `operations`.
void versus(const std::string& path, const std::string& rival, int operations, const work& ours, const work& theirs);

/// Registers a benchmark that reports results measured before: one pair of figures per round, in `unit`.
void add_row(const std::string& path, const std::string& rival, const char* unit, const std::vector<double>& ours,
             const std::vector<double>& theirs);

/// Registers a program's benchmarks. Each program defines it; main calls it.
void enter();
