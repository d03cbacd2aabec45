// --pick and --interface: which of the kernel's addresses a program gets.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>

#include "driver/dac.h"
#include "tests/support/dachost_fixture.h"
#include "tests/support/network.h"

namespace {

/// The first field of each line that the command prints.
texts printed_by(const std::string& command) {
  texts all;
  std::FILE* f = popen(command.c_str(), "r");
  char line[256];
  while (f && std::fgets(line, sizeof line, f)) all.emplace_back(line, std::strcspn(line, " \n"));
  if (f) pclose(f);
  return all;
}

class addresses : public dachost_fixture {
 protected:
  /// What a program gets with these options, while dachost reports `errors`.
  texts picked(const texts& options, const std::string& errors = "") const {
    texts args = {"run", "-p", built("plugin"), "--once", "--exec", program("echo \"$DAC_VALUE\" >did")};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(dir.file("hostname=h"));
    const ending e = start(args).end();
    EXPECT_EQ(e.status, 0);
    EXPECT_EQ(e.err, errors);
    const std::string all = did();
    return split(all.substr(0, all.find('\n')), ',');
  }
  texts sorted(texts all) const {
    std::sort(all.begin(), all.end());
    return all;
  }
  /// The global addresses in the kernel's order, according to ip(8).
  static texts listed(const std::string& options = "") {
    return printed_by("ip -6 -o addr show scope global " + options + R"( | awk '{ sub("/.*", "", $4); print $4 }')");
  }
  /// Two ends of a link, up.
  static void add_link() {
    EXPECT_TRUE(ip("link add v0 type veth peer name v1\nlink set up dev v0\nlink set up dev v1"));
  }
};

std::string numbered(int n) {
  char text[32];
  std::snprintf(text, sizeof text, "2001:db8::%x", n);
  return text;
}

bool set(const std::string& interface, const std::string& name, const std::string& value) {
  return write_file(("/proc/sys/net/ipv6/conf/" + interface + '/' + name).c_str(), value);
}

}  // namespace

// The kernel sends such a list in several parts; a published value has room for a few of its addresses only.
TEST_F(addresses, of_a_list_in_several_parts_are_all_known) {
  in_new_network([this] {
    std::string commands;
    std::set<std::string> expected;
    for (int n = 1; n <= 1000; ++n) {
      commands += "addr add " + numbered(n) + "/64 dev lo nodad" + (n % 10 == 0 ? " preferred_lft 0\n" : "\n");
      if (n % 10 != 0) expected.insert(numbered(n));
    }
    commands.pop_back();
    ASSERT_TRUE(ip(commands));
    const texts got = picked({"--pick", "stable"});
    EXPECT_EQ(std::set<std::string>(got.begin(), got.end()), expected);
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_EQ(picked({"--pick", "global"}), listed());
  });
}

// With so many addresses the published value is cut before the stable one, which the kernel lists last.
TEST_F(addresses, that_are_stable_are_known_after_31_deprecated_ones) {
  in_new_network([this] {
    ASSERT_TRUE(ip("addr add 2001:db8::1/64 dev lo nodad"));
    for (int n = 0; n < 31; ++n)
      ASSERT_TRUE(ip("addr add 2001:db8:1111:2222:3333:4444:5555:" + std::to_string(1000 + n) +
                     "/64 dev lo nodad preferred_lft 0"));
    EXPECT_EQ(listed().back(), "2001:db8::1");
    EXPECT_EQ(picked({"--pick", "stable"}), texts{"2001:db8::1"});
    EXPECT_EQ(picked({"--pick", "global"}), listed());
    EXPECT_EQ(picked({"--interface", "lo"}), listed());
    const char* full = "addresses: the published value is full; --pick global and --pick stable do not use it";
    EXPECT_LT(picked({}, std::string("dachost: ") + full + '\n').size(), 32U);
  });
}

// An address is stable when it is on one interface at least, whichever the kernel lists first.
TEST_F(addresses, on_two_interfaces_with_different_flags_are_stable_in_both_orders) {
  in_new_network([this] {
    add_link();
    for (const auto& [address, on_v0, on_v1] : {std::tuple{"2001:db8::1", "", "preferred_lft 0"},
                                                {"2001:db8::2", "preferred_lft 0", ""},
                                                {"2001:db8::3", "preferred_lft 0", "preferred_lft 0"},
                                                {"2001:db8::4", "", ""}}) {
      ASSERT_TRUE(ip(std::string("addr add ") + address + "/64 dev v0 nodad " + on_v0));
      ASSERT_TRUE(ip(std::string("addr add ") + address + "/64 dev v1 nodad " + on_v1));
    }
    EXPECT_EQ(sorted(picked({"--pick", "stable"})), (texts{"2001:db8::1", "2001:db8::2", "2001:db8::4"}));
    EXPECT_EQ(sorted(picked({"--pick", "stable", "--interface", "v0"})), (texts{"2001:db8::1", "2001:db8::4"}));
    EXPECT_EQ(sorted(picked({"--pick", "stable", "--interface", "!v0"})), (texts{"2001:db8::2", "2001:db8::4"}));
  });
}

TEST_F(addresses, are_in_the_order_of_the_kernel) {
  in_new_network([this] {
    add_link();
    for (const char* address : {"2001:db8::2/64 dev v1", "2001:db8::7/64 dev lo", "2001:db8::1/64 dev v0",
                                "2001:db8::3/64 dev v0", "2001:db8::5/64 dev lo"})
      ASSERT_TRUE(ip(std::string("addr add ") + address + " nodad"));
    EXPECT_EQ(listed().size(), 5U);
    for (const char* which : {"global", "stable"}) EXPECT_EQ(picked({"--pick", which}), listed());
  });
}

TEST_F(addresses, are_those_of_the_wanted_interfaces) {
  in_new_network([this] {
    add_link();
    ASSERT_TRUE(
        ip("addr add 2001:db8::1/64 dev lo nodad\naddr add 2001:db8::2/64 dev v0 nodad\n"
           "addr add 2001:db8::3/64 dev v1 nodad\naddr add fd00::3/64 dev v1 nodad"));
    EXPECT_EQ(sorted(picked({"--interface", "v1"})), (texts{"2001:db8::3", "fd00::3"}));
    EXPECT_EQ(picked({"--interface", "v1", "--pick", "global"}), texts{"2001:db8::3"});
    EXPECT_EQ(sorted(picked({"--interface", "v0", "--interface", "lo"})), (texts{"2001:db8::1", "2001:db8::2"}));
    EXPECT_EQ(sorted(picked({"--interface", "!v1"})), (texts{"2001:db8::1", "2001:db8::2"}));
    EXPECT_EQ(picked({"--interface", "!v1", "--interface", "!lo"}), texts{"2001:db8::2"});
    const std::string warning = "dachost: --interface missing: no interface has this name now\n";
    const std::string none = "dachost: addresses: none passes --interface missing; hooks get null\n";
    EXPECT_EQ(picked({"--interface", "missing"}, warning + none), texts{"null"});
    EXPECT_EQ(picked({"--interface", "missing", "--interface", "v1", "--pick", "global"}, warning),
              texts{"2001:db8::3"});
    EXPECT_EQ(picked({"--interface", "!v1", "--interface", "!lo", "--interface", "!missing"}), texts{"2001:db8::2"});
    ASSERT_TRUE(
        ip("link set down dev v1\nlink set dev v1 name renamed\nlink set up dev renamed\n"
           "addr add 2001:db8::4/64 dev renamed nodad"));
    EXPECT_EQ(picked({"--interface", "renamed"}), texts{"2001:db8::4"});
    ASSERT_TRUE(ip("link property add dev v0 altname other"));
    EXPECT_EQ(picked({"--interface", "other", "--interface", "lo"},
                     "dachost: --interface other: no interface has this name now\n"),
              texts{"2001:db8::1"})
        << "an alternative name selects nothing";
  });
}

TEST_F(addresses, of_an_interface_are_wanted_for_every_file_after_its_name) {
  const ending e = run({"--once", "--interface", "lo", conf("publish a", "a"), conf("publish b", "b")}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(lines_of(e.out, "value").size(), 2U);
}

TEST_F(addresses, are_held_as_long_as_wanted) {
  in_new_network([this] {
    const std::pair<const char*, const char*> durations[] = {
        {"90", "00:01:30"}, {"2.5m", "00:02:30"}, {"3h", "03:00:00"}, {"2d", "48:00:00"}};
    for (const auto& [hold, shown] : durations) {
      process p = run({"--pick", "stable", "--hold", hold, "--exec", program(""), conf("publish null")});
      p.await_err(std::string("none passes --pick stable; hooks get null if this lasts for ") + shown + '\n');
      terminate(p);
    }
  });
}

// The table of the manual page.
TEST_F(addresses, pass_each_filter_by_their_state) {
  in_new_network([this] {
    const struct row {
      const char* address;
      const char* settings;
      const char* filters;
    } rows[] = {{"2001:db8::1", "nodad", "all global stable"},
                {"2001:db8::2", "nodad preferred_lft 0", "all global"},
                {"2001:db8::3", "", "all"},  // tentative
                {"2001:db8::4", "", "all"},  // duplicate detection fails
                {"2001:db8::5", "optimistic", "all global stable"},
                {"fd00::1", "nodad", "all"},
                {"64:ff9b::c000:201", "nodad", "all"},
                {"100::1", "nodad", "all"},
                {"2001::1", "nodad", "all"},
                {"2002::1", "nodad", "all"},
                {"5f00::1", "nodad", "all"},
                {"fe80::1234", "nodad", ""}};
    add_link();
    ASSERT_TRUE(set("v0", "use_tempaddr", "1") && set("v0", "optimistic_dad", "1"));
    ASSERT_TRUE(
        ip("addr add 2001:db8:1::6/64 dev v0 nodad mngtmpaddr valid_lft 3600 preferred_lft 1800\n"
           "addr add 2001:db8::4/64 dev v1 nodad\naddr add 2001:db8::4/64 dev v0"));
    ASSERT_TRUE(eventually([] { return listed("dev v0 dadfailed").size() == 1; }));
    ASSERT_TRUE(eventually([] { return listed("dev v0 temporary -tentative").size() == 1; }));
    ASSERT_TRUE(set("v0", "dad_transmits", "1000"));
    for (const row& r : rows) {
      if (r.address == std::string("2001:db8::4")) continue;
      ASSERT_TRUE(ip(std::string("addr add ") + r.address + "/64 dev v0 " + r.settings)) << r.address;
    }
    ASSERT_EQ(listed("dev v0 tentative").size(), 3U) << "one failed, one optimistic";
    for (const std::string which : {"all", "global", "stable"}) {
      SCOPED_TRACE(which);
      std::set<std::string> expected = {"2001:db8:1::6"};
      if (which != "stable") expected.insert(listed("dev v0 temporary").at(0));
      for (const row& r : rows)
        if (std::string(r.filters).find(which) != std::string::npos) expected.insert(r.address);
      const texts got = picked({"--pick", which, "--interface", "v0"});
      EXPECT_EQ(std::set<std::string>(got.begin(), got.end()), expected);
    }
  });
}
