// The contract of `dachost run --json`: every line of these runs is validated against doc/dachost.schema.json.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>

#include "tests/support/dachost_fixture.h"
#include "tests/support/json_schema.h"
#include "tests/support/network.h"

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

/// The output's objects of this event.
std::vector<json> events(const std::string& out, const std::string& name) {
  std::vector<json> found;
  for (const std::string& line : lines(out))
    if (json::parse(line).at("event") == name) found.push_back(json::parse(line));
  return found;
}

class json_lines : public dachost_fixture {
 protected:
  static void expect_valid(const std::string& out) {
    EXPECT_NE(out, "");
    EXPECT_EQ(schema_errors("dachost.schema.json", out), "");
  }
  process run_json(texts args) const {
    args.insert(args.begin(), "--json");
    return run(args);
  }
  ending ended(process& p) const {
    ending e = terminate(p);
    expect_valid(e.out);
    return e;
  }
};

}  // namespace

TEST_F(json_lines, are_valid_for_values_messages_and_odd_bytes) {
  const remote_control gw(dir.path("fifo"));
  process p = run_json({conf(gw.order()), conf("odd records", "odd\xff\x1b name")});
  gw.say("publish null");
  gw.say("fail no addresses\x9b\t\xff");
  gw.say("publish 2001:db8::1,2001:db8::2");
  gw.say("publish 2001:db8::1,2001:db8::2");
  p.await_out("\"change\":false");
  const ending e = ended(p);
  const std::vector<json> messages = events(e.out, "message");
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0]["level"], "error");
  EXPECT_EQ(messages[0]["source"], "plug-in");
  EXPECT_EQ(messages[0]["text"], "no addresses\ufffd\t\ufffd");
  std::vector<json> values = events(e.out, "value");
  std::erase_if(values, [](const json& v) { return v["instance"] != "gw"; });
  ASSERT_EQ(values.size(), 3U);
  EXPECT_EQ(values[0]["value"], "null");
  EXPECT_EQ(values[0]["picked"], json::array());
  EXPECT_EQ(values[1]["picked"], (json{"2001:db8::1", "2001:db8::2"}));
  for (size_t n = 0; n < 3; ++n) EXPECT_EQ(values[n]["change"], n < 2);
}

TEST_F(json_lines, are_valid_for_refused_files) {
  const std::string good = conf("publish a", "good"), bad = conf("refuse bad", "bad");
  const ending start = run_json({good, bad}).end();
  EXPECT_EQ(start.status, 78);
  expect_valid(start.out);
  std::vector<json> refused = events(start.out, "refused");
  ASSERT_EQ(refused.size(), 1U);
  EXPECT_EQ(refused[0]["level"], "error");
  EXPECT_EQ(refused[0]["instance"], "bad");
  EXPECT_EQ(refused[0]["file"], bad);
  EXPECT_EQ(refused[0]["text"], bad + ": bad; nothing is started");
  process p = run_json({good});
  p.await_out("\"value\":\"a\"");
  conf("refuse worse", "good");
  p.signal(SIGHUP);
  p.await_out("\"refused\"");
  refused = events(ended(p).out, "refused");
  ASSERT_EQ(refused.size(), 1U);
  EXPECT_EQ(refused[0]["level"], "warning");
}

TEST_F(json_lines, are_valid_for_the_plug_in_that_ships) {
  const std::string file = dir.file("hostname = gateway.example");
  for (const texts& args :
       {texts{"run", "--once", "--json", "-p", built("plugin"), file},
        texts{"run", "--once", "--json", "--dry-run", "--exec", "true", "-p", built("plugin"), file}}) {
    const ending e = start(args).end();
    EXPECT_EQ(e.status, 0) << e.err;
    expect_valid(e.out);
  }
}

TEST_F(json_lines, repeat_failures_on_standard_error_and_nothing_else) {
  const ending e = run_json({"--once", conf("fail no addresses\npublish a\nflood 3")}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "dachost: gw: no addresses\n");
  EXPECT_EQ(events(e.out, "message").size(), 4U);
}

TEST_F(json_lines, and_lines_of_text_without_message_events_leave_failures_to_standard_error) {
  const std::string file = conf("fail no addresses\npublish a\nflood 3");
  for (const texts& format : {texts{}, texts{"--json"}}) {
    texts args = {"--once", "--events", "value", file};
    args.insert(args.begin(), format.begin(), format.end());
    const ending e = run(args).end();
    EXPECT_EQ(e.status, 0);
    EXPECT_EQ(lines(e.out).size(), 1U) << e.out;
    EXPECT_EQ(e.err, "dachost: gw: no addresses\n");
  }
}

TEST_F(json_lines, repeat_the_reason_of_a_file_that_a_reload_refuses_once_on_standard_error) {
  const std::string file = conf("publish a");
  process p = run_json({file});
  p.await_out(R"("value":"a")");
  conf("refuse bad");
  p.signal(SIGHUP);
  p.await_err("the old instance continues\n");
  EXPECT_EQ(terminate(p).err, "dachost: " + file + ": bad; the old instance continues\n");
}

TEST_F(json_lines, and_lines_of_text_are_selected_by_event) {
  const std::string file = conf("fail no addresses\npublish a");
  EXPECT_EQ(lines(run_json({"--once", "--events", "value", file}).end().out).size(), 1U);
  EXPECT_EQ(lines(run_json({"--once", "--events", "value,tag,version", file}).end().out).size(), 3U);
  const ending text = run({"--once", "--events", "message", file}).end();
  ASSERT_EQ(lines(text.out).size(), 1U) << text.out;
  EXPECT_NE(text.out.find("\tgw\tfailure\tno addresses\n"), std::string::npos) << text.out;
  EXPECT_EQ(text.err, "");
  for (const char* wrong : {"", "val", "value,", ",value", "value,,tag", "Value"}) {
    const ending e = run({"--events", wrong, file}).end();
    EXPECT_EQ(e.status, 2) << wrong;
    EXPECT_NE(e.err.find("--events"), std::string::npos) << e.err;
  }
}

TEST_F(json_lines, have_the_kernels_list_of_addresses) {
  in_new_network([this] {
    ASSERT_TRUE(ip("link add v0 type veth peer name v1"));
    ASSERT_TRUE(ip("link set v0 up") && ip("link set v1 up"));
    ASSERT_TRUE(ip("addr add 2001:db8::1/64 dev v0 nodad"));
    ASSERT_TRUE(ip("addr add 2001:db8::2/64 dev v0 nodad preferred_lft 0 valid_lft 1000"));
    ASSERT_TRUE(ip("addr add fd00::1/64 dev v1 nodad noprefixroute"));
    const ending e = run_json({"--once", conf("publish 2001:db8::1")}).end();
    expect_valid(e.out);
    const std::vector<json> values = events(e.out, "value");
    ASSERT_EQ(values.size(), 1U);
    std::map<std::string, json> found;
    for (const json& a : values[0]["addresses"]) found[a["address"]] = a;
    EXPECT_EQ(found["2001:db8::1"]["interface"], "v0");
    EXPECT_EQ(found["2001:db8::1"]["scope"], "global");
    EXPECT_EQ(found["2001:db8::1"]["flags"], (json{"nodad", "permanent"}));
    EXPECT_EQ(found["2001:db8::2"]["flags"], (json{"nodad", "deprecated"}));
    EXPECT_EQ(found["fd00::1"]["interface"], "v1");
    EXPECT_EQ(found["fd00::1"]["flags"], (json{"nodad", "permanent", "noprefixroute"}));
    EXPECT_EQ(std::count_if(found.begin(), found.end(), [](const auto& a) { return a.second["scope"] == "link"; }), 2);
  });
}

TEST_F(json_lines, and_lines_of_text_have_picked_addresses_without_a_program) {
  in_new_network([this] {
    ASSERT_TRUE(ip("addr add 2001:db8::1/64 dev lo nodad"));
    ASSERT_TRUE(ip("addr add fd00::1/64 dev lo nodad"));
    const ending text = run({"--once", "--events", "value", "--pick", "stable", conf("publish null")}).end();
    EXPECT_TRUE(text.out.ends_with("\tvalue\tgw\tnull\t2001:db8::1\n")) << text.out << text.err;

    process p = run_json({"--pick", "stable", "--interface", "lo", conf("publish null")});
    p.await_out("\"picked\":[\"2001:db8::1\"]");
    ASSERT_TRUE(ip("addr change 2001:db8::1/64 dev lo nodad preferred_lft 0 valid_lft 1000"));
    p.await_out("\"picked\":[]");
    const std::vector<json> values = events(ended(p).out, "value");
    ASSERT_EQ(values.size(), 2U) << "the value is published once";
    EXPECT_EQ(values[1]["change"], true);
  });
}

// A hundred times as fast, so that the kernel's list would be read again during the stop.
TEST_F(json_lines, and_lines_of_text_have_no_value_after_the_stop_began) {
  in_new_network([this] {
    ASSERT_TRUE(ip("addr add 2001:db8::1/64 dev lo nodad"));
    const std::string file = conf("publish null\nhold " + dir.path("released"));
    process p = run({"--events", "value", "--pick", "stable", file}, preloaded(built("short_minutes")));
    p.await_out("2001:db8::1\n");
    p.signal(SIGTERM);
    await_journal("held gw 0");
    ASSERT_TRUE(ip("addr add 2001:db8::2/64 dev lo nodad"));
    std::this_thread::sleep_for(150ms);
    dir.file("", "released");
    EXPECT_EQ(lines(p.end().out).size(), 1U) << p.out();
  });
}

TEST_F(json_lines, are_summed_up_in_the_status_file) {
  const std::string status = dir.path("status");
  process p = run({"--status", status, conf("publish 2001:db8::10")});
  await_text("status", R"("value":"2001:db8::10")");
  conf("refuse bad");
  p.signal(SIGHUP);
  await_text("status", R"("refused":")" + dir.path("gw.conf") + ": bad; the old instance continues\"");
  terminate(p);
  EXPECT_EQ(schema_errors("dachost.status.schema.json", read_file(status)), "");
  EXPECT_FALSE(std::filesystem::exists(dir.path(".status.dachost-tmp")));
}

// The values arrive faster than they are printed: the last one is printed long after it was published.
TEST_F(json_lines, have_the_same_time_as_the_status_file) {
  const remote_control gw(dir.path("fifo"));
  const std::string status = dir.path("status");
  process p = run_json({"--status", status, conf(gw.order())});
  for (int n = 1; n <= 100; ++n) gw.say("publish " + std::to_string(n));
  p.await_out(R"("value":"100")");
  const json last = events(ended(p).out, "value").back();
  EXPECT_EQ(json::parse(read_file(status))["instances"][0]["published"], last["time"]);
}

TEST_F(json_lines, are_not_printed_when_the_status_file_cannot_be_written_at_the_start) {
  const std::string locked = dir.path("locked"), file = dir.file("", "file"), missing = dir.path("missing/status");
  std::filesystem::create_directory(locked);
  std::filesystem::permissions(locked, std::filesystem::perms::owner_read);
  std::vector<std::pair<std::string, const char*>> rows = {{missing, "No such file or directory"},
                                                           {file + "/status", "Not a directory"}};
  if (access((locked + "/.").c_str(), W_OK) != 0)
    rows.emplace_back(locked + "/status", "Permission denied");  // not for root
  for (const auto& [path, reason] : rows) {
    const ending e = run({"--once", "--status", path, conf("publish a")}).end();
    EXPECT_EQ(e.status, 2);
    EXPECT_EQ(e.out, "");
    EXPECT_EQ(e.err, "dachost: --status: " + path + ": cannot be written: " + reason + '\n');
  }
}

TEST_F(json_lines, are_summed_up_again_when_the_status_file_can_be_written) {
  std::filesystem::create_directory(dir.path("run"));
  const std::string status = dir.path("run/status");
  process p = run({"--status", status, conf("publish a")});
  await_text("run/status", R"("value":"a")");
  std::filesystem::remove_all(dir.path("run"));
  conf("publish b");
  p.signal(SIGHUP);
  p.await_err("dachost: " + status + ": cannot be written: No such file or directory; retry every 10 seconds\n");
  std::filesystem::create_directory(dir.path("run"));
  p.await_err("dachost: " + status + ": is written again\n");
  await_text("run/status", R"("value":"b")");
  terminate(p);
}

TEST_F(json_lines, are_not_summed_up_in_place_of_other_files) {
  const std::string file = conf("publish a"), fifo = dir.path("fifo"), link = dir.path("link");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::filesystem::create_symlink(file, link);
  for (const std::string& special : {fifo, link, dir.path("")}) {
    const ending e = run({"--once", "--status", special, file}).end();
    EXPECT_EQ(e.status, 2);
    EXPECT_EQ(e.err, "dachost: --status: " + special + ": not a regular file\n");
  }
  const ending e = run({"--once", "--status", file, file}).end();
  EXPECT_EQ(e.status, 2);
  EXPECT_EQ(e.err, "dachost: --status: " + file + ": is a configuration file, which would be replaced\n");
  EXPECT_EQ(read_file(file), "publish a");
}

TEST_F(json_lines, are_not_summed_up_in_place_of_programs_and_the_plug_in) {
  const std::string file = conf("publish a"), prog = program("exit 0"), plugin = dir.path("plugin.so");
  const std::string text = read_file(prog), name = std::filesystem::path(prog).filename();
  std::filesystem::copy_file(built("ip6dns"), plugin);
  const auto size = std::filesystem::file_size(plugin);
  std::filesystem::create_directory(dir.path("hooks"));
  std::filesystem::create_hard_link(prog, dir.path("hooks/hook"));
  const std::string is_program = ": is a program of --exec, which would be replaced\n";
  for (const std::string& hook : {prog, dir.path("hooks"), name}) {
    const texts path = {"env", "PATH=" + dir.path("") + ":/usr/bin:/bin"};
    const ending e = run({"--once", "--status", prog, "--exec", hook, file}, path).end();
    EXPECT_EQ(e.status, 2) << hook;
    EXPECT_EQ(e.err, "dachost: --status: " + prog + is_program);
  }
  const ending e = start({"run", "-p", plugin, "--once", "--status", plugin, file}).end();
  EXPECT_EQ(e.status, 2);
  EXPECT_EQ(e.err, "dachost: --status: " + plugin + ": is the plug-in, which would be replaced\n");
  EXPECT_EQ(read_file(prog), text);
  EXPECT_EQ(std::filesystem::file_size(plugin), size);
}

TEST_F(json_lines, are_summed_up_in_a_file_with_the_name_of_a_program_on_PATH) {
  const std::string prog = program("exit 0"), file = conf("publish a");
  std::filesystem::create_directory(dir.path("here"));
  const std::string status = dir.file("", "here/prog");
  const texts path = {"env", "-C", dir.path("here"), "PATH=" + dir.path("") + ":/usr/bin:/bin"};
  const ending e = run({"--once", "--status", "prog", "--exec", "prog", file}, path).end();
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(e.status, 0);
  EXPECT_NE(read_file(status), "");
}

TEST_F(json_lines, are_summed_up_without_a_change_of_files_with_similar_names) {
  const std::string status = dir.path("status"), file = dir.file("publish a", "status.tmp");
  const ending e = run({"--once", "--status", status, file}).end();
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(read_file(file), "publish a");
  EXPECT_NE(read_file(status), "");
}

TEST_F(json_lines, do_not_wait_for_a_FIFO_in_place_of_the_temporary_status_file) {
  const std::string status = dir.path("status"), fifo = dir.path(".status.dachost-tmp");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const ending e = run({"--once", "--status", status, conf("publish a")}).end();
  EXPECT_EQ(e.status, 2);
  EXPECT_EQ(e.err, "dachost: --status: " + status + ": cannot be written: " + fifo + ": not a regular file\n");
}

TEST_F(json_lines, have_the_results_of_hooks) {
  const std::string prog = program("[ -e go ]"), status = dir.path("status");
  process p = run_json({"--status", status, "--exec", prog, conf("publish a")});
  p.await_out(R"("result":"failed")");
  await_text("status", R"("failures":)");
  go();
  p.await_out(R"("result":"ok")");
  await_text("status", R"("hook":{"result":"ok")");
  const ending e = ended(p);
  std::vector<json> hooks = events(e.out, "hook");
  ASSERT_GE(hooks.size(), 2U);
  EXPECT_EQ(hooks[0]["level"], "warning");
  EXPECT_EQ(hooks[0]["instance"], "gw");
  EXPECT_EQ(hooks[0]["program"], prog);
  EXPECT_NE(hooks[0]["text"].get<std::string>().find("exit status 1; retry"), std::string::npos) << hooks[0];
  EXPECT_EQ(hooks.back()["level"], "info");
  const auto recovery = hooks.back()["text"].get<std::string>();
  EXPECT_TRUE(recovery.starts_with("works again after " + std::to_string(hooks.size() - 1) + " failure")) << recovery;
  EXPECT_EQ(lines(e.err).back(), "dachost: gw: " + prog + ": " + recovery);
}
