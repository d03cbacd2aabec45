#include "host/report.h"

#include <utility>

#include "host/display/text.h"

std::string report_line(const std::string& what) { return printable("dachost: " + what); }

void report(output& err, const std::string& what, severity s) {
  const std::string level = err.is_journal() ? '<' + std::to_string(static_cast<int>(s)) + '>' : "";
  err.line(level + report_line(what));
}

void outage::begin(const std::string& what) {
  if (!std::exchange(_is_on, true)) report(_err, what, severity::warning);
}

void outage::end(const std::string& what) {
  if (std::exchange(_is_on, false)) report(_err, what, severity::info);
}
