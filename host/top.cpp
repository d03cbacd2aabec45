// top: what every instance does right now, in a table that is drawn once a second.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <exception>
#include <memory>

#include "host/commands.h"
#include "host/deadline.h"
#include "host/drain.h"
#include "host/keeper.h"
#include "host/text.h"
#include "host/view.h"

namespace {

constexpr auto between_tables = std::chrono::seconds(1);

// What stands between two tables for one instance.
struct state {
  std::string host;
  std::string value;
  std::optional<wall_clock::time_point> published_at;
  size_t published = 0;
  size_t errors = 0;
  std::string complaint;  // the latest about its file
};

// A clock that was set back makes nothing younger than new.
std::optional<std::chrono::seconds> age(const std::optional<wall_clock::time_point>& t) {
  if (!t) return std::nullopt;
  return std::max(std::chrono::floor<std::chrono::seconds>(wall_clock::now() - *t), std::chrono::seconds(0));
}

class watcher : listener {
 public:
  watcher(const plugin& p, const options& o, output& out, output& err)
      : _options(o), _out(out), _err(err), _states(o.files.size()), _keeper(p, o.files, *this) {}

  int run() {
    if (!_keeper.launch()) return 1;
    _view = open_view();
    watch();
    _view = nullptr;
    _keeper.shut_down();
    drain(_keeper, _out, _err);
    return 0;
  }

 private:
  void announce(size_t i, const tag& t) override;
  void on(const event& e, const dac_tagvalue& r) override;
  void on(const event& e, const message& m) override;
  void complain(size_t i, const std::string& line) override;

  std::unique_ptr<view> open_view();
  void watch();
  deadline next_table() const;
  bool is_due(const deadline& next) const;
  bool is_done() const;
  bool has_published() const;
  void wait(const deadline& end);

  void show();
  std::string head(const std::vector<row>& rows) const;
  std::vector<row> rows() const;

  const options& _options;
  output& _out;
  output& _err;
  std::vector<state> _states;
  std::unique_ptr<view> _view;  // while tables are shown
  keeper _keeper;
  deadline _end;
  bool _is_shown = false;  // a table at least
  bool _is_old = false;    // what is shown, or it was never shown
};

// ---------------------------------------------------------------- what instances tell

void watcher::announce(size_t i, const tag& t) {
  _states[i] = {};
  _states[i].host = t.name;
}

void watcher::on(const event& e, const dac_tagvalue& r) {
  state& s = _states[e.index];
  s.published_at = e.time;
  s.value = field(r.value);
  if (++s.published == 1 && has_published()) _is_old = true;
}

// Why a file was refused has been told with the file.
void watcher::on(const event& e, const message& m) {
  if (m.level != DAC_LEVEL_FAILURE) return;
  state& s = _states[e.index];
  ++s.errors;
  if (!_view || s.complaint.find(printable(m.text)) != std::string::npos) return;
  _view->note(e.index, printable(time_stamp(e.time) + ' ' + _keeper.instances().name(e.index) + ": " + m.text));
}

void watcher::complain(size_t i, const std::string& line) {
  _states[i].complaint = line;
  if (_view)
    _view->note(i, line);
  else
    _err.line(line);
}

// ---------------------------------------------------------------- the loop

std::unique_ptr<view> watcher::open_view() {
  if (_options.once || isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) return make_plain_view(_out, _err);
  try {
    std::unique_ptr<view> full = make_screen_view(_out);
    _is_old = true;
    return full;
  } catch (const std::exception& e) {
    _err.line(printable(std::string("dachost: ") + e.what() + "; tables follow one below the other"));
    return make_plain_view(_out, _err);
  }
}

void watcher::watch() {
  if (_options.time) _end = steady_clock::now() + *_options.time;
  deadline next = next_table();
  while (!is_done()) {
    wait(_keeper.is_busy() || is_due(next) ? steady_clock::now() : earlier(_end, next));
    _keeper.turn();
    if (!is_due(next)) continue;
    show();
    next = next_table();
  }
}

// The only one waits for values, however long.
deadline watcher::next_table() const {
  if (_options.once) return std::nullopt;
  return steady_clock::now() + between_tables;
}

bool watcher::is_due(const deadline& next) const {
  if (_options.once) return has_published();
  return _is_old || is_past(next);
}

bool watcher::is_done() const {
  if (_keeper.is_to_stop() || _out.error() != 0 || is_past(_end) || _view->is_closed()) return true;
  return _options.once && _is_shown;
}

bool watcher::has_published() const {
  return std::all_of(_states.begin(), _states.end(), [](const state& s) { return s.published > 0; });
}

void watcher::wait(const deadline& end) {
  const auto [signals, events] = _keeper.interest();
  pollfd fds[] = {signals, events, _view->interest(), _err.interest()};
  const int ready = poll(fds, std::size(fds), milliseconds_until(end));
  if (_view->notice(ready > 0 ? fds[2].revents : short{})) _is_old = true;
  if (ready > 0) _err.notice(fds[3].revents);
}

// ---------------------------------------------------------------- what is shown

void watcher::show() {
  const std::vector<row> all = rows();
  _view->show(head(all), all);
  _is_shown = true;
  _is_old = false;
}

std::string watcher::head(const std::vector<row>& rows) const {
  const auto running = std::count_if(rows.begin(), rows.end(), [](const row& r) { return r.runs; });
  size_t errors = 0;
  for (const row& r : rows) errors += r.errors;
  const std::string time = time_stamp(wall_clock::now());
  return "dachost top  " + time.substr(0, time.find('.')) + "Z  instances " + std::to_string(rows.size()) +
         ", running " + std::to_string(running) + ", errors " + std::to_string(errors);
}

std::vector<row> watcher::rows() const {
  const fleet& f = _keeper.instances();
  std::vector<row> all;
  all.reserve(f.size());
  for (size_t i = 0; i < f.size(); ++i) {
    const state& s = _states[i];
    all.push_back(
        {f.name(i), f.handle(i), f.is_running(i), age(s.published_at), s.published, s.errors, s.host, s.value});
  }
  return all;
}

}  // namespace

int top(const plugin& p, const options& o, output& out, output& err) {
  std::setlocale(LC_CTYPE, "");
  return watcher(p, o, out, err).run();
}
