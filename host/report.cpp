#include "host/report.h"

#include "host/display/text.h"

std::string report_line(const std::string& what) { return printable("dachost: " + what); }
