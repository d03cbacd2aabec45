// Prints the events of a run, as tab-separated lines or as JSON.
#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "host/event.h"
#include "host/interface.h"
#include "host/loop/output.h"

/// An address as the kernel lists it.
struct printed_address {
  std::string address;
  std::string interface_name;
  std::string scope;
  std::vector<std::string> flags;
};

struct printed_line {
  /// A null pointer means that the value is unknown.
  using field_value =
      std::variant<int, bool, std::string, std::vector<std::string>, std::vector<printed_address>, std::nullptr_t>;
  struct field {
    const char* name;
    field_value value;
    bool is_in_text = true;
  };
  std::chrono::system_clock::time_point time;
  std::string instance;  // may be empty
  const char* event;     // one of event_names
  std::vector<field> fields;
  std::vector<std::string> environment = {};  // NAME=VALUE
  const char* level = nullptr;                // of an event that has one: error, warning or info
};

inline const std::set<std::string> event_names = {"version", "tag", "message", "value", "exec", "hook", "refused"};
/// The events that text output contains by default. The others are reported on standard error.
inline const std::set<std::string> text_events = {"version", "tag", "message", "value", "exec"};

class printer : public interface {
 public:
  explicit printer(std::set<std::string> events) : _events(std::move(events)) {}
  bool prints(const char* event) const { return _events.contains(event); }
  void print(const printed_line& l) {
    if (prints(l.event)) write(l);
  }

 private:
  virtual void write(const printed_line& l) = 0;

  const std::set<std::string> _events;
};

/// The text with U+FFFD in place of bytes that are not UTF-8.
std::string valid_utf8(const std::string& text);

/// A JSON document of the plug-in as a valid line without control characters.
std::string json_line(const std::string& document);

/// Time, instance, event and the fields, separated by tabs.
std::unique_ptr<printer> make_text_printer(output& out, const std::set<std::string>& events = text_events);
/// One object per line, as doc/dachost.schema.json describes it.
std::unique_ptr<printer> make_json_printer(output& out, const std::set<std::string>& events = event_names);
