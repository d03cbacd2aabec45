// Descriptors: dachost closes what it opens, once.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/dachost_fixture.h"
#include "tests/support/network.h"

namespace {

class descriptors : public dachost_fixture {
 protected:
  static long open_in(pid_t pid) {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return std::distance(begin(all), end(all));
  }
  texts watched() const { return preloaded(built("watched_close"), {"CLOSE_ERRORS=" + dir.path("errors")}); }
  void expect_no_close_errors() const { EXPECT_EQ(read_file(dir.path("errors")), ""); }
};

}  // namespace

TEST_F(descriptors, suffice_for_100_programs_where_32_may_be_open) {
  texts args = {"--once", "--exec", program("echo $DAC_INSTANCE. >>did; sleep 0.2")};
  for (int n = 100; n < 200; ++n) args.push_back(conf("publish a", 'i' + std::to_string(n)));
  const ending e = run(args, {"prlimit", "--nofile=32"}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(lines(did()).size(), 100U);
}

// Each value has the kernel's addresses read.
TEST_F(descriptors, are_as_many_after_100_programs_as_after_the_first) {
  in_new_network([this] {
    const remote_control gw(dir.path("fifo"));
    process p =
        run({"--pick", "stable", "--exec", program("echo . >>did; exit $(($(wc -l <did) % 2))"), conf(gw.order())},
            {"prlimit", "--nofile=32"});
    const auto submit = [&](size_t n) {
      EXPECT_TRUE(ip("addr add 2001:db8::" + std::to_string(n) + "/64 dev lo nodad"));
      gw.say("publish " + std::to_string(n));
      return eventually([&] { return lines(did()).size() >= n; });
    };
    ASSERT_TRUE(submit(1));
    EXPECT_TRUE(eventually([&] { return !p.err().empty() || open_in(p.pid()) > 0; }));
    const long first = open_in(p.pid());
    for (size_t n = 2; n <= 100; ++n) ASSERT_TRUE(submit(n)) << p.err();
    EXPECT_TRUE(eventually([&] { return open_in(p.pid()) <= first; })) << open_in(p.pid()) << " after " << first;
    p.signal(SIGTERM);
    EXPECT_EQ(p.end().err.find("Too many open files"), std::string::npos);
  });
}

TEST_F(descriptors, are_as_many_after_50_reloads_and_refusals) {
  process p = run({conf("publish first")});
  p.await_out("\tfirst\n");
  const long first = open_in(p.pid());
  for (int n = 0; n < 50; ++n) {
    conf("publish v" + std::to_string(n));
    p.signal(SIGHUP);
    p.await_out("\tv" + std::to_string(n) + '\n');
    conf("refuse r" + std::to_string(n));
    p.signal(SIGHUP);
    p.await_err(": r" + std::to_string(n) + ';');
  }
  EXPECT_EQ(open_in(p.pid()), first);
  terminate(p);
}

TEST_F(descriptors, are_closed_once) {
  in_new_network([this] {
    const remote_control gw(dir.path("fifo"));
    process p = run({"--pick", "stable", "--state", dir.path("."), "--exec",
                     program("echo . >>did; [ $(wc -l <did) = 2 ]"), conf(gw.order())},
                    watched());
    for (const std::string n : {"1", "2", "3"}) {
      ASSERT_TRUE(ip("addr add 2001:db8::" + n + "/64 dev lo nodad"));
      gw.say("publish " + n);
      p.await_err("retry in about 1 s\n");
    }
    conf("publish null");
    p.signal(SIGHUP);
    p.await_out("\tnull\t");
    p.signal(SIGTERM);
    p.end();
  });
  expect_no_close_errors();
  for (const char* command : {"check", "tags", "info"}) {
    EXPECT_EQ(start({command, "-p", built("fake_plugin"), conf("refuse it")}, watched()).end().status, 1) << command;
    expect_no_close_errors();
  }
}
