// dachost as a service: notifications, exit statuses and levels, without systemd.
#include <gtest/gtest.h>

#include "tests/support/dachost_fixture.h"
#include "tests/support/notify_socket.h"

using namespace std::chrono_literals;

namespace {

class service : public dachost_fixture {
 protected:
  const std::string address = dir.path("notify");
  const notify_socket manager{address};

  process serve(const texts& args, texts environment = {}) const {
    environment.push_back("NOTIFY_SOCKET=" + address);
    return run(args, environment);
  }
  /// dachost with the standard error that JOURNAL_STREAM identifies, run by `wrapper`.
  static process in_journal(const texts& args, const texts& wrapper = {}) {
    texts all = {"sh", "-c", "JOURNAL_STREAM=$(stat -Lc %d:%i /dev/stderr) exec \"$0\" \"$@\""};
    all.insert(all.end(), wrapper.begin(), wrapper.end());
    return start(args, all);
  }
};

}  // namespace

TEST_F(service, is_READY_when_its_instances_run_and_STOPPING_before_it_ends) {
  process p = serve({conf("publish 2001:db8::10")});
  manager.await("READY=1\nSTATUS=gw");
  manager.await("STATUS=gw = 2001:db8::10");
  p.signal(SIGTERM);
  manager.await("STOPPING=1\n");
  EXPECT_EQ(p.end().status, 0);
}

TEST_F(service, is_never_READY_when_a_file_is_refused_and_ends_with_78) {
  process p = serve({conf("refuse bad"), conf("publish a", "good")});
  EXPECT_EQ(p.end().status, 78);
  for (std::string got = manager.receive(0ms); !got.empty(); got = manager.receive(0ms))
    EXPECT_EQ(got.find("READY"), std::string::npos) << got;
}

TEST_F(service, ends_with_1_when_a_thread_is_refused) { EXPECT_EQ(serve({conf("throw")}).end().status, 1); }

TEST_F(service, is_RELOADING_until_its_new_instances_run) {
  process p = serve({conf("publish a")});
  manager.await("STATUS=gw = a");
  conf("publish b");
  p.signal(SIGHUP);
  manager.await("RELOADING=1\nMONOTONIC_USEC=");
  manager.await("READY=1\n");
  manager.await("STATUS=gw = b");
  terminate(p);
}

TEST_F(service, shows_a_refused_reload_in_its_status) {
  process p = serve({conf("publish a")});
  manager.await("STATUS=gw = a");
  const std::string file = conf("refuse bad");
  p.signal(SIGHUP);
  const std::string status = "STATUS=gw = a; " + file + ": bad; the old instance continues";
  EXPECT_EQ(manager.await("READY=1\n"), "READY=1\n" + status);
  conf("publish a");
  p.signal(SIGHUP);
  manager.await("READY=1\n");
  EXPECT_EQ(manager.await("STATUS=gw = a"), "STATUS=gw = a");
  terminate(p);
}

// A second of this process takes 10 milliseconds.
TEST_F(service, pings_the_watchdog_only_while_every_instance_publishes) {
  const remote_control gw(dir.path("fifo"));
  process p = serve({conf(gw.order())}, preloaded(built("short_minutes"), {"WATCHDOG_USEC=20000000"}));
  manager.await("WATCHDOG=1\n");
  const auto is_silent = [this] {
    const auto end = std::chrono::steady_clock::now() + 500ms;
    while (std::chrono::steady_clock::now() < end)
      if (manager.receive(100ms).find("WATCHDOG") != std::string::npos) return false;
    return true;
  };
  EXPECT_TRUE(eventually(is_silent)) << "it has not published for 130 seconds";
  gw.say("publish a");
  manager.await("WATCHDOG=1\n");
  EXPECT_TRUE(eventually(is_silent));
  terminate(p);
}

TEST_F(service, hides_its_notification_socket_from_hooks) {
  const std::string prog = program("env >did");
  process p = serve({"--exec", prog, conf("publish a")}, {"WATCHDOG_USEC=20000000", "WATCHDOG_PID=1"});
  await_did("DAC_VALUE=a\n");
  terminate(p);
  EXPECT_EQ(did().find("NOTIFY_SOCKET"), std::string::npos) << did();
  EXPECT_EQ(did().find("WATCHDOG"), std::string::npos) << did();
}

TEST_F(service, writes_levels_to_the_journal_and_to_nothing_else) {
  const std::string bad = conf("refuse bad");
  const std::string text = "dachost: " + bad + ": bad; nothing is started\n";
  EXPECT_EQ(in_journal({"run", "-p", built("fake_plugin"), bad}).end().err, "<3>" + text);
  EXPECT_EQ(run({bad}).end().err, text);
  process p = in_journal({"run", "-p", built("fake_plugin"), conf("publish a", "good")});
  p.await_out("\ta\n");
  conf("refuse bad", "good");
  p.signal(SIGHUP);
  p.await_err("<4>dachost: " + dir.path("good.conf") + ": bad; the old instance continues\n");
  terminate(p);
}

TEST_F(service, writes_levels_to_the_journal_for_wrong_usage) {
  const ending e = in_journal({"run", "--bad", "gw.conf"}).end();
  EXPECT_EQ(e.status, 2);
  EXPECT_EQ(e.err, "<3>dachost: --bad: not an option of run (dachost run --help shows the usage)\n");
}

TEST_F(service, writes_levels_to_the_journal_without_an_event_loop) {
  if (built("needs_descriptors") == "1") GTEST_SKIP() << "the sanitizer opens a pipe to examine an object";
  const ending e = in_journal({"check", "-p", built("fake_plugin"), conf("")}, {"prlimit", "--nofile=5"}).end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(lines(e.err).size(), 1U) << e.err;
  EXPECT_TRUE(e.err.starts_with("<3>dachost: ") && e.err.ends_with(": Too many open files\n")) << e.err;
}

TEST_F(service, shows_its_hook_in_its_status_and_in_the_journal) {
  const std::string prog = program("[ -e go ]");
  process p = serve({"--exec", prog, conf("publish a")});
  manager.await("STATUS=gw = a, hook failed");
  go();
  manager.await("STATUS=gw = a, hook ok ");
  terminate(p);
  std::filesystem::remove(dir.path("go"));
  process j = in_journal({"run", "-p", built("fake_plugin"), "--exec", prog, conf("publish a")});
  j.await_err("<4>dachost: gw: " + prog + ": exit status 1; retry");
  go();
  j.await_err("<6>dachost: gw: " + prog + ": works again after ");
  terminate(j);
}
