// The life cycle compared with a small model: four threads make a million random legal calls, and the model must allow
// each result, message and record. The environment variables IP6DNS_STEPS and IP6DNS_SEED set the number of calls and
// the seed, which is printed.
#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <latch>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "driver/dac.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/plugin.h"

namespace {

constexpr int64_t stopped_clock = 1'700'000'000;

}  // namespace

// The clock is stopped, so an instance publishes at most once, and rounds follow each other at once.
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
    const bool good = count == 1 && r->name == s.hostname && r->value == std::string_view(address) && r->time == 0 &&
                      r->type == DAC_TYPE_TEXT && r->len == std::string_view(address).size();
    if (!good) ++s.strange;
  }
};

/// The model of one instance.
struct instance {
  int handle = -1;
  bool runs = false;
  int stopped = 0;  // workers ended so far
  std::unique_ptr<seen> host = std::make_unique<seen>();
};

/// Handles that any thread may query. A query locks the list, so an instance that is removed from it may be destroyed.
class open_list {
 public:
  void add(int h) {
    const std::unique_lock hold(_mtx);
    _handles.push_back(h);
  }
  void remove(int h) {
    const std::unique_lock hold(_mtx);
    std::erase(_handles, h);
  }
  /// Calls `question` with handle `i` modulo their number; not at all if the list is empty.
  template <class QUESTION>
  void ask(size_t i, QUESTION question) {
    const std::shared_lock hold(_mtx);
    if (!_handles.empty()) question(_handles[i % _handles.size()]);
  }

 private:
  std::shared_mutex _mtx;
  std::vector<int> _handles;
};

/// Shared by all threads: the library, files, which handles are in use, and which may be queried.
struct world {
  library lib;
  scratch dir;
  std::string good = dir.file("hostname = h1\n", "good.conf"), bad = dir.file("port = 1\n", "bad.conf");
  std::array<std::atomic<bool>, max_handle + 1> taken{};
  open_list open;
  std::atomic<long> records = 0;  // of all destroyed instances
  std::atomic<long> others = 0;   // queries about instances of another thread
  std::latch each_has_one{threads};
};

/// One thread.
class walker {
 public:
  walker(world& w, unsigned seed) : _w(w), _random(seed) {}

  void walk(long steps) {
    create();
    _w.each_has_one.arrive_and_wait();  // so that the first thread finds instances of others
    for (; steps > 0 && !testing::Test::HasFailure(); --steps) step();
    if (_own.empty()) create();
    if (!testing::Test::HasFailure()) see_one_publish(_own.front());
    for (; !_own.empty(); destroy(_own.size() - 1))
      if (_own.back().runs) stop(_own.back());
  }

 private:
  world& _w;
  std::mt19937 _random;
  std::vector<instance> _own;

  size_t below(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(_random); }

  void step() {
    const size_t choice = below(18);
    if (choice == 0 || _own.empty()) return create();
    if (choice == 1) return create_refused();
    if (choice == 2) return ask_unknown();
    const size_t i = below(_own.size());
    if (choice == 3) return _own[i].runs ? ask(_own[i]) : destroy(i);
    if (choice < 6) return _own[i].runs ? stop(_own[i]) : start(_own[i]);
    if (choice == 6) return stop(_own[i]);
    if (choice == 7) return _w.open.ask(below(most_instances * threads), [&](int h) { ask_any(h); });
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
    ASSERT_FALSE(_w.taken[static_cast<size_t>(x.handle)].exchange(true)) << "handle " << x.handle << " returned twice";
    _w.open.add(x.handle);
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
    ASSERT_EQ(_w.lib.devicewriteval(h), -1);
    char text[64] = "untouched";
    size_t n = sizeof text;
    ASSERT_EQ(_w.lib.getinfo(h, text, &n), -1);
    ASSERT_STREQ(text, "untouched");
    ASSERT_EQ(n, sizeof text);
    ASSERT_EQ(_w.lib.getalltags(
                  h, [](auto...) { FAIL() << "called"; }, nullptr),
              -1);
    ASSERT_EQ(_w.lib.getalltagsex(
                  h, [](auto...) { FAIL() << "called"; }, nullptr),
              -1);
    ASSERT_EQ(_w.lib.getversion(), DAC_VERSION);
    _w.lib.destroy(h);
  }

  void start(instance& x) {
    ASSERT_EQ(_w.lib.start(x.handle), 0);
    x.runs = true;
  }

  void stop(instance& x) {
    EXPECT_EQ(_w.lib.stop(x.handle), 0);
    x.stopped += x.runs ? 1 : 0;
    x.runs = false;
    ASSERT_EQ(_w.lib.isrun(x.handle), 0);
    ASSERT_EQ(x.host->starts, x.stopped);
    ASSERT_EQ(x.host->stops, x.stopped);
    ASSERT_LE(x.host->records, x.stopped > 0 ? 1 : 0);
  }

  /// A running instance publishes once and then reports that it runs.
  void see_one_publish(instance& x) {
    if (!x.runs) start(x);
    try {
      await([&] { return x.host->records == 1 && x.host->starts > x.stopped; }, "a worker does not publish");
      ask(x);
    } catch (const std::runtime_error& e) {
      ADD_FAILURE() << e.what();
    }
  }

  /// Always removes the instance: the walk ends when none is left.
  void destroy(size_t i) {
    const instance& x = _own[i];
    EXPECT_EQ(x.host->strange, 0);
    _w.records += x.host->records;
    _w.open.remove(x.handle);
    _w.taken[static_cast<size_t>(x.handle)] = false;
    _w.lib.destroy(x.handle);
    std::swap(_own[i], _own.back());
    _own.pop_back();
  }

  /// A worker that has logged its start runs until it is stopped. One that has not may run already.
  void ask(const instance& x) {
    const bool has_begun = x.host->starts > x.stopped;
    ASSERT_EQ(_w.lib.devicewriteobj(x.handle), DAC_WRITE_REFUSED);
    ASSERT_EQ(_w.lib.devicewriteval(x.handle), DAC_WRITE_REFUSED);
    const int runs = _w.lib.isrun(x.handle);
    ASSERT_GE(runs, has_begun ? 1 : 0);
    ASSERT_LE(runs, x.runs ? 1 : 0);
    const bool says_running = status_is_running(x.handle);
    ASSERT_TRUE(!has_begun || says_running);
    ASSERT_TRUE(x.runs || !says_running);
    ask_tags(x.handle);
  }

  /// Its owner, mostly another thread, may be starting or stopping it.
  void ask_any(int h) {
    if (std::none_of(_own.begin(), _own.end(), [h](const instance& x) { return x.handle == h; })) ++_w.others;
    const int runs = _w.lib.isrun(h);
    ASSERT_TRUE(runs == 0 || runs == 1) << runs;
    ASSERT_EQ(_w.lib.devicewriteval(h), DAC_WRITE_REFUSED);
    status_is_running(h);
    ask_tags(h);
  }

  bool status_is_running(int h) {
    constexpr std::string_view running = R"({"status":"running","host":"h1"})",
                               stop = R"({"status":"stop","host":"h1"})";
    char text[64];
    size_t n = sizeof text;
    EXPECT_EQ(_w.lib.getinfo(h, text, &n), 0);
    EXPECT_TRUE(text == running || text == stop) << text;
    EXPECT_EQ(n, std::string_view(text).size() - 1);
    return text == running;
  }

  void ask_tags(int h) {
    std::string tags;
    const auto note = [](const char* name, int type, int flag, void* param) {
      *static_cast<std::string*>(param) += std::string(name) + "/" + std::to_string(type) + "/" + std::to_string(flag);
    };
    const auto note_more = [](const char* name, int type, int flag, const char* text1, const char* text2, void* param) {
      *static_cast<std::string*>(param) +=
          std::string("+") + name + "/" + std::to_string(type) + "/" + std::to_string(flag) + "/" + text1 + "/" + text2;
    };
    ASSERT_EQ(_w.lib.getalltags(h, note, &tags), 0);
    ASSERT_EQ(_w.lib.getalltagsex(h, note_more, &tags), 0);
    ASSERT_EQ(tags, "h1/6/1+h1/6/1//ipv6 address");
  }
};

}  // namespace

TEST(model, legal_calls_from_four_threads_match_the_model) {
  const long steps = setting("IP6DNS_STEPS", 1'000'000);
  const auto seed = static_cast<unsigned>(setting("IP6DNS_SEED", 20'240'501));
  std::cout << steps << " steps, seed " << seed << std::endl;
  // The checking layer has seen every kind of call after a tenth of the steps.
  const long walked = std::getenv("IP6DNS_LAYER") ? steps / 10 : steps;
  fake_interfaces::set({address});
  world w;
  std::vector<std::thread> crew;
  for (unsigned i = 0; i < threads; ++i) crew.emplace_back([&, i] { walker(w, seed + i).walk(walked / threads); });
  for (std::thread& t : crew) t.join();
  EXPECT_GE(w.records, threads);
  EXPECT_GT(w.others, 0);
  fake_interfaces::reset();
}
