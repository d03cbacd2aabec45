// What a supervisor reports about its instances.
#pragma once

#include <cstddef>
#include <string>

#include "host/event.h"

class fleet_observer {
 public:
  fleet_observer() = default;
  virtual ~fleet_observer() = default;
  fleet_observer(const fleet_observer&) = delete;
  fleet_observer& operator=(const fleet_observer&) = delete;

  /// File i has a new instance, with this tag.
  virtual void on_tag(size_t i, const tag& t) = 0;
  /// What an instance reported in a callback.
  virtual void on(const event& e, const value& v) = 0;
  virtual void on(const event& e, const message& m) = 0;
  /// File i was refused: why, and what follows.
  virtual void on_refused(size_t i, const std::string& what) = 0;
};
