// Time of one poll by the number of addresses, in a separate network namespace. The functions below replace the
// worker's sleep and clock and so control its polls. Between polls, the rival runs on the same thread.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bare.h"
#include "bench/instance.h"
#include "bench/versus.h"
#include "tests/support/network_namespace.h"
#include "tests/support/scratch_file.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr size_t warm_up = 3;

/// The rounds for one number of addresses. Each sleep of the worker runs one.
struct contest {
  size_t rounds = 0;  // 0: the worker sleeps for real
  std::vector<double> ours, theirs;
  clock_type::time_point resumed;
  std::binary_semaphore over{0};
};

contest g_contest;
std::atomic<time_t> g_now = 1'700'000'000;
std::string g_published;

double nanoseconds_since(clock_type::time_point start) {
  return std::chrono::duration<double, std::nano>(clock_type::now() - start).count();
}

void take_turn(contest& c) {
  if (c.resumed != clock_type::time_point()) c.ours.push_back(nanoseconds_since(c.resumed));
  const auto start = clock_type::now();
  bare_addresses([](const char*) {});
  c.theirs.push_back(nanoseconds_since(start));
  if (c.ours.size() >= c.rounds) {
    c.rounds = 0;
    c.over.release();
  }
  c.resumed = clock_type::now();
}

}  // namespace

extern "C" time_t time(time_t* /*result*/) noexcept { return g_now; }

extern "C" int nanosleep(const timespec* request, timespec* rest) {
  if (g_contest.rounds == 0) return clock_nanosleep(CLOCK_MONOTONIC, 0, request, rest);
  g_now += 10;
  take_turn(g_contest);
  return 0;
}

namespace {

void add_addresses(int from, int to) {
  std::string commands;
  for (int i = from; i < to; ++i) {
    char line[80];
    std::snprintf(line, sizeof line, "addr add 2001:db8:%x::%x/128 dev lo nodad\n", i / 1000 + 1, i % 1000 + 1);
    commands += line;
  }
  if (!ip(commands)) throw std::runtime_error("cannot add the addresses");
}

// ---------------------------------------------------------------- rounds

std::string bare_text() {
  std::string all;
  bare_addresses([&](const char* text) {
    if (std::strcmp(text, "::1") != 0) all += (all.empty() ? "" : ",") + std::string(text);
  });
  return all.substr(0, DAC_VALUE_SIZE - 1);
}

void measure(const library& p, int handle, int addresses, size_t rounds) {
  contest& c = g_contest;
  c.ours.clear();
  c.theirs.clear();
  c.resumed = {};
  c.rounds = rounds + warm_up;
  p.start(handle);
  c.over.acquire();
  p.stop(handle);
  if (g_published != bare_text()) throw std::runtime_error("the addresses published are not those of the interface");
  c.theirs.pop_back();
  for (auto* v : {&c.ours, &c.theirs}) v->erase(v->begin(), v->begin() + warm_up);
  add_row("poll of " + std::to_string(addresses) + " addresses", "getifaddrs + inet_ntop", "ns", c.ours, c.theirs);
}

}  // namespace

void enter() {
  enter_network();
  const library p;
  const scratch_file file("hostname = bench\n");
  const int handle =
      make_instance(p, file.path().c_str(), [](const dac_tagvalue* r, int, void*) { g_published = r->value; });
  int present = 0;
  for (const int addresses : {3, 10, 30, 100, 300, 1000, 3000, 10'000}) {
    add_addresses(present, addresses);
    present = addresses;
    measure(p, handle, addresses, std::max<size_t>(15, 30'000 / static_cast<unsigned>(addresses)));
  }
}
