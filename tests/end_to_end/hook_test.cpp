// When dachost runs a hook: changes, hold, repetition, jobs, saved state and directories of programs.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/dachost_fixture.h"
#include "tests/support/network.h"

using namespace std::chrono_literals;

namespace {

class hook : public dachost_fixture {
 protected:
  /// A program that appends these variables to "did".
  std::string records(const std::string& variables, const std::string& more = "") const {
    return program("echo \"" + variables + "\" >>did\n" + more);
  }
  /// A hundred times as fast, so that minutes take a second, until slow_down().
  texts fast() const { return preloaded(built("short_minutes"), {"REAL_SECONDS_FROM=" + dir.path("slow")}); }
  /// From here on a minute takes a minute. The plug-in needs real time to stop.
  void slow_down() const { dir.file("", "slow"); }
  ending slow_down_and_terminate(process& p) const {
    slow_down();
    return terminate(p);
  }
  std::string state() const {
    std::filesystem::create_directory(dir.path("state"));
    return dir.path("state");
  }
  std::string saved() const { return read_file(dir.path("state/gw.state")); }
  bool await_saved(const std::string& text) const {
    return eventually([&] { return saved().find(text) != std::string::npos; });
  }
};

}  // namespace

// ---------------------------------------------------------------- changes

TEST_F(hook, runs_for_changes_only_and_gets_the_previous_value_and_the_reason) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--exec", records("$DAC_REASON $DAC_PREVIOUS $DAC_VALUE"), conf(gw.order() + "publish a")});
  await_did("first  a\n");
  for (int n = 0; n < 20; ++n) gw.say("publish a");
  gw.say("publish b");
  await_did("change a b\n");
  gw.say("publish a");
  await_did("change b a\n");
  EXPECT_EQ(terminate(p).err, "");
  EXPECT_EQ(did(), "first  a\nchange a b\nchange b a\n");
}

TEST_F(hook, runs_again_without_a_change) {
  process p = run({"--again", "10m", "--exec", records("$DAC_REASON $DAC_PREVIOUS"), conf("publish a")}, fast());
  await_did("first \nagain a\nagain a\n");
  slow_down_and_terminate(p);
}

TEST_F(hook, is_not_run_again_if_the_time_is_0) {
  process p = run({"--again", "0", "--exec", records("$DAC_REASON"), conf("publish a")}, fast());
  await_did("first\n");
  std::this_thread::sleep_for(1s);
  slow_down_and_terminate(p);
  EXPECT_EQ(did(), "first\n");
}

TEST_F(hook, is_printed_again_and_again_in_a_dry_run_until_the_run_ends) {
  process p = run({"--dry-run", "--again", "0.000000001", "--for", "1", "--exec", records(""), conf("publish a")});
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  EXPECT_GT(lines_of(e.out, "exec").size(), 2U);
}

TEST_F(hook, is_run_again_if_the_time_is_less_than_a_nanosecond) {
  process p = run({"--again", "0.0000000001", "--exec", records("$DAC_REASON"), conf("publish a")});
  await_did("first\nagain\nagain\n");
  terminate(p);
}

// No value is published then.
TEST_F(hook, runs_within_ten_seconds_after_an_address_became_deprecated) {
  in_new_network([this] {
    ASSERT_TRUE(ip("addr add 2001:db8::1/64 dev lo nodad\naddr add 2001:db8::2/64 dev lo nodad"));
    process p = run({"--pick", "stable", "--exec", records("$DAC_REASON $DAC_VALUE"), conf("publish a")});
    await_did("first 2001:db8::2,2001:db8::1\n");
    ASSERT_TRUE(ip("addr change 2001:db8::2/64 dev lo preferred_lft 0"));
    await_did("change 2001:db8::1\n");
    terminate(p);
  });
}

// ---------------------------------------------------------------- hold

TEST_F(hook, gets_null_after_the_hold) {
  const remote_control gw(dir.path("fifo"));
  const std::string file = conf(gw.order() + "publish a");
  process p = run({"--hold", "300", "--exec", records("$DAC_VALUE"), file}, fast());
  await_did("a\n");
  slow_down();
  gw.say("publish null");
  gw.say("publish a");
  gw.say("publish null");
  gw.say("fail after it");
  p.await_out("after it\n");
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(did(), "a\n");
  terminate(p);
  std::filesystem::remove(dir.path("slow"));
  process q = run({"--hold", "300", "--exec", records("$DAC_VALUE"), conf("publish null")}, fast());
  await_did("null\n");
  slow_down_and_terminate(q);
}

TEST_F(hook, is_not_given_null_for_five_minutes_after_the_start) {
  const auto begin = std::chrono::steady_clock::now();
  process p = run({"--exec", records("$DAC_VALUE"), conf("publish null")}, fast());
  await_did("null\n");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 3s - 50ms);
  slow_down_and_terminate(p);
}

TEST_F(hook, gets_null_at_once_with_once) {
  EXPECT_EQ(run({"--once", "--exec", records("$DAC_VALUE"), conf("publish null")}).end().status, 0);
  EXPECT_EQ(did(), "null\n");
}

// ---------------------------------------------------------------- jobs and splay

TEST_F(hook, that_gets_no_value_with_once_fails) {
  process p = run({"--once", "--exec", records("ran"), conf("publish a"), conf("", "mute")});
  await_did("ran\n");
  p.signal(SIGTERM);
  const ending e = p.end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: mute: no value was published; " + dir.path("prog") + " was not started\n");
  EXPECT_EQ(run({"--for", "0.5", "--exec", records("ran"), conf("", "mute")}).end().status, 0);
}

TEST_F(hook, of_a_refused_file_is_not_reported_with_once) {
  const ending e = run({"--once", "--exec", records("ran"), conf("refuse for a reason")}).end();
  EXPECT_EQ(e.status, 78);
  EXPECT_EQ(e.err.find("no value was published"), std::string::npos) << e.err;
}

TEST_F(hook, has_at_most_eight_programs_at_once_or_as_many_as_wanted) {
  const std::string body = "mkdir run.$DAC_INSTANCE; ls -d run.* | wc -l >>did; sleep 0.2; rmdir run.$DAC_INSTANCE";
  for (const int most : {8, 3, 9}) {
    texts args = {"--once", "--exec", program(body)};
    if (most != 8) args.insert(args.end(), {"--jobs", '0' + std::to_string(most)});
    for (int n = 0; n < 40; ++n) args.push_back(conf("publish a", "i" + std::to_string(n)));
    EXPECT_EQ(run(args).end().status, 0);
    const texts all = lines(did());
    EXPECT_EQ(all.size(), 40U);
    for (const std::string& n : all) EXPECT_LE(std::stoi(n), most);
    std::filesystem::remove(dir.path("did"));
  }
}

TEST_F(hook, starts_within_the_splay) {
  process p = run({"--once", "--splay", "100s", "--exec", records("done", "touch slow"), conf("publish a")}, fast());
  EXPECT_EQ(p.end().status, 0);
  EXPECT_EQ(did(), "done\n");
}

TEST_F(hook, starts_at_once_with_a_splay_of_0) {
  const ending e = run({"--once", "--splay", "0", "--exec", records("done"), conf("publish a")}).end();
  EXPECT_EQ(e.status, 0) << e.err;
  EXPECT_EQ(did(), "done\n");
}

// Gateways that start together would otherwise reach their name server together. Eight random times are within a
// twentieth of the splay once in a hundred million runs.
TEST_F(hook, waits_for_another_part_of_the_splay_in_each_process) {
  const std::string delay = "$(($(date +%s%3N) - $(date -d $DAC_TIME +%s%3N)))";
  const ending e = run({"--once", "--splay", "4", "--exec", records(delay), conf("publish a")},
                       {"sh", "-c", R"(for n in 1 2 3 4 5 6 7 8; do "$@" & done; wait)", "sh"})
                       .end();
  EXPECT_EQ(e.err, "");
  std::vector<int> delays;
  for (const std::string& line : lines(did())) delays.push_back(std::stoi(line));
  ASSERT_EQ(delays.size(), 8U);
  const auto [least, most] = std::minmax_element(delays.begin(), delays.end());
  EXPECT_GT(*most - *least, 200) << did();
}

// ---------------------------------------------------------------- state

TEST_F(hook, does_not_run_after_a_restart_without_a_change) {
  const texts args = {"--state", state(), "--exec", records("$DAC_REASON $DAC_PREVIOUS"), conf("publish a")};
  process first = run(args);
  ASSERT_TRUE(await_saved("\na\n"));
  terminate(first);
  texts once = args;
  once.insert(once.begin(), "--once");
  EXPECT_EQ(run(once).end().status, 0);
  EXPECT_EQ(did(), "first \n");
  conf("publish b");
  EXPECT_EQ(run(once).end().status, 0);
  EXPECT_EQ(did(), "first \nchange a\n");
}

// systemd chooses other ones for each start of a unit.
TEST_F(hook, does_not_run_after_a_restart_because_of_the_variables_of_systemd) {
  const texts args = {"--once", "--state", state(), "--exec", records("ran"), conf("publish a")};
  for (const char* number : {"1", "2"}) {
    const std::string socket = std::string("NOTIFY_SOCKET=@none-") + number;
    EXPECT_EQ(run(args, {"env", socket, std::string("WATCHDOG_USEC=") + number}).end().status, 0);
  }
  EXPECT_EQ(did(), "ran\n");
}

TEST_F(hook, has_its_last_success_in_the_status_file_and_in_a_dry_run_after_a_restart) {
  texts args = {"--state", state(), "--exec", records("$DAC_REASON"), conf("publish a")};
  process first = run(args);
  ASSERT_TRUE(await_saved("\na\n"));
  terminate(first);
  args.insert(args.begin(), {"--once", "--status", dir.path("status")});
  EXPECT_EQ(run(args).end().status, 0);
  const std::string status = read_file(dir.path("status"));
  EXPECT_NE(status.find(R"("hook":{"result":"ok","time":"20)"), std::string::npos) << status;
  args.insert(args.begin(), "--dry-run");
  const ending e = run(args).end();
  EXPECT_NE(e.err.find("/prog: not started, because nothing has changed since 20"), std::string::npos) << e.err;
  EXPECT_EQ(lines_of(e.out, "exec"), texts{});
  EXPECT_EQ(did(), "first\n");
}

TEST_F(hook, has_its_result_in_the_status_file_if_it_ends_after_a_stop_signal) {
  const std::string status = dir.path("status"), waits = program("echo begin >>did\n" + std::string(wait_for_go));
  process p = run({"--status", status, "--exec", waits, conf("publish a")});
  await_did("begin\n");
  await_text("status", R"("hook":null)");
  p.signal(SIGTERM);
  await_journal("destroy gw 0");
  go();
  EXPECT_EQ(p.end().status, 0);
  EXPECT_NE(read_file(status).find(R"("hook":{"result":")"), std::string::npos) << read_file(status);
}

TEST_F(hook, runs_after_a_restart_if_its_program_or_its_environment_has_changed) {
  const texts args = {"--once", "--state", state(), conf("publish a"), "--exec"};
  const auto run_with = [&](const std::string& program, const std::string& setting) {
    texts all = args;
    all.push_back(program);
    EXPECT_EQ(run(all, {"env", "SETTING=" + setting}).end().status, 0);
  };
  const std::string program = records("$SETTING"), other = dir.path("other");
  std::filesystem::copy_file(program, other);
  for (int n = 0; n < 2; ++n) run_with(program, "one");
  EXPECT_EQ(did(), "one\n");
  for (int n = 0; n < 2; ++n) run_with(program, "two");
  EXPECT_EQ(did(), "one\ntwo\n");
  run_with(other, "two");
  EXPECT_EQ(did(), "one\ntwo\ntwo\n");
}

TEST_F(hook, gets_the_name_that_it_had_before_a_reload) {
  const std::string file = dir.file("hostname = old", "gw.conf");
  process p =
      start({"run", "-p", built("plugin"), "--exec", records("$DAC_PREVIOUS_TAG-$DAC_TAG"), "--hold", "0", file});
  await_did("-old\n");
  dir.file("hostname = new", "gw.conf");
  p.signal(SIGHUP);
  await_did("old-new\n");
  terminate(p);
}

TEST_F(hook, saves_its_state_in_the_first_directory_of_systemd) {
  const std::string first = state();
  const ending e = run({"--once", "--exec", records("$DAC_REASON"), conf("publish a")},
                       {"env", "STATE_DIRECTORY=" + first + ":" + dir.path("second")})
                       .end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  EXPECT_NE(saved().find("\ngw\na\n"), std::string::npos) << saved();
  EXPECT_EQ(run({"--json", "--once", conf("publish a")}, {"env", "STATE_DIRECTORY=" + first}).end().status, 0)
      << "without a program";
}

TEST_F(hook, gets_null_without_a_hold_in_a_dry_run_with_once) {
  const ending e = run({"--once", "--dry-run", "--exec", records("ran"), conf("publish null")}).end();
  EXPECT_EQ(e.status, 0);
  ASSERT_EQ(lines_of(e.out, "exec").size(), 1U) << e.out;
  EXPECT_NE(e.out.find("\tDAC_VALUE=null\t"), std::string::npos) << e.out;
}

TEST_F(hook, has_the_state_directory_of_systemd_in_a_dry_run_too) {
  const texts systemd = {"env", "STATE_DIRECTORY=" + state()};
  texts args = {"--once", "--exec", records("ran"), conf("publish a")};
  EXPECT_EQ(run(args, systemd).end().status, 0);
  args.insert(args.begin(), "--dry-run");
  const ending e = run(args, systemd).end();
  EXPECT_EQ(lines_of(e.out, "exec"), texts{});
  EXPECT_NE(e.err.find("not started, because nothing has changed since 20"), std::string::npos) << e.err;
}

TEST_F(hook, runs_though_its_state_is_damaged) {
  const std::string path = state();
  dir.file("damaged", "state/gw.state");
  const ending e = run({"--once", "--state", path, "--exec", records("$DAC_REASON"), conf("publish a")}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "dachost: " + dir.path("state/gw.state") + ": damaged; ignored\n");
  EXPECT_EQ(did(), "first\n");
}

TEST_F(hook, does_not_start_with_a_state_directory_that_cannot_be_used) {
  const std::string locked = dir.path("locked"), file = dir.file("", "file"), missing = dir.path("missing");
  std::filesystem::create_directory(locked);
  std::filesystem::permissions(locked, std::filesystem::perms::owner_read);
  std::vector<std::pair<std::string, const char*>> rows = {
      {missing, "No such file or directory"},
      {file, "Not a directory"},
      {"/proc",
       access("/proc/.", W_OK) == 0 ? "no file can be created in it: No such file or directory" : "Permission denied"}};
  if (access((locked + "/.").c_str(), W_OK) != 0) rows.emplace_back(locked, "Permission denied");  // not for root
  for (const auto& [path, reason] : rows) {
    const texts args = {"--exec", records("ran"), conf("publish a")};
    texts given = args;
    given.insert(given.begin(), {"--state", path});
    texts dry = given;
    dry.insert(dry.begin(), "--dry-run");
    for (const ending& e : {run(given).end(), run(dry).end(), run(args, {"env", "STATE_DIRECTORY=" + path}).end()}) {
      EXPECT_EQ(e.status, 2);
      EXPECT_EQ(e.out, "");
      EXPECT_EQ(e.err, "dachost: --state: " + path + ": " + reason + '\n');
    }
  }
  EXPECT_EQ(did(), "");
  EXPECT_EQ(run({"--once", conf("publish a")}, {"env", "STATE_DIRECTORY=" + missing}).end().status, 0)
      << "without a program";
}

TEST_F(hook, gets_an_empty_state_directory_at_its_first_run) {
  const std::string path = state();
  const ending e =
      run({"--once", "--state", path, "--exec", program("ls -A state | wc -l >>did"), conf("publish a")}).end();
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(did(), "0\n");
}

TEST_F(hook, leaves_other_files_in_its_state_directory_unchanged) {
  const std::string path = state();
  const std::string file = dir.file("precious", "state/check.tmp");
  const ending e = run({"--once", "--state", path, "--exec", records("ran"), conf("publish a")}).end();
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(read_file(file), "precious");
}

TEST_F(hook, runs_though_its_state_cannot_be_saved_and_saves_it_when_that_is_possible_again) {
  const std::string path = state();
  process p = run({"--state", path, "--exec", program("mv state away; echo ran >>did"), conf("publish a")});
  p.await_err("dachost: " + path + "/gw.state.tmp: No such file or directory; the state is not saved\n");
  std::filesystem::rename(dir.path("away"), path);
  p.await_err("dachost: the state is saved again\n");
  EXPECT_NE(saved(), "");
  terminate(p);
}

// ---------------------------------------------------------------- directories

TEST_F(hook, runs_the_programs_of_a_directory_in_order) {
  std::filesystem::create_directory(dir.path("hooks"));
  for (const char* name : {"20-second", "10-first", "ignored.sh", "30-not-executable"}) {
    const std::string file =
        dir.file("#!/bin/sh\necho \"${0##*/} $DAC_VALUE\" >>'" + dir.path("did") + "'\n", std::string("hooks/") + name);
    if (std::string(name) != "30-not-executable") chmod(file.c_str(), 0700);
  }
  EXPECT_EQ(run({"--once", "--exec", dir.path("hooks"), conf("publish a")}).end().status, 0);
  EXPECT_EQ(did(), "10-first a\n20-second a\n");
  dir.file("#!/bin/sh\nexit 3\n", "hooks/10-first");
  const ending e = run({"--once", "--exec", dir.path("hooks"), conf("publish b")}).end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: gw: " + dir.path("hooks/10-first") + ": exit status 3; no retry\n");
  EXPECT_EQ(did(), "10-first a\n20-second a\n20-second b\n");
}

TEST_F(hook, cannot_be_a_directory_without_a_program) {
  std::filesystem::create_directory(dir.path("hooks"));
  const ending e = run({"--exec", dir.path("hooks"), conf("publish a")}).end();
  EXPECT_EQ(e.status, 2);
  EXPECT_EQ(e.out, "");
  EXPECT_EQ(e.err, "dachost: --exec: " + dir.path("hooks") + ": no program in this directory, see run-parts(8)\n");
  chmod(dir.file("#!/bin/sh\n", "hooks/update.sh").c_str(), 0700);
  EXPECT_EQ(
      run({"--exec", dir.path("hooks"), conf("publish a")}).end().err,
      "dachost: --exec: " + dir.path("hooks") +
          ": no program in this directory: update.sh is skipped because of the \".\" in its name, see run-parts(8)\n");
}

// ---------------------------------------------------------------- the command line

TEST_F(hook, options_that_are_wrong_get_one_line_and_status_2) {
  const struct row {
    texts args;
    const char* named;
  } rows[] = {
      {{"--hold", "5m"}, "--hold: works only with --exec"},
      {{"--again", "5m"}, "--again: works only with --exec"},
      {{"--splay", "5m"}, "--splay: works only with --exec"},
      {{"--jobs", "5"}, "--jobs: works only with --exec"},
      {{"--state", "x"}, "--state: works only with --exec"},
      {{"--exec", "p", "--hold", "5 m"}, "--hold: expected a duration such as 90, 90s, 5m, 2h or 1d, got '5 m'"},
      {{"--exec", "p", "--again", "-1"}, "'-1'"},
      {{"--exec", "p", "--again", "1e3"}, "--again: expected a duration such as 90, 90s, 5m, 2h or 1d, got '1e3'"},
      {{"--exec", "p", "--splay", "1y"}, "'1y'"},
      {{"--exec", "p", "--exec-timeout", "0m"}, "--exec-timeout: expected more than 0, for example 90s, got '0m'"},
      {{"--exec", "p", "--jobs", "0"}, "--jobs: expected a number above 0, got '0'"},
      {{"--exec", "p", "--jobs", "x"}, "'x'"},
      {{"--exec", "p", "--state", ""}, "--state: expected a directory name, got ''"}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.named);
    texts args = {"x.conf"};
    args.insert(args.end(), r.args.begin(), r.args.end());
    const ending e = run(args).end();
    EXPECT_EQ(e.status, 2);
    EXPECT_EQ(lines(e.err).size(), 1U) << e.err;
    EXPECT_NE(e.err.find(r.named), std::string::npos) << e.err;
  }
}
