// What the host finds out about a configuration file without the plug-in.
#pragma once

#include <string>

/// "FILE: not a regular file", "FILE: larger than 1 MiB", or "" when the plug-in may open the file: then reading it can
/// neither wait for another process nor go on without end. A file that does not exist is left to the plug-in.
std::string unreadable(const std::string& file);

/// "line N hides hostname: TEXT ..." for the first line whose text the scanner takes for the beginning of the key
/// hostname, or "".
std::string hidden_hostname(const std::string& file);
