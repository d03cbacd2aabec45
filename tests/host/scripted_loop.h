// An event loop that a test controls: time advances, and descriptors accept bytes, as the test says.
#pragma once

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/loop/event_loop.h"

class scripted_loop : public event_loop {
 public:
  using signal_handler = std::function<void(int)>;
  struct watch_state {
    int fd;
    readiness r;
    std::weak_ptr<task> handler;
  };
  /// What a descriptor accepts, and what it has received.
  struct sink {
    std::deque<ssize_t> answers;  // of the next calls of write(); then everything is taken
    std::string text;
    int calls = 0;
  };

  steady_clock::time_point time{std::chrono::seconds(1000)};
  wall_clock::time_point wall{};
  std::map<int, sink> sinks;
  std::vector<watch_state> watches;
  bool is_restored = false;
  int unwatchable = -1;           // a descriptor
  bool holds_work = false;        // background work does not run
  bool is_in_background = false;  // background work is running
  int works = 0;                  // that have run

  size_t timers() const { return _timers.size(); }
  size_t awaited() const { return _children.size(); }
  /// The descriptor's only watch, or none and false.
  const watch_state* watch_of(int fd) const {
    const auto w = std::find_if(watches.begin(), watches.end(), [fd](const watch_state& s) { return s.fd == fd; });
    return w == watches.end() ? nullptr : &*w;
  }
  /// The descriptor is ready, or its other end has gone.
  void wake(int fd) {
    const watch_state* w = watch_of(fd);
    if (!w) throw std::logic_error("the descriptor is not watched");
    if (const auto live = w->handler.lock()) (*live)();
  }
  /// The child ends.
  void end(pid_t child, int status) {
    const auto c = _children.find(child);
    if (c == _children.end()) throw std::logic_error("no handler awaits the child");
    if (const auto live = c->second.lock()) (*live)(status);
  }
  /// The signal is delivered. False when no handler is called.
  bool signal(int sig) {
    bool is_handled = false;
    const auto all = _signals;
    for (const auto& [id, s] : all)
      if (std::find(s.signals.begin(), s.signals.end(), sig) != s.signals.end())
        if (const auto live = s.handler.lock()) (*live)(sig), is_handled = true;
    return is_handled;
  }
  /// Runs the background work that was held. Its task is posted.
  void release_work() {
    for (const auto& w : std::exchange(_work, {})) post([this, w] { run_work(w); });
  }
  size_t held_work() const { return _work.size(); }
  /// Runs what is posted or due until that much time has passed.
  void pass(std::chrono::nanoseconds n) {
    const steady_clock::time_point end = time + n;
    while (run_posted() || run_timer(end)) {
    }
    time = end;
  }

  steady_clock::time_point now() const override { return time; }
  wall_clock::time_point wall_time() const override { return wall; }
  void run_until(const std::function<bool()>& condition) override {
    for (int n = 0; !condition(); ++n) {
      if (n > 1000) throw std::logic_error("the condition never holds");
      if (!run_posted() && !run_timer(steady_clock::time_point::max())) throw std::logic_error("no event is pending");
    }
  }
  void post(task t) override { _posted.push_back(std::move(t)); }
  void run_in_background(std::function<task()> work) override {
    _work.push_back(std::move(work));
    if (!holds_work) release_work();
  }
  void parallel_for(size_t n, const std::function<void(size_t)>& work) override {
    for (size_t i = 0; i < n; ++i) work(i);
  }
  handle call_at(steady_clock::time_point when, task t) override {
    const int id = ++_last_id;
    auto added = std::make_unique<owner<task>>(std::move(t), [this, id] { _timers.erase(id); });
    _timers[id] = {when, added->handler};
    return added;
  }
  handle watch(int fd, readiness r, task t) override {
    if (fd == unwatchable) return nullptr;
    if (watch_of(fd)) throw std::logic_error("the descriptor is watched already");
    auto added = std::make_unique<owner<task>>(
        std::move(t), [this, fd] { std::erase_if(watches, [fd](const watch_state& w) { return w.fd == fd; }); });
    watches.push_back({fd, r, added->handler});
    return added;
  }
  ssize_t write(int fd, std::string_view bytes) override {
    sink& s = sinks[fd];
    if (++s.calls > 10'000) throw std::logic_error("it writes endlessly");
    auto n = static_cast<ssize_t>(bytes.size());
    if (!s.answers.empty()) n = std::min(n, std::exchange(s.answers.front(), 0));
    if (!s.answers.empty()) s.answers.pop_front();
    if (n > 0) s.text.append(bytes.substr(0, static_cast<size_t>(n)));
    return n;
  }
  handle on_signals(std::initializer_list<int> signals, signal_handler f) override {
    const int id = ++_last_id;
    auto added = std::make_unique<owner<signal_handler>>(std::move(f), [this, id] { _signals.erase(id); });
    _signals[id] = {signals, added->handler};
    return added;
  }
  void restore_signals() override { is_restored = true; }
  void suspend() override { throw std::logic_error("suspend"); }
  handle on_exit(pid_t child, signal_handler f) override {
    auto added = std::make_unique<owner<signal_handler>>(std::move(f), [this, child] { _children.erase(child); });
    _children[child] = added->handler;
    return added;
  }
  [[noreturn]] void exit(int /*status*/) override { throw std::logic_error("exit"); }

 private:
  template <class F>
  struct owner : registration {
    owner(F f, task e) : handler(std::make_shared<F>(std::move(f))), end(std::move(e)) {}
    ~owner() override { end(); }
    std::shared_ptr<F> handler;
    task end;
  };
  struct timer {
    steady_clock::time_point when;
    std::weak_ptr<task> handler;
  };

  struct signal_state {
    std::vector<int> signals;
    std::weak_ptr<signal_handler> handler;
  };

  void run_work(const std::function<task()>& w) {
    ++works;
    is_in_background = true;
    task then = w();
    is_in_background = false;
    post(std::move(then));
  }
  bool run_posted() {
    if (_posted.empty()) return false;
    const task t = std::move(_posted.front());
    _posted.pop_front();
    t();
    return true;
  }
  // The earliest one, if it is due by then.
  bool run_timer(steady_clock::time_point latest) {
    const auto next = std::min_element(_timers.begin(), _timers.end(),
                                       [](const auto& a, const auto& b) { return a.second.when < b.second.when; });
    if (next == _timers.end() || next->second.when > latest) return false;
    time = std::max(time, next->second.when);
    const auto live = next->second.handler.lock();
    _timers.erase(next);
    if (live) (*live)();
    return true;
  }

  std::deque<task> _posted;
  std::deque<std::function<task()>> _work;
  std::map<int, timer> _timers;
  std::map<int, signal_state> _signals;
  std::map<pid_t, std::weak_ptr<signal_handler>> _children;
  int _last_id = 0;
};
