// The programs that a hook starts.
#pragma once

#include <string>
#include <vector>

/// Returns the hook itself or, for a directory (whose path has a slash), the programs that run-parts(8) would run, in
/// the same order. Throws std::runtime_error for a directory that cannot be read or has no program.
std::vector<std::string> programs_of(const std::string& hook);

/// Throws std::invalid_argument if a program of the hook cannot be started: it is not an executable file, or a script
/// whose interpreter is not one. A directory without programs is an error, too.
void check_hook(const std::string& hook);

/// Whether a run of this hook can start the file. Throws as programs_of().
bool starts(const std::string& hook, const std::string& file);
