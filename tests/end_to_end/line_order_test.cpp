// dachost prints and passes on events in their order, also across SIGHUP.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "tests/support/dachost_fixture.h"

namespace {

class line_order : public dachost_fixture {
 protected:
  /// All lines of a run: instance, kind, and the last field.
  static texts summary(const std::string& out) {
    texts all;
    for (const std::string& line : lines(out)) {
      const texts fields = split(line, '\t');
      const std::string& last = fields.at(2) == "tag" ? fields.at(3) : fields.back();
      all.push_back(fields.at(1) + ' ' + fields.at(2) + ' ' + last);
    }
    return all;
  }
  static texts without_version(texts all) {
    all.erase(all.begin());
    return all;
  }
};

}  // namespace

TEST_F(line_order, of_the_shipped_plugin_has_the_old_instance_stop_before_the_new_one_appears) {
  const std::string file = dir.file("hostname=before", "gw.conf");
  process p = start({"run", "-p", built("plugin"), file});
  p.await_out("\tvalue\tbefore\t");
  dir.file("hostname=after", "gw.conf");
  p.signal(SIGHUP);
  p.await_out("\tvalue\tafter\t");
  texts all = summary(terminate(p).out);
  for (std::string& line : all)
    if (line.starts_with("gw value ")) line = "gw value";
  EXPECT_EQ(without_version(all),
            (texts{"gw tag before", "gw message start wrk_process success.", "gw value",
                   "gw message stop wrk_process success.", "gw tag after", "gw message start wrk_process success.",
                   "gw value", "gw message stop wrk_process success."}));
}

TEST_F(line_order, is_that_of_the_command_line_at_the_start_and_after_SIGHUP) {
  const texts files = {conf("publish b1", "b"), conf("publish a1", "a"), conf("publish c1", "c")};
  process p = run(files);
  p.await_out("\tc1\n");
  for (const std::string name : {"a", "b", "c"}) conf("publish " + name + '2', name);
  p.signal(SIGHUP);
  p.await_out("\tc2\n");
  EXPECT_EQ(without_version(summary(terminate(p).out)),
            (texts{"b tag b", "a tag a", "c tag c", "b value b1", "a value a1", "c value c1", "b tag b", "a tag a",
                   "c tag c", "b value b2", "a value a2", "c value c2"}));
}

TEST_F(line_order, of_values_messages_and_failures_is_that_of_the_callbacks) {
  const remote_control gw(dir.path("fifo"));
  process p = run({conf(gw.order())});
  texts expected = {"gw tag gw"};
  for (int round = 0; round < 20; ++round) {
    const std::string n = std::to_string(round);
    for (const std::string& order : {"publish v" + n, std::string("flood 2"), "fail f" + n}) gw.say(order);
    for (const std::string& line :
         {"value v" + n, std::string("message message 1 of 2"), std::string("message message 2 of 2"), "failure f" + n})
      expected.push_back("gw " + line);
  }
  p.await_out("\tf19\n");
  EXPECT_EQ(without_version(summary(terminate(p).out)), expected);
}

TEST_F(line_order, of_each_of_many_instances_is_preserved_and_no_line_is_lost_or_doubled) {
  constexpr int instances = 5, values = 100;
  std::vector<std::unique_ptr<remote_control>> remotes;
  texts files;
  for (int i = 0; i < instances; ++i) {
    const std::string name = 'i' + std::to_string(i);
    remotes.push_back(std::make_unique<remote_control>(dir.path(name + ".fifo")));
    files.push_back(conf(remotes.back()->order(), name));
  }
  process p = run(files);
  for (int v = 0; v < values; ++v)
    for (const auto& r : remotes) r->say("publish " + std::to_string(v));
  for (int i = 0; i < instances; ++i)
    p.await_out("\tvalue\ti" + std::to_string(i) + '\t' + std::to_string(values - 1) + '\n');
  std::map<std::string, texts> published;
  texts expected;
  for (const std::string& line : lines_of(terminate(p).out, "value"))
    published[split(line, '\t').at(0)].push_back(split(line, '\t').back());
  for (int v = 0; v < values; ++v) expected.push_back(std::to_string(v));
  ASSERT_EQ(published.size(), static_cast<size_t>(instances));
  for (const auto& [name, all] : published) EXPECT_EQ(all, expected) << name;
}

TEST_F(line_order, in_json_is_preserved_on_each_of_the_two_outputs) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--json", conf(gw.order())});
  texts values, failures;
  for (int n = 0; n < 50; ++n) {
    values.push_back('v' + std::to_string(n));
    failures.push_back("f" + std::to_string(n));
    gw.say("publish " + values.back());
    gw.say("fail " + failures.back());
  }
  p.await_err(": f49\n");
  const ending e = terminate(p);
  texts expected, seen, reports;
  for (int n = 0; n < 50; ++n) {
    expected.insert(expected.end(), {values[static_cast<size_t>(n)], failures[static_cast<size_t>(n)]});
    reports.push_back("dachost: gw: " + failures[static_cast<size_t>(n)]);
  }
  for (const std::string& line : lines(e.out)) {
    const auto event = nlohmann::json::parse(line);
    if (event["event"] == "value") seen.push_back(event["value"]);
    if (event["event"] == "message") seen.push_back(event["text"]);
  }
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(lines(e.err), reports);
}

TEST_F(line_order, of_what_a_program_gets_is_that_of_the_values_and_the_newest_is_the_last) {
  const remote_control gw(dir.path("fifo"));
  process p = run({"--exec", program("echo $DAC_VALUE >>did"), conf(gw.order())});
  for (int n = 100; n < 400; ++n) gw.say("publish " + std::to_string(n));
  await_did("399\n");
  terminate(p);
  const texts got = lines(did());
  EXPECT_TRUE(std::is_sorted(got.begin(), got.end()));
  EXPECT_EQ(std::adjacent_find(got.begin(), got.end()), got.end()) << "none twice";
  EXPECT_EQ(got.back(), "399");
}

// An old instance that publishes while it is replaced: its line precedes those of the new one.
TEST_F(line_order, has_the_last_values_of_an_instance_before_its_successor) {
  const remote_control gw(dir.path("fifo"));
  process p = run({conf(gw.order() + "hold " + dir.path("released"))});
  p.await_out("\ttag\t");
  conf("publish new");
  p.signal(SIGHUP);
  await_journal("held gw 0");
  gw.say("publish last of the old");
  gw.say("fail of the old");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  dir.file("", "released");
  p.await_out("\tnew\n");
  EXPECT_EQ(without_version(summary(terminate(p).out)),
            (texts{"gw tag gw", "gw value last of the old", "gw failure of the old", "gw tag gw", "gw value new"}));
}
