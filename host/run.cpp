// run: the main thread's one loop over signals, events and outputs.
#include <poll.h>

#include <algorithm>
#include <memory>

#include "host/commands.h"
#include "host/courier.h"
#include "host/deadline.h"
#include "host/drain.h"
#include "host/keeper.h"
#include "host/printer.h"
#include "host/text.h"

namespace {

class runner : listener {
 public:
  runner(const plugin& p, const options& o, output& out, output& err)
      : _plugin(p),
        _options(o),
        _out(out),
        _err(err),
        _printer(o.json ? make_json_printer(out, err) : make_text_printer(out)),
        _courier(o.exec, o.once, o.files.size(), *_printer, err),
        _keeper(p, o.files, *this),
        _published(o.files.size()) {}

  int run() {
    _printer->version(_plugin);
    if (!_keeper.launch()) return 1;
    if (_options.time) _end = steady_clock::now() + *_options.time;
    while (!is_done()) turn();
    _keeper.shut_down();
    await_programs();
    drain(_keeper, _out, _err);
    return _options.once && _courier.has_given_up() ? 1 : 0;
  }

 private:
  void announce(size_t i, const tag& t) override { _printer->announce(name(i), t); }
  void on(const event& e, const dac_tagvalue& r) override;
  void on(const event& e, const message& m) override { _printer->log(e.time, name(e.index), m); }
  void complain(size_t /*i*/, const std::string& line) override { _err.line(line); }
  std::string whole_name(size_t i, std::string_view recorded) const;
  const std::string& name(size_t i) const { return _keeper.instances().name(i); }

  bool is_done() const;
  void turn();
  void await_programs();
  void wait(const deadline& end);

  const plugin& _plugin;
  const options& _options;
  output& _out;
  output& _err;
  std::unique_ptr<printer> _printer;
  courier _courier;
  keeper _keeper;
  std::vector<bool> _published;  // whose file's instances have published
  deadline _end;
};

void runner::on(const event& e, const dac_tagvalue& r) {
  _printer->value(e.time, name(e.index), r);
  _published[e.index] = true;
  _courier.keep(e.index, {e.time, name(e.index), whole_name(e.index, field(r.name)), std::string(field(r.value))});
}

// A record has room for the beginning of a long name, which is somebody else's name.
std::string runner::whole_name(size_t i, std::string_view recorded) const {
  if (recorded.size() < DAC_NAME_SIZE - 1) return std::string(recorded);
  for (const tag& t : _keeper.instances().tags(i))
    if (t.name.starts_with(recorded)) return t.name;
  return std::string(recorded);
}

// ---------------------------------------------------------------- the loop

bool runner::is_done() const {
  const auto has_published = [](bool published) { return published; };
  if (_keeper.is_to_stop() || _out.error() != 0 || is_past(_end)) return true;
  return _options.once && std::all_of(_published.begin(), _published.end(), has_published) && _courier.is_idle();
}

void runner::turn() {
  wait(_keeper.is_busy() ? steady_clock::now() : earlier(_end, _courier.due()));
  _keeper.turn();
  _courier.turn();
}

void runner::await_programs() {
  _courier.close();
  for (_courier.turn(); !_courier.is_idle(); _courier.turn()) {
    wait(_courier.due());
    _keeper.answer_signals();
  }
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
