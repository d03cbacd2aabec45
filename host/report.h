// The one place that writes "dachost: ...".
#pragma once

#include <string>

#include "host/loop/output.h"

/// The printable line that reports an error.
std::string report_line(const std::string& what);
inline void report(output& err, const std::string& what) { err.line(report_line(what)); }
