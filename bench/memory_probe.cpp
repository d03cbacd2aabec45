// Does one thing and prints how many bytes of memory it took. memory_bench runs it.
//   memory_probe load | create N | run N | bare N | blocks HEAP
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/bare.h"
#include "bench/heaps.h"
#include "bench/instance.h"
#include "tests/support/scratch_file.h"

namespace {

// Pages that this process has written to. Excludes pages of library files: those of a file that has just been built
// count as dirty until they are on disk.
double private_bytes() {
  std::ifstream smaps("/proc/self/smaps_rollup");
  for (std::string word; smaps >> word;) {
    double kilobytes;
    if (word == "Anonymous:" && smaps >> kilobytes) return kilobytes * 1024;
  }
  throw std::runtime_error("/proc/self/smaps_rollup has no Anonymous");
}

template <class F>
double taken_by(F f) {
  private_bytes();  // allocates its buffers
  const double before = private_bytes();
  f();
  return private_bytes() - before;
}

double load() {
  return taken_by([] { new library; });
}

std::vector<int> make_instances(const library& p, int count, cbdata data) {
  std::vector<int> handles;
  const scratch_file file("hostname = gateway.example.org\n");
  handles.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) handles.push_back(make_instance(p, file.path().c_str(), data));
  return handles;
}

double create(int count) {
  const library p;
  return taken_by([&] { make_instances(p, count, nullptr); }) / count;
}

std::atomic<int> g_published = 0;

void wait_for(const std::atomic<int>& counter, int goal) {
  while (counter < goal) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

double run(int count) {
  const library p;
  const double taken = taken_by([&] {
    for (const int h : make_instances(p, count, [](const dac_tagvalue*, int, void*) { ++g_published; })) p.start(h);
    wait_for(g_published, count);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  });
  return taken / count;
}

// Formats like a worker that logs its start: only the buffer touches these stack pages.
[[gnu::noinline, gnu::format(printf, 1, 2)]] void format_message(const char* fmt, ...) {
  char buf[30800];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buf, 30720, fmt, args);
  va_end(args);
  asm volatile("" : : "r"(buf) : "memory");
}

// With the settings of the C library's heap that loading the plug-in makes.
double bare(int count) {
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, 1048576);
  mallopt(M_TRIM_THRESHOLD, 1048576);
  static volatile int never = 0;
  const double taken = taken_by([&] {
    for (int i = 0; i < count; ++i) {
      std::thread([] {
        format_message("%s", "start wrk_process success.");
        bare_loop(never);
      }).detach();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  });
  return taken / count;
}

double blocks(const std::string& name) {
  constexpr int count = 1'000'000;
  std::vector<heap> all = {the_pools(), c_library()};
  for (const heap& h : thread_caching()) all.push_back(h);
  for (const heap& h : all) {
    if (h.name != name) continue;
    const double taken = taken_by([&] {
      for (int i = 0; i < count; ++i) std::memset(h.take(24), 1, 24);
    });
    return taken / count;
  }
  throw std::runtime_error("no heap is called " + name);
}

double measure(const std::string& what, const char* argument) {
  if (what == "load") return load();
  if (what == "create") return create(std::atoi(argument));
  if (what == "run") return run(std::atoi(argument));
  if (what == "bare") return bare(std::atoi(argument));
  if (what == "blocks") return blocks(argument);
  throw std::runtime_error("what is " + what + "?");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::printf("%.1f\n", measure(argc > 1 ? argv[1] : "", argc > 2 ? argv[2] : "1"));
    std::fflush(stdout);
    _exit(0);  // threads may still run
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 1;
  }
}
