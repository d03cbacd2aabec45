// Reports errors. Only this code writes "dachost: ...".
#pragma once

#include <string>

#include "host/loop/output.h"

/// The journal's numbers.
enum class severity { error = 3, warning = 4, info = 6 };

/// The printable line that reports an error.
std::string report_line(const std::string& what);
/// Writes that line, with its level if `err` is the journal. Lines on standard error contain no time.
void report(output& err, const std::string& what, severity s = severity::error);

/// Reports the first of several failures in a row, and their end.
class outage {
 public:
  explicit outage(output& err) : _err(err) {}
  void begin(const std::string& what);
  void end(const std::string& what);

 private:
  output& _err;
  bool _is_on = false;
};
