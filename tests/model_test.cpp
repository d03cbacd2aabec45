// The life cycle against a small model: threads drive the entry points in every legal order, a million steps in all,
// and each result, message and record must be one that the model allows. IP6DNS_STEPS and IP6DNS_SEED in the
// environment change length and course; the seed is printed.
#include <gtest/gtest.h>
#include <sched.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "driver/dac.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/plugin.h"

namespace {

constexpr int64_t stopped_clock = 1'700'000'000;

}  // namespace

// Time stands still, so an instance publishes once in its life at most, and rounds follow each other at once.
extern "C" time_t time(time_t* out) noexcept {
  if (out) *out = stopped_clock;
  return stopped_clock;
}
extern "C" int nanosleep(const timespec* /*request*/, timespec* /*remainder*/) { return sched_yield(); }

namespace {

constexpr char address[] = "2001:db8::10";
constexpr int max_handle = 2048, unknown_handle = 12345;
constexpr int threads = 4;
constexpr size_t most_instances = 100;  // of a thread

long setting(const char* name, long otherwise) {
  const char* text = std::getenv(name);
  return text ? std::stol(text) : otherwise;
}

/// What the host's callbacks have seen of one instance.
struct seen {
  std::string hostname;
  std::atomic<int> starts = 0, stops = 0, refusals = 0, records = 0, strange = 0;

  static void on_log(const char* name, int level, const char* text, int flag, void* param) {
    auto& s = *static_cast<seen*>(param);
    const std::string_view message = text;
    if (message == "start wrk_process success." && level == DAC_LEVEL_OTHER)
      ++s.starts;
    else if (message == "stop wrk_process success." && level == DAC_LEVEL_OTHER)
      ++s.stops;
    else if (message.starts_with("not config hostname in ") && level == DAC_LEVEL_FAILURE)
      ++s.refusals;
    else
      ++s.strange;
    if (std::string_view(name) != "model" || flag != 1) ++s.strange;
  }
  static void on_data(const dac_tagvalue* r, int count, void* param) {
    auto& s = *static_cast<seen*>(param);
    ++s.records;
    const bool good = count == 1 && r->name == s.hostname && r->value == std::string_view(address) && r->time == 0;
    if (!good) ++s.strange;
  }
};

/// One instance as the model knows it.
struct instance {
  int handle = -1;
  bool runs = false;
  int stopped = 0;  // workers ended so far
  std::unique_ptr<seen> host = std::make_unique<seen>();
};

/// What all threads share: the library, files, and which handles are taken.
struct world {
  library lib;
  scratch dir;
  std::string good = dir.file("hostname = h1\n", "good.conf"), bad = dir.file("port = 1\n", "bad.conf");
  std::array<std::atomic<bool>, max_handle + 1> taken{};
};

/// One thread's walk.
class walker {
 public:
  walker(world& w, unsigned seed) : _w(w), _random(seed) {}

  void walk(long steps) {
    for (; steps > 0 && !testing::Test::HasFailure(); --steps) step();
    while (!_own.empty()) {
      if (_own.back().runs) stop(_own.back());
      destroy(_own.size() - 1);
    }
  }

 private:
  world& _w;
  std::mt19937 _random;
  std::vector<instance> _own;

  size_t below(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(_random); }

  void step() {
    const size_t choice = below(16);
    if (choice == 0 || _own.empty()) return create();
    if (choice == 1) return create_refused();
    if (choice == 2) return ask_unknown();
    const size_t i = below(_own.size());
    if (choice == 3) return _own[i].runs ? ask(_own[i]) : destroy(i);
    if (choice < 6) return _own[i].runs ? stop(_own[i]) : start(_own[i]);
    if (choice == 6) return stop(_own[i]);
    ask(_own[i]);
  }

  int create(const char* name, const std::string& file, seen& s, cbaux aux) {
    s.hostname = "h1";
    return _w.lib.create(name, file.c_str(), seen::on_log, &s, aux, nullptr, seen::on_data, &s, nullptr, nullptr);
  }

  static void on_aux(void* /*param*/) {}

  void create() {
    if (_own.size() >= most_instances) return;
    instance x;
    x.handle = create("model", _w.good, *x.host, on_aux);
    ASSERT_GE(x.handle, 0);
    ASSERT_LE(x.handle, max_handle);
    ASSERT_FALSE(_w.taken[static_cast<size_t>(x.handle)].exchange(true)) << "handle " << x.handle << " given out twice";
    _own.push_back(std::move(x));
  }

  void create_refused() {
    seen s;
    ASSERT_EQ(create("", _w.good, s, on_aux), -1);
    ASSERT_EQ(create("model", "", s, on_aux), -1);
    ASSERT_EQ(create("model", _w.good, s, nullptr), -1);
    ASSERT_EQ(s.refusals, 0);
    ASSERT_EQ(create("model", _w.bad, s, on_aux), -1);
    ASSERT_EQ(s.refusals, 1);
    ASSERT_EQ(s.strange + s.starts + s.stops + s.records, 0);
  }

  void ask_unknown() {
    constexpr std::array unknown = {-1, max_handle + 1, unknown_handle};
    const int h = unknown[below(unknown.size())];
    ASSERT_EQ(_w.lib.isrun(h), 0);
    ASSERT_EQ(_w.lib.start(h), -1);
    ASSERT_EQ(_w.lib.stop(h), -1);
    ASSERT_EQ(_w.lib.devicewriteobj(h), -1);
    _w.lib.destroy(h);
  }

  void start(instance& x) {
    ASSERT_EQ(_w.lib.start(x.handle), 0);
    x.runs = true;
  }

  void stop(instance& x) {
    ASSERT_EQ(_w.lib.stop(x.handle), 0);
    x.stopped += x.runs ? 1 : 0;
    x.runs = false;
    ASSERT_EQ(_w.lib.isrun(x.handle), 0);
    ASSERT_EQ(x.host->starts, x.stopped);
    ASSERT_EQ(x.host->stops, x.stopped);
    ASSERT_LE(x.host->records, x.stopped > 0 ? 1 : 0);
  }

  void destroy(size_t i) {
    ASSERT_EQ(_own[i].host->strange, 0);
    _w.taken[static_cast<size_t>(_own[i].handle)] = false;
    _w.lib.destroy(_own[i].handle);
    std::swap(_own[i], _own.back());
    _own.pop_back();
  }

  void ask(const instance& x) {
    ASSERT_EQ(_w.lib.devicewriteval(x.handle), DAC_WRITE_REFUSED);
    ASSERT_LE(_w.lib.isrun(x.handle), x.runs ? 1 : 0);
    char text[64];
    size_t n = sizeof text;
    ASSERT_EQ(_w.lib.getinfo(x.handle, text, &n), 0);
    const bool says_stop = text == std::string_view(R"({"status":"stop","host":"h1"})");
    const bool says_running = text == std::string_view(R"({"status":"running","host":"h1"})");
    ASSERT_TRUE(says_stop || (x.runs && says_running)) << text;
    ASSERT_EQ(n, (says_stop ? 29U : 32U) - 1);
    std::string tag;
    const auto note = [](const char* name, int, int, void* param) { *static_cast<std::string*>(param) = name; };
    ASSERT_EQ(_w.lib.getalltags(x.handle, note, &tag), 0);
    ASSERT_EQ(tag, "h1");
  }
};

}  // namespace

TEST(model, every_legal_order_of_calls_from_four_threads_does_what_the_model_says) {
  const long steps = setting("IP6DNS_STEPS", 1'000'000);
  const auto seed = static_cast<unsigned>(setting("IP6DNS_SEED", 20'240'501));
  std::cout << steps << " steps, seed " << seed << std::endl;
  fake_interfaces::set({address});
  world w;
  std::vector<std::thread> crew;
  for (unsigned i = 0; i < threads; ++i) crew.emplace_back([&, i] { walker(w, seed + i).walk(steps / threads); });
  for (std::thread& t : crew) t.join();
  fake_interfaces::reset();
}
