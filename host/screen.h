// The terminal, by way of ncurses.
#pragma once

#include <memory>
#include <string>

enum class key { none, quit, up, down, page_up, page_down, home, end, redraw, other };

/// Takes over the terminal that standard input and output are, and gives it back as it was. The library is loaded here
/// and not with the program: a machine that runs dachost as a service needs no terminal library.
class screen {
 public:
  /// Throws std::runtime_error, which tells why, when there is no library or the terminal will not do.
  screen();
  ~screen();
  screen(const screen&) = delete;
  screen& operator=(const screen&) = delete;

  size_t lines() const;
  size_t width() const;

  void erase();
  /// Writes a line of at most width() columns.
  void put(size_t line, const std::string& text, bool highlighted = false);
  void refresh();
  /// Writes everything anew at the next refresh, whatever others have written over it.
  void forget();

  /// The next key that waits; `redraw` also when the terminal has another size.
  key next();

 private:
  struct curses;
  std::unique_ptr<curses> _c;

  void examine_terminal();
  void ignore_flow_control();
};
