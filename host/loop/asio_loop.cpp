// The event loop on Asio. Only this file includes it.
#define ASIO_STANDALONE
#define ASIO_NO_DEPRECATED
#define ASIO_DISABLE_FENCED_BLOCK  // the mutex orders all that is posted, and the thread sanitizer knows no fences
#include <poll.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <asio.hpp>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "host/loop/event_loop.h"

namespace {

using asio::error_code;
using signal_handler = std::function<void(int)>;

// Owns a handler. Its caller holds it during the call, so that a handler may end its own registration.
template <class F>
struct owner : event_loop::registration {
  owner(F f, event_loop::task e) : handler(std::make_shared<F>(std::move(f))), end(std::move(e)) {}
  ~owner() override { end(); }
  std::shared_ptr<F> handler;
  event_loop::task end;
};

template <class F, class... A>
void call(const std::weak_ptr<F>& handler, A... arguments) {
  if (const auto live = handler.lock()) (*live)(arguments...);
}

sigset_t set_of(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int sig : signals) sigaddset(&set, sig);
  return set;
}

bool is_ignored(int sig) {
  struct sigaction a {};
  return sigaction(sig, nullptr, &a) == 0 && a.sa_handler == SIG_IGN;
}

// A shell without job control starts background commands with SIGINT and SIGQUIT ignored: the keys that send them are
// meant for the foreground.
bool is_left_ignored(int sig) { return (sig == SIGINT || sig == SIGQUIT || sig == SIGTSTP) && is_ignored(sig); }

// Background threads, and those that the plug-in starts in them, leave signals to the loop.
class all_signals_blocked {
 public:
  all_signals_blocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &_before);
  }
  ~all_signals_blocked() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }
  all_signals_blocked(const all_signals_blocked&) = delete;
  all_signals_blocked& operator=(const all_signals_blocked&) = delete;

 private:
  sigset_t _before{};
};

int create_epoll() {
  const int fd = epoll_create1(EPOLL_CLOEXEC);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "epoll");
  return fd;
}

class asio_loop final : public event_loop {
 public:
  asio_loop() : _work(_io.get_executor()), _descriptors(_io, create_epoll()) {
    const sigset_t answered = set_of({SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD});
    pthread_sigmask(SIG_UNBLOCK, &answered, nullptr);
    _children_change = on_signals({SIGCHLD}, [this](int) { reap_children(); });
    await_descriptors();
  }

  steady_clock::time_point now() const override { return steady_clock::now(); }
  wall_clock::time_point wall_time() const override { return wall_clock::now(); }

  void run_until(const std::function<bool()>& condition) override {
    while (!condition()) _io.run_one();
  }

  void post(task t) override { asio::post(_io, std::move(t)); }

  void run_in_background(std::function<task()> work) override {
    const all_signals_blocked here;
    const auto thread = std::make_shared<std::thread>();
    try {
      *thread = std::thread([this, work, thread] {
        post([thread, done = work()] {
          thread->join();
          done();
        });
      });
    } catch (const std::system_error&) {
      post(work());
    }
  }

  void parallel_for(size_t n, const std::function<void(size_t)>& work) override {
    constexpr size_t most_threads = 512;
    std::atomic<size_t> next = 0;
    const auto take_turns = [&] {
      for (size_t i = next++; i < n; i = next++) work(i);
    };
    std::vector<std::jthread> helpers;
    try {
      while (helpers.size() + 1 < std::min(n, most_threads)) helpers.emplace_back(take_turns);
    } catch (const std::system_error&) {
      // The threads that exist, this one at least, do the rest.
    }
    take_turns();
  }

  handle call_at(steady_clock::time_point when, task t) override {
    const auto timer = std::make_shared<asio::steady_timer>(_io, when);
    auto added = std::make_unique<owner<task>>(std::move(t), [timer] { timer->cancel(); });
    timer->async_wait([h = std::weak_ptr(added->handler)](error_code) { call(h); });
    return added;
  }

  handle watch(int fd, readiness r, task t) override {
    const uint64_t id = ++_last_watch;
    epoll_event e{};
    if (r == readiness::readable) e.events = EPOLLIN;
    if (r == readiness::writable) e.events = EPOLLOUT;
    e.data.u64 = id;
    if (epoll_ctl(_descriptors.native_handle(), EPOLL_CTL_ADD, fd, &e) != 0) return nullptr;
    auto added = std::make_unique<owner<task>>(std::move(t), [this, fd, id] {
      _watches.erase(id);
      epoll_ctl(_descriptors.native_handle(), EPOLL_CTL_DEL, fd, nullptr);
    });
    _watches[id] = added->handler;
    return added;
  }

  // A pipe that is ready takes PIPE_BUF bytes at once, and may block on more.
  ssize_t write(int fd, std::string_view bytes) override {
    pollfd p = {fd, POLLOUT, 0};
    if (poll(&p, 1, 0) <= 0) return -EAGAIN;
    ssize_t n = -1;
    do n = ::write(fd, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
    while (n < 0 && errno == EINTR);
    return n >= 0 ? n : -errno;
  }

  handle on_signals(std::initializer_list<int> signals, signal_handler f) override {
    const auto set = std::make_shared<asio::signal_set>(_io);
    for (const int sig : signals)
      if (!is_left_ignored(sig)) set->add(sig);
    auto added = std::make_unique<owner<signal_handler>>(std::move(f), [set] {
      set->clear();
      set->cancel();  // otherwise the pending wait would own the set
    });
    await_signal(set, added->handler);
    return added;
  }

  void restore_signals() override {
    _io.poll();
    for (const int sig : {SIGINT, SIGQUIT, SIGTERM})
      if (!is_ignored(sig)) std::signal(sig, SIG_DFL);
    if (_stop_signal != 0) std::raise(_stop_signal);
  }

  void suspend() override {
    const auto handler = std::signal(SIGTSTP, SIG_DFL);
    std::raise(SIGTSTP);
    std::signal(SIGTSTP, handler);
  }

  handle on_exit(pid_t child, std::function<void(int)> f) override {
    auto added = std::make_unique<owner<signal_handler>>(std::move(f), [this, child] { _children.erase(child); });
    _children[child] = added->handler;
    return added;
  }

  [[noreturn]] void exit(int status) override { std::_Exit(status); }

 private:
  asio::io_context _io;
  asio::executor_work_guard<asio::io_context::executor_type> _work;
  // Asio sets O_NONBLOCK on every descriptor that it waits for, which would affect all processes that share the
  // standard streams. So it waits for one epoll set, which holds the descriptors.
  asio::posix::stream_descriptor _descriptors;
  std::map<uint64_t, std::weak_ptr<task>> _watches;
  uint64_t _last_watch = 0;
  std::map<pid_t, std::weak_ptr<std::function<void(int)>>> _children;
  handle _children_change;
  int _stop_signal = 0;  // the last that a handler was called for

  void await_descriptors() {
    _descriptors.async_wait(asio::posix::descriptor_base::wait_read, [this](error_code failed) {
      if (failed) return;
      epoll_event ready[16];
      const int n = epoll_wait(_descriptors.native_handle(), ready, std::size(ready), 0);
      await_descriptors();
      for (int k = 0; k < n; ++k) {
        const uint64_t id = ready[k].data.u64;  // a copy: on x86-64 the original is not aligned
        if (const auto w = _watches.find(id); w != _watches.end()) call(w->second);
      }
    });
  }

  void await_signal(const std::shared_ptr<asio::signal_set>& set, const std::weak_ptr<signal_handler>& handler) {
    set->async_wait([this, set, handler](error_code failed, int sig) {
      if (failed || handler.expired()) return;
      if (sig == SIGINT || sig == SIGQUIT || sig == SIGTERM) _stop_signal = sig;
      await_signal(set, handler);
      call(handler, sig);
    });
  }

  void reap_children() {
    const auto awaited = _children;
    for (const auto& [pid, handler] : awaited)
      if (int status = 0; reap(pid, status)) call(handler, status);
  }

  // Kills the group before it reaps the child: until then the ids cannot belong to other processes.
  static bool reap(pid_t pid, int& status) {
    siginfo_t ended{};
    if (waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid == 0)
      return false;
    kill(-pid, SIGKILL);
    return waitpid(pid, &status, 0) == pid;
  }
};

}  // namespace

std::unique_ptr<event_loop> make_event_loop() { return std::make_unique<asio_loop>(); }
