// Who is told what happens to the instances of a fleet.
#pragma once

#include <cstddef>
#include <string>

#include "host/event.h"
#include "host/instance.h"

class listener {
 public:
  listener() = default;
  virtual ~listener() = default;
  listener(const listener&) = delete;
  listener& operator=(const listener&) = delete;

  /// File i has a new instance, with this tag.
  virtual void announce(size_t i, const tag& t) = 0;
  /// What an instance told in a callback.
  virtual void on(const event& e, const dac_tagvalue& r) = 0;
  virtual void on(const event& e, const message& m) = 0;
  /// One line about file i, which was refused.
  virtual void complain(size_t i, const std::string& line) = 0;
};
