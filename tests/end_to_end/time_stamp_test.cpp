// The times that dachost prints: UTC, with three digits of milliseconds.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/dachost_fixture.h"

namespace {

class time_stamp : public dachost_fixture {
 protected:
  /// A run under a wall clock that does not advance.
  ending run_at(const std::string& time, texts args, const std::string& zone = "UTC0") const {
    args.insert(args.begin(), "--once");
    args.push_back(conf("publish a\nfail b"));
    return run(args, preloaded(built("wall_clock"), {"WALL_CLOCK=" + dir.file('=' + time, "clock"), "TZ=" + zone}))
        .end();
  }
};

}  // namespace

TEST_F(time_stamp, is_in_UTC_in_every_time_zone) {
  for (const char* zone : {"UTC0", "XXX-14", "XXX12", "XXX-5:30YYY,M1.1.0,M12.1.0"}) {
    SCOPED_TRACE(zone);
    const ending e = run_at("1700000000.123", {}, zone);
    EXPECT_EQ(e.status, 0) << e.err;
    ASSERT_EQ(lines(e.out).size(), 4U) << e.out;
    for (const std::string& line : lines(e.out)) EXPECT_TRUE(line.starts_with("2023-11-14T22:13:20.123Z\t")) << line;
  }
}

TEST_F(time_stamp, has_three_digits_of_milliseconds) {
  const struct {
    const char* time;
    const char* printed;
  } rows[] = {{"1700000000.000", "2023-11-14T22:13:20.000Z"}, {"1700000000.007", "2023-11-14T22:13:20.007Z"},
              {"1700000000.099", "2023-11-14T22:13:20.099Z"}, {"1700000000.999", "2023-11-14T22:13:20.999Z"},
              {"1709164799.050", "2024-02-28T23:59:59.050Z"}, {"0000000001.001", "1970-01-01T00:00:01.001Z"}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.time);
    for (const std::string& line : lines(run_at(r.time, {}).out))
      EXPECT_EQ(line.substr(0, line.find('\t')), r.printed) << line;
    const ending json = run_at(r.time, {"--json"});
    for (const std::string& line : lines(json.out)) EXPECT_EQ(nlohmann::json::parse(line)["time"], r.printed) << line;
    EXPECT_EQ(json.err.find(r.printed), std::string::npos) << json.err;
  }
}

TEST_F(time_stamp, is_the_same_in_DAC_TIME_and_in_a_dry_run) {
  run_at("1700000000.007", {"--exec", program("echo $DAC_TIME >did")}, "XXX-14");
  EXPECT_EQ(did(), "2023-11-14T22:13:20.007Z\n");
  const texts shown = lines_of(run_at("1700000000.007", {"--dry-run", "--exec", "true"}, "XXX-14").out, "exec");
  ASSERT_EQ(shown.size(), 1U);
  EXPECT_TRUE(shown[0].find("\tDAC_TIME=2023-11-14T22:13:20.007Z\t") != std::string::npos) << shown[0];
}
