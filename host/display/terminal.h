// The screen of a terminal: a table that scrolls, and notes below it.
#pragma once

#include <termios.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/display/table.h"
#include "host/loop/event_loop.h"
#include "host/loop/output.h"

/// Takes control of the terminal on standard input and output at the first show(), and restores it when destroyed.
/// Writes through `out` only, so that a stopped terminal never blocks the host.
class terminal {
 public:
  /// Calls `redraw` when the screen must be drawn again. Throws std::runtime_error with the reason if the terminal
  /// cannot be used. `out` fails when the terminal disappears.
  terminal(event_loop& l, output& out, std::function<void()> redraw);
  ~terminal();
  terminal(const terminal&) = delete;
  terminal& operator=(const terminal&) = delete;

  /// Shows the rows below the head line. Does nothing while an earlier screen is still being written.
  void show(const std::string& head, const std::vector<row>& rows);
  /// Shows a line about an error of file i until a key is pressed. Each file has at most one.
  void note(size_t i, const std::string& line);
  /// True after the user has pressed q.
  bool is_closed() const { return _is_closed; }

 private:
  void open();
  void take();
  void restore();
  void suspend();
  void on_input();
  void press(const std::string& key);
  void scroll_up(size_t n) { _first -= std::min(n, _first); }
  void scroll_down(size_t n) { _first = std::min(_first + n, last_first()); }
  void read_size();
  size_t body() const;
  size_t note_lines() const;
  size_t room() const;
  size_t last_first() const { return _rows > room() ? _rows - room() : 0; }
  std::string usage() const;
  std::vector<std::string> bottom() const;

  event_loop& _loop;
  output& _out;
  std::function<void()> _redraw;
  termios _settings{};  // the original ones
  bool _is_taken = false;
  size_t _height = 24;
  size_t _width = 80;
  std::vector<std::string> _shown;  // the lines on the screen; empty: unknown
  size_t _rows = 0;
  size_t _first = 0;                                   // first row on the screen
  std::vector<std::pair<size_t, std::string>> _notes;  // file and line, newest last
  std::string _input;                                  // the beginning of a key
  bool _is_closed = false;
  event_loop::handle _keys, _signals;
};
