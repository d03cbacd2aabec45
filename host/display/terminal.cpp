#include "host/display/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

constexpr size_t top_lines = 2;                                // head and heading
constexpr char enter[] = "\x1b[?1049h\x1b[?25l\x1b[m\x1b[2J";  // alternate screen, no cursor, plain, empty
constexpr char leave[] = "\x1b[?1049l\x1b[?25h\x1b[m";

// The compiled description of the terminal that TERM names; "" when there is none.
std::string description() {
  const char* name = std::getenv("TERM");
  if (!name || !*name || std::string_view(name).find('/') != std::string_view::npos) return "";
  const char* own = std::getenv("TERMINFO");
  const char* home = std::getenv("HOME");
  for (const std::string& directory :
       {std::string(own ? own : ""), std::string(home ? home : "") + "/.terminfo", std::string("/etc/terminfo"),
        std::string("/lib/terminfo"), std::string("/usr/share/terminfo")}) {
    std::ifstream in(directory + '/' + name[0] + '/' + name, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(in), {});
    if (!text.empty()) return text;
  }
  return "";
}

void examine_terminal() {
  const std::string text = description();
  if (text.empty()) throw std::runtime_error("TERM names an unknown terminal");
  // A terminal that moves the cursor as in ECMA-48 understands the other sequences that are written here.
  if (text.find("\x1b[%i%p1%d;%p2%dH") == std::string::npos)
    throw std::runtime_error("the terminal named by TERM cannot move its cursor");
}

// The size of the first key in bytes; 0 if it is incomplete.
size_t key_size(std::string_view input) {
  if (input.size() < 2 || input[0] != '\x1b' || (input[1] != '[' && input[1] != 'O')) return 1;
  for (size_t n = 2; n < input.size(); ++n)
    if (input[n] >= 0x40 && input[n] <= 0x7e) return n + 1;
  return input.size() < 16 ? 0 : input.size();
}

enum class action { none, redraw, quit, up, down, page_up, page_down, home, end };

action action_of(std::string_view key) {
  constexpr std::pair<std::string_view, action> keys[] = {
      {"\x0c", action::redraw},       {"q", action::quit},      {"Q", action::quit},      {"\x1b[A", action::up},
      {"\x1bOA", action::up},         {"\x1b[B", action::down}, {"\x1bOB", action::down}, {"\x1b[5~", action::page_up},
      {"\x1b[6~", action::page_down}, {"\x1b[H", action::home}, {"\x1bOH", action::home}, {"\x1b[1~", action::home},
      {"\x1b[7~", action::home},      {"\x1b[F", action::end},  {"\x1bOF", action::end},  {"\x1b[4~", action::end},
      {"\x1b[8~", action::end}};
  for (const auto& [bytes, what] : keys)
    if (bytes == key) return what;
  return action::none;
}

}  // namespace

terminal::terminal(event_loop& l, output& out, std::function<void()> redraw)
    : _loop(l), _out(out), _redraw(std::move(redraw)) {
  examine_terminal();
  if (tcgetattr(STDIN_FILENO, &_settings) != 0) throw std::runtime_error("cannot read the settings of the terminal");
}

terminal::~terminal() {
  if (_is_taken) restore();
}

void terminal::open() {
  take();
  _is_taken = true;
  _keys = _loop.watch(STDIN_FILENO, event_loop::readiness::readable, [this] { on_input(); });
  _signals = _loop.on_signals({SIGWINCH, SIGTSTP}, [this](int sig) {
    if (sig == SIGTSTP) return suspend();
    read_size();
    _redraw();
  });
}

void terminal::take() {
  termios t = _settings;
  t.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  t.c_iflag &= ~static_cast<tcflag_t>(IXON);  // Ctrl-S does not stop the screen
  tcsetattr(STDIN_FILENO, TCSANOW, &t);
  _out.put(enter);
  read_size();
}

void terminal::restore() {
  _out.put(leave);
  tcsetattr(STDIN_FILENO, TCSANOW, &_settings);
}

void terminal::suspend() {
  restore();
  _loop.suspend();
  take();
  _redraw();
}

void terminal::read_size() {
  winsize s{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &s) == 0 && s.ws_row > 0 && s.ws_col > 0) _height = s.ws_row, _width = s.ws_col;
  _shown.clear();
}

void terminal::show(const std::string& head, const std::vector<row>& rows) {
  if (!_is_taken) open();
  _rows = rows.size();
  _first = std::min(_first, last_first());
  if (!_out.is_empty()) return;
  const std::vector<std::string> all = table(rows, _width);
  const std::string padding(_width - all[0].size(), ' ');
  std::vector<std::string> lines = {fitted(head, _width), "\x1b[7m" + all[0] + padding + "\x1b[m"};
  const size_t count = std::min(room(), rows.size() - _first);
  for (size_t k = 0; k < count; ++k) lines.push_back(all[1 + _first + k]);
  lines.resize(top_lines + room());
  for (const std::string& line : bottom()) lines.push_back(fitted(line, _width));
  lines.resize(_height);
  std::string changes;
  for (size_t k = 0; k < _height; ++k)
    if (_shown.empty() || lines[k] != _shown[k]) changes += "\x1b[" + std::to_string(k + 1) + ";1H\x1b[K" + lines[k];
  _shown = std::move(lines);
  _out.put(changes);
}

void terminal::note(size_t i, const std::string& line) {
  std::erase_if(_notes, [i](const auto& n) { return n.first == i; });
  _notes.emplace_back(i, line);
}

// Notes take at most half of the body; if there are more, the newest are shown.
std::vector<std::string> terminal::bottom() const {
  if (_notes.empty()) return {usage()};
  std::vector<std::string> lines;
  size_t first = _notes.size() - note_lines();
  if (first > 0 && note_lines() > 1) lines.push_back(std::to_string(++first) + " more");
  for (; first < _notes.size(); ++first) lines.push_back(_notes[first].second);
  return lines;
}

std::string terminal::usage() const {
  std::string end = "q ends";
  if (_rows <= room() || room() == 0) return end;
  return "rows " + std::to_string(_first + 1) + '-' + std::to_string(_first + room()) + " of " + std::to_string(_rows) +
         "; arrows, PgUp, PgDn, Home and End scroll; " + end;
}

size_t terminal::note_lines() const { return std::min(_notes.size(), std::max<size_t>(1, body() / 2)); }
size_t terminal::body() const { return _height > top_lines ? _height - top_lines : 0; }
size_t terminal::room() const { return body() - std::min(body(), std::max<size_t>(1, note_lines())); }

void terminal::on_input() {
  char buf[256];
  const ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
  if (n <= 0) {
    _keys = nullptr;
    return _out.fail(EIO);
  }
  _input.append(buf, static_cast<size_t>(n));
  for (size_t size = key_size(_input); !_input.empty() && size > 0; size = key_size(_input)) {
    press(_input.substr(0, size));
    _input.erase(0, size);
  }
  _redraw();
}

void terminal::press(const std::string& key) {
  const action what = action_of(key);
  if (what != action::redraw) _notes.clear();
  switch (what) {
    case action::redraw:
      return _shown.clear();
    case action::quit:
      _is_closed = true;
      return;
    case action::up:
      return scroll_up(1);
    case action::down:
      return scroll_down(1);
    case action::page_up:
      return scroll_up(room());
    case action::page_down:
      return scroll_down(room());
    case action::home:
      return scroll_up(_rows);
    case action::end:
      return scroll_down(_rows);
    case action::none:
      return;
  }
}
