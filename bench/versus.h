// Two contestants in one run, and the rows that come of it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// What one contestant does in a round. The checksum it returns must be the rival's too, in every round.
using work = std::function<uint64_t()>;

/// Registers a measurement of rounds: in each, `ours` and `theirs` run once, taking turns at going first, and the
/// round's figure is the ratio of their times. `operations` in a run only scale the times that are shown.
void versus(const std::string& path, const std::string& rival, int operations, const work& ours, const work& theirs);

/// Prints the row of a measurement that is made otherwise: a pair of figures a round, in `unit`.
void print_row(const std::string& path, const std::string& rival, const char* unit, const std::vector<double>& ours,
               const std::vector<double>& theirs);

/// Registers a program's measurements. Each program defines it; main calls it.
void enter();
