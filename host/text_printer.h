// A run for people: TIME, instance, what it is, and the rest, separated by tabs.
#pragma once

#include "host/printer.h"

class text_printer : public printer {
 public:
  explicit text_printer(output& out) : _out(out) {}

  void version(const plugin& p) override;
  void announce(const std::string& instance, const tag& t) override;
  void value(wall_clock::time_point time, const std::string& instance, const dac_tagvalue& r) override;
  void log(wall_clock::time_point time, const std::string& instance, const message& m) override;

 private:
  output& _out;
};
