// A test with the plug-in loaded, a fake clock and a fake interface list.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/fake_clock.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/plugin.h"

/// Starts at second `t0` with one public address. Instances that a test leaves running are stopped at its end.
class plugin_fixture : public testing::Test {
 protected:
  static constexpr int64_t t0 = 1'700'000'000;
  static constexpr char address[] = "2001:db8::10";

  recorder rec;
  scratch dir;
  library lib;

  plugin_fixture() {
    fake_clock::stepping();
    fake_clock::set(t0);
    fake_interfaces::reset();
    fake_interfaces::set({address});
  }
  ~plugin_fixture() override {
    while (!_running.empty()) stop(_running.back());
    fake_interfaces::reset();
  }

  /// A new instance with the whole of `config` as its file, or with a host name alone.
  int create_from(const std::string& config) { return rec.args("drv", dir.file(config).c_str()).create(lib); }
  int create(const std::string& hostname = "h1") { return create_from("hostname = " + hostname + "\n"); }

  /// Starts the instance's worker and sees it asleep for the first time; a test that has no worker ends here.
  void start(int h) {
    if (lib.start(h) != 0) throw std::runtime_error("no instance to start: " + std::to_string(h));
    _running.push_back(h);
    fake_clock::await_sleepers(running());
  }
  /// Stops it; the other workers are back asleep then.
  void stop(int h) {
    finish(h, [&] { EXPECT_EQ(lib.stop(h), 0); });
  }
  /// The same by `join`, which sees a stop through that waits elsewhere.
  void finish(int h, auto join) {
    _running.erase(std::find(_running.begin(), _running.end(), h));
    fake_clock::free_run();
    join();
    fake_clock::stepping();
    fake_clock::await_sleepers(running());
  }

  bool is_known(int h) const { return lib.devicewriteobj(h) != -1; }

  /// The handles of all instances.
  std::set<int> known() const {
    std::set<int> handles;
    for (int h = -1; h <= 2050; ++h)
      if (is_known(h)) handles.insert(h);
    return handles;
  }

  std::string info(int h) const {
    char text[4096] = "";
    size_t n = sizeof text;
    EXPECT_EQ(lib.getinfo(h, text, &n), 0);
    return text;
  }

 private:
  std::vector<int> _running;

  int running() const { return static_cast<int>(_running.size()); }
};
