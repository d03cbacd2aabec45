// Loading and unloading the built library, and refused memory.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <ostream>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "driver/dac.h"
#include "tests/support/before_sanitizer.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_heap.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/fake_pages.h"
#include "tests/support/plugin.h"
#include "tests/support/plugin_fixture.h"

// The sanitizer's function, if one is linked.
extern "C" [[gnu::weak]] void __sanitizer_set_death_callback(void (*callback)());

namespace {

using strings = std::vector<std::string>;

struct tuning {
  int parameter;
  int value;
  int mappings;  // made so far
  bool operator==(const tuning&) const = default;
};

std::vector<tuning>& tunings() {
  static std::vector<tuning> list;
  list.reserve(100);  // once: the tests count blocks
  return list;
}

constexpr char assertion[] =
    "com/ymlib3/ym_alloctor:597: void\\* ym::blk_alloctor<LOCK>::malloc_\\(size_t\\*\\) "
    "\\[with LOCK = ym::spinlock; size_t = long unsigned int\\]: Assertion `pret != nullptr' failed";

// One call that loading makes, or one destructor that unloading runs.
struct step {
  std::string what;
  int mappings;  // made before it
  int blocks;    // asked of operator new before it
  bool operator==(const step&) const = default;
};

std::ostream& operator<<(std::ostream& out, const step& s) {
  return out << s.what << " after " << s.mappings << " mappings and " << s.blocks << " blocks";
}

// Records the steps while it lives. Its memory does not come from operator new, which it counts.
class load_record {
 public:
  load_record() { current = this; }
  ~load_record() { current = nullptr; }
  load_record(const load_record&) = delete;
  load_record& operator=(const load_record&) = delete;

  static void add(const char* what, const void* about = nullptr) {
    if (!current || current->_count == current->_steps.size()) return;
    current->_steps[current->_count++] = {what, about, fake_pages::made(), fake_heap::asked()};
  }

  /// The steps so far; an object is named as `table` or as the pools.
  std::vector<step> steps(const void* table) const {
    std::vector<step> all;
    for (size_t i = 0; i < _count; ++i) {
      const entry& e = _steps[i];
      const char* object = !e.about ? "" : e.about == table ? " the table" : " the pools";
      all.push_back({std::string(e.what) + object, e.mappings, e.blocks});
    }
    return all;
  }

 private:
  struct entry {
    const char* what;
    const void* about;
    int mappings, blocks;
  };
  std::array<entry, 32> _steps{};
  size_t _count = 0;
  static inline load_record* current = nullptr;
};

// A destructor that the library registers, and its replacement.
struct registered {
  void (*destroy)(void*);
  void* object;
};
std::array<registered, 32> g_registered;
size_t g_registrations = 0;

void destroy_recorded(void* at) {
  const auto& r = *static_cast<registered*>(at);
  load_record::add("destroys", r.object);
  r.destroy(r.object);
}

bool g_watched = false;  // whether __cxa_atexit is called by the library that is being loaded

}  // namespace

extern "C" int mallopt(int parameter, int value) noexcept {
  tunings().push_back({parameter, value, fake_pages::made()});
  load_record::add("tunes");
  return 1;
}

// The C++ library registers destructors before the thread sanitizer is initialised.
extern "C" BEFORE_SANITIZER int __cxa_atexit(void (*destroy)(void*), void* object, void* library) noexcept {
  static int (*real)(void (*)(void*), void*, void*) = nullptr;
  if (!real) real = reinterpret_cast<decltype(real)>(dlsym(RTLD_NEXT, "__cxa_atexit"));
  if (!g_watched || g_registrations == g_registered.size()) return real(destroy, object, library);
  load_record::add("registers", object);
  registered& r = g_registered[g_registrations++];
  r = {destroy, object};
  return real(destroy_recorded, &r, library);
}

namespace {

size_t whole_pages(size_t n) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return (n + page - 1) / page * page;
}

size_t lines_of_maps() {
  std::ifstream maps("/proc/self/maps");
  size_t n = 0;
  for (std::string line; std::getline(maps, line);) ++n;
  return n;
}

// Does not load the plug-in; the fixtures below do.
class load : public testing::Test {
 protected:
  recorder rec;
  scratch dir;
  const std::string config = dir.file("hostname=h1\n");

  load() {
    fake_pages::reset();
    tunings().clear();
  }
  ~load() override { fake_pages::reset(); }
  int create(const library& lib) { return rec.args("drv", config.c_str()).create(lib); }
};

class refusal : public plugin_fixture {
 protected:
  ~refusal() override {
    fake_pages::refuse(0);
    fake_heap::refuse(0);
  }

  /// Expects that the instance starts, publishes and stops as usual.
  void expect_usable(int h) {
    rec.clear();
    start(h);
    fake_clock::step();
    EXPECT_EQ(lib.isrun(h), 1);
    stop(h);
    EXPECT_EQ(rec.journal(),
              (strings{recorder::log("drv", 0, "start wrk_process success."), recorder::data("h1", address),
                       recorder::log("drv", 0, "stop wrk_process success.")}));
  }
};

}  // namespace

// ---------------------------------------------------------------- load

TEST_F(load, tunes_the_c_library_before_it_maps_anything) {
  const library lib;
  EXPECT_EQ(tunings(), (std::vector<tuning>{
                           {M_ARENA_MAX, 1, 0}, {M_MMAP_THRESHOLD, 1'048'576, 0}, {M_TRIM_THRESHOLD, 1'048'576, 0}}));
  EXPECT_GT(fake_pages::made(), 0);
}

TEST_F(load, tunes_the_c_library_only_at_load) {
  {
    const library lib;
    EXPECT_EQ(create(lib), 0);
  }
  EXPECT_EQ(tunings().size(), 3U);
}

TEST_F(load, maps_its_bookkeeping_three_pools_and_the_tables_pool) {
  const auto before = fake_pages::live();
  const library lib;
  std::multiset<size_t> lengths;
  for (const auto& [at, length] : fake_pages::live())
    if (!before.contains(at)) lengths.insert(length);
  // Blocks of 16, 32 and 64 bytes: 32 KiB of them; of 8192 bytes: 16 of them. Each block has a word in front.
  constexpr size_t word = 8;
  const std::multiset<size_t> expected = {whole_pages(524'288), whole_pages(2048 * (16 + word)),
                                          whole_pages(1024 * (32 + word)), whole_pages(512 * (64 + word)),
                                          whole_pages(16 * (8192 + word))};
  EXPECT_EQ(lengths, expected);
  EXPECT_EQ(fake_pages::made(), 5);
  EXPECT_EQ(fake_pages::last_length(), whole_pages(16 * (8192 + word)));
}

// Mapping 1, for bookkeeping, is requested again when the first pool needs it.
TEST_F(load, succeeds_without_the_pages_that_are_refused_at_first) {
  for (const int refused : {1, 2, 3, 4}) {
    SCOPED_TRACE(refused);
    fake_pages::reset();
    fake_pages::refuse(refused);
    const library lib;
    EXPECT_GE(fake_pages::mappings.seen(), refused) << "refused during load";
    EXPECT_EQ(create(lib), 0);
    EXPECT_EQ(create(lib), 1);
  }
}

TEST_F(load, aborts_if_the_table_gets_no_memory) {
  fake_pages::refuse(5);
  EXPECT_DEATH(const library lib, assertion);
}

TEST_F(load, constructs_three_globals_without_a_heap_block) {
  const load_record record;
  g_registrations = 0;
  fake_heap::refuse(1);  // also counts
  g_watched = true;
  void* lib = dlopen(library::path(), RTLD_NOW);
  g_watched = false;
  const int blocks = fake_heap::asked();
  fake_heap::refuse(0);
  ASSERT_TRUE(lib);
  const void* table = dlsym(lib, "g_dachandls");
  EXPECT_EQ(blocks, 0);
  EXPECT_EQ(record.steps(table), (std::vector<step>{{"tunes", 0, 0},
                                                    {"tunes", 0, 0},
                                                    {"tunes", 0, 0},
                                                    {"registers the pools", 4, 0},
                                                    {"registers the table", 5, 0}}));
  EXPECT_EQ(fake_pages::made(), 5);
  dlclose(lib);
}

// ---------------------------------------------------------------- unload

TEST_F(load, unload_destroys_the_table_and_then_the_pools) {
  g_registrations = 0;
  fake_heap::refuse(0);
  g_watched = true;
  void* lib = dlopen(library::path(), RTLD_NOW);
  g_watched = false;
  ASSERT_TRUE(lib);
  const void* table = dlsym(lib, "g_dachandls");
  fake_pages::reset();
  const auto record = std::make_unique<load_record>();
  fake_heap::refuse(0);
  dlclose(lib);
  EXPECT_EQ(record->steps(table), (std::vector<step>{{"destroys the table", 0, 0}, {"destroys the pools", 0, 0}}));
}

TEST_F(load, leaves_no_mapping_or_block_after_unload) {
  const auto before = fake_pages::live();
  {
    const library lib;
    EXPECT_TRUE(library::is_loaded());
    EXPECT_EQ(create(lib), 0);
  }
  EXPECT_FALSE(library::is_loaded());
  EXPECT_EQ(dlopen(library::path(), RTLD_NOW | RTLD_NOLOAD), nullptr);
  EXPECT_EQ(fake_pages::live(), before);
}

TEST_F(load, unload_deletes_the_remaining_instances) {
  constexpr long instances = 1024;
  const auto mappings = fake_pages::live();
  const long before = fake_heap::live();
  {
    const library lib;
    for (int h = 0; h < instances; ++h) ASSERT_EQ(create(lib), h);
    for (int h = 0; h < instances; h += 2) lib.destroy(h);
    EXPECT_GE(fake_heap::live() - before, instances / 2);
  }
  EXPECT_EQ(fake_heap::live(), before);
  EXPECT_EQ(fake_pages::live(), mappings);
}

TEST_F(load, counts_handles_from_0_after_each_load) {
  for (int i = 0; i < 3; ++i) {
    const library lib;
    EXPECT_EQ(create(lib), 0);
    EXPECT_EQ(create(lib), 1);
  }
}

TEST_F(load, opened_several_times_is_one_library) {
  const library first;
  EXPECT_EQ(create(first), 0);
  {
    const library second;
    EXPECT_EQ(create(second), 1);
  }
  EXPECT_EQ(first.devicewriteobj(0), 4);
  EXPECT_EQ(first.devicewriteobj(1), 4);
}

TEST_F(load, can_be_repeated_without_a_leak) {
  constexpr int times = 200;
  const auto cycle = [&] {
    const library lib;
    ASSERT_EQ(create(lib), 0);
  };
  cycle();
  const auto before = fake_pages::live();
  const size_t lines = lines_of_maps();
  const long blocks = fake_heap::live();
  for (int i = 0; i < times; ++i) cycle();
  EXPECT_EQ(fake_heap::live(), blocks);
  EXPECT_EQ(fake_pages::live(), before);
  EXPECT_LT(lines_of_maps(), lines + times / 2) << "less than one mapping more each time";
}

// ---------------------------------------------------------------- memory refused

TEST_F(refusal, of_memory_for_a_thread_throws_system_error) {
  const int h = create();
  fake_heap::refuse(0);
  ASSERT_EQ(lib.start(h), 0);
  const int blocks = fake_heap::asked();
  fake_clock::free_run();
  ASSERT_EQ(lib.stop(h), 0);
  fake_clock::stepping();
  ASSERT_GE(blocks, 2) << "the thread object and what the thread runs";
  for (int i = 1; i <= blocks; ++i) {
    SCOPED_TRACE(i);
    const long before = fake_heap::live();
    bool was_refused = false;
    fake_heap::refuse(i);
    try {
      lib.start(h);
    } catch (const std::system_error& e) {
      was_refused = e.code() == std::errc::not_enough_memory;
    }
    fake_heap::refuse(0);
    EXPECT_TRUE(was_refused);
    EXPECT_EQ(fake_heap::live(), before);
    EXPECT_EQ(lib.isrun(h), 0);
    EXPECT_EQ(lib.stop(h), 0);
  }
  fake_clock::advance(120);
  expect_usable(h);
}

// The error itself needs memory: two blocks for its text.
TEST_F(refusal, of_all_memory_for_a_thread_throws_bad_alloc) {
  const int h = create();
  const long before = fake_heap::live();
  bool was_refused = false;
  fake_heap::refuse_from(1);
  try {
    lib.start(h);
  } catch (const std::bad_alloc&) {
    was_refused = true;
  } catch (const std::system_error&) {
    was_refused = false;
  }
  fake_heap::refuse(0);
  EXPECT_TRUE(was_refused);
  EXPECT_EQ(fake_heap::live(), before);
  EXPECT_EQ(lib.isrun(h), 0);
  EXPECT_EQ(lib.stop(h), 0);
  expect_usable(h);
}

TEST_F(refusal, of_memory_for_an_instance_registers_nothing_and_uses_up_a_handle) {
  const std::string path = dir.file("hostname=h1\n");
  const arguments a = rec.args("a name too long for the string object", path.c_str());
  ASSERT_EQ(a.create(lib), 0);  // afterwards the pools need no new memory
  lib.destroy(0);
  fake_heap::refuse(0);
  ASSERT_EQ(a.create(lib), 1);
  const int blocks = fake_heap::asked();
  ASSERT_GE(blocks, 2) << "the instance and its name";
  for (int i = 1; i <= blocks; ++i) {
    SCOPED_TRACE(i);
    const long before = fake_heap::live();
    fake_heap::refuse(i);
    EXPECT_EQ(a.create(lib), -1);
    fake_heap::refuse(0);
    EXPECT_EQ(fake_heap::live(), before);
    EXPECT_EQ(known(), std::set{1});
  }
  EXPECT_EQ(rec.journal(), strings{});
  EXPECT_EQ(a.create(lib), blocks + 2);
}

TEST_F(refusal, of_pages_for_the_path_reads_no_file) {
  fake_pages::refuse_all();
  const std::string path = dir.file("hostname=h1\n", std::string(200, 'p'));
  EXPECT_EQ(rec.args("drv", path.c_str()).create(lib), -1);
  EXPECT_EQ(rec.messages(), strings{"load ip6dns driver config  failed"});
  EXPECT_EQ(known(), std::set<int>{});
}

TEST_F(refusal, of_pages_for_the_host_name_is_reported_as_a_missing_host_name) {
  dir.file("hostname=" + std::string(60, 'h') + "\n", "c");
  ASSERT_EQ(chdir(dir.path("").c_str()), 0);  // a short path needs no page
  fake_pages::refuse_all();
  const int h = rec.args("n", "c").create(lib);
  fake_pages::refuse(0);
  EXPECT_EQ(chdir("/"), 0);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(rec.messages(), strings{"not config hostname in c"});
  EXPECT_EQ(known(), std::set<int>{});
}

TEST_F(refusal, of_pages_for_the_workers_text_does_not_stop_it) {
  const int h = create();
  start(h);
  fake_clock::step();
  strings addresses;
  for (int i = 0; i < 50; ++i) addresses.push_back("2001:db8:1111:2222::" + std::to_string(1000 + i));
  fake_interfaces::set(addresses);
  fake_pages::refuse_all();
  fake_clock::advance(10);
  fake_clock::step();
  EXPECT_LT(rec.values().back().size(), 999U);
  EXPECT_EQ(lib.isrun(h), 1);
  fake_pages::refuse(0);
  fake_clock::advance(10);
  fake_clock::step();
  EXPECT_EQ(rec.values().back().size(), 999U);
}

TEST_F(refusal, of_pages_for_the_table_aborts) {
  const auto host = [&] {
    ASSERT_EQ(chdir(dir.path("").c_str()), 0);
    dir.file("hostname=h\n", "c");
    fake_pages::refuse_all();
    const arguments a = rec.args("n", "c");  // short, so that only the table requests larger blocks
    while (a.create(lib) >= 0) {
    }
  };
  EXPECT_DEATH(host(), assertion);
}

// compat: no entry point checks for MAP_FAILED.
TEST_F(refusal, MAP_FAILED_is_treated_as_an_address_by_every_entry_point_that_needs_pages) {
  const int h = create();
  const std::string long_path = dir.file("hostname=h1\n", std::string(200, 'p'));
  const struct {
    const char* label;
    std::function<void()> call;
  } rows[] = {
      {"dac_create", [&] { rec.args("drv", long_path.c_str()).create(lib); }},
      {"dac_getinfo", [&] { info(h); }},
      {"worker",
       [&] {
         start(h);
         fake_clock::step();
       }},
  };
  fake_interfaces::set(strings(50, "2001:db8:1111:2222:3333:4444:5555:6666"));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto host = [&] {
      std::signal(SIGSEGV, SIG_DFL);  // a sanitizer has its own handler
      // The address sanitizer checks the arguments of memcpy() and reports the address before the access.
      if (__sanitizer_set_death_callback) __sanitizer_set_death_callback([] { std::raise(SIGSEGV); });
      fake_pages::fail_all();
      row.call();
    };
    EXPECT_EXIT(host(), testing::KilledBySignal(SIGSEGV),
                "^$|0xf{16} is a wild pointer|qemu: uncaught target signal 11");
  }
}
