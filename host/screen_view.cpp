// A table that fills the terminal's screen: head, heading, the rows that there is room for, and a line at the bottom.
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "host/screen.h"
#include "host/view.h"

namespace {

class screen_view : public view {
 public:
  explicit screen_view(output& out) : _out(out) {}

  void show(const std::string& head, const std::vector<row>& rows) override;
  void note(const std::string& line) override { _note = line; }

  pollfd interest() const override { return {STDIN_FILENO, POLLIN, 0}; }
  bool notice(short revents) override;
  bool is_closed() const override { return _is_closed; }

 private:
  size_t room() const { return _screen.lines() > frame ? _screen.lines() - frame : 0; }
  size_t last_first() const { return _rows > room() ? _rows - room() : 0; }
  std::string bottom() const;
  void press(key k);
  void go_up(size_t n) { _first -= std::min(n, _first); }
  void go_down(size_t n) { _first = std::min(_first + n, last_first()); }

  static constexpr size_t frame = 3;  // lines without rows

  output& _out;
  screen _screen;
  size_t _rows = 0;
  size_t _first = 0;  // row on the screen
  std::string _note;
  bool _is_closed = false;
};

void screen_view::show(const std::string& head, const std::vector<row>& rows) {
  _rows = rows.size();
  _first = std::min(_first, last_first());
  const size_t width = _screen.width();
  const std::vector<std::string> lines = table(rows, width);
  const size_t count = std::min(room(), rows.size() - _first);
  _screen.erase();
  _screen.put(0, fitted(head, width));
  _screen.put(1, lines[0] + std::string(width - lines[0].size(), ' '), true);
  for (size_t k = 0; k < count; ++k) _screen.put(2 + k, lines[1 + _first + k]);
  if (_screen.lines() >= frame) _screen.put(_screen.lines() - 1, fitted(bottom(), width));
  _screen.refresh();
}

std::string screen_view::bottom() const {
  if (!_note.empty()) return _note;
  std::string end = "q ends";
  if (_rows <= room() || room() == 0) return end;
  return "rows " + std::to_string(_first + 1) + '-' + std::to_string(_first + room()) + " of " + std::to_string(_rows) +
         "; arrows, PgUp, PgDn, Home and End scroll; " + end;
}

// A signal that tells of another size ends the poll without a word about standard input.
bool screen_view::notice(short revents) {
  if ((revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) _out.fail(EIO);
  bool is_old = false;
  for (key k = _screen.next(); k != key::none; k = _screen.next()) {
    press(k);
    is_old = true;
  }
  return is_old;
}

void screen_view::press(key k) {
  if (k != key::redraw) _note.clear();
  switch (k) {
    case key::quit:
      _is_closed = true;
      break;
    case key::up:
      return go_up(1);
    case key::down:
      return go_down(1);
    case key::page_up:
      return go_up(room());
    case key::page_down:
      return go_down(room());
    case key::home:
      return go_up(_rows);
    case key::end:
      return go_down(_rows);
    default:
      break;
  }
}

}  // namespace

std::unique_ptr<view> make_screen_view(output& out) { return std::make_unique<screen_view>(out); }
