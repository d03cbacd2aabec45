// The handle table: which handle comes next, the layout, and refused requests.
#include "com/ymlib3/ym_handle"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/support/blocks.h"
#include "tests/support/pools.h"
#include "tests/support/threads.h"

namespace {

std::atomic<const void*> watched;  // a mutex,
std::atomic<int> locked;           // how often it was locked,
std::atomic<int> refusal;          // and the result of locking it if not 0
std::function<void()> meanwhile;   // changes to the table while a call waits for the mutex

/// The objects in the tables. As large as an entry, so that a test detects an object that is allocated from the pools.
struct probe {
  static inline int made;
  static inline std::vector<const probe*> gone;
  static inline std::function<void()> at_birth, at_death;
  char room[56] = {};

  probe() {
    ++made;
    if (at_birth) at_birth();
  }
  ~probe() {
    gone.push_back(this);
    if (at_death) at_death();
  }
  probe(const probe&) = delete;
  probe& operator=(const probe&) = delete;
};

using probes = ym::handle<probe>;

// Offsets of the fields: last id, mutex, buckets, bucket count, count.
constexpr size_t lastid_at = 0;
constexpr size_t mutex_at = 8;
constexpr size_t buckets_at = mutex_at + sizeof(pthread_mutex_t);
constexpr size_t bucketcount_at = buckets_at + 8;
constexpr size_t count_at = bucketcount_at + 8;
constexpr int bucket_count = 1024;
constexpr int last_handle = 2048;

struct entry {
  const char* next;
  int32_t id;
  const probe* obj;
  uintptr_t words[4];
};
static_assert(sizeof(entry) == 56 && offsetof(entry, id) == 8 && offsetof(entry, obj) == 16);

template <class T>
T field(const void* table, size_t offset) {
  return pools::read<T>(static_cast<const char*>(table) + offset);
}

pthread_mutex_t* mutex_of(void* table) {
  return reinterpret_cast<pthread_mutex_t*>(static_cast<char*>(table) + mutex_at);
}

/// Whether a thread holds the table's lock.
bool is_locked(void* table) {
  if (pthread_mutex_trylock(mutex_of(table)) != 0) return true;
  pthread_mutex_unlock(mutex_of(table));
  return false;
}

int bucket_of(int h) { return 21 * h % bucket_count; }

/// The entries of a bucket, front first.
std::vector<entry> chain(const void* table, int bucket) {
  std::vector<entry> found;
  const char* const* heads = field<const char* const*>(table, buckets_at);
  for (const char* e = heads[bucket]; e; e = found.back().next) found.push_back(pools::read<entry>(e));
  return found;
}

std::vector<int> ids(const std::vector<entry>& entries) {
  std::vector<int> found(entries.size());
  std::transform(entries.begin(), entries.end(), found.begin(), [](const entry& e) { return e.id; });
  return found;
}

/// Leaves bytes that are not zero in the block that the next request of `n` bytes gets.
void soil(size_t n) {
  void* p = pools::take(n);
  std::memset(p, 0xA5, n);
  ym_free(p);
}

/// The code of the system error that `operation` throws, or 0.
int error_of(const std::function<void()>& operation) {
  try {
    operation();
    return 0;
  } catch (const std::system_error& e) {
    return e.code().value();
  }
}

class handle : public testing::Test {
 protected:
  probes table;

  handle() {
    probe::made = 0;
    probe::gone.clear();
    probe::at_birth = probe::at_death = nullptr;
  }
  ~handle() override {
    refusal = 0;
    watched = nullptr;
    probe::at_birth = probe::at_death = nullptr;
    EXPECT_TRUE(table.is_valid());
  }

  int lastid() const { return field<int32_t>(&table, lastid_at); }
  uint64_t count() const { return field<uint64_t>(&table, count_at); }

  std::vector<int> create(int n) {
    std::vector<int> made(static_cast<size_t>(n));
    for (int& h : made) h = table.create();
    return made;
  }
  /// Makes and deletes objects until `id` is the latest handle.
  void pass(int id) {
    while (lastid() != id) ASSERT_EQ(table.del(table.create()), 0);
  }
  /// Makes the table's lock fail until the end of the test.
  void refuse(int error) {
    watched = mutex_of(&table);
    refusal = error;
  }
};

}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* real = reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  if (mutex == watched) {
    ++locked;
    if (refusal != 0) return refusal;
    if (const auto others = std::exchange(meanwhile, nullptr)) others();
  }
  return real(mutex);
}

// ---------------------------------------------------------------- layout

TEST_F(handle, a_new_table_has_its_fields_in_order) {
  const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EQ(sizeof table, count_at + 8);
  EXPECT_EQ(lastid(), -1);
  EXPECT_EQ(std::memcmp(mutex_of(&table), &fresh, sizeof fresh), 0);
  EXPECT_NE(field<const void*>(&table, buckets_at), nullptr);
  EXPECT_EQ(field<uint64_t>(&table, bucketcount_at), 1024U);
  EXPECT_EQ(count(), 0U);
}

TEST_F(handle, the_fields_have_fixed_offsets) {
#ifdef __aarch64__
  EXPECT_EQ(buckets_at, 56U);
  EXPECT_EQ(sizeof table, 80U);
#else
  EXPECT_EQ(buckets_at, 48U);
  EXPECT_EQ(sizeof table, 72U);
#endif
}

TEST_F(handle, buckets_come_from_the_pools_and_start_empty_in_a_reused_block) {
  soil(8192);
  const size_t before = blocks::live();
  const probes other;
  EXPECT_EQ(blocks::live(), before + 1);
  EXPECT_EQ(ym::allocator::usable_(field<const void*>(&other, buckets_at)), 8192U);
  for (int i = 0; i < bucket_count; ++i) ASSERT_TRUE(chain(&other, i).empty()) << i;
}

TEST_F(handle, an_entry_is_a_block_of_the_pools_and_its_object_is_not) {
  const size_t before = blocks::live();
  ASSERT_EQ(table.create(), 0);
  EXPECT_EQ(blocks::live(), before + 1);
  const char* head = *field<const char* const*>(&table, buckets_at);
  EXPECT_EQ(ym::allocator::usable_(head), 64U);
  EXPECT_EQ(table.del(0), 0);
  EXPECT_EQ(blocks::live(), before);
}

TEST_F(handle, an_entry_has_handle_object_and_four_zero_words_in_a_reused_block) {
  soil(sizeof(entry));
  ASSERT_EQ(table.create(), 0);
  const std::vector<entry> found = chain(&table, 0);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].next, nullptr);
  EXPECT_EQ(found[0].id, 0);
  EXPECT_EQ(found[0].obj, table.get(0));
  for (const uintptr_t word : found[0].words) EXPECT_EQ(word, 0U);
}

TEST_F(handle, handle_h_is_in_bucket_21_times_h) {
  for (int h = 0; h <= last_handle; ++h) {
    ASSERT_EQ(table.create(), h);
    ASSERT_EQ(ids(chain(&table, bucket_of(h))), std::vector<int>{h});
    ASSERT_EQ(table.del(h), 0);
    ASSERT_TRUE(chain(&table, bucket_of(h)).empty()) << h;
  }
}

TEST_F(handle, handles_1024_apart_share_a_bucket_newest_first) {
  for (const int h : {0, 5, 1024, 1029, 2048}) {
    pass(h - 1);
    ASSERT_EQ(table.create(), h);
  }
  EXPECT_EQ(ids(chain(&table, 0)), (std::vector<int>{2048, 1024, 0}));
  EXPECT_EQ(ids(chain(&table, bucket_of(5))), (std::vector<int>{1029, 5}));
}

TEST_F(handle, an_entry_is_removed_from_the_front_the_middle_and_the_end_of_its_chain) {
  std::vector<int> order = {0, 1024, 2048};
  do {
    SCOPED_TRACE(testing::PrintToString(order));
    probes t;
    for (int h = 0; h <= last_handle; ++h) {
      ASSERT_EQ(t.create(), h);
      ASSERT_EQ(h % 1024 != 0 ? t.del(h) : 0, 0);
    }
    std::vector<int> left = {2048, 1024, 0};
    for (const int h : order) {
      EXPECT_EQ(t.del(h), 0);
      EXPECT_EQ(t.get(h), nullptr);
      left.erase(std::find(left.begin(), left.end(), h));
      EXPECT_EQ(ids(chain(&t, 0)), left);
      for (const int other : left) EXPECT_NE(t.get(other), nullptr);
    }
  } while (std::next_permutation(order.begin(), order.end()));
}

// ---------------------------------------------------------------- which handle comes next

TEST_F(handle, the_first_handle_is_0_and_they_count_upwards) {
  EXPECT_EQ(create(4), (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(lastid(), 3);
  EXPECT_EQ(count(), 4U);
  EXPECT_EQ(probe::made, 4);
}

TEST_F(handle, a_deleted_handle_is_not_reused_at_once) {
  create(3);
  EXPECT_EQ(table.del(1), 0);
  EXPECT_EQ(table.del(2), 0);
  EXPECT_EQ(table.create(), 3);
  EXPECT_EQ(table.create(), 4);
}

TEST_F(handle, handle_1_follows_2048) {
  pass(2047);
  EXPECT_EQ(table.create(), 2048);
  EXPECT_EQ(lastid(), 2048);
  EXPECT_EQ(table.create(), 1);
  EXPECT_EQ(lastid(), 1);
}

TEST_F(handle, handle_0_is_used_once) {
  pass(0);
  for (int i = 0; i < 2 * last_handle; ++i) {
    const int h = table.create();
    ASSERT_EQ(h, i % last_handle + 1);
    ASSERT_EQ(table.del(h), 0);
  }
}

TEST_F(handle, with_1_to_5_in_use_6_follows_2048) {
  pass(0);
  ASSERT_EQ(create(5), (std::vector<int>{1, 2, 3, 4, 5}));
  pass(2048);
  EXPECT_EQ(table.create(), 6);
  EXPECT_EQ(lastid(), 6);
  EXPECT_EQ(table.create(), 7);
}

TEST_F(handle, handles_in_use_are_skipped_in_the_middle) {
  create(3);
  pass(2048);
  ASSERT_EQ(table.create(), 3);
  pass(2048);
  EXPECT_EQ(table.del(2), 0);
  EXPECT_EQ(table.create(), 2);
  EXPECT_EQ(table.create(), 4);
}

TEST_F(handle, skipping_handles_in_use_continues_at_1_after_2048) {
  pass(2046);
  ASSERT_EQ(create(3), (std::vector<int>{2047, 2048, 1}));
  pass(2046);
  EXPECT_EQ(table.create(), 2);
  EXPECT_EQ(lastid(), 2);
}

TEST_F(handle, handle_0_in_use_does_not_affect_the_count_after_2048) {
  ASSERT_EQ(table.create(), 0);
  pass(2048);
  EXPECT_EQ(table.create(), 1);
  EXPECT_NE(table.get(0), nullptr);
}

// ---------------------------------------------------------------- full

TEST_F(handle, object_1025_is_refused_and_changes_nothing) {
  for (int h = 0; h < 1024; ++h) ASSERT_EQ(table.create(), h);
  EXPECT_EQ(table.create(), -1);
  EXPECT_EQ(table.create(), -1);
  EXPECT_EQ(lastid(), 1023);
  EXPECT_EQ(count(), 1024U);
  EXPECT_EQ(probe::made, 1024);
  EXPECT_FALSE(is_locked(&table));
}

TEST_F(handle, a_full_table_accepts_one_object_for_each_deleted_one) {
  create(1024);
  EXPECT_EQ(table.create(), -1);
  EXPECT_EQ(table.del(500), 0);
  EXPECT_EQ(table.create(), 1024);
  EXPECT_EQ(table.create(), -1);
  EXPECT_EQ(table.get(500), nullptr);
}

TEST_F(handle, a_table_full_of_the_lowest_handles_finds_the_one_that_is_free) {
  pass(0);
  for (int h = 1; h <= 1024; ++h) ASSERT_EQ(table.create(), h);
  ASSERT_EQ(table.del(1024), 0);
  pass(2048);
  EXPECT_EQ(table.create(), 1024);
  EXPECT_EQ(lastid(), 1024);
}

// ---------------------------------------------------------------- get and del

TEST_F(handle, each_handle_has_a_separate_object) {
  create(3);
  EXPECT_NE(table.get(0), nullptr);
  EXPECT_EQ(table.get(0), table.get(0));
  EXPECT_NE(table.get(0), table.get(1));
  EXPECT_NE(table.get(1), table.get(2));
}

TEST_F(handle, an_empty_table_finds_no_handle) {
  for (const int h : {0, 1, -1, 1024, 2048, 5000, INT_MIN, INT_MAX}) {
    EXPECT_EQ(table.get(h), nullptr) << h;
    EXPECT_EQ(table.del(h), -1) << h;
  }
  EXPECT_EQ(count(), 0U);
}

TEST_F(handle, an_unknown_handle_is_null_and_deletes_nothing_even_in_a_shared_bucket) {
  create(2);
  for (const int h : {2, -1, 1024, 1025, 2048, 2049, 5000, -1024, INT_MIN, INT_MAX}) {
    EXPECT_EQ(table.get(h), nullptr) << h;
    EXPECT_EQ(table.del(h), -1) << h;
  }
  EXPECT_EQ(count(), 2U);
  EXPECT_TRUE(probe::gone.empty());
}

TEST_F(handle, deleting_destroys_the_object_once_and_removes_the_handle) {
  create(3);
  const probe* p = table.get(1);
  EXPECT_EQ(table.del(1), 0);
  EXPECT_EQ(probe::gone, std::vector<const probe*>{p});
  EXPECT_EQ(count(), 2U);
  EXPECT_EQ(table.get(1), nullptr);
  EXPECT_EQ(table.del(1), -1);
  EXPECT_EQ(probe::gone.size(), 1U);
  EXPECT_EQ(count(), 2U);
  EXPECT_EQ(lastid(), 2);
}

TEST_F(handle, a_table_without_buckets_or_count_finds_no_handle) {
  ASSERT_EQ(table.create(), 0);
  const auto* buckets = field<const char*>(&table, buckets_at);
  pools::write<const char*>(&table, buckets_at, nullptr);
  EXPECT_EQ(table.get(0), nullptr);
  EXPECT_EQ(table.del(0), -1);
  pools::write(&table, buckets_at, buckets);
  pools::write<uint64_t>(&table, count_at, 0);
  EXPECT_EQ(table.get(0), nullptr);
  EXPECT_EQ(table.del(0), -1);
  pools::write<uint64_t>(&table, count_at, 1);
  EXPECT_NE(table.get(0), nullptr);
  EXPECT_TRUE(probe::gone.empty());
}

TEST_F(handle, deleting_an_entry_without_object_removes_the_entry) {
  ASSERT_EQ(table.create(), 0);
  const probe* p = table.get(0);
  pools::write<const void*>(*field<const char* const*>(&table, buckets_at), offsetof(entry, obj), nullptr);
  EXPECT_EQ(table.get(0), nullptr);
  EXPECT_EQ(table.del(0), 0);
  EXPECT_EQ(count(), 0U);
  EXPECT_TRUE(probe::gone.empty());
  delete p;
}

TEST_F(handle, is_invalid_if_count_object_or_handle_disagree) {
  ASSERT_EQ(table.create(), 0);
  const char* e = *field<const char* const*>(&table, buckets_at);
  const auto broken = [&](const void* at, size_t offset, auto value) {
    const auto good = field<decltype(value)>(at, offset);
    pools::write(at, offset, value);
    const bool valid = table.is_valid();
    pools::write(at, offset, good);
    return !valid;
  };
  EXPECT_TRUE(table.is_valid());
  EXPECT_TRUE(broken(&table, count_at, uint64_t{2}));
  EXPECT_TRUE(broken(e, offsetof(entry, obj), static_cast<const void*>(nullptr)));
  EXPECT_TRUE(broken(e, offsetof(entry, id), int32_t{-1024}));
  EXPECT_TRUE(broken(e, offsetof(entry, id), int32_t{4096}));
}

// ---------------------------------------------------------------- lock

TEST_F(handle, objects_are_created_and_destroyed_under_the_lock) {
  std::vector<bool> held;
  probe::at_birth = probe::at_death = [&] { held.push_back(is_locked(&table)); };
  ASSERT_EQ(table.create(), 0);
  EXPECT_FALSE(is_locked(&table));
  EXPECT_NE(table.get(0), nullptr);
  EXPECT_FALSE(is_locked(&table));
  ASSERT_EQ(table.del(0), 0);
  EXPECT_FALSE(is_locked(&table));
  EXPECT_EQ(held, (std::vector<bool>{true, true}));
}

TEST_F(handle, del_destroys_the_object_while_its_entry_is_still_linked_and_counted) {
  ASSERT_EQ(create(2), (std::vector<int>{0, 1}));
  const probe* object = table.get(1);
  std::vector<entry> linked;
  uint64_t counted = 0;
  probe::at_death = [&] {
    linked = chain(&table, bucket_of(1));
    counted = count();
  };
  ASSERT_EQ(table.del(1), 0);
  ASSERT_EQ(ids(linked), std::vector<int>{1});
  EXPECT_EQ(linked[0].obj, object);
  EXPECT_EQ(counted, 2U);
  EXPECT_EQ(count(), 1U);
}

TEST_F(handle, every_operation_locks_once_even_if_it_finds_nothing) {
  watched = mutex_of(&table);
  const std::function<void()> operations[] = {
      [&] { table.get(0); }, [&] { table.del(0); },  [&] { table.create(); }, [&] { table.get(0); },
      [&] { table.get(1); }, [&] { table.del(-1); }, [&] { table.del(0); },
  };
  for (const auto& operation : operations) {
    locked = 0;
    operation();
    EXPECT_EQ(locked, 1);
  }
}

TEST_F(handle, a_call_that_waited_for_the_lock_sees_the_changes_of_others) {
  create(3);
  watched = mutex_of(&table);
  meanwhile = [&] { EXPECT_EQ(table.del(1), 0); };
  EXPECT_EQ(table.get(1), nullptr);
  meanwhile = [&] { EXPECT_EQ(table.del(2), 0); };
  EXPECT_EQ(table.del(2), -1);
  EXPECT_EQ(probe::gone.size(), 2U);
  meanwhile = [&] { create(1023); };
  EXPECT_EQ(table.create(), -1);
  EXPECT_EQ(count(), 1024U);
}

TEST_F(handle, a_refused_lock_throws_system_error_and_changes_nothing) {
  create(2);
  for (const int error : {EINVAL, EAGAIN}) {
    refuse(error);
    const int errors[] = {error_of([&] { table.create(); }), error_of([&] { table.get(0); }),
                          error_of([&] { table.del(0); })};
    refusal = 0;
    for (const int e : errors) EXPECT_EQ(e, error);
  }
  EXPECT_EQ(lastid(), 1);
  EXPECT_EQ(count(), 2U);
  EXPECT_EQ(probe::made, 2);
  EXPECT_TRUE(probe::gone.empty());
}

TEST_F(handle, an_object_whose_constructor_throws_is_not_registered_and_uses_up_its_handle) {
  ASSERT_EQ(table.create(), 0);
  const size_t before = blocks::live();
  probe::at_birth = [] { throw std::runtime_error("birth"); };
  EXPECT_THROW(table.create(), std::runtime_error);
  probe::at_birth = nullptr;
  EXPECT_FALSE(is_locked(&table));
  EXPECT_EQ(blocks::live(), before);
  EXPECT_EQ(count(), 1U);
  EXPECT_EQ(table.get(1), nullptr);
  EXPECT_EQ(table.create(), 2);
}

// ---------------------------------------------------------------- memory

using handle_death = handle;

constexpr char assertion[] =
    "com/ymlib3/ym_alloctor:597: void\\* ym::blk_alloctor<LOCK>::malloc_\\(size_t\\*\\) "
    "\\[with LOCK = ym::spinlock; size_t = long unsigned int\\]: Assertion `pret != nullptr' failed\\.";

TEST_F(handle_death, an_entry_that_cannot_be_allocated_aborts_with_the_assertion) {
  EXPECT_DEATH(
      {
        const blocks::exhausted none(sizeof(entry));
        table.create();
      },
      assertion);
}

TEST_F(handle_death, buckets_that_cannot_be_allocated_abort_with_the_assertion) {
  EXPECT_DEATH(
      {
        const blocks::exhausted none(8192);
        const probes other;
      },
      assertion);
}

// ---------------------------------------------------------------- destruction

namespace {

/// A table that the test destroys itself and whose memory it can still read then.
class mortal {
 public:
  probes* operator->() { return reinterpret_cast<probes*>(_room); }
  void* get() { return _room; }
  void destroy() {
    (*this)->~handle();
    asm volatile("" : : "r"(_room) : "memory");  // this memory is still read
  }

  mortal() { new (_room) probes; }
  mortal(const mortal&) = delete;
  mortal& operator=(const mortal&) = delete;

 private:
  alignas(probes) char _room[sizeof(probes)];
};

}  // namespace

TEST_F(handle, destruction_destroys_each_object_once_in_bucket_order) {
  mortal t;
  std::vector<std::pair<int, const probe*>> expected;
  for (int h = 0; h <= last_handle; ++h) {
    ASSERT_EQ(t->create(), h);
    if (h % 64 == 7 || h % 1024 == 0)
      expected.emplace_back(bucket_of(h), t->get(h));
    else
      ASSERT_EQ(t->del(h), 0);
  }
  std::reverse(expected.begin(), expected.end());  // the newest comes first in its bucket
  std::stable_sort(expected.begin(), expected.end(), [](auto a, auto b) { return a.first < b.first; });
  std::vector<const probe*> objects(expected.size());
  std::transform(expected.begin(), expected.end(), objects.begin(), [](auto e) { return e.second; });
  probe::gone.clear();
  t.destroy();
  EXPECT_EQ(objects.size(), 35U);
  EXPECT_EQ(probe::gone, objects);
}

TEST_F(handle, destruction_releases_all_memory_after_the_last_object) {
  const size_t before = blocks::live();
  mortal t;
  for (int i = 0; i < 100; ++i) ASSERT_EQ(t->create(), i);
  EXPECT_EQ(blocks::live(), before + 101);
  std::vector<size_t> live;
  probe::at_death = [&] { live.push_back(blocks::live()); };
  t.destroy();
  EXPECT_EQ(live, std::vector<size_t>(100, before + 101));
  EXPECT_EQ(blocks::live(), before);
}

TEST_F(handle, destruction_leaves_no_pointer_to_a_destroyed_object) {
  mortal t;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(t->create(), i);
  std::vector<bool> left;
  probe::at_death = [&] {
    left.clear();
    for (const int h : {0, 1, 2}) left.push_back(chain(t.get(), bucket_of(h)).front().obj != nullptr);
  };
  t.destroy();
  EXPECT_EQ(left, (std::vector<bool>{false, false, true}));  // the last one is being destroyed just now
}

TEST_F(handle, destruction_acquires_no_lock) {
  mortal t;
  ASSERT_EQ(t->create(), 0);
  watched = mutex_of(t.get());
  locked = 0;
  bool held = true;
  probe::at_death = [&] { held = is_locked(t.get()); };
  t.destroy();
  EXPECT_EQ(locked, 0);
  EXPECT_FALSE(held);
}

TEST_F(handle, destruction_leaves_the_table_without_buckets) {
  mortal t;
  ASSERT_EQ(t->create(), 0);
  t.destroy();
  EXPECT_EQ(field<const void*>(t.get(), buckets_at), nullptr);
}

TEST_F(handle, destruction_of_an_empty_table_releases_its_buckets) {
  const size_t before = blocks::live();
  mortal t;
  t.destroy();
  EXPECT_EQ(blocks::live(), before);
  EXPECT_TRUE(probe::gone.empty());
}

// ---------------------------------------------------------------- threads

namespace {

struct counted {
  static inline std::atomic<int> alive;
  counted() { ++alive; }
  ~counted() { --alive; }
  counted(const counted&) = delete;
  counted& operator=(const counted&) = delete;
};

}  // namespace

TEST(handle_threads, eight_threads_create_find_and_delete_separate_objects) {
  ym::handle<counted> table;
  std::vector<int> failed(8);
  in_threads(8, [&](size_t me) {
    const auto expect = [&](bool good) { failed[me] += good ? 0 : 1; };
    for (int i = 0; i < 200; ++i) {
      const int a = table.create(), b = table.create();
      expect(a >= 0 && b >= 0 && a != b && table.get(a) && table.get(b) != table.get(a));
      expect(table.del(a) == 0 && table.del(b) == 0);
    }
  });
  EXPECT_EQ(failed, std::vector<int>(8));
  EXPECT_EQ(counted::alive, 0);
  EXPECT_TRUE(table.is_valid());
}

TEST(handle_threads, eight_threads_fill_a_table_with_distinct_handles) {
  ym::handle<counted> table;
  std::vector<std::vector<int>> made(8);
  in_threads(8, [&](size_t me) {
    for (int i = 0; i < 200; ++i) made[me].push_back(table.create());
  });
  std::vector<int> all;
  for (const auto& one : made) all.insert(all.end(), one.begin(), one.end());
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::count(all.begin(), all.end(), -1), 1600 - 1024);
  all.erase(all.begin(), std::upper_bound(all.begin(), all.end(), -1));
  for (int h = 0; h < 1024; ++h) ASSERT_EQ(all[static_cast<size_t>(h)], h);
  EXPECT_EQ(counted::alive, 1024);
  EXPECT_TRUE(table.is_valid());
}

TEST(handle_threads, of_eight_threads_that_delete_one_handle_one_succeeds) {
  ym::handle<counted> table;
  for (int i = 0; i < 100; ++i) {
    const int h = table.create();
    std::atomic<int> deleted = 0;
    in_threads(8, [&](size_t) { deleted += table.del(h) == 0 ? 1 : 0; });
    ASSERT_EQ(deleted, 1);
  }
  EXPECT_EQ(counted::alive, 0);
}
