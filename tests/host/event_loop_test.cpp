// The event loop in real time: short times, real descriptors, children, threads and signals.
#include "host/loop/event_loop.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/scratch.h"

using namespace std::chrono_literals;
using readiness = event_loop::readiness;

namespace {

std::atomic<int> threads_left = INT_MAX;  // that the system starts before it refuses
int refused_epoll = -1;                   // the number of the call that fails

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                              void* argument) noexcept {
  static const auto real = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (threads_left == 0) return EAGAIN;
  --threads_left;
  return real(thread, attr, body, argument);
}

extern "C" int epoll_create1(int flags) noexcept {
  if (refused_epoll-- != 0) return static_cast<int>(syscall(SYS_epoll_create1, flags));
  errno = EMFILE;
  return -1;
}

namespace {

/// What a function finds in its variables when it does not set them.
void fill_stack() {
  char filling[16384];
  std::memset(filling, 0xff, sizeof filling);
  asm volatile("" : : "r"(filling) : "memory");
}

class event_loops : public testing::Test {
 protected:
  std::unique_ptr<event_loop> loop = make_event_loop();
  std::vector<int> seen;

  ~event_loops() override { threads_left = INT_MAX; }

  event_loop::task see(int what) {
    return [this, what] { seen.push_back(what); };
  }
  std::function<void(int)> see_number(int what) {
    return [this, what](int) { seen.push_back(what); };
  }
  void await(size_t count) {
    const auto limit = loop->call_in(20s, [] { throw std::runtime_error("nothing happens"); });
    loop->run_until([&] { return seen.size() >= count; });
  }
  /// Runs the loop for a while, to see that nothing more happens.
  void run_for(std::chrono::milliseconds time) {
    bool is_over = false;
    const auto end = loop->call_in(time, [&] { is_over = true; });
    loop->run_until([&] { return is_over; });
  }
};

struct pipe_ends {
  pipe_ends() {
    if (pipe2(fd, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  }
  ~pipe_ends() {
    close_end(0);
    close_end(1);
  }
  pipe_ends(const pipe_ends&) = delete;
  pipe_ends& operator=(const pipe_ends&) = delete;

  void close_end(int end) {
    if (fd[end] >= 0) close(std::exchange(fd[end], -1));
  }
  void fill() const {
    fcntl(fd[1], F_SETFL, O_NONBLOCK);
    const std::string page(4096, 'x');
    while (write(fd[1], page.data(), page.size()) > 0) {
    }
    fcntl(fd[1], F_SETFL, 0);
  }
  void put() const { EXPECT_EQ(write(fd[1], "x", 1), 1); }
  void take() const {
    pollfd p = {fd[0], POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 0), 1) << "there is nothing to read";
    char byte = 0;
    EXPECT_EQ(read(fd[0], &byte, 1), 1);
  }

  int fd[2] = {-1, -1};
};

/// The child's wait status. The loop's handler of SIGCHLD interrupts waits.
int wait_status(pid_t pid, int flags) {
  int status = -1;
  while (waitpid(pid, &status, flags) < 0)
    if (errno != EINTR) throw std::runtime_error("waitpid");
  return status;
}

template <class F>
pid_t child(F body) {
  const pid_t pid = fork();
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}

bool is_blocked(int sig) {
  sigset_t now;
  pthread_sigmask(SIG_SETMASK, nullptr, &now);
  return sigismember(&now, sig) == 1;
}

sigset_t set_of(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int sig : signals) sigaddset(&set, sig);
  return set;
}

using event_loops_death = event_loops;

}  // namespace

// ---------------------------------------------------------------- tasks

TEST_F(event_loops, tasks_run_in_the_order_of_posting) {
  for (int n = 0; n < 5; ++n) loop->post(see(n));
  EXPECT_TRUE(seen.empty());
  await(5);
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(event_loops, the_condition_is_checked_before_each_handler) {
  loop->post(see(1));
  loop->post(see(2));
  loop->run_until([] { return true; });
  EXPECT_TRUE(seen.empty());
  await(1);
  EXPECT_EQ(seen, std::vector<int>{1});
}

TEST_F(event_loops, a_task_from_another_thread_wakes_the_loop) {
  const std::jthread other([this] {
    std::this_thread::sleep_for(10ms);
    loop->post(see(1));
  });
  await(1);
}

TEST_F(event_loops, a_refused_descriptor_is_an_error) {
  for (int n = 0; n < 2; ++n) {
    refused_epoll = n;
    try {
      make_event_loop();
      ADD_FAILURE() << "no exception";
    } catch (const std::system_error& e) {
      EXPECT_EQ(e.code().value(), EMFILE) << n;
    }
    refused_epoll = -1;
  }
}

TEST_F(event_loops, clocks_are_the_systems) {
  const auto before = steady_clock::now();
  const auto now = loop->now();
  EXPECT_GE(now, before);
  EXPECT_LE(now, steady_clock::now());
  const auto earlier = wall_clock::now();
  const auto time = loop->wall_time();
  EXPECT_GE(time, earlier);
  EXPECT_LE(time, wall_clock::now());
}

// ---------------------------------------------------------------- timers

TEST_F(event_loops, timers_run_once_in_the_order_of_their_times) {
  const auto begun = loop->now();
  const auto late = loop->call_at(begun + 20ms, see(2));
  const auto early = loop->call_at(begun + 10ms, see(1));
  const auto past = loop->call_at(begun - 1s, see(0));
  await(3);
  EXPECT_GE(loop->now() - begun, 20ms);
  run_for(30ms);
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
}

TEST_F(event_loops, a_timer_that_is_destroyed_does_not_run) {
  auto destroyed = loop->call_in(1ms, see(1));
  destroyed = nullptr;
  event_loop::handle victim = loop->call_in(2ms, see(2));
  const auto killer = loop->call_in(1ms, [&] { victim = nullptr; });
  std::this_thread::sleep_for(5ms);
  run_for(10ms);
  EXPECT_TRUE(seen.empty());
}

TEST_F(event_loops, a_handler_may_end_its_own_timer) {
  event_loop::handle own = loop->call_in(1ms, [&, text = std::string(100, 'x')] {
    own = nullptr;
    seen.push_back(static_cast<int>(text.size()));
  });
  await(1);
  EXPECT_EQ(seen, std::vector<int>{100});
}

// ---------------------------------------------------------------- threads

TEST_F(event_loops, work_runs_on_another_thread_and_its_task_in_the_loop) {
  const std::thread::id here = std::this_thread::get_id();
  pipe_ends gate;
  loop->run_in_background([&]() -> event_loop::task {
    EXPECT_NE(std::this_thread::get_id(), here);
    for (const int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGALRM}) EXPECT_TRUE(is_blocked(sig)) << sig;
    char byte = 0;
    EXPECT_EQ(read(gate.fd[0], &byte, 1), 1);
    return [&, here] {
      EXPECT_EQ(std::this_thread::get_id(), here);
      seen.push_back(1);
    };
  });
  for (const int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGALRM}) EXPECT_FALSE(is_blocked(sig)) << sig;
  loop->post(see(0));
  await(1);
  gate.put();
  await(2);
  EXPECT_EQ(seen, (std::vector<int>{0, 1}));
}

TEST_F(event_loops, work_runs_at_once_when_there_is_no_thread) {
  threads_left = 0;
  loop->run_in_background([this]() -> event_loop::task {
    seen.push_back(1);
    return see(2);
  });
  EXPECT_EQ(seen, std::vector<int>{1});
  await(2);
}

TEST_F(event_loops, parallel_work_is_done_once_for_each_number) {
  for (const size_t n : {0U, 1U, 2U, 3U, 100U, 600U}) {
    for (const int threads : {0, 1, 5, INT_MAX}) {
      threads_left = threads;
      std::vector<std::atomic<int>> done(n);
      loop->parallel_for(n, [&](size_t i) { ++done.at(i); });
      EXPECT_TRUE(std::all_of(done.begin(), done.end(), [](int times) { return times == 1; })) << n;
    }
  }
}

TEST_F(event_loops, parallel_work_uses_one_thread_for_each_number_and_512_at_most) {
  for (const size_t n : {1U, 2U, 3U, 512U, 600U}) {
    threads_left = INT_MAX;
    const size_t most = std::min<size_t>(n, 512);
    std::atomic<size_t> at_work = 0;
    std::atomic<bool> are_all = false;
    loop->parallel_for(n, [&](size_t) {
      if (++at_work == most) are_all = true;
      for (int k = 0; k < 200 && !are_all; ++k) std::this_thread::sleep_for(10ms);
    });
    EXPECT_TRUE(are_all) << n;
    EXPECT_EQ(INT_MAX - threads_left, static_cast<int>(most) - 1) << "the calling thread works too";
  }
}

// ---------------------------------------------------------------- descriptors

TEST_F(event_loops, a_watch_calls_whenever_its_descriptor_is_ready) {
  const pipe_ends p, q;
  const auto w = loop->watch(p.fd[0], readiness::readable, [&] {
    p.take();
    seen.push_back(1);
  });
  const auto v = loop->watch(q.fd[0], readiness::readable, [&] {
    q.take();
    seen.push_back(2);
  });
  ASSERT_TRUE(w);
  run_for(5ms);
  EXPECT_TRUE(seen.empty());
  p.put();
  p.put();
  q.put();
  await(3);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<int>{1, 1, 2}));
  for (int n = 4; n < 10; ++n) {
    p.put();
    await(static_cast<size_t>(n));
    EXPECT_EQ(seen.back(), 1);
  }
  run_for(5ms);
  EXPECT_EQ(seen.size(), 9U);
}

TEST_F(event_loops, a_watch_reports_only_what_it_is_for) {
  const pipe_ends p, full;
  full.fill();
  const auto writable = loop->watch(p.fd[1], readiness::writable, see(1));
  await(1);
  const auto none = loop->watch(p.fd[0], readiness::none, see(2));
  const auto not_writable = loop->watch(full.fd[1], readiness::writable, see(3));
  p.put();
  await(3);
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), static_cast<long>(seen.size()));
  for (int n = 0; n < 16; ++n) full.take();
  seen.clear();
  char page[8192];
  EXPECT_GT(read(full.fd[0], page, sizeof page), 0);
  const auto has_room = [&] { return std::find(seen.begin(), seen.end(), 3) != seen.end(); };
  const auto limit = loop->call_in(20s, [] { throw std::runtime_error("nothing happens"); });
  loop->run_until(has_room);
}

TEST_F(event_loops, every_watch_reports_that_the_other_end_has_gone) {
  for (const readiness r : {readiness::none, readiness::writable}) {
    pipe_ends p;
    p.fill();
    const size_t before = seen.size();
    const auto w = loop->watch(p.fd[1], r, see(1));
    run_for(5ms);
    EXPECT_EQ(seen.size(), before);
    p.close_end(0);
    await(before + 1);
  }
}

TEST_F(event_loops, a_watch_that_is_destroyed_does_not_call) {
  const pipe_ends p;
  p.put();
  auto w = loop->watch(p.fd[0], readiness::readable, see(1));
  w = nullptr;
  run_for(5ms);
  EXPECT_TRUE(seen.empty());
  w = loop->watch(p.fd[0], readiness::readable, see(2));
  ASSERT_TRUE(w) << "a descriptor can be watched again";
  await(1);
  EXPECT_EQ(seen[0], 2);
}

TEST_F(event_loops, a_watch_that_is_destroyed_leaves_no_memory_allocated) {
  const pipe_ends p;
  loop->watch(p.fd[0], readiness::readable, see(1));
  const size_t before = mallinfo2().uordblks;
  for (int n = 0; n < 1000; ++n) loop->watch(p.fd[0], readiness::readable, see(1));
  EXPECT_LT(mallinfo2().uordblks, before + 20000);
}

TEST_F(event_loops, one_of_two_ready_watches_may_destroy_the_other) {
  const pipe_ends p, q;
  event_loop::handle a, b;
  a = loop->watch(p.fd[0], readiness::readable, [&] { b = nullptr, p.take(), seen.push_back(1); });
  b = loop->watch(q.fd[0], readiness::readable, [&] { a = nullptr, q.take(), seen.push_back(2); });
  p.put();
  q.put();
  await(1);
  run_for(10ms);
  EXPECT_EQ(seen.size(), 1U);
}

TEST_F(event_loops, any_number_of_watches_may_be_ready) {
  std::vector<std::unique_ptr<pipe_ends>> pipes;
  std::vector<event_loop::handle> watches;
  for (int n = 0; n < 50; ++n) {
    pipes.push_back(std::make_unique<pipe_ends>());
    watches.push_back(loop->watch(pipes.back()->fd[0], readiness::readable, [this, n, &pipes] {
      pipes[static_cast<size_t>(n)]->take();
      seen.push_back(n);
    }));
    pipes.back()->put();
  }
  await(50);
  std::sort(seen.begin(), seen.end());
  for (int n = 0; n < 50; ++n) EXPECT_EQ(seen[static_cast<size_t>(n)], n);
}

TEST_F(event_loops, files_that_are_always_ready_are_not_watched) {
  const scratch dir;
  const int file = open(dir.file("text").c_str(), O_RDWR | O_CLOEXEC);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  EXPECT_FALSE(loop->watch(file, readiness::readable, see(1)));
  EXPECT_FALSE(loop->watch(null, readiness::writable, see(1)));
  EXPECT_EQ(loop->write(null, "text"), 4);
  EXPECT_EQ(loop->write(file, "text"), 4);
  close(file);
  close(null);
}

TEST_F(event_loops, descriptors_stay_blocking) {
  const pipe_ends p;
  const auto w = loop->watch(p.fd[1], readiness::writable, see(1));
  await(1);
  EXPECT_EQ(loop->write(p.fd[1], "x"), 1);
  EXPECT_EQ(fcntl(p.fd[1], F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(event_loops, writing_never_blocks) {
  pipe_ends p;
  const std::string text(100000, 'x');
  size_t written = 0;
  ssize_t n = 0;
  while ((n = loop->write(p.fd[1], text)) > 0) {
    EXPECT_LE(n, PIPE_BUF);
    written += static_cast<size_t>(n);
  }
  EXPECT_EQ(n, -EAGAIN);
  EXPECT_EQ(written, static_cast<size_t>(fcntl(p.fd[1], F_GETPIPE_SZ)));
  auto shortest = 1000ms;
  for (int k = 0; k < 5; ++k) {
    const auto begun = steady_clock::now();
    for (int i = 0; i < 100; ++i) EXPECT_EQ(loop->write(p.fd[1], text), -EAGAIN);
    shortest = std::min(shortest, std::chrono::ceil<std::chrono::milliseconds>(steady_clock::now() - begun));
  }
  EXPECT_LT(shortest, 100ms) << "it does not wait for room";
  errno = EBADF;
  EXPECT_EQ(loop->write(open("/dev/null", O_WRONLY | O_CLOEXEC), ""), 0);
  errno = EINTR;
  EXPECT_EQ(loop->write(open("/dev/null", O_WRONLY | O_CLOEXEC), ""), 0);
  std::signal(SIGPIPE, SIG_IGN);
  p.close_end(0);
  EXPECT_EQ(loop->write(p.fd[1], "x"), -EPIPE);
  std::signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(loop->write(-7, "x"), -EAGAIN) << "poll() skips a negative descriptor";
}

// ---------------------------------------------------------------- children

TEST_F(event_loops, the_end_of_a_child_is_reported_once_with_its_status) {
  const pid_t first = child([] { _exit(3); });
  const auto a = loop->on_exit(first, [this](int status) { seen.push_back(status); });
  await(1);
  EXPECT_EQ(seen[0], 3 << 8);
  EXPECT_EQ(waitpid(first, nullptr, WNOHANG), -1) << "it is reaped";
  const pid_t second = child([] { raise(SIGKILL); });
  const auto b = loop->on_exit(second, [this](int status) { seen.push_back(status); });
  await(2);
  EXPECT_EQ(seen[1], SIGKILL);
  run_for(5ms);
  EXPECT_EQ(seen.size(), 2U);
}

TEST_F(event_loops, children_that_end_together_are_all_reaped) {
  std::vector<event_loop::handle> waits;
  const pid_t lasting = child([] { pause(); });
  setpgid(lasting, lasting);
  waits.push_back(loop->on_exit(lasting, see_number(-1)));
  pipe_ends gate;
  for (int n = 0; n < 20; ++n) {
    const pid_t pid = child([&] {
      gate.close_end(1);
      char byte = 0;
      _exit(read(gate.fd[0], &byte, 1) == 0 ? n : 99);
    });
    waits.push_back(loop->on_exit(pid, [this](int status) { seen.push_back(WEXITSTATUS(status)); }));
  }
  gate.close_end(1);
  await(20);
  std::sort(seen.begin(), seen.end());
  for (int n = 0; n < 20; ++n) EXPECT_EQ(seen[static_cast<size_t>(n)], n);
  EXPECT_EQ(kill(lasting, SIGKILL), 0);
  await(21);
  EXPECT_EQ(seen[20], -1);
}

TEST_F(event_loops, the_rest_of_a_childs_group_is_killed_before_its_end_is_reported) {
  pipe_ends held;
  const pid_t leader = child([&] {
    setpgid(0, 0);
    const pid_t member = fork();
    if (member == 0) pause();
    close(held.fd[0]);
  });
  held.close_end(1);
  const auto w = loop->on_exit(leader, [&](int) {
    char byte = 0;
    EXPECT_EQ(read(held.fd[0], &byte, 1), 0) << "the last process that could write has ended";
    seen.push_back(1);
  });
  await(1);
}

TEST_F(event_loops, a_wait_that_is_destroyed_does_not_call) {
  const pid_t pid = child([] {});
  auto w = loop->on_exit(pid, see_number(1));
  w = nullptr;
  run_for(20ms);
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(wait_status(pid, 0), 0) << "it is not reaped";
}

TEST_F(event_loops, one_handler_may_end_the_wait_for_another_child) {
  event_loop::handle a, b;
  const pid_t p = child([] {}), q = child([] {});
  siginfo_t ended{};
  waitid(P_PID, static_cast<id_t>(p), &ended, WEXITED | WNOWAIT);
  waitid(P_PID, static_cast<id_t>(q), &ended, WEXITED | WNOWAIT);
  a = loop->on_exit(p, [&](int) { b = nullptr, seen.push_back(1); });
  b = loop->on_exit(q, [&](int) { a = nullptr, seen.push_back(2); });
  await(1);
  run_for(20ms);
  EXPECT_EQ(seen.size(), 1U);
}

// ---------------------------------------------------------------- signals

TEST_F(event_loops, signals_call_every_handler_each_time) {
  const auto a = loop->on_signals({SIGHUP, SIGTERM}, [this](int sig) { seen.push_back(sig); });
  const auto b = loop->on_signals({SIGHUP}, [this](int sig) { seen.push_back(100 + sig); });
  raise(SIGHUP);
  await(2);
  raise(SIGHUP);
  await(4);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<int>{SIGHUP, SIGHUP, 100 + SIGHUP, 100 + SIGHUP}));
  raise(SIGTERM);
  await(5);
  EXPECT_EQ(seen.back(), SIGTERM);
}

TEST_F(event_loops, a_signal_handler_that_is_destroyed_does_not_run) {
  const auto a = loop->on_signals({SIGHUP}, see_number(1));
  auto b = loop->on_signals({SIGHUP}, see_number(2));
  b = nullptr;
  raise(SIGHUP);
  await(1);
  run_for(5ms);
  EXPECT_EQ(seen, std::vector<int>{1});
}

TEST_F(event_loops, a_signal_handler_that_is_destroyed_leaves_nothing) {
  auto a = loop->on_signals({SIGHUP}, see_number(1));
  a = nullptr;
  EXPECT_EQ(std::signal(SIGHUP, SIG_DFL), SIG_DFL);
  run_for(1ms);
  const size_t before = mallinfo2().uordblks;
  for (int n = 0; n < 1000; ++n) a = loop->on_signals({SIGHUP}, see_number(1));
  a = nullptr;
  run_for(1ms);
  EXPECT_LT(mallinfo2().uordblks, before + 20000);
}

TEST_F(event_loops, signals_that_the_parent_process_blocked_arrive) {
  const std::initializer_list<int> answered = {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD};
  sigset_t set = set_of(answered);
  sigaddset(&set, SIGUSR1);
  sigset_t before;
  loop = nullptr;
  pthread_sigmask(SIG_BLOCK, &set, &before);
  fill_stack();
  loop = make_event_loop();
  for (const int sig : answered) EXPECT_FALSE(is_blocked(sig)) << sig;
  EXPECT_TRUE(is_blocked(SIGUSR1)) << "it answers no other signal";
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(event_loops, keyboard_signals_that_the_parent_process_ignored_stay_ignored) {
  for (const int sig : {SIGINT, SIGQUIT, SIGTSTP}) {
    std::signal(sig, SIG_IGN);
    const auto a = loop->on_signals({sig, SIGHUP}, [this](int s) { seen.push_back(s); });
    raise(sig);
    raise(SIGHUP);
    await(1);
    run_for(2ms);
    EXPECT_EQ(seen, std::vector<int>{SIGHUP}) << sig;
    EXPECT_EQ(std::signal(sig, SIG_DFL), SIG_IGN);
    seen.clear();
  }
}

TEST_F(event_loops, other_signals_arrive_though_the_parent_process_ignored_them) {
  for (const int sig : {SIGTERM, SIGHUP}) {
    std::signal(sig, SIG_IGN);
    const auto a = loop->on_signals({sig}, [this](int s) { seen.push_back(s); });
    raise(sig);
    await(1);
    EXPECT_EQ(std::exchange(seen, {}), std::vector<int>{sig});
  }
}

TEST_F(event_loops, keyboard_signals_arrive_when_they_were_not_ignored) {
  for (const int sig : {SIGINT, SIGQUIT, SIGTSTP}) {
    const auto a = loop->on_signals({sig}, [this](int s) { seen.push_back(s); });
    raise(sig);
    await(1);
    EXPECT_EQ(std::exchange(seen, {}), std::vector<int>{sig});
  }
}

TEST_F(event_loops_death, restored_signals_end_the_process) {
  for (const int sig : {SIGINT, SIGQUIT, SIGTERM}) {
    EXPECT_EXIT(
        {
          loop = nullptr;
          loop = make_event_loop();
          const auto a = loop->on_signals({SIGINT, SIGQUIT, SIGTERM, SIGHUP}, see_number(1));
          raise(SIGHUP);
          await(1);
          loop->restore_signals();
          raise(sig);
          _exit(1);
        },
        testing::KilledBySignal(sig), "");
  }
}

TEST_F(event_loops_death, a_stop_signal_that_was_handled_ends_the_process_when_signals_are_restored) {
  for (const int sig : {SIGINT, SIGQUIT, SIGTERM}) {
    for (const bool is_handled : {true, false}) {
      EXPECT_EXIT(
          {
            loop = nullptr;
            loop = make_event_loop();
            const auto a = loop->on_signals({SIGINT, SIGQUIT, SIGTERM, SIGHUP}, see_number(1));
            raise(sig);
            if (is_handled) await(1);
            loop->restore_signals();
            _exit(1);
          },
          testing::KilledBySignal(sig), "");
    }
  }
}

TEST_F(event_loops_death, the_last_stop_signal_of_two_ends_the_process_when_signals_are_restored) {
  EXPECT_EXIT(
      {
        loop = nullptr;
        loop = make_event_loop();
        const auto a = loop->on_signals({SIGINT, SIGTERM}, see_number(1));
        raise(SIGINT);
        await(1);
        raise(SIGTERM);
        await(2);
        loop->restore_signals();
        _exit(1);
      },
      testing::KilledBySignal(SIGTERM), "");
}

TEST_F(event_loops_death, restored_signals_do_not_end_a_process_that_got_none) {
  EXPECT_EXIT(
      {
        loop = nullptr;
        loop = make_event_loop();
        auto a = loop->on_signals({SIGINT, SIGQUIT, SIGTERM}, see_number(1));
        loop->restore_signals();
        _exit(7);
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(event_loops_death, a_stop_signal_whose_handler_was_destroyed_does_not_end_the_process) {
  EXPECT_EXIT(
      {
        loop = nullptr;
        loop = make_event_loop();
        auto a = loop->on_signals({SIGTERM}, see_number(1));
        const auto b = loop->on_signals({SIGHUP}, [&](int) { a = nullptr, seen.push_back(2); });
        raise(SIGHUP);
        raise(SIGTERM);
        await(1);
        loop->restore_signals();
        _exit(7);
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(event_loops_death, signals_that_are_ignored_are_not_restored) {
  EXPECT_EXIT(
      {
        loop = nullptr;
        std::signal(SIGINT, SIG_IGN);
        loop = make_event_loop();
        const auto a = loop->on_signals({SIGINT, SIGQUIT, SIGTERM}, see_number(1));
        loop->restore_signals();
        raise(SIGINT);
        _exit(7);
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(event_loops_death, suspend_stops_the_process_and_preserves_the_handler) {
  const pid_t pid = child([this] {
    setpgid(0, 0);
    loop = nullptr;
    loop = make_event_loop();
    const auto a = loop->on_signals({SIGTSTP}, see_number(1));
    loop->suspend();
    raise(SIGTSTP);
    await(1);
    _exit(7);
  });
  const int status = wait_status(pid, WUNTRACED);
  ASSERT_TRUE(WIFSTOPPED(status)) << status;
  EXPECT_EQ(WSTOPSIG(status), SIGTSTP);
  kill(pid, SIGCONT);
  EXPECT_EQ(wait_status(pid, 0), 7 << 8);
}

TEST_F(event_loops_death, exit_ends_the_process_though_work_runs) {
  EXPECT_EXIT(
      {
        loop->run_in_background([]() -> event_loop::task {
          pause();
          return [] {};
        });
        loop->exit(3);
      },
      testing::ExitedWithCode(3), "");
}
