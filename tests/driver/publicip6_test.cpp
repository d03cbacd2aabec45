// Which addresses are public, on both sides of every boundary, and the walk over the interfaces.
#include "driver/publicip6.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/blocks.h"
#include "tests/support/fake_interfaces.h"
#include "tests/support/threads.h"

namespace {

using bytes = std::array<unsigned char, 16>;

/// A fake interface list, and the text that getPublicIp6 appends for it.
class publicip6 : public testing::Test {
 protected:
  publicip6() { fake_interfaces::reset(); }
  ~publicip6() override { fake_interfaces::reset(); }

  /// What is appended to `out` for these addresses; fails unless the result is 0 and the list was freed.
  static std::string found(const std::vector<std::string>& addresses, const char* out = "") {
    fake_interfaces::reset();
    fake_interfaces::set(addresses);
    ym::string_<> text;
    fill(text, out);
    EXPECT_EQ(getPublicIp6(text), 0);
    EXPECT_EQ(fake_interfaces::outstanding(), 0);
    return {text.c_str(), text.size()};
  }

  /// Character by character: up to 7 take a block of 16.
  static void fill(ym::string_<>& text, const char* characters) {
    for (; *characters; ++characters) text.push_back(*characters);
  }
};

constexpr char none[] = "";

const struct row {
  const char* label;
  const char* address;
  const char* text;
} rows[] = {
    {"unspecified", "::", "::"},
    {"loopback", "::1", none},
    {"loopback in dotted form", "::0.0.0.1", none},
    {"first of IPv4-compatible", "::2", none},
    {"IPv4-compatible", "::192.0.2.1", none},
    {"IPv4-compatible, second to last byte alone", "::0.0.1.0", none},
    {"IPv4-compatible, third to last byte alone", "::0.1.0.0", none},
    {"IPv4-compatible, fourth to last byte alone", "::1.0.0.0", none},
    {"IPv4-compatible, top bit set", "::128.0.0.0", none},
    {"last of IPv4-compatible", "::255.255.255.255", none},
    {"after IPv4-compatible", "::1:0:0", "::1:0:0"},
    {"last word 1, but not loopback", "::1:0:1", "::1:0:1"},
    {"before IPv4-mapped", "::fffe:ffff:ffff", "::fffe:ffff:ffff"},
    {"first of IPv4-mapped", "::ffff:0:0", none},
    {"IPv4-mapped loopback", "::ffff:0:1", none},
    {"IPv4-mapped", "::ffff:192.0.2.1", none},
    {"last of IPv4-mapped", "::ffff:255.255.255.255", none},
    {"after IPv4-mapped", "::1:0:0:0", "::1:0:0:0"},
    {"IPv4-mapped except for the ninth byte", "::100:ffff:c000:201", "::100:ffff:c000:201"},
    {"IPv4-mapped except for the tenth byte", "::1:ffff:c000:201", "::1:ffff:c000:201"},
    {"IPv4-mapped except for the first byte", "100::ffff:c000:201", "100::ffff:c000:201"},
    {"IPv4-mapped except for the eleventh byte", "::ff:c000:201", "::ff:c000:201"},
    {"IPv4-mapped except for the twelfth byte", "::ff00:c000:201", "::ff00:c000:201"},
    {"IPv4-translated", "::ffff:0:192.0.2.1", "::ffff:0:c000:201"},
    {"NAT64", "64:ff9b::192.0.2.1", "64:ff9b::c000:201"},
    {"loopback except for the first byte", "100::1", "100::1"},
    {"global", "2001:db8::10", "2001:db8::10"},
    {"global without zeros", "2001:db8:1:2:3:4:5:6", "2001:db8:1:2:3:4:5:6"},
    {"global in capitals", "2001:DB8::ABCD", "2001:db8::abcd"},
    {"longest text", "2001:1db8:1111:2222:3333:4444:5555:6666", "2001:1db8:1111:2222:3333:4444:5555:6666"},
    {"6to4", "2002:c000:201::", "2002:c000:201::"},
    {"long before unique-local", "fb00::", "fb00::"},
    {"before unique-local", "fbff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "fbff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
    {"first of unique-local", "fc00::", "fc00::"},
    {"unique-local", "fd00::1", "fd00::1"},
    {"last of unique-local", "fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
    {"after unique-local", "fe00::", "fe00::"},
    {"before link-local", "fe7f::", "fe7f::"},
    {"last before link-local", "fe7f:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "fe7f:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
    {"first of link-local", "fe80::", none},
    {"link-local", "fe80::1", none},
    {"link-local, second byte c", "fe8c::1", none},
    {"last of link-local", "febf:ffff:ffff:ffff:ffff:ffff:ffff:ffff", none},
    {"first of site-local", "fec0::", none},
    {"site-local", "fec0::1", none},
    {"last of site-local", "feff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", none},
    {"first of multicast", "ff00::", none},
    {"multicast", "ff02::1", none},
    {"last of multicast", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", none},
    {"second byte of link-local alone", "80::1", "80::1"},
    {"second byte of multicast", "aff::1", "aff::1"},
    {"first byte of link-local as second", "1fe:8000::1", "1fe:8000::1"},
};

bytes parsed(const char* address) {
  bytes a{};
  EXPECT_EQ(inet_pton(AF_INET6, address, a.data()), 1) << address;
  return a;
}

}  // namespace

// ---------------------------------------------------------------- which addresses are public

TEST_F(publicip6, each_address_is_public_or_not) {
  for (const row& r : rows) EXPECT_EQ(is_public_ip6(parsed(r.address).data()), *r.text != 0) << r.label;
}

TEST_F(publicip6, each_public_address_is_appended_as_text_and_no_other_one) {
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    EXPECT_EQ(found({r.address}), r.text);
    EXPECT_EQ(found({r.address}, "x"), *r.text != 0 ? std::string("x,") + r.text : "x");
  }
}

TEST_F(publicip6, passes_room_for_48_characters_to_inet_ntop) {
  EXPECT_EQ(found({"2001:db8::10"}), "2001:db8::10");
  EXPECT_EQ(fake_interfaces::text_room(), 48U);
}

TEST_F(publicip6, loopback_with_a_bit_in_any_of_its_first_twelve_bytes_is_public) {
  for (size_t byte = 0; byte < 15; ++byte) {
    for (const unsigned char bit : {uint8_t{0x01}, uint8_t{0x80}}) {
      bytes a{};
      a[15] = 1;
      a[byte] = bit;
      EXPECT_EQ(is_public_ip6(a.data()), byte < 12) << byte;
    }
  }
}

TEST_F(publicip6, ipv4_mapped_with_a_bit_in_any_of_its_first_ten_bytes_is_public) {
  for (size_t byte = 0; byte < 16; ++byte) {
    bytes a{};
    a[10] = a[11] = 0xff;
    a[byte] |= 0x01;
    EXPECT_EQ(is_public_ip6(a.data()), byte < 10) << byte;
  }
}

TEST_F(publicip6, every_first_byte_except_local_and_multicast_is_public) {
  for (int first = 0; first <= 0xff; ++first) {
    for (int second = 0; second <= 0xff; ++second) {
      bytes a{static_cast<unsigned char>(first), static_cast<unsigned char>(second), 0x12};
      ASSERT_EQ(is_public_ip6(a.data()), first != 0xff && !(first == 0xfe && second >= 0x80)) << first << " " << second;
    }
  }
}

TEST_F(publicip6, every_single_last_byte_above_1_is_ipv4_compatible) {
  for (int last = 0; last <= 0xff; ++last) {
    bytes a{};
    a[15] = static_cast<unsigned char>(last);
    EXPECT_EQ(is_public_ip6(a.data()), last == 0) << last;
  }
}

// ---------------------------------------------------------------- the walk

TEST_F(publicip6, without_interfaces_nothing_is_appended_and_no_list_is_freed) {
  EXPECT_EQ(found({}), "");
  EXPECT_EQ(found({}, "text"), "text");
  EXPECT_EQ(fake_interfaces::lists(), 1);
}

TEST_F(publicip6, addresses_are_in_the_order_of_the_interfaces_separated_by_commas) {
  EXPECT_EQ(found({"2001:db8::10", "2001:db8:1::20"}), "2001:db8::10,2001:db8:1::20");
  EXPECT_EQ(found({"fd00::2", "::", "2001:db8::1", "fc00::1"}), "fd00::2,::,2001:db8::1,fc00::1");
}

TEST_F(publicip6, an_address_that_is_not_public_adds_no_comma) {
  EXPECT_EQ(found({"::1", "fe80::1"}), "");
  EXPECT_EQ(found({"fec0::1", "fd00::1"}), "fd00::1");
  EXPECT_EQ(found({"::1", "2001:db8::1", "fe80::1", "ff02::1", "2001:db8::2", "::ffff:192.0.2.1"}),
            "2001:db8::1,2001:db8::2");
  EXPECT_EQ(found({"::ffff:192.0.2.1", "::192.0.2.1", "::1", "::"}), "::");
}

TEST_F(publicip6, the_same_address_twice_is_written_twice) {
  EXPECT_EQ(found({"2001:db8::1", "2001:db8::1"}), "2001:db8::1,2001:db8::1");
}

TEST_F(publicip6, entries_of_another_family_and_without_address_are_skipped) {
  EXPECT_EQ(found({"ipv4", "none"}), "");
  EXPECT_EQ(found({"none", "ipv4", "2001:db8::1", "none", "2001:db8::2", "ipv4"}), "2001:db8::1,2001:db8::2");
}

TEST_F(publicip6, existing_text_is_preserved_and_followed_by_a_comma) {
  EXPECT_EQ(found({"2001:db8::1"}, "null"), "null,2001:db8::1");
  EXPECT_EQ(found({"2001:db8::1", "::"}, ","), ",,2001:db8::1,::");
}

TEST_F(publicip6, a_second_call_appends_to_the_first) {
  fake_interfaces::set({"2001:db8::1"});
  ym::string_<> text;
  EXPECT_EQ(getPublicIp6(text), 0);
  EXPECT_EQ(getPublicIp6(text), 0);
  EXPECT_STREQ(text.c_str(), "2001:db8::1,2001:db8::1");
  EXPECT_EQ(fake_interfaces::lists(), 2);
}

TEST_F(publicip6, one_list_is_requested_and_freed_once) {
  for (const std::vector<std::string>& addresses :
       {std::vector<std::string>{"none"}, {"::1"}, {"2001:db8::1", "2001:db8::2"}, {"ipv4", "fe80::1"}}) {
    found(addresses);
    EXPECT_EQ(fake_interfaces::lists(), 1);
    EXPECT_EQ(fake_interfaces::frees(), 1);
  }
}

TEST_F(publicip6, many_addresses_are_all_reported) {
  std::vector<std::string> addresses;
  std::string expected;
  addresses.reserve(500);
  for (int i = 1; i <= 500; ++i) {
    addresses.push_back("2001:db8::1:" + std::to_string(i));
    expected += (i == 1 ? "" : ",") + addresses.back();
  }
  EXPECT_EQ(found(addresses), expected);
}

// ---------------------------------------------------------------- failures

TEST_F(publicip6, a_failed_list_returns_its_result_and_appends_nothing) {
  for (const int result : {-1, -7}) {
    for (const char* before : {"", "text"}) {
      fake_interfaces::reset();
      fake_interfaces::set({"2001:db8::1"});
      fake_interfaces::fail(result);
      ym::string_<> text;
      text = before;
      EXPECT_EQ(getPublicIp6(text), result);
      EXPECT_STREQ(text.c_str(), before);
      EXPECT_EQ(fake_interfaces::lists(), 1);
      EXPECT_EQ(fake_interfaces::frees(), 0);
    }
  }
}

TEST_F(publicip6, an_address_without_text_is_skipped) {
  fake_interfaces::set({"2001:db8::1", "2001:db8::2", "2001:db8::3"});
  for (const auto& [refused, text] :
       {std::pair{"2001:db8::1", "2001:db8::2,2001:db8::3"}, std::pair{"2001:db8::2", "2001:db8::1,2001:db8::3"},
        std::pair{"2001:db8::3", "2001:db8::1,2001:db8::2"}}) {
    fake_interfaces::refuse_text_of(refused);
    ym::string_<> out;
    EXPECT_EQ(getPublicIp6(out), 0);
    EXPECT_STREQ(out.c_str(), text);
  }
  EXPECT_EQ(fake_interfaces::outstanding(), 0);
}

TEST_F(publicip6, the_address_buffer_is_zeroed_for_every_entry) {
  fake_interfaces::set({"2001:db8::1", "2001:db8::2", "2001:db8::1", "2001:db8::3"});
  for (const size_t n : {size_t{1}, size_t{12}, size_t{47}}) {
    const std::string unterminated(n, 'x');
    fake_interfaces::set_text_of("2001:db8::2", unterminated);
    ym::string_<> out;
    EXPECT_EQ(getPublicIp6(out), 0);
    EXPECT_EQ(out.c_str(), "2001:db8::1," + unterminated + ",2001:db8::1,2001:db8::3");
  }
}

TEST_F(publicip6, an_empty_text_appends_only_the_comma) {
  fake_interfaces::set({"2001:db8::1", "2001:db8::2"});
  fake_interfaces::set_text_of("2001:db8::2", "");
  ym::string_<> out;
  EXPECT_EQ(getPublicIp6(out), 0);
  EXPECT_STREQ(out.c_str(), "2001:db8::1,");
}

// Appending no characters to an empty string would release its block.
TEST_F(publicip6, an_empty_text_does_not_release_the_block_of_an_empty_string) {
  fake_interfaces::set({"2001:db8::1"});
  fake_interfaces::set_text_of("2001:db8::1", "");
  ym::string_<> out(100);
  const size_t before = blocks::live();
  EXPECT_EQ(getPublicIp6(out), 0);
  EXPECT_EQ(out.size(), 0U);
  EXPECT_EQ(blocks::live(), before);
}

// The comma and the address are separate appends. Each leaves the text unchanged if it gets no storage.
TEST_F(publicip6, an_address_without_storage_leaves_its_comma_and_later_addresses_follow) {
  const blocks::exhausted no64(64);
  EXPECT_EQ(found({"2001:db8::10", "::", "2001:db8::20"}), "::,");
  EXPECT_EQ(found({"2001:db8::10", "::", "2001:db8::20"}, "x"), "x,,::,");
  EXPECT_EQ(found({"2001:db8::10", "2001:db8::20"}, "x"), "x,,");
}

TEST_F(publicip6, a_comma_without_storage_is_dropped) {
  const blocks::exhausted no32(32);
  EXPECT_EQ(found({"::"}, "1234567"), "1234567");
}

TEST_F(publicip6, an_address_is_appended_even_if_its_comma_gets_no_storage) {
  fake_interfaces::set({"2001:db8::10"});
  ym::string_<> text, reserve;
  fill(text, "1234567");
  fill(reserve, "makes the first chunk of blocks of 64 bytes");
  const blocks::exhausted no32(32);
  EXPECT_EQ(getPublicIp6(text), 0);
  EXPECT_STREQ(text.c_str(), "12345672001:db8::10");
}

TEST_F(publicip6, the_comma_and_the_address_grow_the_text_one_after_the_other) {
  const struct {
    const char* label;
    const char* before;
    const char* address;
    size_t block;
  } appends[] = {
      {"alone: 3 characters, request of 15", "", "1::", 16},
      {"alone: 12 characters, request of 33", "", "2001:db8::10", 64},
      {"the comma fits, the address makes 14: request of 37", "x", "2001:db8::10", 64},
      {"the comma makes 8, request of 25: the address fits too", "1234567", "2001:db8::10", 32},
      {"the comma makes 8: an address of 16 makes 24, request of 57", "1234567", "2001:db8::1:2:34", 64},
      {"the comma makes 8: an address of 15 just fits", "1234567", "2001:db8::1:2:3", 32},
  };
  for (const auto& r : appends) {
    SCOPED_TRACE(r.label);
    fake_interfaces::set({r.address});
    ym::string_<> text;
    fill(text, r.before);
    EXPECT_EQ(getPublicIp6(text), 0);
    EXPECT_EQ(ym::allocator::usable_(text.c_str() - 8), r.block);
  }
}

TEST_F(publicip6, without_storage_nothing_is_appended_and_the_list_is_freed) {
  const blocks::exhausted no16(16), no64(64);
  EXPECT_EQ(found({"::", "2001:db8::10"}), "");
}

TEST_F(publicip6, threads_can_fill_separate_strings_at_the_same_time) {
  fake_interfaces::set({"2001:db8::1", "::1", "2001:db8::2"});
  std::vector<std::string> texts(8);
  in_threads(texts.size(), [&](size_t me) {
    ym::string_<> out;
    if (getPublicIp6(out) == 0) texts[me] = out.c_str();
  });
  EXPECT_EQ(texts, std::vector<std::string>(8, "2001:db8::1,2001:db8::2"));
  EXPECT_EQ(fake_interfaces::outstanding(), 0);
}
