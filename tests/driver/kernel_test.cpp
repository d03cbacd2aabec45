// The built library on the kernel's interfaces. Each test runs in a separate network namespace, where only the loopback
// interface exists and the test may add addresses.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "driver/dac.h"
#include "tests/support/network.h"
#include "tests/support/plugin.h"

namespace {

using strings = std::vector<std::string>;

std::atomic<time_t> seconds_ahead = 0;  // of the real clock

}  // namespace

// The tests move the clock instead of waiting 10 seconds for a poll. Sleeps are real.
extern "C" time_t time(time_t* out) noexcept {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const time_t seconds = now.tv_sec + seconds_ahead;
  if (out) *out = seconds;
  return seconds;
}

namespace {

// ---------------------------------------------------------------- the network

bool add(const std::string& address, const std::string& interface = "lo") {
  return ip("addr add " + address + " dev " + interface + " nodad");
}
bool del(const std::string& address) { return ip("addr del " + address + " dev lo"); }
// A second interface, down.
bool add_interface(const std::string& name) { return ip("link add " + name + " type veth"); }

// ---------------------------------------------------------------- the expected value

std::string text_of(const in6_addr& a) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, &a, text, sizeof text);
}

// An independent predicate on the 32 digits that the kernel prints.
bool is_public(const std::string& digits) {
  const std::string zeros(32, '0');
  const bool is_local = digits.starts_with("fe") && digits[2] >= '8';
  const bool is_mapped = digits.starts_with(zeros.substr(0, 20) + "ffff");
  const bool is_compatible = digits.starts_with(zeros.substr(0, 24)) && digits.substr(24) > "00000000";
  return !is_local && !is_mapped && !is_compatible && !digits.starts_with("ff");
}

in6_addr parse(const std::string& digits) {
  in6_addr a;
  for (size_t i = 0; i < 16; ++i) a.s6_addr[i] = static_cast<uint8_t>(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
  return a;
}

std::multiset<std::string> public_addresses_of_the_kernel() {
  std::multiset<std::string> addresses;
  std::ifstream table("/proc/self/net/if_inet6");
  for (std::string line; std::getline(table, line);)
    if (const std::string digits = line.substr(0, 32); is_public(digits)) addresses.insert(text_of(parse(digits)));
  return addresses;
}

size_t addresses_of_the_kernel() {
  size_t n = 0;
  std::ifstream table("/proc/self/net/if_inet6");
  for (std::string line; std::getline(table, line);) ++n;
  return n;
}

// The same in the order of the C library's list.
strings in_list_order(std::multiset<std::string> wanted) {
  strings texts;
  ifaddrs* list = nullptr;
  EXPECT_EQ(getifaddrs(&list), 0);
  for (const ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET6) continue;
    const std::string text = text_of(reinterpret_cast<const sockaddr_in6*>(i->ifa_addr)->sin6_addr);
    if (const auto it = wanted.find(text); it != wanted.end()) {
      texts.push_back(text);
      wanted.erase(it);
    }
  }
  freeifaddrs(list);
  return texts;
}

strings split(const std::string& value) {
  strings texts;
  std::istringstream in(value);
  for (std::string text; std::getline(in, text, ',');) texts.push_back(text);
  return texts;
}

// ---------------------------------------------------------------- a host

// A running instance.
class host {
 public:
  recorder rec;

  host() {
    EXPECT_EQ(_h, 0);
    EXPECT_EQ(_lib.start(_h), 0);
  }
  ~host() {
    EXPECT_EQ(_lib.stop(_h), 0);
    _lib.destroy(_h);
  }
  host(const host&) = delete;
  host& operator=(const host&) = delete;

  /// Waits for publication number `n`, counting from 1.
  std::string publication(size_t n) {
    await([&] { return rec.values().size() >= n; }, "nothing published");
    return rec.values().at(n - 1);
  }
  /// Causes a poll in the next round.
  static void poll() { seconds_ahead += 10; }

 private:
  scratch _dir;
  library _lib;
  int _h = rec.args("drv", _dir.file("hostname=h1\n").c_str()).create(_lib);
};

}  // namespace

TEST(kernel, publishes_null_on_a_machine_with_only_a_loopback_address) {
  in_new_network([] {
    EXPECT_EQ(addresses_of_the_kernel(), 1U);
    host h;
    EXPECT_EQ(h.publication(1), "null");
  });
}

TEST(kernel, publishes_the_public_addresses_that_the_kernel_lists) {
  in_new_network([] {
    const strings addresses = {"2001:db8::10/64",  "2001:db8:1::20/64", "fec0::1/64",    "::192.0.2.1/128",
                               "::0.0.0.2/128",    "fd00::5/64",        "fc00::6/64",    "::ffff:192.0.2.1/128",
                               "fe80::7/64",       "febf::8/64",        "fe00::1/64",    "fe7f::1/64",
                               "feff::1/64",       "fdff::1/64",        "::1:0:1/128",   "2001:db8::ffff:1:2/128",
                               "::0.1.0.0/128",    "::0.0.1.0/128",     "::1.0.0.0/128", "::fffe:1:2/128",
                               "::1:ffff:1:2/128", "64:ff9b::1/128",    "0:1::1/128"};
    for (const std::string& a : addresses) ASSERT_TRUE(add(a)) << a;
    ASSERT_EQ(addresses_of_the_kernel(), addresses.size() + 1);
    const auto expected = public_addresses_of_the_kernel();
    ASSERT_EQ(expected.size(), 13U);

    host h;
    const strings published = split(h.publication(1));
    EXPECT_EQ(std::multiset<std::string>(published.begin(), published.end()), expected);
    EXPECT_EQ(published, in_list_order(expected));
  });
}

TEST(kernel, publishes_an_address_of_an_interface_that_is_down) {
  in_new_network([] {
    ASSERT_TRUE(add_interface("v0"));
    ASSERT_TRUE(add("2001:db8::10/64", "v0"));
    host h;
    EXPECT_EQ(h.publication(1), "2001:db8::10");
  });
}

TEST(kernel, publishes_an_added_and_a_removed_address) {
  in_new_network([] {
    host h;
    EXPECT_EQ(h.publication(1), "null");
    ASSERT_TRUE(add("2001:db8::10/64"));
    host::poll();
    EXPECT_EQ(h.publication(2), "2001:db8::10");
    ASSERT_TRUE(add("fd00::5/64"));
    host::poll();
    const strings both = split(h.publication(3));
    EXPECT_EQ(both, in_list_order({"2001:db8::10", "fd00::5"}));
    ASSERT_TRUE(del("2001:db8::10/64"));
    host::poll();
    EXPECT_EQ(h.publication(4), "fd00::5");
    ASSERT_TRUE(del("fd00::5/64"));
    host::poll();
    EXPECT_EQ(h.publication(5), "null");
    EXPECT_EQ(h.rec.messages(), strings{"start wrk_process success."});
  });
}

TEST(kernel, publishes_an_address_once_per_interface_that_has_it) {
  in_new_network([] {
    ASSERT_TRUE(add_interface("v0"));
    ASSERT_TRUE(add("2001:db8::10/64", "v0"));
    ASSERT_TRUE(add("2001:db8::10/64"));
    host h;
    EXPECT_EQ(h.publication(1), "2001:db8::10,2001:db8::10");
  });
}
