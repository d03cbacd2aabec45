// A table that fills the terminal's screen: head, heading, the rows that there is room for, and lines at the bottom.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/screen.h"
#include "host/view.h"

namespace {

class screen_view : public view {
 public:
  explicit screen_view(output& out) : _out(out) {}

  void show(const std::string& head, const std::vector<row>& rows) override;
  void note(size_t i, const std::string& line) override;

  pollfd interest() const override { return {STDIN_FILENO, POLLIN, 0}; }
  bool notice(short revents) override;
  bool is_closed() const override { return _is_closed; }

 private:
  size_t note_lines() const { return std::min(_notes.size(), std::max<size_t>(1, body() / 2)); }
  size_t body() const { return _screen.lines() > top_lines ? _screen.lines() - top_lines : 0; }
  size_t room() const { return body() - std::min(body(), std::max<size_t>(1, note_lines())); }
  size_t last_first() const { return _rows > room() ? _rows - room() : 0; }
  std::string usage() const;
  std::vector<std::string> bottom() const;
  void press(key k);
  void go_up(size_t n) { _first -= std::min(n, _first); }
  void go_down(size_t n) { _first = std::min(_first + n, last_first()); }

  static constexpr size_t top_lines = 2;  // head and heading

  output& _out;
  screen _screen;
  size_t _rows = 0;
  size_t _first = 0;                                   // row on the screen
  std::vector<std::pair<size_t, std::string>> _notes;  // file and line, newest last
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
  size_t at = top_lines + room();
  for (const std::string& line : bottom()) _screen.put(at++, fitted(line, width));
  _screen.refresh();
}

void screen_view::note(size_t i, const std::string& line) {
  std::erase_if(_notes, [i](const auto& n) { return n.first == i; });
  _notes.emplace_back(i, line);
}

// Notes take half of the body at most; of more, the newest are shown.
std::vector<std::string> screen_view::bottom() const {
  if (_notes.empty()) return {usage()};
  std::vector<std::string> lines;
  size_t first = _notes.size() - note_lines();
  if (first > 0 && note_lines() > 1) lines.push_back(std::to_string(++first) + " more");
  for (; first < _notes.size(); ++first) lines.push_back(_notes[first].second);
  return lines;
}

std::string screen_view::usage() const {
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
  if (k != key::redraw) _notes.clear();
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
