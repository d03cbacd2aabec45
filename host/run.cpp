// run: the main thread's one loop over signals, events and outputs.
#include <poll.h>

#include <algorithm>
#include <memory>

#include "host/commands.h"
#include "host/deadline.h"
#include "host/drain.h"
#include "host/keeper.h"
#include "host/printer.h"

namespace {

class runner : listener {
 public:
  runner(const plugin& p, const options& o, output& out, output& err)
      : _plugin(p),
        _options(o),
        _out(out),
        _err(err),
        _printer(o.json ? make_json_printer(out, err) : make_text_printer(out)),
        _keeper(p, o.files, *this),
        _published(o.files.size()) {}

  int run() {
    _printer->version(_plugin);
    if (!_keeper.launch()) return 1;
    if (_options.time) _end = steady_clock::now() + *_options.time;
    while (!is_done()) turn();
    _keeper.shut_down();
    drain(_keeper, _out, _err);
    return 0;
  }

 private:
  void announce(size_t i, const tag& t) override { _printer->announce(name(i), t); }
  void on(const event& e, const dac_tagvalue& r) override;
  void on(const event& e, const message& m) override { _printer->log(e.time, name(e.index), m); }
  void complain(size_t /*i*/, const std::string& line) override { _err.line(line); }
  const std::string& name(size_t i) const { return _keeper.instances().name(i); }

  bool is_done() const;
  void turn();
  void wait(const deadline& end);

  const plugin& _plugin;
  const options& _options;
  output& _out;
  output& _err;
  std::unique_ptr<printer> _printer;
  keeper _keeper;
  std::vector<bool> _published;  // whose file's instances have published
  deadline _end;
};

void runner::on(const event& e, const dac_tagvalue& r) {
  _printer->value(e.time, name(e.index), r);
  _published[e.index] = true;
}

// ---------------------------------------------------------------- the loop

bool runner::is_done() const {
  const auto has_published = [](bool published) { return published; };
  if (_keeper.is_to_stop() || _out.error() != 0 || is_past(_end)) return true;
  return _options.once && std::all_of(_published.begin(), _published.end(), has_published);
}

void runner::turn() {
  wait(_keeper.is_busy() ? steady_clock::now() : _end);
  _keeper.turn();
}

void runner::wait(const deadline& end) {
  const auto [signals, events] = _keeper.interest();
  pollfd fds[] = {signals, events, _out.interest(), _err.interest()};
  if (poll(fds, std::size(fds), milliseconds_until(end)) <= 0) return;
  _out.notice(fds[2].revents);
  _err.notice(fds[3].revents);
}

}  // namespace

int run(const plugin& p, const options& o, output& out, output& err) { return runner(p, o, out, err).run(); }
