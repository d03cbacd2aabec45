// dac.h as C and as C++ read it.
#include "driver/dac.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <type_traits>

#include "tests/support/c_host.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/plugin.h"

namespace {

std::string bytes_of(const dac_tagvalue& r) { return {reinterpret_cast<const char*>(&r), sizeof r}; }

}  // namespace

TEST(dac_h, defines_the_same_record_in_c_and_cxx) {
  dac_tagvalue c = {};
  c_record_fill(&c);
  dac_tagvalue cxx = {};
  std::memcpy(cxx.name, "name", 4);
  cxx.time = -2;
  cxx.type = 6;
  cxx.len = 0x1234;
  std::memcpy(cxx.value, "value", 5);
  EXPECT_EQ(bytes_of(c), bytes_of(cxx));
}

TEST(dac_h, puts_each_member_where_the_host_reads_it) {
  dac_tagvalue r = {};
  c_record_fill(&r);
  const std::string bytes = bytes_of(r);
  const int64_t time = -2;
  const uint16_t len = 0x1234;
  std::string expected(1104, '\0');
  expected.replace(0, 4, "name");
  std::memcpy(expected.data() + 80, &time, 8);
  expected[96] = 6;
  std::memcpy(expected.data() + 102, &len, 2);
  expected.replace(104, 5, "value");
  EXPECT_EQ(bytes, expected);
}

TEST(dac_h, defines_a_trivially_copyable_record) {
  EXPECT_TRUE(std::is_trivial_v<dac_tagvalue>);
  EXPECT_TRUE(std::is_standard_layout_v<dac_tagvalue>);
  EXPECT_EQ(alignof(dac_tagvalue), 8U);
}

TEST(dac_h, defines_the_numbers_that_the_library_returns) {
  const library lib;
  EXPECT_EQ(lib.getversion(), DAC_VERSION);
  EXPECT_STREQ(*lib.verson, DAC_VERSION_TEXT);
  EXPECT_EQ(sizeof(dac_tagvalue::name), size_t{DAC_NAME_SIZE});
  EXPECT_EQ(sizeof(dac_tagvalue::value), size_t{DAC_VALUE_SIZE});
}

TEST(dac_h, suffices_for_a_host_in_c) {
  const scratch dir;
  c_host seen;
  fake_interfaces::set({"2001:db8::10"});
  ASSERT_EQ(c_host_run(library::path(), dir.file("hostname=h1\n").c_str(), &seen), 0);
  fake_interfaces::reset();
  EXPECT_EQ(seen.version, 500);
  EXPECT_STREQ(seen.version_text, "version 5.0.0.2");
  EXPECT_EQ(seen.handle, 0);
  EXPECT_EQ(seen.tag_calls, 2);
  EXPECT_STREQ(seen.tag, "h1");
  EXPECT_STREQ(seen.tag_text, "ipv6 address");
  EXPECT_EQ(seen.write, 4);
  EXPECT_STREQ(seen.info, R"({"status":"running","host":"h1"})");
  EXPECT_STREQ(seen.value, "2001:db8::10");
  EXPECT_EQ(seen.stop, 0);
  EXPECT_EQ(seen.isrun, 0);
  EXPECT_EQ(seen.logs, 2);
  EXPECT_FALSE(library::is_loaded());
}
