// The fields that an instance shares with its worker: who writes them, and when.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <semaphore>
#include <stdexcept>
#include <thread>

#include "driver/dac.h"
#include "tests/driver/driver_fixture.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/fake_threads.h"

namespace {

class worker_state : public driver_fixture {
 protected:
  const scratch_file file{"hostname=h1\n"};

  worker_state() { fake_interfaces::set({"2001:db8::10"}); }
  ~worker_state() override {
    fake_clock::interrupt_sleeps(false);
    fake_threads::before_create = fake_threads::before_body = nullptr;
  }

  void SetUp() override { ASSERT_TRUE(create(file.path().c_str())); }

  const std::thread* thread_object() const { return static_cast<const std::thread*>(field<const void*>(thread_at)); }

  /// Asks the worker to end without Stop, and waits until it says that it does not run.
  void end_worker() {
    set<int32_t>(stop_at, 1);
    fake_clock::free_run();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (flag(running_at) != 0) {
      if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the worker does not end");
      std::this_thread::yield();
    }
  }
  /// The calls of time() in one round at `seconds`.
  int readings_of_round(int64_t seconds) {
    fake_clock::set(seconds);
    const int before = fake_clock::readings();
    fake_clock::step();
    return fake_clock::readings() - before;
  }
};

}  // namespace

// ---------------------------------------------------------------- start and stop

TEST_F(worker_state, a_second_start_replaces_the_thread_object) {
  const auto host = [&] {
    d.Start();
    fake_clock::await_sleepers(1);
    const auto* first = thread_object();
    d.Start();
    fake_clock::await_sleepers(2);
    const auto* second = thread_object();
    const bool replaced = first != second && second->joinable();
    const bool forgotten = first->joinable() && first->get_id() != second->get_id();
    _exit(replaced && forgotten ? 0 : 1);  // the first worker cannot be joined any more
  };
  EXPECT_EXIT(host(), testing::ExitedWithCode(0), "");
}

TEST_F(worker_state, Start_clears_the_stop_flag_before_the_thread_exists) {
  set<int32_t>(stop_at, 1);
  int32_t at_create = -1;
  fake_threads::before_create = [&] { at_create = flag(stop_at); };
  start(d);
  EXPECT_EQ(at_create, 0);
  stop(d);
}

TEST_F(worker_state, the_worker_and_not_Start_sets_running) {
  std::binary_semaphore gate(0);
  fake_threads::before_body = [&] { gate.acquire(); };
  d.Start();
  EXPECT_EQ(flag(running_at), 0);
  gate.release();
  fake_clock::await_sleepers(1);
  EXPECT_EQ(flag(running_at), 1);
  stop(d);
}

TEST_F(worker_state, the_worker_and_not_Stop_clears_running) {
  start(d);
  end_worker();
  EXPECT_EQ(flag(running_at), 0);
  set<int32_t>(running_at, 7);
  stop(d);
  EXPECT_EQ(flag(running_at), 7);
}

TEST_F(worker_state, the_worker_and_not_Stop_clears_the_stop_flag) {
  start(d);
  end_worker();
  EXPECT_EQ(flag(stop_at), 0);
  stop(d);
  EXPECT_EQ(flag(stop_at), 1) << "no worker was left to clear it";
}

// ---------------------------------------------------------------- rounds

TEST_F(worker_state, an_interrupted_sleep_is_not_resumed) {
  fake_clock::interrupt_sleeps(true);
  d.Start();
  fake_clock::await_sleepers(1);
  const int sleeps = fake_clock::sleeps();
  fake_clock::step();
  EXPECT_EQ(fake_clock::sleeps(), sleeps + 1) << "the next round's";
  EXPECT_EQ(fake_interfaces::lists(), 1) << "the poll followed the interrupted sleep";
  stop(d);
}

TEST_F(worker_state, each_round_calls_time_once) {
  d.Start();
  fake_clock::await_sleepers(1);
  EXPECT_EQ(readings_of_round(now), 1) << "poll and publication";
  EXPECT_EQ(readings_of_round(now + 1), 1) << "no poll";
  EXPECT_EQ(readings_of_round(now + 10), 1) << "poll without publication";
  fake_interfaces::fail(-1);
  EXPECT_EQ(readings_of_round(now + 20), 1) << "failed poll";
  EXPECT_EQ(readings_of_round(now + 140), 1) << "publication of an unchanged text";
  EXPECT_EQ(records.size(), 3U);
  stop(d);
}

// ---------------------------------------------------------------- the record

TEST_F(worker_state, the_callback_receives_a_pointer_to_the_record_inside_the_instance) {
  start(d);
  EXPECT_EQ(reinterpret_cast<const char*>(handed), reinterpret_cast<const char*>(&d) + tag_at);
  stop(d);
}

TEST_F(worker_state, the_records_time_is_the_start_of_its_round) {
  during_data = [] { fake_clock::advance(7); };
  start(d);
  EXPECT_EQ(field<dac_tagvalue>(tag_at).time, 10 * now);
  stop(d);
}

TEST_F(worker_state, without_a_data_callback_the_record_stays_unchanged) {
  set<cbdata>(cbdata_at, nullptr);
  dac_tagvalue before;
  std::memset(&before, 0x5A, sizeof before);
  set(tag_at, before);
  start(d);
  fake_clock::advance(500);
  fake_clock::step();
  EXPECT_EQ(text(lastip6_at), "2001:db8::10");
  EXPECT_EQ(bytes(tag_at, tag_at + sizeof before), std::string(sizeof before, 0x5A));
  stop(d);
}
