// The command line.
#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "host/hook/hook_runner.h"

enum class command { run, top, check, tags, info };

struct options {
  command what = command::run;
  std::string plugin;  // empty: find_plugin()
  std::vector<std::string> files;
  bool json = false;
  std::set<std::string> events;  // to print; empty: the default of the format
  bool once = false;
  std::string status;                            // file that shows the state; empty: none
  std::optional<std::chrono::nanoseconds> time;  // how long to run
  hook_options hook;
};

constexpr int wrong_usage = 2;  // exit status

/// The reply when there is nothing to run: help, version or a usage error.
struct answer {
  int status;        // 0 or wrong_usage
  std::string text;  // to print, or the error to report
};

std::variant<options, answer> parse(int argc, const char* const* argv);
