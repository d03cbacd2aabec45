// SIGHUP at awkward moments, --once and --for, and what is on the command line.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "tests/support/dachost_fixture.h"

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

class reload : public dachost_fixture {
 protected:
  /// Each instance that was created was destroyed once, after its stop; none is left.
  void expect_all_gone() const {
    std::multiset<std::string> created, destroyed;
    std::set<std::string> stopped;
    for (const std::string& call : journal()) {
      const std::string instance = call.substr(call.find(' ') + 1);
      if (call.starts_with("create ") && !call.ends_with(" -1")) created.insert(instance);
      if (call.starts_with("stop ")) stopped.insert(instance);
      if (!call.starts_with("destroy ")) continue;
      destroyed.insert(instance);
      EXPECT_TRUE(stopped.contains(instance)) << call;
    }
    EXPECT_EQ(created, destroyed);
  }
};

class command_line : public dachost_fixture {};

}  // namespace

// ---------------------------------------------------------------- SIGHUP

TEST_F(reload, during_a_reload_causes_another_reload) {
  const std::string released = dir.path("released");
  process p = run({conf("publish first\nhold " + released)});
  p.await_out("\tfirst\n");
  conf("publish second");
  p.signal(SIGHUP);
  await_journal("held gw 0");
  conf("publish third");
  p.signal(SIGHUP);
  dir.file("", "released");
  p.await_out("\tthird\n");
  EXPECT_EQ(terminate(p).err, "");
  expect_all_gone();
}

TEST_F(reload, many_times_in_a_row_ends_with_the_newest_file) {
  const std::string slow = "stop takes 20\npublish ";  // so that the last signal arrives during a reload
  process p = run({conf(slow + "0")});
  p.await_out("\t0\n");
  for (int n = 1; n <= 200; ++n) {
    dir.file(slow + std::to_string(n), "next");
    std::filesystem::rename(dir.path("next"), dir.path("gw.conf"));
    p.signal(SIGHUP);
    std::this_thread::sleep_for(1ms);
  }
  p.await_out("\t200\n");
  const texts values = lines_of(terminate(p).out, "value");
  EXPECT_EQ(values.back(), "gw\tvalue\tgw\t200");
  expect_all_gone();
}

// Both wait while the process is stopped, so dachost finds them together.
TEST_F(reload, together_with_a_stop_signal_ends_the_run) {
  for (const int sig : {SIGTERM, SIGINT, SIGQUIT}) {
    SCOPED_TRACE(sig);
    process p = run({conf("publish a", "a"), conf("publish b", "b")});
    p.await_out("\tb\n");
    p.signal(SIGSTOP);
    p.signal(SIGHUP);
    p.signal(sig);
    p.signal(SIGCONT);
    EXPECT_EQ(p.end().status, 0);
    expect_all_gone();
    std::filesystem::remove(dir.path("journal"));
  }
}

TEST_F(reload, and_a_stop_signal_during_a_reload_end_the_run) {
  process p = run({conf("publish first\nhold " + dir.path("released"))});
  p.await_out("\tfirst\n");
  conf("publish second");
  p.signal(SIGHUP);
  await_journal("held gw 0");
  p.signal(SIGHUP);
  p.signal(SIGTERM);
  dir.file("", "released");
  EXPECT_EQ(p.end().status, 0);
  expect_all_gone();
}

// A gateway's manager may send it at any moment, and a death by a signal counts as a failure.
TEST_F(reload, while_the_process_ends_does_not_change_its_exit_status) {
  process stopped = run({conf("publish first")}, preloaded(built("late_hangup"), {}));
  stopped.await_out("\tfirst\n");
  EXPECT_EQ(terminate(stopped).status, 0);
  EXPECT_EQ(run({"--once", conf("publish first")}, preloaded(built("late_hangup"), {})).end().status, 0);
  EXPECT_EQ(start({"top", "-p", built("fake_plugin"), "--once", conf("publish first")}, preloaded(built("late_hangup")))
                .end()
                .status,
            0);
}

// One after the other would take 50 seconds.
TEST_F(reload, of_500_instances_stops_them_at_the_same_time) {
  texts args;
  for (int n = 100; n < 600; ++n) args.push_back(conf("stop takes 100\npublish old", 'i' + std::to_string(n)));
  process p = run(args);
  p.await_out("\ti599\told\n");
  for (int n = 100; n < 600; ++n) conf("stop takes 100\npublish new", 'i' + std::to_string(n));
  p.signal(SIGHUP);
  p.await_out("\ti599\tnew\n");
  const ending e = terminate(p);
  EXPECT_EQ(lines_of(e.out, "value").size(), 1000U);
  expect_all_gone();
}

TEST_F(reload, does_not_disturb_a_running_program) {
  const std::string prog = program("echo begin $DAC_VALUE >>did\n" + std::string(wait_for_go) + "echo end >>did");
  process p = run({"--exec", prog, conf("publish a")});
  await_did("begin a\n");
  conf("publish b");
  p.signal(SIGHUP);
  p.await_out("\tb\n");
  EXPECT_EQ(did(), "begin a\n") << "one at a time";
  go();
  await_did("begin a\nend\nbegin b\nend\n");
  terminate(p);
}

TEST_F(reload, of_a_missing_file_leaves_its_instance_running_until_the_file_is_back) {
  const std::string file = dir.file("hostname=before", "gw.conf");
  process p = start({"run", "-p", built("plugin"), file}, {"sh", "-c", "exec \"$@\" 2>&1", "sh"});
  p.await_out("\tvalue\tbefore\t");
  std::filesystem::remove(file);
  p.signal(SIGHUP);
  p.await_out("No such file or directory; the old instance continues\n");
  std::filesystem::create_directory(file);
  p.signal(SIGHUP);
  p.await_out("not a regular file; the old instance continues\n");
  EXPECT_EQ(p.out().find("stop wrk_process"), std::string::npos) << "it still runs";
  std::filesystem::remove(file);
  dir.file("hostname=after", "gw.conf");
  p.signal(SIGHUP);
  p.await_out("\tvalue\tafter\t");
  terminate(p);
}

// ---------------------------------------------------------------- --once, --for

TEST_F(command_line, once_waits_for_an_instance_that_publishes_late) {
  const remote_control mute(dir.path("fifo"));
  process p = run({"--once", conf("publish a", "a"), conf(mute.order(), "mute")});
  p.await_out("\tvalue\ta\ta\n");
  std::this_thread::sleep_for(500ms);
  EXPECT_TRUE(p.is_running());
  mute.say("fail but publish nothing");
  p.await_out("but publish nothing\n");
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(p.is_running()) << "a message is no value";
  mute.say("publish b");
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(lines_of(e.out, "value"), (texts{"a\tvalue\ta\ta", "mute\tvalue\tmute\tb"}));
}

TEST_F(command_line, for_a_second_and_a_half_is_not_shorter) {
  for (const char* command : {"run", "top"}) {
    SCOPED_TRACE(command);
    const auto begin = std::chrono::steady_clock::now();
    const ending e = start({command, "-p", built("fake_plugin"), "--for", "1.5", conf("publish a")}).end();
    EXPECT_EQ(e.status, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 1500ms);
  }
}

// ---------------------------------------------------------------- files and plug-ins

TEST_F(command_line, a_file_given_three_times_has_three_instances) {
  const std::string file = conf("publish a");
  const std::string prog = program("echo \"$DAC_INSTANCE\" >>did");
  const ending e = run({"--once", "--exec", prog, file, file, file}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(lines_of(e.out, "value"), (texts{file + "\tvalue\t" + file + "\ta", file + "#2\tvalue\t" + file + "#2\ta",
                                             file + "#3\tvalue\t" + file + "#3\ta"}));
  texts got = lines(did());
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (texts{file, file + "#2", file + "#3"}));
}

TEST_F(command_line, names_with_equals_signs_tabs_and_escapes_are_whole_in_a_dry_run) {
  const std::string name = "a=b\tc\x1b[1m d", file = conf("publish v=w", name);
  const std::string shown = "a=b\\x09c\\x1b[1m d";
  std::filesystem::copy("/bin/true", dir.path("p=q\tr"));
  const std::string prog = dir.path("p=q\tr");
  const ending text = run({"--once", "--dry-run", "--exec", prog, file}).end();
  const texts commands = lines_of(text.out, "exec");
  ASSERT_EQ(commands.size(), 1U);
  const texts fields = split(commands[0], '\t');
  ASSERT_EQ(fields.size(), 10U);
  EXPECT_EQ(
      texts(fields.begin(), fields.begin() + 6),
      (texts{shown, "exec", dir.path("p=q\\x09r"), "DAC_INSTANCE=" + shown, "DAC_TAG=" + shown, "DAC_VALUE=v=w"}));
  json event;
  for (const std::string& line : lines(run({"--once", "--json", "--dry-run", "--exec", prog, file}).end().out))
    if (json::parse(line)["event"] == "exec") event = json::parse(line);
  EXPECT_EQ(event["program"], prog);
  EXPECT_EQ(event["instance"], name);
  for (const char* variable : {"DAC_TIME", "DAC_PREVIOUS", "DAC_PREVIOUS_TAG", "DAC_REASON"})
    event["environment"].erase(variable);
  EXPECT_EQ(event["environment"], (json{{"DAC_INSTANCE", name}, {"DAC_TAG", name}, {"DAC_VALUE", "v=w"}}));
}

TEST_F(command_line, plugin_with_an_undefined_symbol_is_reported_before_anything_runs) {
  for (const char* command : {"run", "top", "check", "tags", "info"}) {
    SCOPED_TRACE(command);
    const ending e = start({command, "-p", built("undefined_plugin"), conf("publish a")}).end();
    EXPECT_EQ(e.status, 1);
    EXPECT_EQ(e.out, "");
    EXPECT_EQ(lines(e.err).size(), 1U) << e.err;
    EXPECT_TRUE(e.err.starts_with("dachost: " + built("undefined_plugin") + ": ")) << e.err;
    EXPECT_NE(e.err.find("function_that_no_library_has"), std::string::npos) << e.err;
  }
}
