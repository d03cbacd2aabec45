// Lines that report errors, and their levels in the journal.
#include "host/report.h"

#include <gtest/gtest.h>

#include <utility>

#include "tests/host/scripted_loop.h"

namespace {

class reports : public testing::Test {
 protected:
  scripted_loop loop;
  output err{loop, 2};
  output journal{loop, 3, true};

  std::string written(int fd) { return std::exchange(loop.sinks[fd].text, ""); }
};

}  // namespace

TEST_F(reports, are_printable_lines_with_the_name_of_the_program) {
  report(err, "gw.conf: a\nb");
  EXPECT_EQ(written(2), "dachost: gw.conf: a\\x0ab\n");
}

TEST_F(reports, have_levels_in_the_journal_only) {
  report(journal, "one");
  report(journal, "two", severity::warning);
  report(journal, "three", severity::info);
  EXPECT_EQ(written(3), "<3>dachost: one\n<4>dachost: two\n<6>dachost: three\n");
  report(err, "two", severity::warning);
  EXPECT_EQ(written(2), "dachost: two\n");
}

TEST_F(reports, of_an_outage_are_a_warning_at_its_begin_and_an_information_at_its_end) {
  outage o(journal);
  o.end("none yet");
  EXPECT_EQ(written(3), "");
  for (int n = 0; n < 2; ++n) {
    o.begin("broken");
    o.begin("still broken");
    EXPECT_EQ(written(3), "<4>dachost: broken\n");
    o.end("works again");
    o.end("works");
    EXPECT_EQ(written(3), "<6>dachost: works again\n");
  }
}
