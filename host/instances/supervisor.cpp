#include "host/instances/supervisor.h"

#include <csignal>
#include <numeric>
#include <system_error>
#include <utility>

#include "host/instances/diagnose.h"

namespace {

constexpr auto stop_timeout = std::chrono::seconds(30);

std::vector<size_t> all_of(size_t n) {
  std::vector<size_t> all(n);
  std::iota(all.begin(), all.end(), 0);
  return all;
}

// The last failure, or "".
std::string reason_in(const std::vector<event>& reports) {
  std::string reason;
  for (const event& e : reports)
    if (const auto* m = std::get_if<message>(&e.what); m && m->level == DAC_LEVEL_FAILURE) reason = m->text;
  return reason;
}

}  // namespace

supervisor::supervisor(event_loop& l, const plugin& p, const std::vector<std::string>& files, fleet_observer& o)
    : _loop(l),
      _plugin(p),
      _observer(o),
      _fleet(files),
      _signals(l.on_signals({SIGINT, SIGQUIT, SIGTERM, SIGHUP}, [this](int sig) { answer(sig); })) {}

void supervisor::answer(int sig) {
  if (sig != SIGHUP) {
    _is_to_stop = true;
    return;
  }
  _to_load = all_of(_fleet.size());
  if (_stage == stage::idle) settle();
}

void supervisor::start_all() {
  _to_load = all_of(_fleet.size());
  load();
  _loop.run_until([this] { return _stage == stage::idle || _is_to_stop; });
}

void supervisor::load() {
  _stage = stage::busy;
  _loop.run_beside([this, files = std::exchange(_to_load, {})]() -> event_loop::task {
    return [this, files, made = create(files)] { on_created(files, made); };
  });
}

// A plug-in without room for one more refuses without a reason. Old and new instances exist at the same time, so
// on a reload those that are made replace theirs first and leave their room to the rest.
supervisor::batch supervisor::create(const std::vector<size_t>& files) {
  auto b = std::make_shared<std::vector<creation>>();
  bool has_made = false;
  for (const size_t i : files) {
    creation c = create(i);
    if (!c.made && reason_in(c.reports).empty() && has_made && !_is_first) break;
    has_made = has_made || c.made;
    b->push_back(std::move(c));
  }
  return b;
}

supervisor::creation supervisor::create(size_t i) {
  creation c{i, nullptr, {}, ""};
  // What it reports now is dispatched after the refusal, if it is refused; later reports go straight to the loop.
  const auto early = std::make_shared<std::vector<event>*>(&c.reports);
  c.made = instance::make(_plugin, _fleet.name(i), _fleet.file(i), [this, i, early](report_item what) {
    const event e{_loop.wall_time(), i, std::move(what)};
    if (*early) return (*early)->push_back(e);
    _loop.post([this, e] { dispatch(e); });
  });
  *early = nullptr;
  if (!c.made) c.reason = reason_in(c.reports);
  return c;
}

void supervisor::on_created(const std::vector<size_t>& files, const batch& b) {
  for (const creation& c : *b)
    if (!c.made) report_refusal(c);
  for (const creation& c : *b)
    for (const event& e : c.reports) dispatch(e);
  if (_to_load.empty()) _to_load.assign(files.begin() + static_cast<std::ptrdiff_t>(b->size()), files.end());
  if (std::erase_if(*b, [](const creation& c) { return !c.made; }) > 0 && _is_first) _has_refused = _is_to_stop = true;
  if (_is_to_stop || _is_stopping || b->empty()) return settle();
  _is_first = false;
  stop_old(b);
}

void supervisor::report_refusal(const creation& c) {
  const std::string why = c.reason.empty() ? "refused without a reason, as one too many is" : c.reason;
  const char* consequence = _is_first ? "; nothing is started" : "; the old instance goes on";
  _observer.on_refused(c.index, diagnose(_fleet.file(c.index), why) + consequence);
}

void supervisor::stop_old(const batch& b) {
  std::vector<instance*> old;
  for (const creation& c : *b)
    if (instance* i = _fleet.get(c.index)) old.push_back(i);
  if (old.empty()) return start_new(b);
  _loop.run_beside([this, b, old]() -> event_loop::task {
    _loop.parallel_for(old.size(), [&](size_t k) { old[k]->stop(); });
    return [this, b] { start_new(b); };
  });
}

void supervisor::start_new(const batch& b) {
  for (creation& c : *b) c.made = _fleet.replace(c.index, std::move(c.made));
  for (const creation& c : *b)
    for (const tag& t : _fleet.get(c.index)->tags()) _observer.on_tag(c.index, t);
  _loop.run_beside([this, b]() -> event_loop::task {
    for (creation& c : *b) c.made = nullptr;
    return [this, failure = start(b)] {
      if (!failure.empty()) _is_to_stop = true;
      _failure = failure;
      settle();
    };
  });
}

// The reason for the first one that cannot be started, or "". The plug-in's exception may not outlive the plug-in.
std::string supervisor::start(const batch& b) const {
  size_t i = 0;
  try {
    for (const creation& c : *b) _fleet.get(i = c.index)->start();
  } catch (const std::system_error& e) {
    return _fleet.file(i) + ": cannot be started: " + e.what();
  }
  return "";
}

void supervisor::settle() {
  _stage = stage::idle;
  if (!_to_load.empty() && !_is_to_stop && !_is_stopping) load();
}

void supervisor::dispatch(const event& e) {
  std::visit([&](const auto& what) { _observer.on(e, what); }, e.what);
}

bool supervisor::stop() {
  _is_stopping = true;
  bool is_late = false;
  const auto limit = _loop.call_in(stop_timeout, [&is_late] { is_late = true; });
  const auto await_plugin = [&] { _loop.run_until([&] { return _stage == stage::idle || is_late; }); };
  await_plugin();
  if (is_late) return false;
  stop_fleet();
  await_plugin();
  return !is_late;
}

void supervisor::stop_fleet() {
  _stage = stage::busy;
  _loop.run_beside([this]() -> event_loop::task {
    _loop.parallel_for(_fleet.size(), [this](size_t i) {
      if (instance* running = _fleet.get(i)) running->stop();
    });
    return [this] { destroy_fleet(); };
  });
}

void supervisor::destroy_fleet() {
  const batch all = std::make_shared<std::vector<creation>>();
  for (size_t i = 0; i < _fleet.size(); ++i) all->push_back({i, _fleet.replace(i, nullptr), {}, ""});
  _loop.run_beside([this, all]() -> event_loop::task {
    all->clear();
    return [this] { settle(); };
  });
}
