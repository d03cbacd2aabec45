// Processor time of idle instances, compared with as many bare loops in the same process at the same time, so that load
// from outside affects both.
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bench/bare.h"
#include "bench/instance.h"
#include "bench/versus.h"
#include "tests/support/scratch_file.h"

namespace {

using threads = std::set<pid_t>;

constexpr auto window = std::chrono::seconds(10);  // each thread polls once in it

threads all_threads() {
  threads all;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
    all.insert(static_cast<pid_t>(std::stoi(entry.path().filename())));
  return all;
}

// The threads that `f` starts.
template <class F>
threads started_by(F f) {
  const threads before = all_threads();
  f();
  threads started = all_threads();
  for (const pid_t t : before) started.erase(t);
  return started;
}

// The kernel's processor-time clock of any thread of this process; pthread_getcpuclockid requires a pthread_t.
double nanoseconds_of(pid_t thread) {
  timespec t = {};
  clock_gettime(~static_cast<clockid_t>(thread) * 8 + 6, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

double nanoseconds_of(const threads& all) {
  double sum = 0;
  for (const pid_t t : all) sum += nanoseconds_of(t);
  return sum;
}

volatile int g_end = 0;

void start_bare(std::vector<std::jthread>& all, size_t count) {
  all.reserve(count);
  for (size_t i = 0; i < count; ++i) all.emplace_back([] { bare_loop(g_end); });
}

// In parallel, because each stop waits for the end of its worker's sleep.
void stop_all(const library& p, const std::vector<int>& handles) {
  std::vector<std::jthread> helpers;
  for (const int h : handles) {
    helpers.emplace_back([&p, h] {
      p.stop(h);
      p.destroy(h);
    });
  }
}

void measure(const library& p, size_t count, int windows) {
  const scratch_file file("hostname = bench\n");
  std::vector<int> handles;
  std::vector<std::jthread> bare;
  handles.reserve(count);
  for (size_t i = 0; i < count; ++i) handles.push_back(make_instance(p, file.path().c_str()));
  const threads ours = started_by([&] {
    for (const int h : handles) p.start(h);
  });
  const threads theirs = started_by([&] { start_bare(bare, count); });
  std::this_thread::sleep_for(std::chrono::seconds(1));

  std::vector<double> a, b;
  for (int i = 0; i < windows; ++i) {
    const double a0 = nanoseconds_of(ours), b0 = nanoseconds_of(theirs);
    std::this_thread::sleep_for(window);
    const double seconds = static_cast<double>(count) * std::chrono::duration<double>(window).count();
    a.push_back((nanoseconds_of(ours) - a0) / seconds);
    b.push_back((nanoseconds_of(theirs) - b0) / seconds);
  }
  add_row("idle instance, of " + std::to_string(count), "bare loop", "ns/s", a, b);
  g_end = 1;
  stop_all(p, handles);
  bare.clear();
  g_end = 0;
}

}  // namespace

void enter() {
  const library p;
  const bool quick = std::getenv("BENCH_QUICK") != nullptr;
  measure(p, 1, quick ? 1 : 5);
  if (!quick)
    for (const size_t count : {4, 16, 64, 256}) measure(p, count, 1);
  measure(p, 1024, quick ? 1 : 3);
}
