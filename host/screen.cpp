#include "host/screen.h"

#define NCURSES_NOMACROS 1
#include <curses.h>
#include <dlfcn.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>

struct term;

namespace {

constexpr char library[] = "libncursesw.so.6";
constexpr int control_l = 'L' & 0x1f;

void* load() {
  // It stays: what it keeps for the program's life would be lost and look like a leak.
  void* l = dlopen(library, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (!l) throw std::runtime_error(std::string(dlerror()) + "; install the package libncursesw6");
  return l;
}

struct symbol {
  void* at;
  template <class P>
  operator P() const {
    return reinterpret_cast<P>(at);
  }
};

symbol find(void* l, const char* name) {
  void* p = dlsym(l, name);
  if (!p) throw std::runtime_error(std::string(library) + ": lacks " + name);
  return {p};
}

// ncurses' own answer to Ctrl-Z leaves errno as it likes, and comes between a call and whoever asks how it failed.
void (*g_give_back_terminal)(int) = nullptr;

void suspend(int sig) {
  const int kept = errno;
  g_give_back_terminal(sig);
  errno = kept;
}

void keep_errno_when_suspended() {
  struct sigaction a {};
  sigaction(SIGTSTP, nullptr, &a);
  if (a.sa_handler == SIG_DFL || a.sa_handler == SIG_IGN || a.sa_handler == suspend) return;
  g_give_back_terminal = a.sa_handler;
  a.sa_handler = suspend;
  sigaction(SIGTSTP, &a, nullptr);
}

}  // namespace

// ncurses' functions under their own names.
struct screen::curses {
  void* loaded = load();
  int (*setupterm)(const char*, int, int*) = find(loaded, "setupterm");  // these three are of term.h, whose macros
  term* (*set_curterm)(term*) = find(loaded, "set_curterm");             // take the shortest names there are
  int (*del_curterm)(term*) = find(loaded, "del_curterm");
  decltype(&::newterm) newterm = find(loaded, "newterm");
  decltype(&::delscreen) delscreen = find(loaded, "delscreen");
  decltype(&::endwin) endwin = find(loaded, "endwin");
  decltype(&::tigetstr) tigetstr = find(loaded, "tigetstr");
  decltype(&::cbreak) cbreak = find(loaded, "cbreak");
  decltype(&::noecho) noecho = find(loaded, "noecho");
  decltype(&::def_prog_mode) def_prog_mode = find(loaded, "def_prog_mode");
  decltype(&::keypad) keypad = find(loaded, "keypad");
  decltype(&::nodelay) nodelay = find(loaded, "nodelay");
  decltype(&::set_escdelay) set_escdelay = find(loaded, "set_escdelay");
  decltype(&::curs_set) curs_set = find(loaded, "curs_set");
  decltype(&::getmaxx) getmaxx = find(loaded, "getmaxx");
  decltype(&::getmaxy) getmaxy = find(loaded, "getmaxy");
  decltype(&::werase) werase = find(loaded, "werase");
  decltype(&::wmove) wmove = find(loaded, "wmove");
  decltype(&::waddnstr) waddnstr = find(loaded, "waddnstr");
  decltype(&::wattr_set) wattr_set = find(loaded, "wattr_set");
  decltype(&::wrefresh) wrefresh = find(loaded, "wrefresh");
  decltype(&::clearok) clearok = find(loaded, "clearok");
  decltype(&::wgetch) wgetch = find(loaded, "wgetch");
  decltype(&stdscr) window = find(loaded, "stdscr");

  SCREEN* terminal = nullptr;
  WINDOW* w = nullptr;
};

// Asked before anything is taken over: ncurses loses memory over a terminal that it does not know.
void screen::examine_terminal() {
  int reason = 0;
  if (_c->setupterm(nullptr, STDOUT_FILENO, &reason) != OK)
    throw std::runtime_error("TERM names no terminal that is known here");
  const bool has_cursor = _c->tigetstr("cup") != nullptr;
  _c->del_curterm(_c->set_curterm(nullptr));
  if (!has_cursor) throw std::runtime_error("the terminal that TERM names has no cursor to move");
}

screen::screen() : _c(std::make_unique<curses>()) {
  examine_terminal();
  _c->terminal = _c->newterm(nullptr, stdout, stdin);
  if (!_c->terminal) throw std::runtime_error("the terminal cannot be taken over");
  _c->w = *_c->window;
  _c->cbreak();
  _c->noecho();
  ignore_flow_control();
  _c->set_escdelay(25);
  _c->keypad(_c->w, true);
  _c->nodelay(_c->w, true);
  _c->curs_set(0);
  keep_errno_when_suspended();
}

screen::~screen() {
  _c->endwin();
  _c->delscreen(_c->terminal);
}

// Ctrl-S would block the next write until Ctrl-Q, and no signal would be answered meanwhile. ncurses must know this
// mode: it restores its own after Ctrl-Z.
void screen::ignore_flow_control() {
  termios mode{};
  if (tcgetattr(STDIN_FILENO, &mode) != 0) return;
  mode.c_iflag &= ~static_cast<tcflag_t>(IXON);
  tcsetattr(STDIN_FILENO, TCSANOW, &mode);
  _c->def_prog_mode();
}

size_t screen::lines() const { return static_cast<size_t>(_c->getmaxy(_c->w)); }
size_t screen::width() const { return static_cast<size_t>(_c->getmaxx(_c->w)); }

void screen::erase() { _c->werase(_c->w); }

void screen::put(size_t line, const std::string& text, bool highlighted) {
  if (line >= lines()) return;
  _c->wmove(_c->w, static_cast<int>(line), 0);
  _c->wattr_set(_c->w, highlighted ? A_REVERSE : A_NORMAL, 0, nullptr);
  _c->waddnstr(_c->w, text.data(), static_cast<int>(text.size()));
  _c->wattr_set(_c->w, A_NORMAL, 0, nullptr);
}

void screen::refresh() { _c->wrefresh(_c->w); }
void screen::forget() { _c->clearok(_c->w, true); }

key screen::next() {
  switch (_c->wgetch(_c->w)) {
    case ERR:
      return key::none;
    case 'q':
    case 'Q':
      return key::quit;
    case KEY_UP:
      return key::up;
    case KEY_DOWN:
      return key::down;
    case KEY_PPAGE:
      return key::page_up;
    case KEY_NPAGE:
      return key::page_down;
    case KEY_HOME:
      return key::home;
    case KEY_END:
      return key::end;
    case control_l:
      forget();
      return key::redraw;
    case KEY_RESIZE:
      return key::redraw;
    default:
      return key::other;
  }
}
