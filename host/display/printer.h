// How a run is printed: as tab-separated lines or as JSON.
#pragma once

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "host/event.h"
#include "host/interface.h"
#include "host/loop/output.h"

struct printed_line {
  struct field {
    const char* name;
    std::variant<int, std::string> value;
    bool is_in_text = true;
  };
  std::chrono::system_clock::time_point time;
  std::string instance;  // may be empty
  const char* event;
  std::vector<field> fields;
  std::vector<std::string> environment = {};  // NAME=VALUE
};

class printer : public interface {
 public:
  virtual void print(const printed_line& l) = 0;
  virtual void log(std::chrono::system_clock::time_point time, const std::string& instance, const message& m) = 0;
};

/// The text with U+FFFD in place of bytes that are not UTF-8.
std::string valid_utf8(const std::string& text);

/// A JSON document of the plug-in as a valid line without control characters.
std::string json_line(const std::string& document);

/// Time, instance, event and the fields, separated by tabs.
std::unique_ptr<printer> make_text_printer(output& out);
/// One object per line; log messages go to `err`, as text.
std::unique_ptr<printer> make_json_printer(output& out, output& err);
