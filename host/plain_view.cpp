// Tables one below the other.
#include "host/view.h"

namespace {

class plain_view : public view {
 public:
  plain_view(output& out, output& err) : _out(out), _err(err) {}

  void show(const std::string& head, const std::vector<row>& rows) override {
    if (_out.waiting()) return;
    if (!_is_first) _out.line("");
    _is_first = false;
    _out.line(head);
    for (const std::string& line : table(rows)) _out.line(line);
  }
  void note(size_t /*i*/, const std::string& line) override { _err.line(line); }

  pollfd interest() const override { return _out.interest(); }
  bool notice(short revents) override {
    _out.notice(revents);
    return false;
  }
  bool is_closed() const override { return false; }

 private:
  output& _out;
  output& _err;
  bool _is_first = true;
};

}  // namespace

std::unique_ptr<view> make_plain_view(output& out, output& err) { return std::make_unique<plain_view>(out, err); }
