// What instances report, copied in their callbacks for the event loop.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <variant>

/// A tag as dac_getalltagsex reports it.
struct tag {
  std::string name;
  int type;
  int flag;
  std::string text1;
  std::string text2;
};

/// A published record.
struct value {
  std::string tag;
  int type;
  std::string text;
};

struct message {
  int level;  // one of DAC_LEVEL_*
  std::string text;
};

using report_item = std::variant<value, message>;

struct event {
  std::chrono::system_clock::time_point time;  // of the callback: records carry no time
  size_t index;                                // of the instance's configuration file on the command line
  report_item what;
};
