// The checking layer: what it reports of wrong hosts, and that it passes the rest on.
#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/built.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

namespace {

struct misuse {
  const char* name;   // of wrong_host
  const char* entry;  // the first report's
  texts kinds;        // of all reports, in their order; the process ends with an exception after the last one
  bool throws = false;

  friend std::ostream& operator<<(std::ostream& out, const misuse& m) { return out << m.name; }
};

const misuse misuses[] = {
    {"unknown_handle", "dac_isrun", {"unknown-handle"}},
    {"destroyed_handle", "dac_start", {"unknown-handle"}},
    {"twice_in_one_place", "dac_isrun", {"unknown-handle", "unknown-handle"}},
    {"destroy_running", "dac_destroy", {"destroy-running", "thread-left"}},
    {"destroy_in_call", "dac_destroy", {"destroy-in-call"}},
    {"start_twice", "dac_start", {"start-twice", "instance-left", "thread-left"}},
    {"stop_twice", "dac_stop", {"stop-twice"}},
    {"stop_inside_data", "dac_stop", {"inside-callback"}},
    {"destroy_inside_data", "dac_destroy", {"inside-callback", "thread-left"}},
    {"stop_inside_log", "dac_stop", {"inside-callback"}},
    {"null_aux", "dac_create", {"null-callback"}},
    {"null_tag_callback", "dac_getalltags", {"null-callback"}},
    {"null_tagex_callback", "dac_getalltagsex", {"null-callback"}},
    {"null_name", "dac_create", {"null-text"}},
    {"empty_name", "dac_create", {"null-text"}},
    {"null_file", "dac_create", {"null-text"}},
    {"empty_file", "dac_create", {"null-text"}},
    {"small_buffer", "dac_getinfo", {"small-buffer"}},
    {"exact_buffer", "dac_getinfo", {"small-buffer"}},
    {"size_as_length", "dac_getinfo", {"size-as-length"}},
    {"size_as_buffer", "dac_getinfo", {"size-as-length"}},
    {"slow_data", "data callback", {"slow-callback"}},
    {"endless_data", "data callback", {"slow-callback"}},
    {"throw_from_data", "data callback", {"exception"}, true},
    {"throw_from_log", "log callback", {"exception"}, true},
    {"late_record", "data callback", {"late-record"}},
    {"instance_left", "unload", {"instance-left"}},
    {"worker_left", "unload", {"instance-left", "thread-left"}},
    {"call_left", "unload", {"instance-left", "thread-left"}},
    {"many_instances", "dac_create", {"many-instances"}},
};

struct report {
  std::string kind, entry, place, advice;
};

/// The reports in a text. A line that begins like a report but does not read like one is a failure.
std::vector<report> reports(const std::string& text) {
  static const std::regex form(
      R"(dac-check: ([a-z-]+): ([a-z_ ]+), handle -?[0-9]+, thread [0-9]+, at (.*\+0x[0-9a-f]+): (.+))");
  std::vector<report> found;
  for (const std::string& line : lines(text)) {
    std::smatch part;
    if (!line.starts_with("dac-check: ")) continue;
    EXPECT_TRUE(std::regex_match(line, part, form)) << line;
    if (!part.empty()) found.push_back({part[1], part[2], part[3], part[4]});
  }
  return found;
}

texts kinds(const std::vector<report>& all) {
  texts found;
  for (const report& r : all) found.push_back(r.kind);
  return found;
}

class check : public testing::TestWithParam<misuse> {
 protected:
  scratch dir;
  const std::string conf = dir.file("hostname = h1\n");

  ending host(const std::string& misuse, const std::string& plugin, const texts& environment = {}) const {
    texts argv = split(built("emulator"), ' ');
    argv.insert(argv.end(), {built("wrong_host"), built("plugin"), conf, misuse});
    process_settings s;
    s.environment = environment;
    s.environment.emplace_back("ASAN_OPTIONS=detect_leaks=0");  // which ends badly in a process that leaves threads
    if (!plugin.empty()) s.environment.push_back("DAC_CHECK_PLUGIN=" + plugin);
    return process(argv, s).end();
  }
};

class wrong_host : public check {};

}  // namespace

TEST_P(wrong_host, is_reported_and_continues) {
  const ending e = host(GetParam().name, built("tame_plugin"));
  EXPECT_EQ(e.status, GetParam().throws ? -SIGABRT : 0) << e.err;
  const std::vector<report> found = reports(e.err);
  EXPECT_EQ(kinds(found), GetParam().kinds) << e.err;
  ASSERT_FALSE(found.empty());
  EXPECT_EQ(found[0].entry, GetParam().entry);
  const bool has_place = found[0].entry != "unload";
  EXPECT_EQ(found[0].place.find("wrong_host") != std::string::npos, has_place) << found[0].place;
}

TEST_P(wrong_host, aborts_at_its_first_report_with_the_real_plugin) {
  const ending e = host(GetParam().name, "", {"DAC_CHECK_ABORT=1"});
  EXPECT_EQ(e.status, -SIGABRT) << e.err;
  EXPECT_EQ(kinds(reports(e.err)), texts{GetParam().kinds[0]}) << e.err;
}

INSTANTIATE_TEST_SUITE_P(misuse, wrong_host, testing::ValuesIn(misuses),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(check, reports_nothing_for_a_correct_host) {
  for (const std::string& plugin : {std::string(), built("tame_plugin")}) {
    const ending e = host("nothing", plugin, {"DAC_CHECK_ABORT=1"});
    EXPECT_EQ(e.status, 0) << plugin << e.err;
    EXPECT_EQ(e.err, "") << plugin;
  }
}

TEST_F(check, reports_go_to_the_log_file) {
  const std::string log = dir.file("before\n", "log");
  const ending e = host("unknown_handle", "", {"DAC_CHECK_LOG=" + log});
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  EXPECT_TRUE(read_file(log).starts_with("before\ndac-check: unknown-handle: ")) << read_file(log);
}

TEST_F(check, reports_go_to_standard_error_when_the_log_file_cannot_be_opened) {
  const ending e = host("unknown_handle", "", {"DAC_CHECK_LOG=" + dir.path("none/log")});
  EXPECT_EQ(kinds(reports(e.err)), texts{"unknown-handle"}) << e.err;
}

TEST_F(check, a_report_aborts_only_if_the_variable_is_1) {
  EXPECT_EQ(host("unknown_handle", "", {"DAC_CHECK_ABORT=0"}).status, 0);
  EXPECT_EQ(host("unknown_handle", "", {"DAC_CHECK_ABORT="}).status, 0);
}

TEST_F(check, a_plugin_that_cannot_be_loaded_is_reported_and_ends_the_process) {
  const std::string path = dir.path("none.so"), text = dir.file("text", "text.so");
  const struct {
    std::string plugin, reason;
  } rows[] = {
      {path, path}, {text, text}, {built("plugin"), "the plug-in is this library"}, {"libm.so.6", "dac_create"}};
  for (const auto& r : rows) {
    const ending e = host("nothing", r.plugin);
    EXPECT_EQ(e.status, 127) << r.plugin;
    EXPECT_TRUE(e.err.starts_with("dac-check: ")) << e.err;
    EXPECT_NE(e.err.find(r.reason), std::string::npos) << e.err;
    EXPECT_TRUE(e.err.ends_with("; set DAC_CHECK_PLUGIN to the plug-in\n")) << e.err;
  }
}
