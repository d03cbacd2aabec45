// Log messages on their way to the host: levels, prefix, limits, and the abstract interface by its virtual slots.
#include "driver/logDac.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "com/ymlib3/ym_log"
#include "tests/support/blocks.h"
#include "tests/support/log_message.h"
#include "tests/support/pools.h"
#include "tests/support/threads.h"

using namespace std::literals;

namespace {

thread_local bool refuse_snprintf = false;

// Records the limit of each vsnprintf unless null.
thread_local std::vector<size_t>* limits = nullptr;

constexpr int longest = 30719;  // characters of a message
constexpr int prefix = 80;      // of a prefix

using messages = std::vector<log_message>;

/// push's variable arguments as a va_list.
[[gnu::format(printf, 4, 5)]] int push(ym::ilog& log, int level, const char* tag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int n = log.push(level, tag, fmt, args);
  va_end(args);
  return n;
}

/// A logger named "drv" whose messages arrive in `got`.
class logger : public testing::Test {
 protected:
  logDac log;
  messages got;

  logger() { log.bind("drv", on_log, this); }
  ~logger() override {
    refuse_snprintf = false;
    limits = nullptr;
  }

  static void on_log(const char* name, int hostlevel, const char* text, int flag, void* param) {
    static_cast<logger*>(param)->got.push_back({name, hostlevel, text, flag});
  }
};

/// The same through each function that logs. They treat a message without a tag alike.
const struct {
  const char* label;
  int (*log)(logDac& log, int level, const char* text);
} ways[] = {
    {"add", [](logDac& log, int level, const char* text) { return log.add(level, "%s", text); }},
    {"append", [](logDac& log, int level, const char* text) { return log.append(level, "%s", text); }},
    {"push without tag",
     [](logDac& log, int level, const char* text) { return push(log, level, nullptr, "%s", text); }},
    {"push with an empty tag",
     [](logDac& log, int level, const char* text) { return push(log, level, "", "%s", text); }},
};

}  // namespace

// Writes the prefix.
extern "C" int vsnprintf(char* buf, size_t size, const char* fmt, va_list args) noexcept {
  static auto* real = reinterpret_cast<decltype(&vsnprintf)>(dlsym(RTLD_NEXT, "vsnprintf"));
  if (limits) limits->push_back(size);
  return real(buf, size, fmt, args);
}

// A prefix. Its formatting is not counted.
extern "C" int snprintf(char* buf, size_t size, const char* fmt, ...) noexcept {
  if (refuse_snprintf) return -1;
  auto* const counted = std::exchange(limits, nullptr);
  va_list args;
  va_start(args, fmt);
  const int n = std::vsnprintf(buf, size, fmt, args);
  va_end(args);
  limits = counted;
  return n;
}

// ---------------------------------------------------------------- levels

TEST_F(logger, each_level_maps_to_its_host_level) {
  const struct {
    int level, hostlevel;
  } rows[] = {{10, 2},  {20, 1}, {40, 3},  {999, 4},  {30, 0}, {0, 0},   {1, 0},       {9, 0},      {11, 0},  {19, 0},
              {21, 0},  {39, 0}, {41, 0},  {50, 0},   {60, 0}, {998, 0}, {1000, 0},    {-1, 0},     {-10, 0}, {-20, 0},
              {-40, 0}, {2, 0},  {266, 0}, {1034, 0}, {3, 0},  {4, 0},   {INT_MIN, 0}, {INT_MAX, 0}};
  log.setlevel(INT_MAX);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.level);
    got.clear();
    EXPECT_EQ(log.add(row.level, "m"), 1);
    EXPECT_EQ(push(log, row.level, "t", "m"), 4);
    EXPECT_EQ(got, (messages{{"drv", row.hostlevel, "m", 1}, {"drv", row.hostlevel, "[t]m", 1}}));
  }
}

TEST_F(logger, a_message_passes_if_its_level_is_at_most_the_threshold) {
  const struct {
    int threshold, level;
    bool passes;
  } rows[] = {{40, 10, true},       {40, 20, true},          {40, 30, true},
              {40, 40, true},       {40, 41, false},         {40, 999, false},
              {40, INT_MIN, true},  {40, INT_MAX, false},    {10, 10, true},
              {10, 11, false},      {10, 30, false},         {9, 10, false},
              {0, 0, true},         {0, 1, false},           {0, -1, true},
              {-5, -5, true},       {-5, -4, false},         {-5, -6, true},
              {999, 999, true},     {998, 999, false},       {INT_MIN, INT_MIN, true},
              {INT_MIN, -5, false}, {INT_MAX, INT_MAX, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.level << " at threshold " << row.threshold);
    log.setlevel(row.threshold);
    for (const auto& way : ways) {
      got.clear();
      EXPECT_EQ(way.log(log, row.level, "abc"), row.passes ? 3 : 0) << way.label;
      EXPECT_EQ(got.size(), row.passes ? 1U : 0U) << way.label;
    }
    EXPECT_EQ(push(log, row.level, "t", "abc"), row.passes ? 6 : 0);
  }
}

TEST_F(logger, a_dropped_message_is_not_formatted) {
  int formatted = 0;
  EXPECT_EQ(log.add(41, "abc%n", &formatted), 0);
  EXPECT_EQ(log.append(41, "abc%n", &formatted), 0);
  EXPECT_EQ(push(log, 41, "t", "abc%n", &formatted), 0);
  EXPECT_EQ(formatted, 0);
  EXPECT_EQ(log.add(40, "abc%n", &formatted), 3);
  EXPECT_EQ(formatted, 3);
}

TEST_F(logger, the_threshold_starts_at_40_and_accepts_every_number) {
  EXPECT_EQ(logDac().getlevel(), 40);
  EXPECT_EQ(log.getlevel(), 40);
  for (const int level : {0, 10, 999, -1, INT_MIN, INT_MAX}) {
    log.setlevel(level);
    EXPECT_EQ(log.getlevel(), level);
  }
}

TEST_F(logger, binding_sets_the_threshold_to_40) {
  log.setlevel(5);
  log.bind("other", on_log, this);
  EXPECT_EQ(log.getlevel(), 40);
}

// ---------------------------------------------------------------- text

TEST_F(logger, a_message_arrives_formatted_under_the_instance_name) {
  EXPECT_EQ(log.add(10, "load ip6dns driver config %s failed", "/etc/x"), 39);
  EXPECT_EQ(log.append(30, "%d%%|%5.2f|%c", -7, 1.5, 'c'), 11);
  EXPECT_EQ(got, (messages{{"drv", 2, "load ip6dns driver config /etc/x failed", 1}, {"drv", 0, "-7%| 1.50|c", 1}}));
}

TEST_F(logger, a_tag_precedes_the_message_in_brackets) {
  EXPECT_EQ(push(log, 10, "drv", "x=%d", 5), 8);
  EXPECT_EQ(push(log, 10, "", "x=%d", 5), 3);
  EXPECT_EQ(push(log, 10, nullptr, "x=%d", 5), 3);
  EXPECT_EQ(push(log, 10, "a %s]", "\n"), 8);
  EXPECT_EQ(
      got,
      (messages{{"drv", 2, "[drv]x=5", 1}, {"drv", 2, "x=5", 1}, {"drv", 2, "x=5", 1}, {"drv", 2, "[a %s]]\n", 1}}));
}

TEST_F(logger, an_empty_message_is_refused_with_and_without_a_tag) {
  for (const auto& way : ways) EXPECT_EQ(way.log(log, 10, ""), -1) << way.label;
  EXPECT_EQ(push(log, 10, "tag", "%s", ""), -1);
  EXPECT_EQ(got, messages{});
}

TEST_F(logger, a_message_of_30719_characters_is_the_longest) {
  const std::string text(longest, 'm');
  for (const auto& way : ways) {
    got.clear();
    EXPECT_EQ(way.log(log, 10, text.c_str()), longest) << way.label;
    EXPECT_EQ(got, (messages{{"drv", 2, text, 1}})) << way.label;
    EXPECT_EQ(way.log(log, 10, (text + "m").c_str()), -1) << way.label;
    EXPECT_EQ(way.log(log, 10, (text + text).c_str()), -1) << way.label;
    EXPECT_EQ(got.size(), 1U) << way.label;
  }
}

TEST_F(logger, a_message_of_any_length_arrives_complete) {
  for (int n = 1; n <= 2000; ++n) {
    const std::string text(static_cast<size_t>(n), 'm');
    got.clear();
    EXPECT_EQ(push(log, 10, "tag", "%d %s %d", 7, text.c_str(), 8), n + 9);
    EXPECT_EQ(got, (messages{{"drv", 2, "[tag]7 " + text + " 8", 1}}));
  }
}

TEST_F(logger, push_formats_a_message_once_with_room_for_30720_bytes) {
  for (const char* tag : {"", "tag"}) {
    for (const size_t length : {1U, 26U, 511U, 512U, 30719U, 30720U, 100000U}) {
      SCOPED_TRACE(testing::Message() << "tag '" << tag << "', message of " << length);
      const std::string text(length, 'm');
      std::vector<size_t> seen;
      limits = &seen;
      push(log, 10, tag, "%s", text.c_str());
      limits = nullptr;
      EXPECT_EQ(seen, std::vector<size_t>{30720});
    }
  }
}

TEST_F(logger, a_message_above_the_threshold_is_not_formatted) {
  std::vector<size_t> seen;
  limits = &seen;
  EXPECT_EQ(log.add(41, "m"), 0);
  limits = nullptr;
  EXPECT_EQ(seen.size(), 0U);
}

TEST_F(logger, a_tag_does_not_shorten_the_message) {
  const std::string text(longest, 'm');
  EXPECT_EQ(push(log, 10, "t", "%s", text.c_str()), 3 + longest);
  EXPECT_EQ(push(log, 10, "t", "%sm", text.c_str()), -1);
  EXPECT_EQ(got, (messages{{"drv", 2, "[t]" + text, 1}}));
}

TEST_F(logger, a_prefix_of_more_than_80_characters_is_cut_to_80) {
  for (const size_t tag : {1U, 77U, 78U, 79U, 80U, 81U, 500U, 30797U, 30798U, 30799U, 100000U}) {
    for (const int message : {1, longest - 1, longest}) {
      SCOPED_TRACE(testing::Message() << "tag of " << tag << ", message of " << message);
      const std::string expected = ("[" + std::string(tag, 't') + "]").substr(0, prefix);
      const std::string text(static_cast<size_t>(message), 'm');
      got.clear();
      EXPECT_EQ(push(log, 10, std::string(tag, 't').c_str(), "%s", text.c_str()),
                static_cast<int>(expected.size()) + message);
      EXPECT_EQ(got, (messages{{"drv", 2, expected + text, 1}}));
    }
  }
}

TEST_F(logger, a_message_of_30720_characters_is_refused_after_any_prefix) {
  const std::string text(longest + 1, 'm');
  for (const size_t tag : {1U, 78U, 79U, 500U})
    EXPECT_EQ(push(log, 10, std::string(tag, 't').c_str(), "%s", text.c_str()), -1) << tag;
  EXPECT_EQ(got, messages{});
}

TEST_F(logger, a_message_that_cannot_be_formatted_is_refused) {
  const wchar_t invalid[] = {wchar_t{0x7fffffff}, 0};
  EXPECT_EQ(log.add(10, "%ls", invalid), -1);
  EXPECT_EQ(log.append(10, "a%ls", invalid), -1);
  EXPECT_EQ(push(log, 10, "t", "%ls", invalid), -1);
  EXPECT_EQ(push(log, 10, nullptr, "%ls", invalid), -1);
  EXPECT_EQ(got, messages{});
}

TEST_F(logger, a_prefix_that_cannot_be_formatted_refuses_the_message) {
  refuse_snprintf = true;
  const int tagged = push(log, 10, "t", "m"), untagged = push(log, 10, "", "m"), added = log.add(10, "m");
  refuse_snprintf = false;
  EXPECT_EQ(tagged, -1);
  EXPECT_EQ(untagged, 1);
  EXPECT_EQ(added, 1);
  EXPECT_EQ(got, (messages{{"drv", 2, "m", 1}, {"drv", 2, "m", 1}}));
}

// ---------------------------------------------------------------- callback

TEST_F(logger, without_a_callback_every_message_is_refused_unformatted) {
  int formatted = 0;
  logDac unbound;
  logDac bound;
  bound.bind("drv", nullptr, this);
  for (logDac* one : {&unbound, &bound}) {
    for (const int level : {10, 40, 41, 999}) {
      EXPECT_EQ(one->add(level, "abc%n", &formatted), -1);
      EXPECT_EQ(one->append(level, "abc%n", &formatted), -1);
      EXPECT_EQ(push(*one, level, nullptr, "abc%n", &formatted), -1);
      EXPECT_EQ(push(*one, level, "t", "abc%n", &formatted), -1);
    }
  }
  EXPECT_EQ(formatted, 0);
}

TEST_F(logger, the_name_is_a_copy_of_any_length) {
  for (const size_t n : {0U, 1U, 15U, 16U, 5000U}) {
    std::string name(n, 'n');
    log.bind(name.c_str(), on_log, this);
    name.assign(n, 'x');
    got.clear();
    EXPECT_EQ(log.add(40, "m"), 1);
    EXPECT_EQ(got, (messages{{std::string(n, 'n'), 3, "m", 1}}));
  }
}

TEST_F(logger, unused_operations_do_nothing) {
  const std::string before(reinterpret_cast<const char*>(&log), sizeof log);
  EXPECT_EQ(log.open("/tmp/log"), 0);
  EXPECT_EQ(log.open(nullptr), 0);
  log.runtime();
  log.release();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&log), sizeof log), before);
  EXPECT_EQ(log.add(10, "still"), 5);
  EXPECT_EQ(got, (messages{{"drv", 2, "still", 1}}));
}

namespace {

/// What is in use, of the pools and of the C library's heap.
struct memory {
  size_t pools = blocks::live();
  size_t heap = mallinfo2().uordblks;
  bool operator==(const memory&) const = default;
};

struct watch {
  memory before;
  bool same = false;
};

}  // namespace

TEST(logDac, allocates_no_memory_for_a_message) {
  const cblog compare = [](const char*, int, const char*, int, void* param) {
    auto* w = static_cast<watch*>(param);
    w->same = memory() == w->before;
  };
  const std::string text(longest, 'm');
  watch w;
  logDac log;
  log.bind("drv", compare, &w);
  w.before = memory();
  EXPECT_EQ(push(log, 10, "tag", "%s", text.c_str()), 5 + longest);
  EXPECT_TRUE(w.same);
}

TEST_F(logger, messages_of_many_threads_arrive_complete) {
  struct host {
    std::mutex mtx;
    std::map<std::string, int> texts;
  } to;
  const cblog count = [](const char*, int, const char* text, int, void* param) {
    auto* h = static_cast<host*>(param);
    const std::lock_guard hold(h->mtx);
    ++h->texts[text];
  };
  log.bind("drv", count, &to);
  in_threads(8, [this](size_t me) {
    const std::string tag(1, "abcdefgh"[me]), text(1000, tag[0]);
    for (int i = 0; i < 50; ++i) {
      log.add(10, "%s", text.c_str());
      push(log, 30, tag.c_str(), "%s", text.c_str());
    }
  });
  EXPECT_EQ(to.texts.size(), 16U);
  for (const char me : "abcdefgh"s) {
    EXPECT_EQ(to.texts[std::string(1000, me)], 50);
    EXPECT_EQ(to.texts["["s + me + "]" + std::string(1000, me)], 50);
  }
}

// ---------------------------------------------------------------- layout

namespace {

template <class T>
T field(const logDac& log, size_t offset) {
  return pools::read<T>(reinterpret_cast<const char*>(&log) + offset);
}

}  // namespace

TEST_F(logger, holds_its_fields_in_order) {
  EXPECT_EQ(sizeof log, 64U);
  EXPECT_EQ(field<int>(log, 8), 40);
  EXPECT_EQ(field<cblog>(log, 16), &logger::on_log);
  EXPECT_EQ(field<void*>(log, 24), this);
  EXPECT_EQ(*reinterpret_cast<const std::string*>(reinterpret_cast<const char*>(&log) + 32), "drv");
}

TEST(logDac, starts_with_level_40_no_callback_and_an_empty_name) {
  const logDac log;
  EXPECT_EQ(field<int>(log, 8), 40);
  EXPECT_EQ(field<cblog>(log, 16), nullptr);
  EXPECT_EQ(field<void*>(log, 24), nullptr);
  EXPECT_EQ(*reinterpret_cast<const std::string*>(reinterpret_cast<const char*>(&log) + 32), "");
}

TEST(logDac, cannot_be_copied) {
  EXPECT_FALSE(std::is_copy_constructible_v<logDac>);
  EXPECT_FALSE(std::is_copy_assignable_v<logDac>);
}

TEST(logDac, created_with_new_is_a_block_of_the_pools) {
  const size_t before = blocks::live();
  ym::ilog* log = new logDac;
  EXPECT_EQ(blocks::live(), before + 1);
  EXPECT_EQ(ym::allocator::usable_(log), 64U);
  delete log;
  EXPECT_EQ(blocks::live(), before);
}

TEST(logDac, created_with_new_is_null_if_the_pools_have_no_memory) {
  const blocks::exhausted none(sizeof(logDac));
  EXPECT_EQ(new logDac, nullptr);
}

TEST(logDac, deleting_null_does_nothing) {
  const size_t before = blocks::live();
  delete static_cast<logDac*>(nullptr);
  logDac::operator delete(nullptr);
  EXPECT_EQ(blocks::live(), before);
}

// ---------------------------------------------------------------- the abstract interface

namespace {

enum slot : size_t { destroy, destroy_and_free, open, add, append, push_, getlevel, setlevel, runtime, release };

/// The virtual function in a slot of the object's table.
template <class F>
F* at(const ym::ilog* log, slot s) {
  return reinterpret_cast<F*>(pools::read<void* const*>(log)[s]);
}

[[gnu::format(printf, 4, 5)]] int push_by_slot(ym::ilog* log, int level, const char* tag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int n = at<int(ym::ilog*, int, const char*, const char*, va_list)>(log, push_)(log, level, tag, fmt, args);
  va_end(args);
  return n;
}

// One operation of the interface each, so that a class can have all but one.
template <class BASE>
struct opens : BASE {
  int open(const char* /*path*/) override { return 102; }
};
template <class BASE>
struct adds : BASE {
  int add(int level, const char* /*fmt*/, ...) override { return 103 + level; }
};
template <class BASE>
struct appends : BASE {
  int append(int level, const char* /*fmt*/, ...) override { return 104 + level; }
};
template <class BASE>
struct reports_level : BASE {
  int getlevel() override { return 106; }
};
template <class BASE>
struct takes_level : BASE {
  void setlevel(int level) override { last = 107 + level; }
  int last = 0;
};
template <class BASE>
struct runs : BASE {
  void runtime() override { ran = 108; }
  int ran = 0;
};
template <class BASE>
struct releases : BASE {
  void release() override { released = 109; }
  int released = 0;
};

template <template <class> class... OPERATION>
struct with : ym::ilog {};
template <template <class> class FIRST, template <class> class... REST>
struct with<FIRST, REST...> : FIRST<with<REST...>> {};

using all_but_push = with<opens, adds, appends, reports_level, takes_level, runs, releases>;

template <class T>
constexpr bool abstract = std::is_abstract_v<T>;

}  // namespace

TEST(ilog, all_operations_except_push_are_pure) {
  EXPECT_FALSE(abstract<all_but_push>);
  EXPECT_TRUE((abstract<with<adds, appends, reports_level, takes_level, runs, releases>>));
  EXPECT_TRUE((abstract<with<opens, appends, reports_level, takes_level, runs, releases>>));
  EXPECT_TRUE((abstract<with<opens, adds, reports_level, takes_level, runs, releases>>));
  EXPECT_TRUE((abstract<with<opens, adds, appends, takes_level, runs, releases>>));
  EXPECT_TRUE((abstract<with<opens, adds, appends, reports_level, runs, releases>>));
  EXPECT_TRUE((abstract<with<opens, adds, appends, reports_level, takes_level, releases>>));
  EXPECT_TRUE((abstract<with<opens, adds, appends, reports_level, takes_level, runs>>));
}

TEST(ilog, push_returns_0_by_default) {
  all_but_push log;
  int formatted = 0;
  EXPECT_EQ(push(log, 10, "t", "abc%n", &formatted), 0);
  EXPECT_EQ(formatted, 0);
}

TEST(ilog, has_only_a_virtual_table_and_a_virtual_destructor) {
  EXPECT_EQ(sizeof(ym::ilog), sizeof(void*));
  EXPECT_TRUE(std::has_virtual_destructor_v<ym::ilog>);
}

TEST(ilog, each_operation_has_its_slot) {
  all_but_push log;
  EXPECT_EQ(at<int(ym::ilog*, const char*)>(&log, open)(&log, "path"), 102);
  EXPECT_EQ(at<int(ym::ilog*, int, const char*, ...)>(&log, add)(&log, 1000, "%d", 1), 1103);
  EXPECT_EQ(at<int(ym::ilog*, int, const char*, ...)>(&log, append)(&log, 1000, "%d", 1), 1104);
  EXPECT_EQ(push_by_slot(&log, 10, "t", "m"), 0);
  EXPECT_EQ(at<int(ym::ilog*)>(&log, getlevel)(&log), 106);
  at<void(ym::ilog*, int)>(&log, setlevel)(&log, 1000);
  EXPECT_EQ(log.last, 1107);
  at<void(ym::ilog*)>(&log, runtime)(&log);
  EXPECT_EQ(log.ran, 108);
  at<void(ym::ilog*)>(&log, release)(&log);
  EXPECT_EQ(log.released, 109);
}

TEST_F(logger, fills_the_same_slots) {
  EXPECT_EQ(at<int(ym::ilog*, const char*)>(&log, open)(&log, "path"), 0);
  EXPECT_EQ(at<int(ym::ilog*, int, const char*, ...)>(&log, add)(&log, 10, "a%d", 1), 2);
  EXPECT_EQ(at<int(ym::ilog*, int, const char*, ...)>(&log, append)(&log, 20, "b%d", 22), 3);
  EXPECT_EQ(push_by_slot(&log, 40, "t", "c%d", 3), 5);
  at<void(ym::ilog*, int)>(&log, setlevel)(&log, -12);
  EXPECT_EQ(at<int(ym::ilog*)>(&log, getlevel)(&log), -12);
  at<void(ym::ilog*)>(&log, runtime)(&log);
  at<void(ym::ilog*)>(&log, release)(&log);
  EXPECT_EQ(got, (messages{{"drv", 2, "a1", 1}, {"drv", 1, "b22", 1}, {"drv", 3, "[t]c3", 1}}));
}

TEST(logDac, has_the_destructor_in_the_first_slot_and_the_deleting_one_in_the_second) {
  const size_t before = blocks::live();
  auto* destroyed = new logDac;
  auto* deleted = new logDac;
  at<void(ym::ilog*)>(destroyed, destroy)(destroyed);
  EXPECT_EQ(blocks::live(), before + 2);
  at<void(ym::ilog*)>(deleted, destroy_and_free)(deleted);
  EXPECT_EQ(blocks::live(), before + 1);
  ym_free(destroyed);
}
