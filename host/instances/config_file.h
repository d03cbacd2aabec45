// What the host finds out about a configuration file without the plug-in.
#pragma once

#include <string>

/// "FILE: not a regular file", "FILE: larger than 1 MiB", or "" when the plug-in may open the file: reading it
/// then cannot wait for another process or be endless. Leaves a missing file to the plug-in.
std::string unreadable(const std::string& file);

/// "line N hides hostname: TEXT ..." for the first line whose text the scanner takes for the beginning of the key
/// hostname, or "".
std::string hidden_hostname(const std::string& file);
