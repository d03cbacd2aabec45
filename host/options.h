// The command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/pick.h"

enum class command { run, top, check, tags, info };

/// The record keeper: the program that is started for every value, if there is one.
struct exec_options {
  std::string program;  // empty: none
  std::chrono::nanoseconds timeout = std::chrono::seconds(30);
  pick addresses = pick::all;
  bool dry_run = false;
};

struct options {
  command what = command::run;
  std::string plugin;  // empty: to be found
  std::vector<std::string> files;
  bool json = false;
  bool once = false;
  std::optional<std::chrono::nanoseconds> time;  // how long to run
  exec_options exec;
};

/// What a command line gets that is not to be carried out: help, version, or what is wrong with it.
struct answer {
  int status;  // 0, or 2 for wrong usage
  std::string text;
};

std::variant<options, answer> parse(int argc, const char* const* argv);
