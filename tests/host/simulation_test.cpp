// `dachost run` in a simulated world, where a seed decides about clock, children, signals, readers, plug-in and files.
//
// Time is virtual: it passes when nothing else can happen, up to the next thing that will. Of what can happen at one
// time, any order happens. The world checks what must hold for every run, after each step and at the end.
// IP6DNS_STEPS and IP6DNS_SEED in the environment change the number of steps and the first run's seed: with
// IP6DNS_SEED=N IP6DNS_STEPS=1 the run that failed is the only one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "driver/dac.h"
#include "host/commands/commands.h"
#include "host/display/text.h"

using namespace std::chrono_literals;

namespace {

using std::chrono::nanoseconds;
using time_point = steady_clock::time_point;
constexpr time_point never = time_point::max();

struct violation : std::runtime_error {
  using std::runtime_error::runtime_error;
};
/// event_loop::exit() was called.
struct exited {
  int status;
};
/// A stop signal had its default action.
struct killed {
  int signal;
};

template <class F>
struct registered : event_loop::registration {
  registered(F f, event_loop::task e) : handler(std::make_shared<F>(std::move(f))), end(std::move(e)) {}
  ~registered() override { end(); }
  std::shared_ptr<F> handler;
  event_loop::task end;
};
using signal_handler = std::function<void(int)>;

enum class reader { reads, stalls, has_left };
enum class content { good, broken, mute };         // of a file: accepted, refused with a reason or without one
enum class nature { obedient, deaf, unkillable };  // which signal ends a program

struct program {
  size_t instance;
  std::string value;
  time_point started;
  time_point ends;
  int status;
  nature how;
  time_point asked = never;   // SIGTERM
  time_point killed = never;  // SIGKILL
};

struct driver {
  size_t file;
  int generation;
  cblog log;
  cbdata data;
  void* param;
  bool runs = false;
};

/// What must be true of an instance's hook.
struct hook_model {
  bool is_published = false;                // a value, which the host has been given
  std::string target;                       // what a program must get; empty: nothing yet
  std::string before;                       // the target before
  time_point target_since{};                // at this time a program may get either
  time_point null_from = never;             // the end of the hold while there is no address
  std::optional<std::string> last_success;  // what the last program that succeeded got
  std::optional<std::string> tried;         // what the last program got, unless it succeeded
  int failures = 0;                         // with this value, in a row
  time_point ended{};                       // the last program
  time_point again = never;
};

/// What a callback of the plug-in reports, posted to the loop.
struct report_model {
  std::string line;  // that must be printed for it; empty: none
  size_t instance = 0;
  std::string value;  // that was published; empty: none
};

struct posted {
  event_loop::task run;
  report_model what;
};
struct timer {
  time_point when;
  std::weak_ptr<event_loop::task> handler;
};
struct work {
  time_point started;
  time_point ready;
  std::function<event_loop::task()> run;
};
struct watch {
  int fd;
  event_loop::readiness r;
  std::weak_ptr<event_loop::task> handler;
};
struct answer_to {
  std::vector<int> signals;
  std::weak_ptr<signal_handler> handler;
};

// ---------------------------------------------------------------- the world

class world {
 public:
  explicit world(unsigned seed) : world(seed, {}, {}) {}
  /// With what another run has saved.
  world(unsigned seed, std::map<std::string, hook_record> saved, wall_clock::time_point wall)
      : disk(std::move(saved)), _random(seed), _wall(wall) {
    const size_t n = 1 + below(4);
    for (size_t i = 0; i < n; ++i) how.files.push_back("i" + std::to_string(i) + ".conf");
    contents.resize(n);
    generations.resize(n);
    hooks.resize(n);
    room = 2 * n;
    how.hook.program = "true";
    how.hook.timeout = chance(50) ? nanoseconds(30s) : 1ms + up_to(5s);
    how.once = how.hook.once = chance(10);
    constexpr nanoseconds holds[] = {0s, 3s, 300s}, agains[] = {0s, 20s, 24h}, splays[] = {0s, 0s, 30s};
    how.hook.hold = holds[below(3)];
    how.hook.again = agains[below(3)];
    how.hook.splay = splays[below(3)];
    how.hook.jobs = 1 + below(3);
    if (chance(50)) {
      how.hook.addresses.which = address_filter::kind::stable;
      how.events = {"version", "tag", "message"};  // printing values reads the addresses, too
    }
    for (const auto& [name, r] : disk)
      if (const auto i = static_cast<size_t>(name.at(1) - '0'); i < n) hooks[i].last_success = r.value;
    for (hook_model& h : hooks) h.null_from = now + (how.once ? 0s : how.hook.hold);
    if (chance(10)) how.time = 1ms + up_to(300s);
    may_hang = chance(10);
    if (chance(5)) contents[below(n)] = content::broken;
    chaos = 1 + below(3000);
    note("seed " + std::to_string(seed) + ", instances " + std::to_string(n) + ", timeout " +
         std::to_string(how.hook.timeout.count()) + " ns, hold " + std::to_string(how.hook.hold / 1s) + " s, again " +
         std::to_string(how.hook.again / 1s) + " s, splay " + std::to_string(how.hook.splay / 1s) + " s, jobs " +
         std::to_string(how.hook.jobs) + (is_filtered() ? ", stable" : "") + (how.once ? ", once" : ""));
  }

  size_t below(size_t n) { return static_cast<size_t>(_random() % n); }
  bool chance(unsigned percent) { return below(100) < percent; }
  nanoseconds up_to(nanoseconds most) { return nanoseconds(below(static_cast<size_t>(most.count()) + 1)); }

  void note(const std::string& what) {
    std::ostringstream line;
    line << std::fixed << std::chrono::duration<double>(now - time_point{}).count() << "  " << what;
    history.push_back(line.str());
    if (history.size() > 80) history.pop_front();
  }
  void expect(bool holds, const std::string& what) const {
    if (!holds) throw violation(what);
  }

  void step();

  bool is_filtered() const { return !how.hook.addresses.uses_published_value(); }
  wall_clock::time_point wall_time() const { return std::chrono::floor<wall_clock::duration>(_wall + (now - start)); }

  static constexpr time_point start = time_point{} + 1000s;
  time_point now = start;
  options how;
  std::deque<posted> queue;
  std::map<int, timer> timers;
  std::map<int, work> works;
  std::map<int, watch> watches;
  std::map<int, answer_to> answers;
  std::map<pid_t, std::weak_ptr<signal_handler>> awaited;
  std::map<pid_t, program> programs;  // until they are reaped
  std::deque<int> signals;
  std::map<int, driver> drivers;
  std::vector<content> contents;  // of the files
  std::vector<int> generations;
  std::vector<hook_model> hooks;
  std::map<int, bool> kernel = {{1, true}};  // addresses that are stable, or not
  bool is_kernel_mute = false;
  time_point next_reading = never;  // of the kernel's addresses, at the latest
  time_point slot_time{};           // when another program could not be started for the last time
  std::map<std::string, hook_record> disk;
  bool is_disk_full = false;
  std::map<int, reader> readers{{1, reader::reads}, {2, reader::reads}};
  std::map<int, std::string> written;
  std::vector<std::string> expected;  // lines for what the host has been given
  std::deque<std::string> history;

  size_t room = 0;  // for instances
  size_t creations = 0;
  size_t readings = 1;        // of all files, as far as requested
  time_point work_started{};  // of the background work
  size_t chaos = 0;           // steps left until the world calms down
  bool may_hang = false;
  bool hangs = false;
  bool has_run = false;     // an instance
  bool has_failed = false;  // to start an instance
  bool is_calm = false;
  time_point calm_since = never;  // and since the plug-in's last call
  bool is_settled = false;
  bool is_over = false;          // the process has ended
  time_point stop_time = never;  // a stop signal has been delivered
  int stop_signal = 0;
  long steps = 0;
  long steps_now = 0;  // since time has passed
  int next_id = 0;
  int next_value = 0;
  time_point next_event = time_point{} + 1000s;
  report_model reporting;  // what the callback that runs reports

  // Called by what the host sees of the world.
  void start_program(pid_t pid, size_t i, const std::map<std::string, std::string>& environment);
  void signal_program(pid_t pid, int sig);
  void end_run(hook_model& h, bool succeeds);
  std::vector<kernel_address> read_kernel();
  std::optional<hook_record> load(const std::string& instance);
  void save(const std::string& instance, const hook_record& r);
  double random() { return std::uniform_real_distribution<double>()(_random); }
  void publish(int handle);
  void log(int handle, const std::string& text);
  nanoseconds duration_of_a_call();

 private:
  std::mt19937_64 _random;
  wall_clock::time_point _wall;  // at the start

  std::string stable_addresses() const;
  void offer(hook_model& h, const std::string& value);
  void set_target(hook_model& h, const std::string& value);
  std::string expected_reason(const hook_model& h, const std::string& value) const;
  time_point earliest_start(const hook_model& h, const std::string& value) const;
  time_point latest_start(const hook_model& h) const;
  size_t jobs(bool at_least) const;
  void change_the_kernel();

  std::vector<event_loop::task> possible();
  bool advance();
  void something_happens();
  void calm_down();
  void settle();
  void check() const;
  bool has_program(size_t i) const;
  bool may_end_by_itself() const;
  void end_program(pid_t pid);
  void deliver(int sig);
};

void world::step() {
  ++steps;
  expect(++steps_now < 20000, "it is busy without end");
  if (chaos > 0 && --chaos == 0) calm_down();
  for (hook_model& h : hooks)
    if (!is_filtered() && h.is_published && now >= h.null_from) set_target(h, "null");
  std::vector<event_loop::task> all = possible();
  if (!all.empty())
    all[below(all.size())]();
  else if ((is_calm && !is_settled && works.empty() && now > calm_since + 1200s) || !advance())
    settle();
  if (jobs(true) >= how.hook.jobs) slot_time = now;
  check();
}

std::vector<event_loop::task> world::possible() {
  std::vector<event_loop::task> all;
  if (!queue.empty())
    all.push_back([this] {
      const posted p = std::move(queue.front());
      queue.pop_front();
      if (!p.what.line.empty() && (p.what.value.empty() || !is_filtered())) expected.push_back(p.what.line);
      if (!p.what.value.empty()) {
        hook_model& h = hooks[p.what.instance];
        h.is_published = true;
        next_reading = std::min(next_reading, now);
        if (!is_filtered()) offer(h, p.what.value);
      }
      p.run();
    });
  for (const auto& [id, t] : timers)
    if (t.when <= now)
      all.push_back([this, id = id] {
        const auto handler = timers.at(id).handler.lock();
        timers.erase(id);
        (*handler)();
      });
  for (const auto& [id, pending] : works)
    if (pending.ready <= now)
      all.push_back([this, id = id] {
        const work w = std::move(works.at(id));
        works.erase(id);
        work_started = w.started;
        if (is_calm) calm_since = now;
        queue.push_back({w.run(), {}});
      });
  for (const auto& [id, w] : watches) {
    const reader r = readers.at(w.fd);
    if (r == reader::has_left || (r == reader::reads && w.r == event_loop::readiness::writable))
      all.push_back([handler = w.handler.lock()] { (*handler)(); });
  }
  for (const auto& [pid, p] : programs)
    if (p.ends <= now && awaited.contains(pid)) all.push_back([this, pid = pid] { end_program(pid); });
  if (!signals.empty())
    all.push_back([this] {
      const int sig = signals.front();
      signals.pop_front();
      deliver(sig);
    });
  if (!is_calm && (next_event <= now || chance(3))) all.push_back([this] { something_happens(); });
  return all;
}

bool world::advance() {
  time_point next = is_calm ? never : next_event;
  for (const auto& [id, t] : timers) next = std::min(next, t.when);
  for (const auto& [id, w] : works) next = std::min(next, w.ready);
  for (const auto& [pid, p] : programs)
    if (awaited.contains(pid)) next = std::min(next, p.ends);
  if (next == never) return false;
  expect(next > now, "time does not advance");
  now = next;
  steps_now = 0;
  return true;
}

void world::something_happens() {
  constexpr nanoseconds pauses[] = {0ns, 1ms, 100ms, 1s, 3s, 30s, 100s};
  next_event = now + up_to(pauses[below(std::size(pauses))]);
  const size_t i = below(how.files.size());
  std::vector<int> running;
  for (const auto& [handle, d] : drivers)
    if (d.runs) running.push_back(handle);
  const size_t what = below(100);
  if (what < 43) {
    if (!running.empty()) publish(running[below(running.size())]);
  } else if (what < 53) {
    change_the_kernel();
  } else if (what < 55) {
    is_kernel_mute = !is_kernel_mute;
  } else if (what < 57) {
    is_disk_full = !is_disk_full;
  } else if (what < 59) {
    _wall += chance(50) ? 36h : -36h;
  } else if (what < 65) {
    if (!running.empty()) log(running[below(running.size())], "message " + std::to_string(++next_id));
  } else if (what < 75) {
    contents[i] = chance(50) ? content::good : chance(50) ? content::broken : content::mute;
    ++generations[i];
    note("file " + std::to_string(i) + " has content " + std::to_string(static_cast<int>(contents[i])));
  } else if (what < 85) {
    signals.push_back(SIGHUP);
    note("SIGHUP is sent");
  } else if (what < 95) {
    const int fd = 1 + static_cast<int>(below(2));
    if (readers[fd] != reader::has_left) readers[fd] = chance(50) ? reader::reads : reader::stalls;
    note("reader " + std::to_string(fd) + (readers[fd] == reader::reads ? " reads" : " stalls"));
  } else if (what < 98) {
    room = how.files.size() + below(how.files.size() + 1);
    note("room for " + std::to_string(room));
  } else if (chance(10)) {
    readers[1] = reader::has_left;
    note("the reader leaves");
  } else if (chance(10)) {
    signals.push_back(chance(50) ? SIGINT : SIGTERM);
    note("a stop signal is sent");
  }
}

// From here on everything succeeds, and nothing new comes but one last reading of the files.
void world::calm_down() {
  note("calm");
  is_calm = true;
  calm_since = now;
  is_kernel_mute = is_disk_full = false;
  room = how.files.size() + 1 + below(how.files.size());
  for (content& c : contents) c = content::good;
  for (auto& [fd, r] : readers)
    if (r != reader::has_left) r = reader::reads;
  for (auto& [pid, p] : programs) p.ends = std::min(p.ends, now + 100s);
  signals.push_back(SIGHUP);
}

// Nothing can happen any more.
void world::settle() {
  expect(is_calm && !is_settled && stop_time == never, "nothing will ever end this");
  is_settled = true;
  note("settled");
  expect(!has_failed, "it continues without an instance");
  for (size_t i = 0; i < hooks.size(); ++i) {
    const hook_model& h = hooks[i];
    if (how.once || !h.is_published) continue;
    const std::string what = "instance " + std::to_string(i) + ": the newest value is " + h.target +
                             ", the last success had " + h.last_success.value_or("none");
    expect(h.target == h.last_success, what);
    if (is_filtered()) expect(h.target == stable_addresses(), what + ", the kernel has " + stable_addresses());
    expect(disk.at('i' + std::to_string(i)).value == h.target, what + ", another one is saved");
  }
  std::vector<bool> is_run(contents.size());
  for (const auto& [handle, d] : drivers) {
    expect(d.generation == generations[d.file], "an instance of an old file runs");
    is_run[d.file] = d.runs;
  }
  expect(std::count(is_run.begin(), is_run.end(), true) == std::ssize(is_run), "an instance does not run");
  signals.push_back(SIGTERM);
}

void world::check() const {
  for (const auto& [pid, p] : programs) {
    if (!awaited.contains(pid)) continue;  // left to the system
    expect(now <= p.started + how.hook.timeout || p.asked != never || p.ends <= now, "a program runs too long");
    expect(now <= p.asked + (p.asked == never ? 0s : 1s) || p.killed != never || p.ends <= now, "it is not killed");
  }
  expect(jobs(false) <= how.hook.jobs, "too many programs at once");
  if (may_end_by_itself() || hangs || drivers.empty()) return;  // hooks may be closed
  for (const hook_model& h : hooks)
    expect(now <= std::max(latest_start(h), slot_time), "a program is not started in time");
  if (is_filtered()) expect(now <= next_reading, "the kernel's addresses are not read in time");
  // Two programs for one instance are found when the second one starts.
}

// Then programs may be ended, and values left, without a stop signal.
bool world::may_end_by_itself() const {
  return how.once || how.time || readers.at(1) == reader::has_left || has_failed;
}

// ---------------------------------------------------------------- signals and programs

void world::deliver(int sig) {
  note("signal " + std::to_string(sig) + " is delivered");
  bool is_handled = false;
  const auto all = answers;
  for (const auto& [id, a] : all)
    if (std::find(a.signals.begin(), a.signals.end(), sig) != a.signals.end())
      if (const auto handler = a.handler.lock()) (*handler)(sig), is_handled = true;
  if (sig == SIGHUP) ++readings;
  if (sig == SIGHUP) return;
  if (!is_handled) throw killed{sig};
  stop_signal = sig;
  stop_time = std::min(stop_time, now);
}

std::string world::stable_addresses() const {
  std::string text;
  for (const auto& [n, is_stable] : kernel)
    if (is_stable) text += (text.empty() ? "2001:db8::" : ",2001:db8::") + std::to_string(n);
  return text.empty() ? "null" : text;
}

void world::change_the_kernel() {
  const int n = 1 + static_cast<int>(below(3));
  if (kernel.contains(n) && chance(50))
    kernel.erase(n);
  else
    kernel[n] = chance(60);
  note("the kernel has " + stable_addresses());
}

std::vector<kernel_address> world::read_kernel() {
  if (!is_calm && is_kernel_mute) {
    next_reading = now + 1s;
    throw std::system_error(EAGAIN, std::generic_category(), "netlink");
  }
  next_reading = now + 10s;
  for (hook_model& h : hooks)
    if (h.is_published) offer(h, stable_addresses());
  std::vector<kernel_address> list;
  for (const auto& [n, is_stable] : kernel)
    list.push_back({"2001:db8::" + std::to_string(n), {{{0x20, 1, 0x0d, 0xb8}}}, "eth0", 0, is_stable ? 0U : 0x20U});
  return list;
}

void world::offer(hook_model& h, const std::string& value) {
  if (value != "null") {
    h.null_from = never;
    return set_target(h, value);
  }
  if (h.null_from == never) h.null_from = now + (how.once ? 0s : how.hook.hold);
  if (now >= h.null_from) return set_target(h, value);
  next_reading = std::min(next_reading, h.null_from);
}

void world::set_target(hook_model& h, const std::string& value) {
  if (h.target == value) return;
  if (h.target_since != now) h.before = h.target;
  h.target = value;
  h.target_since = now;
}

nanoseconds nominal_pause(int failures) { return std::min<nanoseconds>(1s * (1L << std::min(failures - 1, 10)), 60s); }

std::string world::expected_reason(const hook_model& h, const std::string& value) const {
  if (h.tried) return value == *h.tried ? "retry" : h.last_success ? "change" : "first";
  if (!h.last_success) return "first";
  return value == *h.last_success ? "again" : "change";
}

time_point world::earliest_start(const hook_model& h, const std::string& value) const {
  const std::string reason = expected_reason(h, value);
  if (reason == "retry") return how.once ? never : h.ended + nominal_pause(h.failures) * 3 / 4;
  return reason == "again" ? h.again : start;
}

time_point world::latest_start(const hook_model& h) const {
  if (h.target.empty() || has_program(static_cast<size_t>(&h - hooks.data()))) return never;
  const time_point splayed = start + how.hook.splay;
  const std::string reason = expected_reason(h, h.target);
  if (reason == "retry") return how.once ? never : std::max(splayed, h.ended + nominal_pause(h.failures) * 5 / 4);
  return std::max({splayed, h.ended, h.target_since, reason == "again" ? h.again : start});
}

// A program that survives SIGKILL for a second is no longer counted. At the end of this second it may be.
size_t world::jobs(bool at_least) const {
  const auto is_job = [&](const auto& p) {
    if (p.second.killed == never) return true;
    return at_least ? now <= p.second.killed + 1s : now < p.second.killed + 1s;
  };
  return static_cast<size_t>(std::count_if(programs.begin(), programs.end(), is_job));
}

void world::start_program(pid_t pid, size_t i, const std::map<std::string, std::string>& environment) {
  hook_model& h = hooks[i];
  const std::string value = environment.at("DAC_VALUE");
  expect(!has_program(i), "instance " + std::to_string(i) + " has two programs at once");
  expect(value == h.target || (value == h.before && h.target_since == now),
         "it is started with " + value + ", the newest value is " + h.target);
  expect(now >= earliest_start(h, value), "it is started too early");
  expect(environment.at("DAC_REASON") == expected_reason(h, value), "it gets another reason");
  expect(environment.at("DAC_PREVIOUS") == h.last_success.value_or(""), "it gets another previous value");
  if (environment.at("DAC_REASON") != "retry") h.failures = 0;
  h.tried = value;
  program p{i, value, now, never, 0, nature::obedient};
  if (is_calm || chance(50)) {
    p.ends =
        now + up_to(is_calm || chance(80) ? std::min<nanoseconds>(how.hook.timeout - 1ns, 2s) : how.hook.timeout * 2);
    p.status = is_calm || chance(60) ? 0 : chance(50) ? 3 << 8 : SIGSEGV;
  }
  if (!is_calm && chance(50)) p.how = chance(50) ? nature::deaf : nature::unkillable;
  programs[pid] = p;
}

void world::signal_program(pid_t pid, int sig) {
  expect(programs.contains(pid), "a signal for a process that is reaped");
  program& p = programs[pid];
  if (stop_time == never && !may_end_by_itself() && sig == SIGTERM)
    expect(now == p.started + how.hook.timeout, "SIGTERM at another time than the timeout");
  if (sig == SIGKILL) expect(now == p.asked + 1s, "SIGKILL at another time than a second after SIGTERM");
  (sig == SIGTERM ? p.asked : p.killed) = now;
  if (p.how == nature::obedient || (p.how == nature::deaf && sig == SIGKILL)) {
    if (p.ends > now) p.status = sig;
    p.ends = std::min(p.ends, now + up_to(900ms));
  }
  if (p.how == nature::unkillable && sig == SIGKILL) p.ends = std::min(p.ends, chance(50) ? now + up_to(300s) : never);
  if (is_calm) p.ends = std::min(p.ends, now + 100s);
}

bool world::has_program(size_t i) const {
  return std::any_of(programs.begin(), programs.end(), [&](const auto& p) { return p.second.instance == i; });
}

void world::end_run(hook_model& h, bool succeeds) {
  h.ended = now;
  if (!succeeds) {
    ++h.failures;
    return;
  }
  h.last_success = std::exchange(h.tried, std::nullopt);
  h.failures = 0;
  h.again = how.hook.again == 0s ? never : now + how.hook.again;
}

// The clock may have been set back since the record was saved.
std::optional<hook_record> world::load(const std::string& instance) {
  const auto found = disk.find(instance);
  if (found == disk.end()) return std::nullopt;
  hook_model& h = hooks[std::stoul(instance.substr(1))];
  if (chance(5)) {
    h.last_success = std::nullopt;
    throw std::runtime_error("damaged");
  }
  const nanoseconds age = std::max<nanoseconds>(0s, wall_time() - found->second.time);
  if (how.hook.again != 0s) h.again = now + std::max<nanoseconds>(0s, how.hook.again - age);
  return found->second;
}

void world::save(const std::string& instance, const hook_record& r) {
  const hook_model& h = hooks[std::stoul(instance.substr(1))];
  expect(r.value == h.last_success, "another value is saved than the last success had");
  if (!is_calm && is_disk_full) throw std::runtime_error("the disk is full");
  disk[instance] = r;
}

void world::end_program(pid_t pid) {
  const program p = programs.at(pid);
  hook_model& h = hooks[p.instance];
  const bool succeeds = p.status == 0 && p.asked == never;
  note("program " + std::to_string(pid) + " ends with status " + std::to_string(p.status));
  programs.erase(pid);
  end_run(h, succeeds);
  (*awaited.at(pid).lock())(p.status);
}

// ---------------------------------------------------------------- the plug-in's callbacks

void world::publish(int handle) {
  const driver d = drivers.at(handle);
  const std::string& name = how.files[d.file];
  dac_tagvalue r = {};
  name.copy(r.name, sizeof r.name - 1);
  const bool is_same = chance(15) && next_value > 0;
  const std::string text = chance(10) ? "null" : "value" + std::to_string(is_same ? next_value : ++next_value);
  text.copy(r.value, sizeof r.value - 1);
  r.type = DAC_TYPE_TEXT;
  const std::string instance = name.substr(0, name.find('.'));
  reporting = {time_stamp(wall_time()) + '\t' + instance + "\tvalue\t" + name + '\t' + text, d.file, text};
  note(instance + " publishes " + text);
  d.data(&r, 1, d.param);
  reporting = {};
}

void world::log(int handle, const std::string& text) {
  const driver d = drivers.at(handle);
  const std::string& name = how.files[d.file];
  const std::string instance = name.substr(0, name.find('.'));
  reporting = {time_stamp(wall_time()) + '\t' + instance + "\tmessage\t" + text, d.file, ""};
  d.log("", DAC_LEVEL_OTHER, text.c_str(), 1, d.param);
  reporting = {};
}

nanoseconds world::duration_of_a_call() {
  if (may_hang && !is_calm && chance(1)) {
    hangs = true;
    return 1000000s;
  }
  return up_to(chance(90) ? 50ms : 2s);
}

// ---------------------------------------------------------------- what the host sees

class simulated_loop : public event_loop {
 public:
  explicit simulated_loop(world& w) : _world(w) {}

  time_point now() const override { return _world.now; }
  wall_clock::time_point wall_time() const override { return _world.wall_time(); }
  void run_until(const std::function<bool()>& condition) override {
    while (!condition()) _world.step();
  }
  void post(task t) override { _world.queue.push_back({std::move(t), _world.reporting}); }
  void run_in_background(std::function<task()> run) override {
    _world.expect(_world.works.empty(), "two calls into the plug-in at once");
    _world.works[++_world.next_id] = {_world.now, _world.now + _world.duration_of_a_call(), std::move(run)};
  }
  void parallel_for(size_t n, const std::function<void(size_t)>& work) override {
    for (size_t i = 0; i < n; ++i) work(i);
  }
  handle call_at(time_point when, task t) override {
    const int id = ++_world.next_id;
    auto added = std::make_unique<registered<task>>(std::move(t), [this, id] { _world.timers.erase(id); });
    _world.timers[id] = {when, added->handler};
    _world.expect(_world.timers.size() <= 2 * _world.hooks.size() + 4, "more and more timers");
    return added;
  }
  handle watch(int fd, readiness r, task t) override {
    const int id = ++_world.next_id;
    auto added = std::make_unique<registered<task>>(std::move(t), [this, id] { _world.watches.erase(id); });
    _world.watches[id] = {fd, r, added->handler};
    return added;
  }
  ssize_t write(int fd, std::string_view bytes) override {
    if (_world.readers[fd] == reader::has_left) return -EPIPE;
    if (_world.readers[fd] == reader::stalls || _world.chance(10)) return -EAGAIN;
    const size_t n = _world.chance(50) ? bytes.size() : 1 + _world.below(bytes.size());
    _world.written[fd].append(bytes.substr(0, n));
    return static_cast<ssize_t>(n);
  }
  handle on_signals(std::initializer_list<int> signals, signal_handler f) override {
    const int id = ++_world.next_id;
    auto added = std::make_unique<registered<signal_handler>>(std::move(f), [this, id] { _world.answers.erase(id); });
    _world.answers[id] = {signals, added->handler};
    return added;
  }
  void restore_signals() override {
    if (_world.stop_signal != 0) throw killed{_world.stop_signal};
    _world.answers.clear();
  }
  void suspend() override { throw violation("suspend"); }
  handle on_exit(pid_t child, signal_handler f) override {
    auto added =
        std::make_unique<registered<signal_handler>>(std::move(f), [this, child] { _world.awaited.erase(child); });
    _world.awaited[child] = added->handler;
    return added;
  }
  [[noreturn]] void exit(int status) override { throw exited{status}; }

 private:
  world& _world;
};

class simulated_launcher : public launcher {
 public:
  explicit simulated_launcher(world& w) : _world(w) {}

  pid_t start(const std::string& name, const std::vector<std::string>& settings) override {
    std::map<std::string, std::string> environment;
    for (const std::string& s : settings) environment[s.substr(0, s.find('='))] = s.substr(s.find('=') + 1);
    _world.expect(name == "true" && environment.size() == 7, "another program, or with other settings");
    const size_t i = std::stoul(environment.at("DAC_INSTANCE").substr(1));
    const pid_t pid = ++_world.next_id;
    _world.note("instance " + std::to_string(i) + " starts program " + std::to_string(pid) + " with " +
                environment.at("DAC_VALUE") + ", " + environment.at("DAC_REASON"));
    _world.start_program(pid, i, environment);
    if (_world.is_calm || !_world.chance(5)) return pid;
    _world.programs.erase(pid);
    _world.end_run(_world.hooks[i], false);
    throw std::system_error(ENOENT, std::generic_category());
  }
  void signal(pid_t pid, int sig) override {
    if (std::uncaught_exceptions() > 0) return;  // the run has been given up
    _world.note("program " + std::to_string(pid) + " gets signal " + std::to_string(sig));
    _world.signal_program(pid, sig);
  }

 private:
  world& _world;
};

class simulated_addresses : public address_list {
 public:
  explicit simulated_addresses(world& w) : _world(w) {}
  std::vector<kernel_address> all() override { return _world.read_kernel(); }

 private:
  world& _world;
};

class simulated_records : public hook_store {
 public:
  explicit simulated_records(world& w) : _world(w) {}
  std::optional<hook_record> load(const std::string& instance) override { return _world.load(instance); }
  void save(const std::string& instance, const hook_record& r, std::function<void(const std::string&)> done) override {
    std::string failure;
    try {
      _world.save(instance, r);
    } catch (const std::runtime_error& e) {
      failure = e.what();
    }
    _world.queue.push_back({[=] { done(failure); }, _world.reporting});
  }

 private:
  world& _world;
};

class simulated_plugin {
 public:
  explicit simulated_plugin(world& w) : _world(w) {}

  plugin entry_points() const {
    plugin p;
    p.file = "simulated.so";
    p.version_text = "version";
    p.version = 1;
    p.create = [this](const char*, const char* file, cblog log, void* param, cbaux, void*, cbdata data, void*, cbaux,
                      void*) { return create(file, log, data, param); };
    p.destroy = [this](int handle) { destroy(handle); };
    p.start = [this](int handle) { return start(handle); };
    p.stop = [this](int handle) { return stop(handle); };
    p.isrun = [this](int handle) { return _world.drivers.at(handle).runs ? 1 : 0; };
    p.getalltagsex = [this](int handle, cbtagex callback, void* param) { return list_tags(handle, callback, param); };
    return p;
  }

 private:
  world& _world;

  int create(const char* file, cblog log, cbdata data, void* param) const {
    const auto& files = _world.how.files;
    const auto i = static_cast<size_t>(std::find(files.begin(), files.end(), file) - files.begin());
    _world.expect(++_world.creations <= 2 * files.size() * _world.readings, "files are read again and again");
    _world.expect(_world.work_started <= _world.stop_time, "a file is read after a stop signal");
    if (_world.contents[i] == content::broken) log("", DAC_LEVEL_FAILURE, "it is broken", 1, param);
    if (_world.contents[i] != content::good || _world.drivers.size() >= _world.room) {
      _world.has_failed = _world.has_failed || !_world.has_run;
      return -1;
    }
    const int handle = ++_world.next_id;
    _world.drivers[handle] = {i, _world.generations[i], log, data, param};
    _world.note("instance " + std::to_string(handle) + " of file " + std::to_string(i) + " is created");
    return handle;
  }
  void destroy(int handle) const {
    if (_world.is_over) return;
    _world.expect(!_world.drivers.at(handle).runs, "an instance that runs is destroyed");
    _world.drivers.erase(handle);
  }
  int start(int handle) const {
    driver& d = _world.drivers.at(handle);
    for (const auto& [other, o] : _world.drivers)
      _world.expect(o.file != d.file || !o.runs, "two instances of one file run");
    if (!_world.is_calm && _world.below(2000) == 0) {
      _world.has_failed = true;
      throw std::system_error(EAGAIN, std::generic_category());
    }
    d.runs = _world.has_run = true;
    _world.note("instance " + std::to_string(handle) + " is started");
    _world.log(handle, "start");
    if (_world.chance(50)) _world.publish(handle);
    return 0;
  }
  int stop(int handle) const {
    if (_world.is_over || !_world.drivers.at(handle).runs) return 0;
    if (_world.chance(30)) _world.publish(handle);
    _world.drivers.at(handle).runs = false;
    _world.note("instance " + std::to_string(handle) + " is stopped");
    _world.log(handle, "stop");
    return 0;
  }
  int list_tags(int handle, cbtagex callback, void* param) const {
    callback(_world.how.files[_world.drivers.at(handle).file].c_str(), DAC_TYPE_TEXT, 1, "", "", param);
    return 0;
  }
};

// ---------------------------------------------------------------- a run

/// The lines of values and messages that have been printed whole, with the times of their callbacks.
std::vector<std::string> printed(const world& w) {
  std::vector<std::string> lines;
  std::istringstream in(w.written.contains(1) ? w.written.at(1) : "");
  for (std::string line; std::getline(in, line) && !in.eof();)
    if (line.find("\tvalue\t") != std::string::npos || line.find("\tmessage\t") != std::string::npos)
      lines.push_back(line);
  return lines;
}

void check_lines(const world& w, bool may_lack_some) {
  const std::vector<std::string> lines = printed(w);
  w.expect(lines.size() <= w.expected.size() && std::equal(lines.begin(), lines.end(), w.expected.begin()),
           "lines are doubled or out of order");
  w.expect(may_lack_some || lines.size() == w.expected.size(), "lines are lost");
}

// Each call into the plug-in takes two seconds at most; there are five at the end: creation, stop, start, stop,
// destruction.
nanoseconds promised(const world& w) { return (w.hangs ? 30s : 10s) + 2s + 1s + 1s + 1s; }

void check_end(const world& w, const output& out, bool is_exit) {
  if (w.stop_time != never) w.expect(w.now <= w.stop_time + promised(w), "the end comes late");
  w.expect(w.timers.empty(), "a timer survives the run");
  w.expect(w.awaited.empty(), "a wait for a program survives the run");
  for (const auto& [pid, p] : w.programs)
    w.expect(p.how == nature::unkillable && p.killed != never, "a program survives the run");
  check_lines(w, out.error() != 0 || is_exit);
  if (is_exit) return;
  w.expect(w.drivers.empty(), "an instance survives the run");
  for (const posted& p : w.queue) w.expect(p.what.line.empty(), "a report is not passed on");
}

class no_manager : public service_manager {
  bool is_present() const override { return false; }
  std::chrono::microseconds watchdog() const override { return {}; }
  bool notify(const std::string& /*lines*/) override { throw std::logic_error("no manager is present"); }
};

// Background work ends with the process.
class process_end {
 public:
  explicit process_end(world& w) : _world(w) {}
  ~process_end() {
    _world.is_over = true;
    _world.works.clear();
    _world.queue.clear();
  }
  process_end(const process_end&) = delete;
  process_end& operator=(const process_end&) = delete;

 private:
  world& _world;
};

void run_one(world& w) {
  simulated_loop loop(w);
  simulated_launcher programs(w);
  simulated_addresses addresses(w);
  simulated_records records(w);
  const simulated_plugin driver(w);
  const plugin p = driver.entry_points();
  const process_end last(w);
  no_manager manager;
  output out(loop, 1);
  output err(loop, 2);
  bool is_exit = false;
  try {
    run({loop, programs, addresses, records, [&w] { return w.random(); }}, manager, p, w.how, out, err);
  } catch (const exited&) {
    is_exit = true;
    w.expect(w.hangs, "it exits though the plug-in returns");
  } catch (const killed&) {
    w.expect(!out.is_empty() || !err.is_empty(), "a signal ends the process though all is written");
    is_exit = true;
  }
  check_end(w, out, is_exit);
}

std::string report(const world& w, unsigned seed, const std::string& what) {
  std::string text = what + "\nreplay with IP6DNS_SEED=" + std::to_string(seed) +
                     " IP6DNS_STEPS=1; the last steps of " + std::to_string(w.steps) + ":\n";
  for (const std::string& line : w.history) text += line + '\n';
  return text;
}

/// The steps.
long run_and_report(world& w, unsigned seed) {
  try {
    run_one(w);
  } catch (const violation& v) {
    ADD_FAILURE() << report(w, seed, v.what());
  } catch (const std::exception& e) {
    ADD_FAILURE() << report(w, seed, std::string("exception: ") + e.what());
  }
  return w.steps;
}

long setting(const char* name, long otherwise) {
  const char* text = std::getenv(name);
  return text ? std::strtol(text, nullptr, 10) : otherwise;
}

}  // namespace

TEST(simulation, holds_every_invariant_at_every_step) {
  const long steps = setting("IP6DNS_STEPS", 1'000'000);
  auto seed = static_cast<unsigned>(setting("IP6DNS_SEED", 1));
  long done = 0;
  int runs = 0;
  for (; done < steps; ++seed, runs += 2) {
    world first(seed);
    done += run_and_report(first, seed);
    world second(seed, first.disk, first.wall_time() + first.up_to(48h));
    done += run_and_report(second, seed);
    if (HasFailure()) return;
  }
  RecordProperty("runs", runs);
  std::printf("%d runs, %ld steps\n", runs, done);
}
