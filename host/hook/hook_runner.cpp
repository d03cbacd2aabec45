#include "host/hook/hook_runner.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "host/display/text.h"
#include "host/hook/programs.h"

namespace {

using std::chrono::nanoseconds;

constexpr auto first_pause = std::chrono::seconds(1);  // before the first retry
constexpr auto longest_pause = std::chrono::seconds(60);
constexpr auto reading_retry = std::chrono::seconds(1);

std::chrono::seconds pause_after(int failures) {
  return failures > 6 ? longest_pause : std::min(first_pause * (1 << (failures - 1)), longest_pause);
}

nanoseconds times(nanoseconds n, double factor) {
  return std::chrono::duration_cast<nanoseconds>(std::chrono::duration<double, std::nano>(n) * factor);
}

}  // namespace

hook_runner::hook_runner(const environment& e, const hook_options& o, size_t instances, printer& p, output& err)
    : _environment(e),
      _options(o),
      _printer(p),
      _err(err),
      _hooks(o.program.empty() ? 0 : instances),
      _list_outage(err),
      _room_outage(err),
      _choice_outage(err),
      _state_outage(err) {
  for (hook& h : _hooks) {
    h.earliest = e.loop.now() + times(o.dry_run ? nanoseconds(0) : o.splay, e.random());
    h.null_from = e.loop.now() + o.hold;
  }
}

void hook_runner::submit(size_t i, const update& u) {
  if (_hooks.empty() || _is_closed) return;
  hook& h = _hooks[i];
  if (std::exchange(h.published, u).instance.empty()) load_record(h);
  const bool is_filtered = !_options.addresses.uses_published_value();
  read_addresses_at(_environment.loop.now() + (is_filtered ? nanoseconds(0) : reading_interval));
  if (is_filtered) return;
  report_room();
  offer_published(h);
}

// The instances of a machine publish the same addresses, one shortly after the other.
void hook_runner::report_room() {
  const auto is_full = [](const hook& h) { return without_cut_address(h.published.value) != h.published.value; };
  if (std::any_of(_hooks.begin(), _hooks.end(), is_full))
    _room_outage.begin("addresses: the published value is full; --pick global and --pick stable do not use it");
  else
    _room_outage.end("addresses: the published value is no longer full");
}

bool hook_runner::is_idle() const {
  return _next_reading > _environment.loop.now() && !_is_saving &&
         std::all_of(_hooks.begin(), _hooks.end(), [](const hook& h) { return h.at == stage::idle; });
}

void hook_runner::close() {
  if (_next_reading <= _environment.loop.now()) read_addresses();
  save_records(_unsaved);
  _is_closed = true;
  _next_reading = never;
  _reading = nullptr;
  _queue.clear();
  for (hook& h : _hooks) {
    const bool is_unfinished = is_pending(h) || (h.tried && !h.run);
    _has_given_up = _has_given_up || is_unfinished;
    if (is_unfinished && h.at != stage::idle)
      report(h, severity::warning, "dropped",
             _options.program + ": the run ends before the program gets the newest value");
    h.timer = nullptr;
    if (h.run)
      h.run->close();
    else
      h.at = stage::idle;
  }
}

// ---------------------------------------------------------------- what a hook should be given

void hook_runner::read_addresses_at(time_point when) {
  if (when >= _next_reading) return;
  _next_reading = when;
  _reading = _environment.loop.call_at(when, [this] { read_addresses(); });
}

void hook_runner::read_addresses() {
  save_records(_unsaved);
  _next_reading = never;
  read_addresses_at(_environment.loop.now() + reading_interval);
  if (_options.addresses.uses_published_value()) {
    for (hook& h : _hooks)
      if (!h.published.instance.empty()) offer_published(h);
  } else if (const std::optional<std::string> value = kernel_value()) {
    for (hook& h : _hooks)
      if (!h.published.instance.empty()) offer(h, {h.published.tag, *value, _environment.loop.wall_time()});
  }
}

// None if the list cannot be read: what the hooks have been given remains.
std::optional<std::string> hook_runner::kernel_value() {
  try {
    const std::string value = value_of(choose(_options.addresses, _environment.addresses.all()));
    _list_outage.end("addresses: can be read again");
    report_choice(value);
    return value;
  } catch (const std::system_error& e) {
    _has_given_up = _has_given_up || _options.once;
    read_addresses_at(_environment.loop.now() + reading_retry);
    _list_outage.begin(std::string("addresses: ") + e.what() + (_options.once ? "; no retry" : "; retry every second"));
    return std::nullopt;
  }
}

void hook_runner::report_choice(const std::string& value) {
  const std::string filter = options_of(_options.addresses);
  const bool has_hold = _options.hold != nanoseconds(0) && !_options.once;
  if (value != "null") return _choice_outage.end("addresses: at least one passes " + filter);
  _choice_outage.begin("addresses: none passes " + filter + "; hooks get null" +
                       (has_hold ? " if this lasts for " + clock_text(_options.hold) : ""));
}

void hook_runner::offer_published(hook& h) {
  offer(h, {h.published.tag, without_cut_address(h.published.value), h.published.time});
}

// Until the hold ends, the addresses of the last hook remain valid.
void hook_runner::offer(hook& h, const hook_record& r) {
  const auto now = _environment.loop.now();
  if (r.value != "null") h.null_from = never;
  if (r.value == "null" && h.null_from == never) h.null_from = now + _options.hold;
  if (r.value == "null" && now < h.null_from && !_options.once) return read_addresses_at(h.null_from);
  const bool is_new = !h.target || !h.target->is_same(r);
  h.target = r;
  if (!is_new) return;
  if (_options.dry_run && h.done && !is_pending(h) && due(h) > now) {
    ::report(_err,
             h.published.instance + ": " + _options.program + ": not started, because nothing has changed since " +
                 time_stamp(h.done->time),
             severity::info);
  }
  consider(h);
}

// ---------------------------------------------------------------- when a hook runs

bool hook_runner::is_pending(const hook& h) const {
  const std::optional<hook_record>& last = h.tried ? h.tried : h.done;
  return h.target && !(last && last->is_same(*h.target));
}

steady_clock::time_point hook_runner::due(const hook& h) const {
  if (is_pending(h)) return h.earliest;
  return std::max(h.earliest, h.tried ? h.retry : h.again);
}

void hook_runner::consider(hook& h) {
  if (_is_closed || h.at == stage::queued || h.at == stage::running) return;
  const auto when = due(h);
  if (when <= _environment.loop.now()) {
    h.at = stage::queued;
    _queue.push_back(&h);
    return start_queued();
  }
  wait(h, when);
}

void hook_runner::wait(hook& h, time_point when) {
  h.at = when != never && (is_pending(h) || h.tried) ? stage::pausing : stage::idle;
  h.timer = when == never ? nullptr : _environment.loop.call_at(when, [this, &h] { consider(h); });
}

// What a hook should be given may have changed while it was queued.
void hook_runner::start_queued() {
  while (!_queue.empty() && jobs() < _options.jobs) {
    hook& h = *_queue.front();
    _queue.pop_front();
    h.at = stage::idle;
    if (h.target && due(h) <= _environment.loop.now())
      start(h, *h.target);
    else
      consider(h);
  }
}

size_t hook_runner::jobs() const {
  const auto is_job = [](const hook& h) { return h.run && !h.run->is_stuck(); };
  return static_cast<size_t>(std::count_if(_hooks.begin(), _hooks.end(), is_job));
}

// ---------------------------------------------------------------- a run

void hook_runner::start(hook& h, const hook_record& target) {
  const char* reason = reason_for(h);
  if (is_pending(h)) h.failures = 0;
  h.tried = target;
  const std::vector<std::string> settings = {"DAC_INSTANCE=" + h.published.instance,
                                             "DAC_TAG=" + target.tag,
                                             "DAC_VALUE=" + target.value,
                                             "DAC_TIME=" + time_stamp(target.time),
                                             "DAC_PREVIOUS=" + (h.done ? h.done->value : ""),
                                             "DAC_PREVIOUS_TAG=" + (h.done ? h.done->tag : ""),
                                             std::string("DAC_REASON=") + reason};
  if (_options.dry_run) {
    _printer.print(
        {_environment.loop.wall_time(), h.published.instance, "exec", {{"program", _options.program}}, settings});
    return finish(h, "");
  }
  try {
    run_programs(h, settings);
  } catch (const std::runtime_error& e) {
    finish(h, _options.program + ": " + e.what());
  }
}

const char* hook_runner::reason_for(const hook& h) const {
  if (h.tried && !is_pending(h)) return "retry";
  if (!h.done) return "first";
  return h.tried || is_pending(h) ? "change" : "again";
}

void hook_runner::run_programs(hook& h, const std::vector<std::string>& settings) {
  const auto on_end = [this, &h](const std::string& failures) {
    finish(h, failures);
    start_queued();
  };
  const auto on_stuck = [this, &h](const std::string& program) {
    report(h, severity::error, "stuck",
           program + ": still runs after SIGKILL; no other program is started for this instance");
    start_queued();
  };
  h.run = std::make_unique<timed_run>(_environment.loop, _environment.programs, _options.timeout,
                                      programs_of(_options.program), settings, timed_run::callbacks{on_end, on_stuck});
  h.at = stage::running;
  h.run->start();
}

void hook_runner::finish(hook& h, const std::string& failures) {
  h.run = nullptr;
  h.at = stage::idle;
  if (failures.empty())
    succeed(h);
  else
    report(h, severity::warning, "failed", failures + "; " + schedule_retry(h));
  // A dry run ends in start(): without the event loop in between, each would start the next one recursively.
  return _options.dry_run ? wait(h, due(h)) : consider(h);
}

void hook_runner::succeed(hook& h) {
  const auto now = _environment.loop.wall_time();
  if (h.tried) h.done = {h.tried->tag, h.tried->value, now};
  h.tried = std::nullopt;
  h.failures = 0;
  schedule_again(h, nanoseconds(0));
  if (_options.dry_run) return;
  notify(h, severity::info, "ok", "", now);
  save_records({&h});
}

std::string hook_runner::schedule_retry(hook& h) {
  const auto pause = pause_after(++h.failures);
  h.retry = _options.once ? never : _environment.loop.now() + times(pause, 0.75 + 0.5 * _environment.random());
  if (!_is_closed && is_pending(h)) return "the newer value is next";
  if (_is_closed || _options.once) {
    _has_given_up = true;
    return "no retry";
  }
  return "retry in about " + std::to_string(pause.count()) + " s";
}

void hook_runner::report(const hook& h, severity level, const char* result, const std::string& what) {
  ::report(_err, h.published.instance + ": " + what, level);
  notify(h, level, result, what, _environment.loop.wall_time());
}

void hook_runner::notify(const hook& h, severity level, const char* result, const std::string& what,
                         wall_clock::time_point time) const {
  if (_observer) _observer({static_cast<size_t>(&h - _hooks.data()), level, result, what, time});
}

// ---------------------------------------------------------------- across restarts

// A clock that has been set back makes the record one of the future; it then counts as new.
void hook_runner::load_record(hook& h) {
  try {
    h.done = _environment.records.load(h.published.instance);
  } catch (const std::runtime_error& e) {
    ::report(_err, std::string(e.what()) + "; ignored", severity::warning);
  }
  if (!h.done) return;
  schedule_again(h, std::max(nanoseconds(0), nanoseconds(_environment.loop.wall_time() - h.done->time)));
  notify(h, severity::info, "saved", "", h.done->time);
}

void hook_runner::schedule_again(hook& h, nanoseconds age) {
  const nanoseconds rest = std::max(nanoseconds(0), _options.again - age);
  h.again = _options.again == nanoseconds(0) ? never : _environment.loop.now() + rest;
}

void hook_runner::save_records(const std::set<const hook*>& all) {
  _to_save.insert(all.begin(), all.end());
  save_next();
}

// One at a time. A hook that succeeds again meanwhile is saved again.
void hook_runner::save_next() {
  if (_is_saving || _to_save.empty()) return;
  const hook& h = **_to_save.begin();
  _to_save.erase(_to_save.begin());
  if (!h.done) return save_next();
  _is_saving = true;
  _environment.records.save(h.published.instance, *h.done, [this, &h](const std::string& failure) {
    _is_saving = false;
    on_saved(h, failure);
    save_next();
  });
}

void hook_runner::on_saved(const hook& h, const std::string& failure) {
  if (!failure.empty()) {
    _unsaved.insert(&h);
    return _state_outage.begin(failure + "; the state is not saved");
  }
  _unsaved.erase(&h);
  if (_unsaved.empty()) _state_outage.end("the state is saved again");
}
