#include "host/instances/supervisor.h"

#include <algorithm>
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
    _cause = std::max(_cause, cause::signal);  // a refusal counts more
    return;
  }
  _to_load = all_of(_fleet.size());
  if (_state == state::running) settle();
}

void supervisor::start_all() {
  _to_load = all_of(_fleet.size());
  load();
  _loop.run_until([this] { return _state == state::running || is_to_stop(); });
}

void supervisor::load() {
  if (_state == state::running) _observer.on_reload();
  _state = state::loading;
  _loop.run_in_background([this, files = std::exchange(_to_load, {})]() -> event_loop::task {
    return [this, files, made = create(files)] { on_created(files, made); };
  });
}

// A plug-in that is full refuses without a reason. Old and new instances exist at the same time, so a reload first
// replaces the instances that it could create, which makes room for the others.
supervisor::batch supervisor::create(const std::vector<size_t>& files) {
  auto b = std::make_shared<std::vector<creation>>();
  bool has_made = false;
  for (const size_t i : files) {
    creation c = create(i);
    if (!c.made && c.reason.empty() && has_made && _fleet.get(i)) break;
    has_made = has_made || c.made;
    b->push_back(std::move(c));
  }
  return b;
}

supervisor::creation supervisor::create(size_t i) {
  creation c{i, nullptr, {}, ""};
  // Reports during the creation are dispatched after a refusal; later ones are posted directly.
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
    if (!c.made) refuse(c);
  for (const creation& c : *b)
    for (const event& e : c.reports) dispatch(e);
  if (_to_load.empty()) _to_load.assign(files.begin() + static_cast<std::ptrdiff_t>(b->size()), files.end());
  std::erase_if(*b, [](const creation& c) { return !c.made; });
  if (b->empty() || is_to_stop() || _state != state::loading) return settle();
  stop_old(b);
}

void supervisor::refuse(const creation& c) {
  const bool has_old = _fleet.get(c.index);
  if (!has_old) _cause = cause::refusal;
  const char* consequence = has_old ? "; the old instance continues" : "; nothing is started";
  _observer.on_refused(c.index, diagnose(_fleet.file(c.index), c.reason) + consequence);
}

void supervisor::stop_old(const batch& b) {
  std::vector<instance*> old;
  for (const creation& c : *b)
    if (instance* i = _fleet.get(c.index)) old.push_back(i);
  if (old.empty()) return start_new(b);
  _loop.run_in_background([this, b, old]() -> event_loop::task {
    _loop.parallel_for(old.size(), [&](size_t k) { old[k]->stop(); });
    return [this, b] { start_new(b); };
  });
}

void supervisor::start_new(const batch& b) {
  for (creation& c : *b) c.made = _fleet.replace(c.index, std::move(c.made));
  for (const creation& c : *b)
    for (const tag& t : _fleet.get(c.index)->tags()) _observer.on_tag(c.index, t);
  _loop.run_in_background([this, b]() -> event_loop::task {
    for (creation& c : *b) c.made = nullptr;
    return [this, failure = start(b)] {
      if (!failure.empty()) _cause = cause::failure;
      _failure = failure;
      settle();
    };
  });
}

// The reason for the first one that cannot be started, or "". A text, because the plug-in's exception must not outlive
// the plug-in.
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
  if (_state == state::stuck) return;
  if (_state == state::stopping) return stop_fleet();
  _state = state::running;
  if (is_to_stop()) return;
  if (_to_load.empty()) return _observer.on_loaded();
  load();
}

void supervisor::dispatch(const event& e) {
  std::visit([&](const auto& what) { _observer.on(e, what); }, e.what);
}

bool supervisor::stop() {
  const auto limit = _loop.call_in(stop_timeout, [this] { _state = state::stuck; });
  if (std::exchange(_state, state::stopping) != state::loading) stop_fleet();
  _loop.run_until([this] { return _state == state::stopped || _state == state::stuck; });
  return _state == state::stopped;
}

void supervisor::stop_fleet() {
  _loop.run_in_background([this]() -> event_loop::task {
    _loop.parallel_for(_fleet.size(), [this](size_t i) {
      if (instance* running = _fleet.get(i)) running->stop();
    });
    return [this] { destroy_fleet(); };
  });
}

void supervisor::destroy_fleet() {
  const batch all = std::make_shared<std::vector<creation>>();
  for (size_t i = 0; i < _fleet.size(); ++i) all->push_back({i, _fleet.replace(i, nullptr), {}, ""});
  _loop.run_in_background([this, all]() -> event_loop::task {
    all->clear();
    return [this] { _state = state::stopped; };
  });
}
