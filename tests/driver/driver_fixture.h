// One instance without the entry points, and its fields by offset.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "driver/dac.h"
#include "driver/ip6dnsDriver.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/log_message.h"
#include "tests/support/pools.h"
#include "tests/support/scratch_file.h"

/// Gives each test a new instance, a clock and an interface list. create() names the instance "drv".
class driver_fixture : public testing::Test {
 protected:
  // The offset of each field after the logger, and the size of all.
  enum : size_t {
    hostname_at = 64,
    name_at = 72,
    cfgfile_at = 80,
    cblog_at = 88,
    cblogparam_at = 96,
    cbaux1_at = 104,
    cbaux1param_at = 112,
    cbdata_at = 120,
    cbdataparam_at = 128,
    cbaux2_at = 136,
    cbaux2param_at = 144,
    reserved_at = 152,
    lastcheck_at = 416,
    lastip6_at = 424,
    ip6_at = 432,
    tag_at = 440,
    stop_at = 1544,
    running_at = 1548,
    thread_at = 1552,
    driver_size = 1560
  };

  static constexpr int64_t now = 1'700'000'000;

  ip6dnsDriver d;
  std::vector<log_message> messages;
  std::vector<dac_tagvalue> records;
  const dac_tagvalue* handed = nullptr;   // the pointer that the data callback received last
  std::function<void()> during_data;      // called by the data callback
  std::vector<std::string> last_at_data;  // what _lastip6 held when the data callback was called
  std::vector<long> open_during_log;
  const void* thread_at_stop = this;  // value of _thread when the stop was logged
  char logparam = 0, aux1param = 0, aux2param = 0;

  driver_fixture() {
    fake_clock::stepping();
    fake_clock::set(now);
    fake_interfaces::reset();
  }
  ~driver_fixture() override { fake_interfaces::reset(); }

  static void on_log(const char* name, int hostlevel, const char* text, int flag, void* param) {
    auto* me = static_cast<driver_fixture*>(param);
    me->messages.push_back({name, hostlevel, text, flag});
    me->open_during_log.push_back(open_descriptors());
    if (text == std::string_view("stop wrk_process success.")) me->thread_at_stop = me->field<void*>(thread_at);
  }
  static void on_data(const dac_tagvalue* tags, int count, void* param) {
    EXPECT_EQ(count, 1);
    auto* me = static_cast<driver_fixture*>(param);
    me->records.push_back(*tags);
    me->last_at_data.push_back(me->text(lastip6_at));
    me->handed = tags;
    if (me->during_data) me->during_data();
  }
  static void aux1(void* /*param*/) { ADD_FAILURE() << "called"; }
  static void aux2(void* /*param*/) { FAIL() << "called"; }

  bool create(const char* cfgfile, const char* name = "drv") {
    return d.Create(name, cfgfile, on_log, this, aux1, &aux1param, on_data, this, aux2, &aux2param);
  }
  bool create_from(const std::string& text) { return create(scratch_file(text).path().c_str()); }

  template <class T>
  T field(size_t offset) const {
    return pools::read<T>(reinterpret_cast<const char*>(&d) + offset);
  }
  /// A flag that the worker may write at the same time. Not instrumented, because such flags are plain integers.
  __attribute__((no_sanitize("thread"))) int32_t flag(size_t offset) const {
    return *reinterpret_cast<const volatile int32_t*>(reinterpret_cast<const char*>(&d) + offset);
  }
  template <class T>
  void set(size_t offset, T value) {
    pools::write(&d, offset, value);
  }
  /// The characters of the string at `offset`, as many as its header states.
  std::string text(size_t offset) const {
    const auto* p = field<const char*>(offset);
    return p ? std::string(p, pools::read<uint32_t>(p - 4)) : "";
  }
  std::string bytes(size_t from, size_t to) const {
    return {reinterpret_cast<const char*>(&d) + from, reinterpret_cast<const char*>(&d) + to};
  }

  /// Starts the worker and waits for one poll.
  static void start(ip6dnsDriver& one) {
    one.Start();
    fake_clock::await_sleepers(1);
    fake_clock::step();
  }
  static void stop(ip6dnsDriver& one) {
    fake_clock::free_run();
    one.Stop();
    fake_clock::stepping();
  }
  /// The one record that these addresses give.
  dac_tagvalue published(const std::vector<std::string>& addresses) {
    fake_interfaces::set(addresses);
    start(d);
    stop(d);
    EXPECT_EQ(records.size(), 1U);
    return records.empty() ? dac_tagvalue{} : records.front();
  }

  std::string info() const {
    char buf[256];
    size_t n = sizeof buf;
    d.GetInfo(buf, &n);
    return buf;
  }
};
