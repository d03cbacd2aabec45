// What an instance told the host, copied in its callback for the main thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <variant>

#include "driver/dac.h"

using wall_clock = std::chrono::system_clock;

struct message {
  int level;  // one of DAC_LEVEL_*
  std::string text;
};

struct event {
  wall_clock::time_point time;               // of the callback: records carry no time
  size_t index;                              // of the instance's configuration file on the command line
  std::variant<dac_tagvalue, message> what;  // a value published, or a log message
};
