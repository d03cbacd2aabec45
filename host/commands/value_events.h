// Prints values together with the machine's addresses.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/display/printer.h"
#include "host/event.h"
#include "host/hook/address_filter.h"
#include "host/loop/event_loop.h"

/// Prints each value that an instance publishes. If a filter chooses addresses, also prints the newest value again when
/// the chosen addresses differ, at most ten seconds after the kernel's list has changed.
class value_events {
 public:
  value_events(event_loop& l, address_list& a, const address_filter& f, bool with_addresses, printer& p,
               const std::vector<std::string>& instances);

  void print(const event& e, const value& v);
  /// Prints no value again from now on.
  void stop();

 private:
  using texts = std::vector<std::string>;

  struct shown {
    value what;
    std::optional<texts> picked;  // none: the list could not be read
  };

  void read(wall_clock::time_point since);
  void read_again();
  std::optional<texts> picked(const value& v) const;
  void print(size_t i, wall_clock::time_point time, const value& v);

  event_loop& _loop;
  address_list& _addresses;
  const address_filter& _filter;
  const bool _with_addresses;
  printer& _printer;
  const std::vector<std::string> _names;
  std::vector<std::optional<shown>> _last;  // by instance
  std::optional<std::vector<kernel_address>> _list;
  wall_clock::time_point _read_at{};
  event_loop::handle _timer;
  bool _is_stopped = false;
};
