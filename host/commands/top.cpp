// top: the state of every instance in a table that is drawn once a second.
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include "host/commands/commands.h"
#include "host/display/terminal.h"
#include "host/display/text.h"
#include "host/instances/supervisor.h"
#include "host/report.h"

namespace {

constexpr auto between_tables = std::chrono::seconds(1);

// What one instance has reported since its file was read.
struct state {
  std::string host;
  std::string value;
  std::optional<wall_clock::time_point> published_at;
  size_t published = 0;
  size_t errors = 0;
  std::string refusal;  // the latest of its file
};

class watcher : fleet_observer {
 public:
  watcher(event_loop& l, const plugin& p, const options& o, output& out, output& err)
      : _loop(l), _options(o), _out(out), _err(err), _states(o.files.size()), _supervisor(l, p, o.files, *this) {}

  int run();

 private:
  void on_tag(size_t i, const tag& t) override;
  void on(const event& e, const value& v) override;
  void on(const event& e, const message& m) override;
  void on_refused(size_t i, const std::string& what) override;
  void note(size_t i, const std::string& line, const std::string& what);  // as a line on the screen

  void open_terminal();
  bool has_published() const;
  bool is_done() const;
  void schedule_table();
  void show();
  void print(const std::string& head, const std::vector<row>& rows);
  std::string head(const std::vector<row>& rows) const;
  std::vector<row> rows() const;
  std::optional<std::chrono::seconds> age(const std::optional<wall_clock::time_point>& t) const;

  event_loop& _loop;
  const options& _options;
  output& _out;
  output& _err;
  std::vector<state> _states;
  supervisor _supervisor;
  std::unique_ptr<terminal> _terminal;  // null: tables are printed one after another
  event_loop::handle _next_table;
  bool _shows_tables = false;  // from the start of all instances to the beginning of their stop
  size_t _tables = 0;          // printed
};

int watcher::run() {
  open_terminal();
  _supervisor.start_all();
  bool is_over = false;
  const auto end = _options.time ? _loop.call_in(*_options.time, [&is_over] { is_over = true; }) : nullptr;
  _shows_tables = true;
  if (!_supervisor.is_to_stop() && (_terminal || has_published()))
    show();
  else
    schedule_table();
  _loop.run_until([&] { return is_over || is_done(); });
  _shows_tables = false;
  _next_table = nullptr;
  _terminal = nullptr;
  const bool is_stopped = _supervisor.stop();
  return finish(_loop, _supervisor, is_stopped, _out, _err);
}

void watcher::on_tag(size_t i, const tag& t) {
  _states[i] = {};
  _states[i].host = t.name;
}

void watcher::on(const event& e, const value& v) {
  state& s = _states[e.index];
  s.published_at = e.time;
  s.value = v.text;
  if (++s.published == 1 && _shows_tables && has_published()) show();
}

// on_refused() has already reported why a file was refused.
void watcher::on(const event& e, const message& m) {
  if (m.level != DAC_LEVEL_FAILURE) return;
  state& s = _states[e.index];
  ++s.errors;
  if (s.refusal.find(printable(m.text)) != std::string::npos) return;
  const std::string what = _supervisor.instances().name(e.index) + ": " + m.text;
  note(e.index, printable(time_stamp(e.time) + ' ' + what), what);
}

void watcher::on_refused(size_t i, const std::string& what) {
  _states[i].refusal = report_line(what);
  if (_shows_tables)
    note(i, _states[i].refusal, what);
  else
    report(_err, what);
}

void watcher::note(size_t i, const std::string& line, const std::string& what) {
  if (_terminal)
    _terminal->note(i, line);
  else
    report(_err, what);
}

void watcher::open_terminal() {
  if (_options.once || isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) return;
  try {
    _terminal = std::make_unique<terminal>(_loop, _out, [this] { show(); });
  } catch (const std::exception& e) {
    report(_err, std::string(e.what()) + "; tables are printed one after another");
  }
}

bool watcher::has_published() const {
  return std::all_of(_states.begin(), _states.end(), [](const state& s) { return s.published > 0; });
}

bool watcher::is_done() const {
  if (_supervisor.is_to_stop() || _out.error() != 0 || (_terminal && _terminal->is_closed())) return true;
  return _options.once && _tables > 0;
}

void watcher::schedule_table() {
  if (!_options.once) _next_table = _loop.call_in(between_tables, [this] { show(); });
}

void watcher::show() {
  schedule_table();
  const std::vector<row> all = rows();
  if (_terminal)
    _terminal->show(head(all), all);
  else
    print(head(all), all);
}

// A slow reader gets fewer tables.
void watcher::print(const std::string& head, const std::vector<row>& rows) {
  if (!_out.is_empty()) return;
  if (_tables++ > 0) _out.line("");
  _out.line(head);
  for (const std::string& line : table(rows)) _out.line(line);
}

std::string watcher::head(const std::vector<row>& rows) const {
  const auto running = std::count_if(rows.begin(), rows.end(), [](const row& r) { return r.runs; });
  size_t errors = 0;
  for (const row& r : rows) errors += r.errors;
  const std::string time = time_stamp(_loop.wall_time());
  return "dachost top  " + time.substr(0, time.find('.')) + "Z  instances " + std::to_string(rows.size()) +
         ", running " + std::to_string(running) + ", errors " + std::to_string(errors);
}

std::vector<row> watcher::rows() const {
  const fleet& f = _supervisor.instances();
  std::vector<row> all;
  all.reserve(f.size());
  for (size_t i = 0; i < f.size(); ++i) {
    const state& s = _states[i];
    const instance& now = *f.get(i);
    all.push_back(
        {f.name(i), now.handle(), now.is_running(), age(s.published_at), s.published, s.errors, s.host, s.value});
  }
  return all;
}

// 0 if the clock was set back.
std::optional<std::chrono::seconds> watcher::age(const std::optional<wall_clock::time_point>& t) const {
  if (!t) return std::nullopt;
  return std::max(std::chrono::floor<std::chrono::seconds>(_loop.wall_time() - *t), std::chrono::seconds(0));
}

}  // namespace

int top(event_loop& l, const plugin& p, const options& o, output& out, output& err) {
  std::setlocale(LC_CTYPE, "");
  return watcher(l, p, o, out, err).run();
}
