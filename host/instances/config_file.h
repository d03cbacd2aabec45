// Checks that the host makes on a configuration file without the plug-in.
#pragma once

#include <string>

/// "FILE: not a regular file", "FILE: larger than 1 MiB", or "" if the plug-in may open the file. Reading such a file
/// neither waits for another process nor continues without end. Returns "" for a missing file, which the plug-in
/// reports.
std::string unreadable(const std::string& file);

/// "line N hides hostname: TEXT ..." for the first line whose text the scanner reads as the beginning of the key
/// hostname, or "" if there is none.
std::string hidden_hostname(const std::string& file);

/// "line N: TEXT" for the last line that sets hostname or, without one, whose key is most like it; "" if none is.
std::string hostname_like_line(const std::string& file);

/// "line N is not used: TEXT" for the first line with a key or a value, in a file without hostname; "" if there is
/// none.
std::string first_unused_line(const std::string& file);
