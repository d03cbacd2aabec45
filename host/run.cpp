// run: the main thread's one loop over signals, events and outputs.
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <deque>
#include <memory>
#include <numeric>
#include <optional>

#include "host/commands.h"
#include "host/fleet.h"
#include "host/printer.h"
#include "host/signals.h"
#include "host/text.h"

namespace {

using steady_clock = std::chrono::steady_clock;
using deadline = std::optional<steady_clock::time_point>;

constexpr auto patience = std::chrono::seconds(1);  // with a reader that does not read, once the host is to stop

int milliseconds_until(const deadline& end) {
  if (!end) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - steady_clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

bool is_past(const deadline& end) { return end && steady_clock::now() >= *end; }

class runner {
 public:
  runner(const plugin& p, const options& o, output& out, output& err)
      : _plugin(p),
        _options(o),
        _out(out),
        _err(err),
        _printer(o.json ? make_json_printer(out, err) : make_text_printer(out)),
        _fleet(p, _queue, o.files),
        _published(o.files.size()) {}

  int run() {
    _printer->version(_plugin);
    if (!launch()) return 1;
    if (_options.time) _end = steady_clock::now() + *_options.time;
    while (!is_done()) turn();
    shut_down();
    drain();
    return 0;
  }

 private:
  bool launch();
  void bring_up(const std::vector<size_t>& files);
  std::vector<size_t> prepare_renewal();
  void complain(size_t i, const std::string& reason, const char* consequence);

  bool is_done() const;
  void turn();
  void wait(const deadline& end);
  void answer_signals();
  void dispatch();
  void on(const event& e, const dac_tagvalue& r);
  void on(const event& e, const message& m);

  void shut_down();
  void drain();
  void give_up();

  const plugin& _plugin;
  const options& _options;
  output& _out;
  output& _err;
  signals _signals;  // before the fleet: its threads are to be left alone by signals
  event_queue _queue;
  std::unique_ptr<printer> _printer;
  fleet _fleet;
  std::vector<bool> _published;  // whose file's instances have published
  std::deque<size_t> _to_renew;  // files to be read again
  bool _stop = false;            // a signal said so
  deadline _end;
};

std::vector<size_t> all_of(size_t n) {
  std::vector<size_t> all(n);
  std::iota(all.begin(), all.end(), 0);
  return all;
}

// ---------------------------------------------------------------- instances come

bool runner::launch() {
  bool accepted = true;
  for (size_t i = 0; i < _fleet.size(); ++i) {
    std::string reason;
    if (_fleet.prepare(i, reason)) continue;
    complain(i, reason, "nothing is started");
    accepted = false;
  }
  dispatch();
  if (accepted) bring_up(all_of(_fleet.size()));
  return accepted;
}

void runner::bring_up(const std::vector<size_t>& files) {
  _fleet.take_over(files);
  dispatch();
  for (const size_t i : files)
    for (const tag& t : _fleet.tags(i)) _printer->announce(_fleet.name(i), t);
  for (const size_t i : files) _fleet.start(i);
}

// A plug-in without room for one more refuses without a reason. Old and new instances stand side by side, so then
// those that are prepared take over first and leave their room to the rest.
std::vector<size_t> runner::prepare_renewal() {
  std::vector<size_t> prepared;
  for (; !_to_renew.empty(); _to_renew.pop_front()) {
    std::string reason;
    const size_t i = _to_renew.front();
    if (_fleet.prepare(i, reason))
      prepared.push_back(i);
    else if (reason.empty() && !prepared.empty())
      break;
    else
      complain(i, reason, "the old instance goes on");
  }
  return prepared;
}

void runner::complain(size_t i, const std::string& reason, const char* consequence) {
  const std::string why = reason.empty() ? "refused without a reason, as one too many is" : reason;
  _err.line(printable("dachost: " + _fleet.file(i) + ": " + why + "; " + consequence));
}

// ---------------------------------------------------------------- the loop

bool runner::is_done() const {
  const auto has_published = [](bool published) { return published; };
  if (_stop || _out.error() != 0 || is_past(_end)) return true;
  return _options.once && std::all_of(_published.begin(), _published.end(), has_published);
}

void runner::turn() {
  wait(_to_renew.empty() ? _end : steady_clock::now());
  answer_signals();
  dispatch();
  if (!_to_renew.empty() && !_stop) bring_up(prepare_renewal());
}

void runner::wait(const deadline& end) {
  pollfd fds[] = {{_signals.fd(), POLLIN, 0}, {_queue.fd(), POLLIN, 0}, _out.interest(), _err.interest()};
  if (poll(fds, std::size(fds), milliseconds_until(end)) <= 0) return;
  _out.notice(fds[2].revents);
  _err.notice(fds[3].revents);
}

void runner::answer_signals() {
  for (int sig = _signals.next(); sig != 0; sig = _signals.next()) {
    if (sig != SIGHUP) {
      _stop = true;
      continue;
    }
    const std::vector<size_t> all = all_of(_fleet.size());
    _to_renew.assign(all.begin(), all.end());
  }
}

void runner::dispatch() {
  for (const event& e : _queue.take()) std::visit([&](const auto& what) { on(e, what); }, e.what);
}

void runner::on(const event& e, const dac_tagvalue& r) {
  _printer->value(e.time, _fleet.name(e.index), r);
  _published[e.index] = true;
}

void runner::on(const event& e, const message& m) { _printer->log(e.time, _fleet.name(e.index), m); }

// ---------------------------------------------------------------- instances go

void runner::shut_down() {
  _fleet.stop();
  _fleet.clear();
  dispatch();
}

// Whatever the reader takes its time for is waited for, until a signal says to stop.
void runner::drain() {
  deadline end;
  while (_out.waiting() || _err.waiting()) {
    if (_stop && !end) end = steady_clock::now() + patience;
    if (is_past(end)) return give_up();
    wait(end);
    answer_signals();
  }
}

void runner::give_up() {
  for (output* o : {&_out, &_err})
    if (o->waiting()) o->fail(ETIME);
}

}  // namespace

int run(const plugin& p, const options& o, output& out, output& err) { return runner(p, o, out, err).run(); }
