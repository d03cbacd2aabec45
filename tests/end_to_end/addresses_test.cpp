// --pick: the kernel's list of addresses, and values that are cut.
#include <gtest/gtest.h>

#include "driver/dac.h"
#include "tests/support/dachost_fixture.h"
#include "tests/support/network.h"

namespace {

class addresses : public dachost_fixture {
 protected:
  /// What a program gets of a published value.
  std::string picked(const std::string& which, const std::string& value) const {
    const std::string prog = program("echo \"$DAC_VALUE\" >did");
    const ending e = run({"--once", "--pick", which, "--exec", prog, conf("publish " + value)}).end();
    EXPECT_EQ(e.status, 0);
    EXPECT_EQ(e.err, "");
    const std::string all = did();
    return all.substr(0, all.find('\n'));
  }
};

std::string numbered(int n) {
  char text[32];
  std::snprintf(text, sizeof text, "2001:db8::%x", n);
  return text;
}

}  // namespace

// The kernel sends such a list in several parts; a value has room for a few of its addresses only.
TEST_F(addresses, of_a_list_in_several_parts_are_all_known) {
  in_a_network_of_its_own([this] {
    std::string commands;
    for (int n = 1; n <= 1000; ++n)
      commands += "addr add " + numbered(n) + "/64 dev lo nodad" + (n % 10 == 0 ? " preferred_lft 0\n" : "\n");
    commands.pop_back();
    ASSERT_TRUE(ip(commands));
    for (int first = 1; first <= 1000; first += 50) {
      std::string published, kept;
      for (int n = first; n < first + 50; ++n) {
        published += (published.empty() ? "" : ",") + numbered(n);
        if (n % 10 != 0) kept += (kept.empty() ? "" : ",") + numbered(n);
      }
      EXPECT_EQ(picked("stable", published), kept);
    }
  });
}

// An address is stable when it is on one interface at least, whichever the kernel lists first.
TEST_F(addresses, on_two_interfaces_with_different_flags_are_stable_in_both_orders) {
  in_a_network_of_its_own([this] {
    ASSERT_TRUE(ip("link add v0 type veth peer name v1"));
    for (const char* interface : {"v0", "v1"}) ASSERT_TRUE(ip(std::string("link set up dev ") + interface));
    for (const auto& [address, on_v0, on_v1] : {std::tuple{"2001:db8::1", "", "preferred_lft 0"},
                                                {"2001:db8::2", "preferred_lft 0", ""},
                                                {"2001:db8::3", "preferred_lft 0", "preferred_lft 0"},
                                                {"2001:db8::4", "", ""}}) {
      ASSERT_TRUE(ip(std::string("addr add ") + address + "/64 dev v0 nodad " + on_v0));
      ASSERT_TRUE(ip(std::string("addr add ") + address + "/64 dev v1 nodad " + on_v1));
    }
    EXPECT_EQ(picked("stable", "2001:db8::1,2001:db8::2,2001:db8::3,2001:db8::4"),
              "2001:db8::1,2001:db8::2,2001:db8::4");
  });
}

TEST_F(addresses, keep_the_order_of_the_value) {
  in_a_network_of_its_own([this] {
    for (int n = 1; n <= 3; ++n) ASSERT_TRUE(ip("addr add " + numbered(n) + "/64 dev lo nodad"));
    EXPECT_EQ(picked("stable", "2001:db8::3,2001:db8::1,2001:db8::2"), "2001:db8::3,2001:db8::1,2001:db8::2");
  });
}

// A value that fills its record may end in the middle of an address, and what is left of it may be another address.
TEST_F(addresses, that_may_be_cut_are_left_out) {
  in_a_network_of_its_own([this] {
    ASSERT_TRUE(ip("addr add 2001:db8::1/64 dev lo nodad"));
    ASSERT_TRUE(ip("addr add 2001:db8::12/64 dev lo nodad"));
    std::string rest = "2001:db8::12";
    while (rest.size() < 900) rest += ",2001:db8::12";
    const std::string cut = ",2001:db8::1";
    const size_t missing = DAC_VALUE_SIZE - 1 - cut.size() - rest.size();
    const std::string kept = rest;
    rest += ',' + std::string(missing - 1, 'x');  // no address: never kept
    for (const char* which : {"global", "stable"}) {
      SCOPED_TRACE(which);
      EXPECT_EQ(picked(which, rest + cut), kept) << "the last one is not taken for 2001:db8::1";
      rest.pop_back();
      EXPECT_EQ(picked(which, rest + cut), kept + cut) << "one byte less: nothing is cut";
      rest += 'x';
    }
  });
}
