// A run for programs: one JSON object a line.
#pragma once

#include "host/printer.h"
#include "host/text_printer.h"

class json_printer : public printer {
 public:
  json_printer(output& out, output& err) : _out(out), _messages(err) {}

  void version(const plugin& p) override;
  void announce(const std::string& instance, const tag& t) override;
  void value(wall_clock::time_point time, const std::string& instance, const dac_tagvalue& r) override;
  void log(wall_clock::time_point time, const std::string& instance, const message& m) override;

 private:
  output& _out;
  text_printer _messages;
};
