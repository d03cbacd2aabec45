// A run for people.
#include "driver/dac.h"
#include "host/display/printer.h"
#include "host/display/text.h"

namespace {

class text_printer : public printer {
 public:
  explicit text_printer(output& out) : _out(out) {}

  void version(wall_clock::time_point time, const std::string& text, int number, const std::string& file) override {
    _out.line(tabbed({time_stamp(time), "-", "version", text, std::to_string(number), file}));
  }

  void announce(wall_clock::time_point time, const std::string& instance, const tag& t) override {
    _out.line(tabbed(
        {time_stamp(time), instance, "tag", t.name, std::to_string(t.type), std::to_string(t.flag), t.text1, t.text2}));
  }

  void publish(wall_clock::time_point time, const std::string& instance, const value& v) override {
    _out.line(tabbed({time_stamp(time), instance, "value", v.tag, v.text}));
  }

  void command(wall_clock::time_point time, const std::string& instance, const std::string& program,
               const std::vector<std::string>& settings) override {
    std::string line = tabbed({time_stamp(time), instance, "exec", program});
    for (const std::string& s : settings) line += '\t' + printable(s);
    _out.line(line);
  }

  void log(wall_clock::time_point time, const std::string& instance, const message& m) override {
    _out.line(tabbed({time_stamp(time), instance, m.level == DAC_LEVEL_FAILURE ? "failure" : "message", m.text}));
  }

 private:
  output& _out;
};

}  // namespace

std::unique_ptr<printer> make_text_printer(output& out) { return std::make_unique<text_printer>(out); }
