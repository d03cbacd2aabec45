// One call of the host's log callback, to be compared and printed.
#pragma once

#include <ostream>
#include <string>

struct log_message {
  std::string name;
  int hostlevel;
  std::string text;
  int flag;
  bool operator==(const log_message&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const log_message& m) {
  return out << m.name << " " << m.hostlevel << " " << m.flag << " " << m.text;
}
