// `dachost run --exec` from outside: when the program is started, with what, and what happens to it.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "driver/dac.h"
#include "tests/support/built.h"
#include "tests/support/network.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

using nlohmann::json;

namespace {

/// Of the lines of a run whose third field is `what`, the fields after it.
std::vector<texts> lines_of(const std::string& out, const std::string& what) {
  std::vector<texts> found;
  for (const std::string& line : lines(out)) {
    texts fields = split(line, '\t');
    if (fields.at(2) != what) continue;
    fields.erase(fields.begin(), fields.begin() + 3);
    found.push_back(fields);
  }
  return found;
}

/// Another process may be slow to reap the process.
bool is_alive(const std::string& pid) {
  const std::string stat = read_file("/proc/" + pid + "/stat");
  const size_t state = stat.rfind(") ");
  return state != std::string::npos && stat[state + 2] != 'Z';
}

class exec : public testing::Test {
 protected:
  scratch dir;

  /// A configuration file for the plug-in that does what its file says: it publishes the value.
  std::string publish(const std::string& value, const std::string& name = "gw") const {
    return dir.file("publish " + value, name + ".conf");
  }
  /// A program, started in the test's directory.
  std::string program(const std::string& body, mode_t mode = 0700) const {
    std::string file = dir.file("#!/bin/sh\ncd '" + dir.path("") + "' || exit\n" + body + '\n', "prog");
    if (chmod(file.c_str(), mode) != 0) throw std::runtime_error(file);
    return file;
  }

  static process start(const texts& args, const std::string& plugin = built("fake_plugin"),
                       const texts& environment = {}) {
    texts argv = {"env"};
    for (const texts& more :
         {environment, split(built("emulator"), ' '), {built("dachost"), "run", "-p", plugin}, args})
      argv.insert(argv.end(), more.begin(), more.end());
    return process(argv);
  }
  static ending run(const texts& args, const texts& environment = {}) {
    return start(args, built("fake_plugin"), environment).end();
  }

  /// The environment with the library preloaded.
  static texts preloaded(const std::string& library, texts environment = {}) {
    environment.insert(environment.end(), {"LD_PRELOAD=" + library, "ASAN_OPTIONS=verify_asan_link_order=0"});
    return environment;
  }

  /// Puts another value into gw.conf, and waits until it is published.
  void publish_next(process& p, const std::string& value) const {
    publish(value);
    p.signal(SIGHUP);
    p.await_out("\tvalue\tgw\t" + value + '\n');
  }
  static ending terminate(process& p) {
    p.signal(SIGTERM);
    ending e = p.end();
    EXPECT_EQ(e.status, 0);
    return e;
  }

  /// What the program wrote into the file "did".
  std::string did() const { return read_file(dir.path("did")); }
  void await_did(const std::string& text) const {
    if (!eventually([&] { return did().find(text) != std::string::npos; }))
      throw std::runtime_error("waited for: " + text + "\nthe program did: " + did());
  }
  /// The process whose id the program wrote into the file "pid" has ended.
  void expect_gone() const {
    const std::string pid = read_file(dir.path("pid"));
    ASSERT_FALSE(pid.empty());
    EXPECT_TRUE(eventually([&] { return !is_alive(pid.substr(0, pid.find('\n'))); })) << pid;
  }
  /// Traces the process whose id the program wrote: its parent sees its end only after the tracer detaches.
  pid_t hold() const {
    pid_t pid = 0;
    const auto is_held = [&] {
      std::istringstream(read_file(dir.path("pid"))) >> pid;
      return pid > 0 && ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) == 0;
    };
    return eventually(is_held) ? pid : throw std::runtime_error("it cannot be traced");
  }
  /// False under the emulator and where a container forbids it.
  static bool can_trace() {
    const pid_t child = fork();
    if (child < 0) return false;
    if (child == 0) pause();
    const bool can = ptrace(PTRACE_SEIZE, child, nullptr, nullptr) == 0;
    kill(child, SIGKILL);
    waitpid(child, nullptr, __WALL);
    return can;
  }
  static void release(pid_t killed) {
    while (waitpid(killed, nullptr, __WALL) == killed) continue;
  }
  /// The line that reports an error of the program.
  std::string hook_message(const std::string& what, const std::string& instance = "gw") const {
    return "dachost: " + instance + ": " + dir.path("prog") + ": " + what + '\n';
  }
};

constexpr char deaf[] = "trap '' TERM; echo $$ >number; mv number pid; sleep 1000";
constexpr char wait_for_go[] = "while ! [ -e go ]; do sleep 0.01; done";

}  // namespace

// ---------------------------------------------------------------- what it is started with

TEST_F(exec, gets_its_variables_in_addition_to_the_hosts_environment) {
  const ending e =
      run({"--once", "--exec", program("unset DAC_CHECK_ABORT; env | grep -E '^(DAC_|OTHER)' | LC_ALL=C sort >did"),
           publish("2001:db8::1,fd00::2")},
          {"OTHER=unchanged", "DAC_VALUE=not this", "DAC_VALUE_TOO=unchanged"});
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  const size_t value = e.out.find("\tgw\tvalue\t");
  const std::string time = e.out.substr(e.out.rfind('\n', value) + 1, std::strlen("2026-01-31T12:34:56.789Z"));
  EXPECT_EQ(lines(did()),
            (texts{"DAC_INSTANCE=gw", "DAC_PREVIOUS=", "DAC_PREVIOUS_TAG=", "DAC_REASON=first", "DAC_TAG=gw",
                   "DAC_TIME=" + time, "DAC_VALUE=2001:db8::1,fd00::2", "DAC_VALUE_TOO=unchanged", "OTHER=unchanged"}));
}

TEST_F(exec, gets_the_whole_name_though_a_record_holds_only_its_beginning) {
  const std::string name(100, 'x');
  process p = start({"--once", "--exec", program("echo $DAC_TAG >did"), dir.file("hostname=" + name)}, built("plugin"));
  EXPECT_EQ(p.end().status, 0);
  EXPECT_EQ(did(), name + '\n');
}

TEST_F(exec, is_found_on_the_path) {
  program("echo found >did");
  const ending e = run({"--once", "--exec", "prog", publish("a")}, {"PATH=" + dir.path("") + ":/usr/bin:/bin"});
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(did(), "found\n");
}

TEST_F(exec, reads_nothing_and_prints_to_the_hosts_standard_error) {
  const ending e = run(
      {"--once", "--json", "--exec", program("cat; echo one; echo two >&2; readlink /proc/self/fd/0"), publish("a")});
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "one\ntwo\n/dev/null\n");
  EXPECT_GE(lines(e.out).size(), 3U) << e.out;
  for (const std::string& line : lines(e.out)) EXPECT_TRUE(json::accept(line)) << line;
}

TEST_F(exec, has_no_signal_blocked_and_no_broken_pipe_ignored) {
  run({"--once", "--exec", program("sed -n 's/^Sig\\(Blk\\|Ign\\):\\t//p' /proc/self/status >did"), publish("a")});
  const texts masks = lines(did());
  ASSERT_EQ(masks.size(), 2U);
  EXPECT_EQ(std::stoull(masks[0], nullptr, 16), 0U);
  EXPECT_EQ(std::stoull(masks[1], nullptr, 16) >> (SIGPIPE - 1) & 1, 0U);
}

TEST_F(exec, has_none_of_the_hosts_own_descriptors) {
  run({"--once", "--pick", "stable", "--exec", program("exec ls -l /proc/self/fd >did"), publish("a")});
  EXPECT_NE(did().find("/dev/null"), std::string::npos) << did();
  for (const char* kind : {"anon_inode:", "socket:", "gw.conf"})
    EXPECT_EQ(did().find(kind), std::string::npos) << did();
}

TEST_F(exec, is_started_for_null_too) {
  run({"--once", "--exec", program("echo $DAC_VALUE >did"), publish("null")});
  EXPECT_EQ(did(), "null\n");
}

// ---------------------------------------------------------------- when it is started

TEST_F(exec, runs_once_at_a_time_and_the_newest_value_is_next) {
  process p = start(
      {"--exec", program("echo begin $DAC_VALUE >>did\n" + std::string(wait_for_go) + "\necho end $DAC_VALUE >>did"),
       publish("a")});
  await_did("begin a");
  for (const char* value : {"b", "c"}) publish_next(p, value);
  dir.file("", "go");
  await_did("end c");
  EXPECT_EQ(terminate(p).err, "");
  EXPECT_EQ(did(), "begin a\nend a\nbegin c\nend c\n");
}

TEST_F(exec, runs_for_every_instance_at_the_same_time) {
  const std::string meet = "touch $DAC_INSTANCE; while ! [ -e a -a -e b ]; do sleep 0.01; done; echo met >>did";
  const ending e = run({"--once", "--exec", program(meet), publish("x", "a"), publish("x", "b")});
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(did(), "met\nmet\n");
}

TEST_F(exec, is_tried_again_after_growing_pauses_until_it_succeeds) {
  process p = start({"--exec", program("echo $DAC_VALUE >>did; [ $(wc -l <did) -ge 3 ] || exit 7"), publish("a")});
  await_did("a\na\na\n");
  const texts err = lines(terminate(p).err);
  ASSERT_EQ(err.size(), 3U);
  EXPECT_EQ(err[0] + '\n', hook_message("exit status 7; retry in about 1 s"));
  EXPECT_EQ(err[1] + '\n', hook_message("exit status 7; retry in about 2 s"));
  EXPECT_NE(err[2].find("/prog: works again after 2 failures, 00:"), std::string::npos) << err[2];
}

TEST_F(exec, is_tried_again_after_a_minute_at_the_most) {
  process p = start({"--exec-timeout", "100000", "--exec", program("exit 7"), publish("a")}, built("fake_plugin"),
                    preloaded(built("short_minutes")));
  std::string expected;
  for (const int pause : {1, 2, 4, 8, 16, 32, 60, 60})
    expected += hook_message("exit status 7; retry in about " + std::to_string(pause) + " s");
  p.await_err(expected);
  terminate(p);
}

TEST_F(exec, gets_a_newer_value_in_place_of_the_one_it_failed_with) {
  process p = start({"--exec", program("echo $DAC_VALUE >>did; [ $DAC_VALUE = good ]"), publish("bad")});
  p.await_err("retry in about 2 s\n");
  publish_next(p, "worse");
  await_did("worse\n");
  publish_next(p, "good");
  await_did("good\n");
  texts failures = lines(terminate(p).err), values = lines(did());
  EXPECT_NE(failures.back().find("/prog: works again after "), std::string::npos) << failures.back();
  failures.pop_back();
  ASSERT_EQ(values.size(), failures.size() + 1) << did();
  EXPECT_TRUE(std::is_sorted(values.begin(), values.end() - 1)) << "first the bad, then the worse: " << did();
  EXPECT_EQ(values.back(), "good");
  const auto first_worse = std::find(values.begin(), values.end(), "worse") - values.begin();
  EXPECT_EQ(failures.at(static_cast<size_t>(first_worse)) + '\n', hook_message("exit status 1; retry in about 1 s"));
}

TEST_F(exec, fails_and_a_newer_value_is_next) {
  process p = start(
      {"--exec", program("echo $DAC_VALUE >>did; [ $DAC_VALUE = b ] && exit\n" + std::string(wait_for_go) + "\nexit 3"),
       publish("a")});
  await_did("a\n");
  publish_next(p, "b");
  dir.file("", "go");
  await_did("b\n");
  const texts err = lines(terminate(p).err);
  ASSERT_EQ(err.size(), 2U);
  EXPECT_EQ(err[0] + '\n', hook_message("exit status 3; the newer value is next"));
  EXPECT_NE(err[1].find("/prog: works again after 1 failure, 00:"), std::string::npos) << err[1];
}

// ---------------------------------------------------------------- how it fails

TEST_F(exec, is_not_tried_again_with_once) {
  const struct row {
    const char* body;
    const char* reason;
  } rows[] = {{"exit 3", "exit status 3"}, {"kill -9 $$", "ended by signal 9 (Killed)"}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.body);
    const ending e = run({"--once", "--exec", program(r.body), publish("a")});
    EXPECT_EQ(e.status, 1);
    EXPECT_EQ(e.err, hook_message(std::string(r.reason) + "; no retry"));
    EXPECT_EQ(lines_of(e.out, "value"), (std::vector<texts>{{"gw", "a"}}));
  }
}

TEST_F(exec, that_is_no_program_is_an_error_at_the_start) {
  const std::string lost = dir.file("#!/no/such/sh\n", "lost"), crlf = dir.file("#!/bin/sh\r\nexit\r\n", "crlf");
  for (const std::string& script : {lost, crlf}) ASSERT_EQ(chmod(script.c_str(), 0700), 0);
  const std::string plain = dir.file("#!/bin/sh\n", "plain"), conf = publish("a");
  std::filesystem::create_directory(dir.path("bin"));
  std::filesystem::create_directory(dir.path("bin/folder"));
  const struct row {
    std::string program;
    const char* reason;
  } rows[] = {{dir.path("missing"), "not found"},
              {plain, "not executable"},
              {plain + "/prog", "not found"},
              {"/dev/null", "not executable"},
              {"no-such-program", "not found on PATH"},
              {"plain", "not found on PATH"},
              {"folder", "not found on PATH"},
              {lost, "its interpreter /no/such/sh is not found"},
              {crlf, "its interpreter /bin/sh\\x0d is not found; its lines end with CR LF, and must end with LF"}};
  for (const row& r : rows) {
    for (const char* way : {"--once", "--dry-run"}) {
      SCOPED_TRACE(r.program + ' ' + way);
      const ending e = run({way, "--exec", r.program, conf}, {"PATH=/usr/bin:" + dir.path("") + ':' + dir.path("bin")});
      EXPECT_EQ(e.status, 2);
      EXPECT_EQ(e.out, "");
      EXPECT_EQ(e.err, "dachost: --exec: " + r.program + ": " + r.reason + '\n');
    }
  }
}

TEST_F(exec, that_is_found_where_posix_spawnp_searches_is_accepted_at_the_start) {
  program("");
  const std::string here = "cd '" + dir.path("") + "' && exec \"$@\"", conf = publish("a");
  for (const texts& path : {texts{"PATH=/nowhere:/usr/bin:"}, {"PATH=:/usr/bin"}, {"PATH=/usr/bin:."}}) {
    SCOPED_TRACE(path[0]);
    texts argv = {"sh", "-c", here, "sh", "env", path[0]};
    for (const texts& more : {split(built("emulator"), ' '),
                              {built("dachost"), "run", "-p", built("fake_plugin"), "--once", "--exec", "prog", conf}})
      argv.insert(argv.end(), more.begin(), more.end());
    const ending e = process(argv).end();
    EXPECT_EQ(e.err, "");
    EXPECT_EQ(e.status, 0);
  }
  const ending unset = run({"--once", "--exec", "true", conf}, {"-u", "PATH"});
  EXPECT_EQ(unset.err, "");
  EXPECT_EQ(unset.status, 0);
}

// What makes these fail cannot be seen in the file's mode.
TEST_F(exec, that_cannot_be_started_is_reported_with_the_reason) {
  const struct row {
    const char* label;
    const char* text;
    const char* reason;
  } rows[] = {{"neither a program nor a script", "exit 0\n", "Exec format error"},
              {"a damaged program",
               "\x7f"
               "ELF",
               "Exec format error"}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    const std::string file = dir.file(r.text, "prog");
    chmod(file.c_str(), 0700);
    const ending e = run({"--once", "--exec", file, publish("a")});
    EXPECT_EQ(e.status, 1);
    // Under the emulator the child process finds out, and can only end.
    const std::string reason = is_emulated() ? "exit status 127" : std::string("cannot be started: ") + r.reason;
    EXPECT_EQ(e.err, hook_message(reason + "; no retry"));
  }
}

TEST_F(exec, that_disappears_later_is_reported_and_retried) {
  process p = start({"--exec", program("echo ran >did"), publish("a")});
  await_did("ran");
  std::filesystem::remove(dir.path("prog"));
  publish_next(p, "b");
  p.await_err(hook_message((is_emulated() ? "exit status 127" : "cannot be started: No such file or directory") +
                           std::string("; retry in about 1 s")));
  terminate(p);
}

// On a slow machine it may be stopped before it has done anything; then it is tried again.
TEST_F(exec, is_stopped_with_all_its_group_when_it_runs_too_long) {
  const std::string body = "trap 'echo asked >>did; exit' TERM; sleep 1000 & echo $! >pid; wait";
  process p = start({"--exec-timeout", "0.25", "--exec", program(body), publish("a")});
  await_did("asked");
  p.await_err(hook_message("stopped after 0.25 s; retry in about 1 s"));
  terminate(p);
  expect_gone();
}

TEST_F(exec, may_run_for_half_a_minute) {
  process p =
      start({"--exec", program("sleep 1000"), publish("a")}, built("fake_plugin"), preloaded(built("short_minutes")));
  p.await_err(hook_message("stopped after 30 s; retry in about 1 s"));
  terminate(p);
}

TEST_F(exec, that_ignores_SIGTERM_is_killed) {
  const std::string body = "trap '' TERM; echo $$ >pid; echo deaf >>did; sleep 1000";
  process p = start({"--exec-timeout", "0.25", "--exec", program(body), publish("a")});
  await_did("deaf");
  expect_gone();
  p.await_err(hook_message("stopped after 0.25 s; retry in about 1 s"));
  terminate(p);
}

TEST_F(exec, that_survives_SIGKILL_is_reported_and_left_to_the_system) {
  if (!can_trace()) GTEST_SKIP() << "no process may be traced here";
  process p = start({"--once", "--exec-timeout", "0.5", "--exec", program(deaf), publish("a")});
  const pid_t held = hold();
  p.signal(SIGTERM);
  const ending e = p.end();
  EXPECT_EQ(e.status, 1);
  EXPECT_TRUE(e.err.ends_with(hook_message("still runs after SIGKILL; no retry"))) << e.err;
  release(held);
}

TEST_F(exec, that_survived_SIGKILL_is_tried_again_after_its_end) {
  if (!can_trace()) GTEST_SKIP() << "no process may be traced here";
  process p = start({"--exec-timeout", "0.5", "--exec", program(deaf), publish("a")});
  const pid_t held = hold();
  p.await_err(hook_message("still runs after SIGKILL; no other program is started for this instance"));
  program("echo again >did");
  release(held);
  await_did("again");
  terminate(p);
}

TEST_F(exec, leaves_no_process_of_its_group) {
  const ending e = run({"--once", "--exec", program("sleep 1000 & echo $! >pid"), publish("a")});
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  expect_gone();
}

// ---------------------------------------------------------------- the end of the run

TEST_F(exec, has_time_to_end_when_the_run_ends) {
  process p =
      start({"--exec", program("echo begin >>did\n" + std::string(wait_for_go) + "\necho end >>did"), publish("a")});
  await_did("begin");
  p.signal(SIGTERM);
  dir.file("", "go");
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(did(), "begin\nend\n");
}

TEST_F(exec, is_killed_when_it_runs_on_after_the_runs_end) {
  process p =
      start({"--exec", program("trap '' TERM; sleep 1000 & echo $! >pid; echo begin >did; wait; wait"), publish("a")});
  await_did("begin");
  publish_next(p, "b");
  EXPECT_EQ(terminate(p).err, hook_message("the run ends before the program gets the newest value") +
                                  hook_message("stopped at the end; no retry"));
  expect_gone();
}

TEST_F(exec, leaves_a_value_without_a_program_and_once_says_so_by_its_status) {
  for (const bool once : {false, true}) {
    SCOPED_TRACE(once);
    const std::string body = "echo begin >did\n" + std::string(wait_for_go);
    texts args = {"--exec", program(body), publish("a")};
    if (once) args.insert(args.begin(), "--once");
    process p = start(args);
    await_did("begin");
    publish_next(p, "b");
    p.signal(SIGTERM);
    p.await_err(hook_message("the run ends before the program gets the newest value"));
    dir.file("", "go");
    const ending e = p.end();
    EXPECT_EQ(e.status, once ? 1 : 0);
    EXPECT_EQ(e.err, hook_message("the run ends before the program gets the newest value"));
    for (const char* file : {"go", "did"}) std::filesystem::remove(dir.path(file));
  }
}

TEST_F(exec, is_not_tried_again_after_the_runs_end) {
  process p = start({"--exec", program("exit 1"), publish("a")});
  p.await_err("retry in about 1 s\n");
  EXPECT_TRUE(terminate(p).err.ends_with(hook_message("the run ends before the program gets the newest value")));
}

TEST_F(exec, is_gone_when_the_run_fails) {
  process p = start({"--exec", program("echo $$ >pid; echo begin >did; sleep 1000"), publish("a")});
  await_did("begin");
  dir.file("throw it", "gw.conf");
  p.signal(SIGHUP);
  EXPECT_EQ(p.end().status, 1);
  expect_gone();
}

// Orphans of the program become children of this process, which does not reap them.
TEST_F(exec, is_waited_for_when_the_run_fails) {
  process p = start({"--exec", program("echo $$ >pid; echo begin >did; sleep 1000"), publish("a")});
  await_did("begin");
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  dir.file("throw it", "gw.conf");
  p.signal(SIGHUP);
  EXPECT_EQ(p.end().status, 1);
  prctl(PR_SET_CHILD_SUBREAPER, 0);
  const std::string pid = read_file(dir.path("pid"));
  ASSERT_FALSE(pid.empty());
  EXPECT_FALSE(std::filesystem::exists("/proc/" + pid.substr(0, pid.find('\n'))));
}

// ---------------------------------------------------------------- dry run

TEST_F(exec, is_only_shown_in_a_dry_run) {
  const ending e = run({"--once", "--dry-run", "--exec", program("echo ran >did"), publish("a")});
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  std::vector<texts> shown = lines_of(e.out, "exec");
  ASSERT_EQ(shown.size(), 1U);
  ASSERT_EQ(shown[0].size(), 8U);
  EXPECT_TRUE(shown[0][4].starts_with("DAC_TIME=20")) << shown[0][4];
  shown[0].erase(shown[0].begin() + 4);
  EXPECT_EQ(shown[0], (texts{dir.path("prog"), "DAC_INSTANCE=gw", "DAC_TAG=gw", "DAC_VALUE=a",
                             "DAC_PREVIOUS=", "DAC_PREVIOUS_TAG=", "DAC_REASON=first"}));
  EXPECT_EQ(did(), "");
}

TEST_F(exec, is_a_separate_object_in_a_json_dry_run) {
  const ending e = run({"--once", "--dry-run", "--json", "--exec", "true", publish("a")});
  json shown = json::parse(lines(e.out).at(3));
  EXPECT_EQ(shown["environment"]["DAC_TIME"], json::parse(lines(e.out).at(2))["time"]);
  shown.erase("time");
  shown["environment"].erase("DAC_TIME");
  EXPECT_EQ(shown, (json{{"schema", 1},
                         {"event", "exec"},
                         {"instance", "gw"},
                         {"program", "true"},
                         {"environment",
                          {{"DAC_INSTANCE", "gw"},
                           {"DAC_TAG", "gw"},
                           {"DAC_VALUE", "a"},
                           {"DAC_PREVIOUS", ""},
                           {"DAC_PREVIOUS_TAG", ""},
                           {"DAC_REASON", "first"}}}}));
}

// ---------------------------------------------------------------- which addresses

TEST_F(exec, gets_the_published_value_if_all_addresses_are_picked) {
  const std::string whole = "2001:db8::1," + std::string(987, 'a');  // fills the record: the last one may be cut
  const struct row {
    const char* label;
    std::string published;
    std::string expected;
  } rows[] = {
      {"all of them", "fd00::1,2001:db8::1,fc00::2", "fd00::1,2001:db8::1,fc00::2"},
      {"one that may be cut", whole, "2001:db8::1"},
      {"one that cannot be cut", whole.substr(0, 998), whole.substr(0, 998)},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    const ending e = run({"--once", "--pick", "all", "--exec", program("echo $DAC_VALUE >did"), publish(r.published)});
    const std::string full = "addresses: the published value is full; --pick global and --pick stable do not use it";
    EXPECT_EQ(e.err, r.published == whole ? "dachost: " + full + '\n' : "");
    EXPECT_EQ(did(), r.expected + '\n');
    EXPECT_EQ(lines_of(e.out, "value"), (std::vector<texts>{{"gw", r.published}}));
  }
}

TEST_F(exec, gets_as_stable_neither_temporary_nor_deprecated_nor_unique_local_addresses) {
  in_new_network([this] {
    ASSERT_TRUE(ip("addr add 2001:db8::1/64 dev lo nodad"));
    ASSERT_TRUE(ip("addr add 2001:db8::2/64 dev lo nodad preferred_lft 0"));
    ASSERT_TRUE(ip("addr add fd00::3/64 dev lo nodad"));
    ASSERT_TRUE(ip("link add v0 type veth peer name v1"));
    for (const char* interface : {"v0", "v1"}) ASSERT_TRUE(ip(std::string("link set up dev ") + interface));
    ASSERT_TRUE(write_file("/proc/sys/net/ipv6/conf/v0/use_tempaddr", "1"));
    ASSERT_TRUE(ip("addr add 2001:db8:1::4/64 dev v0 nodad mngtmpaddr valid_lft 3600 preferred_lft 1800"));
    ASSERT_TRUE(ip("addr add 2001:db8::5 peer 2001:db8::6 dev v0 nodad"));
    ASSERT_TRUE(ip("addr add 2001:db8::2/64 dev v1 nodad preferred_lft 0"));
    ASSERT_TRUE(ip("addr add 2001:db8::1/64 dev v1 nodad preferred_lft 0"));
    const std::string conf = dir.file("hostname=h");
    const ending e =
        start({"--once", "--pick", "stable", "--exec", program("echo $DAC_VALUE >did"), conf}, built("plugin")).end();
    EXPECT_EQ(e.err, "");
    const texts published = split(lines_of(e.out, "value").at(0).at(1), ',');
    EXPECT_EQ(published.size(), 8U) << "including the temporary one";
    texts picked = split(did().substr(0, did().find('\n')), ',');
    std::sort(picked.begin(), picked.end());
    EXPECT_EQ(picked, (texts{"2001:db8:1::4", "2001:db8::1", "2001:db8::5"}));
  });
}

// A list that changed while it was read may lack an address that is there all the time.
TEST_F(exec, reads_an_address_list_that_changed_again_up_to_five_times) {
  in_new_network([this] {
    ASSERT_TRUE(ip("addr add 2001:db8::1/64 dev lo nodad"));
    const struct row {
      const char* torn;
      std::string left;
      std::string err;
    } rows[] = {{"4", "2001:db8::1\n", ""},
                {"5", "", "dachost: addresses: netlink: Resource temporarily unavailable; no retry\n"}};
    const texts args = {"--once",
                        "--events",
                        "tag",
                        "--pick",
                        "stable",
                        "--exec",
                        program("echo $DAC_VALUE >did"),
                        publish("2001:db8::1")};  // the list is read for the hook only
    for (const row& r : rows) {
      SCOPED_TRACE(r.torn);
      const ending e = run(args, preloaded(built("torn_list"), {std::string("TORN_LISTS=") + r.torn}));
      EXPECT_EQ(e.err, r.err);
      EXPECT_EQ(e.status, r.err.empty() ? 0 : 1);
      EXPECT_EQ(did(), r.left);
      std::filesystem::remove(dir.path("did"));
    }
  });
}

// ---------------------------------------------------------------- the command line

TEST_F(exec, invalid_options_get_one_line_and_status_2) {
  const struct row {
    const char* label;
    texts args;
    const char* named;
  } rows[] = {
      {"a dry run of nothing", {"--dry-run"}, "--dry-run: works only with --exec"},
      {"an interface without a name",
       {"--exec", "p", "--interface", ""},
       "--interface: expected the name of an interface, got ''"},
      {"an exclusion without a name",
       {"--exec", "p", "--interface", "!"},
       "--interface: expected the name of an interface, got '!'"},
      {"no interface", {"--exec", "p", "--interface"}, "--interface"},
      {"an interface that is wanted and excluded",
       {"--exec", "p", "--interface", "a", "--interface", "b", "--interface", "!a"},
       "--interface: 'a' is both wanted and excluded"},
      {"a limit of nothing", {"--exec-timeout", "3"}, "--exec-timeout: works only with --exec"},
      {"an empty name", {"--exec", ""}, "--exec: expected a program name, got ''"},
      {"no name", {"--exec"}, "--exec: expected a value after it: PROGRAM"},
      {"an unknown choice", {"--exec", "p", "--pick", "some"}, "--pick: expected all, global or stable, got 'some'"},
      {"no time at all", {"--exec", "p", "--exec-timeout", "0"}, "'0'"},
      {"a time that is a word", {"--exec", "p", "--exec-timeout", "long"}, "'long'"}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    texts args = {"x.conf"};
    args.insert(args.end(), r.args.begin(), r.args.end());
    const ending e = run(args);
    EXPECT_EQ(e.status, 2);
    EXPECT_EQ(e.out, "");
    EXPECT_EQ(lines(e.err).size(), 1U) << e.err;
    EXPECT_NE(e.err.find(r.named), std::string::npos) << e.err;
  }
}
