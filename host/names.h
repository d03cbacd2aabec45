// What the instances are called.
#pragma once

#include <string>
#include <vector>

/// For each file its stem; files that share a stem have their paths as names instead, and a name that is still taken
/// gets "#2", "#3" ... behind it.
std::vector<std::string> instance_names(const std::vector<std::string>& files);
