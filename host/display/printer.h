// How a run is printed: as tab-separated lines or as JSON.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/event.h"
#include "host/loop/output.h"

class printer {
 public:
  printer() = default;
  virtual ~printer() = default;
  printer(const printer&) = delete;
  printer& operator=(const printer&) = delete;

  virtual void version(wall_clock::time_point time, const std::string& text, int number, const std::string& file) = 0;
  virtual void announce(wall_clock::time_point time, const std::string& instance, const tag& t) = 0;
  virtual void publish(wall_clock::time_point time, const std::string& instance, const value& v) = 0;
  /// A program that would be started, and what would be added to its environment.
  virtual void command(wall_clock::time_point time, const std::string& instance, const std::string& program,
                       const std::vector<std::string>& settings) = 0;
  virtual void log(wall_clock::time_point time, const std::string& instance, const message& m) = 0;
};

/// A JSON document of the plug-in as a valid line without control characters.
std::string json_line(const std::string& document);

/// TIME, instance, what it is, and the rest, separated by tabs.
std::unique_ptr<printer> make_text_printer(output& out);
/// One object per line; log messages go to `err`, as text.
std::unique_ptr<printer> make_json_printer(output& out, output& err);
