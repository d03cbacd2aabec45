#include "host/text_printer.h"

#include "host/text.h"

void text_printer::version(const plugin& p) {
  _out.line(
      tabbed({time_stamp(wall_clock::now()), "-", "version", *p.verson, std::to_string(p.getversion()), p.file()}));
}

void text_printer::announce(const std::string& instance, const tag& t) {
  _out.line(tabbed({time_stamp(wall_clock::now()), instance, "tag", t.name, std::to_string(t.type),
                    std::to_string(t.flag), t.text1, t.text2}));
}

void text_printer::value(wall_clock::time_point time, const std::string& instance, const dac_tagvalue& r) {
  _out.line(tabbed({time_stamp(time), instance, "value", field(r.name), field(r.value)}));
}

void text_printer::log(wall_clock::time_point time, const std::string& instance, const message& m) {
  _out.line(tabbed({time_stamp(time), instance, m.level == DAC_LEVEL_FAILURE ? "failure" : "message", m.text}));
}
