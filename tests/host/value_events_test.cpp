// Values and the addresses that are printed with them, step by step in virtual time.
#include "host/commands/value_events.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <nlohmann/json.hpp>
#include <system_error>

#include "tests/host/scripted_loop.h"
#include "tests/support/texts.h"

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

class scripted_addresses : public address_list {
 public:
  std::vector<kernel_address> list;
  bool fails = false;
  int readings = 0;

  std::vector<kernel_address> all() override {
    ++readings;
    if (fails) throw std::system_error(EAGAIN, std::generic_category(), "netlink");
    return list;
  }
  void add(const std::string& text, unsigned flags = IFA_F_PERMANENT, unsigned char scope = RT_SCOPE_UNIVERSE) {
    in6_addr a{};
    inet_pton(AF_INET6, text.c_str(), &a);
    list.push_back({text, a, "eth0", scope, flags});
  }
};

class value_events_of_a_run : public testing::Test {
 protected:
  scripted_loop loop;
  scripted_addresses addresses;
  address_filter filter;
  output out{loop, 1};
  std::unique_ptr<printer> lines_;
  std::unique_ptr<value_events> values;

  void make(bool is_json = true, const std::set<std::string>& events = event_names) {
    lines_ = is_json ? make_json_printer(out, events) : make_text_printer(out, events);
    values =
        std::make_unique<value_events>(loop, addresses, filter, is_json, *lines_, std::vector<std::string>{"a", "b"});
  }
  void publish(const std::string& text, size_t i = 0) {
    values->print({loop.wall, i, value{"tag", 6, text}}, {"tag", 6, text});
    loop.wall += 1ms;
  }
  void pass(std::chrono::nanoseconds n) {
    loop.wall += std::chrono::duration_cast<wall_clock::duration>(n);
    loop.pass(n);
  }
  /// What has been printed since the last call.
  texts printed() { return lines(std::exchange(loop.sinks[1].text, "")); }
  json object() {
    const texts all = printed();
    EXPECT_EQ(all.size(), 1U);
    return all.empty() ? json() : json::parse(all[0]);
  }
};

}  // namespace

TEST_F(value_events_of_a_run, without_a_filter_pick_what_is_published) {
  addresses.add("fd00::1");
  make();
  publish("2001:db8::1,2001:db8::2");
  const json o = object();
  EXPECT_EQ(o["picked"], (json{"2001:db8::1", "2001:db8::2"}));
  EXPECT_EQ(o["addresses"].size(), 1U);
  EXPECT_EQ(loop.timers(), 0U);
  publish("null");
  EXPECT_EQ(object()["picked"], json::array());
  publish(std::string(996, '1') + ",22");
  EXPECT_EQ(object()["picked"], json{std::string(996, '1')}) << "the last address may be cut";
}

TEST_F(value_events_of_a_run, with_a_filter_pick_from_the_kernels_list) {
  filter.which = address_filter::kind::stable;
  make();
  publish("2001:db8::1");
  EXPECT_EQ(object()["picked"], json::array());
  addresses.add("2001:db8::5");
  addresses.add("2001:db8::6", IFA_F_TEMPORARY);
  publish("2001:db8::1");
  const json o = object();
  EXPECT_EQ(o["value"], "2001:db8::1");
  EXPECT_EQ(o["picked"], json{"2001:db8::5"});
}

TEST_F(value_events_of_a_run, name_flags_and_scopes_as_ip_does) {
  addresses.add("::1", 0xfff & ~unsigned{IFA_F_OPTIMISTIC}, RT_SCOPE_HOST);
  addresses.add("::2", 0, RT_SCOPE_LINK);
  addresses.add("::3", IFA_F_OPTIMISTIC, RT_SCOPE_SITE);
  addresses.add("::4", 0, RT_SCOPE_UNIVERSE);
  addresses.add("::5", 0, 77);
  make();
  publish("null");
  const json all = object()["addresses"];
  EXPECT_EQ(all[0], (json{{"address", "::1"},
                          {"interface", "eth0"},
                          {"scope", "host"},
                          {"flags",
                           {"temporary", "nodad", "dadfailed", "home", "deprecated", "tentative", "permanent",
                            "mngtmpaddr", "noprefixroute", "autojoin", "stable-privacy"}}}));
  EXPECT_EQ(all[2]["flags"], json{"optimistic"});
  const char* scopes[] = {"host", "link", "site", "global", "77"};
  for (size_t n = 0; n < 5; ++n) EXPECT_EQ(all[n]["scope"], scopes[n]);
}

TEST_F(value_events_of_a_run, are_changed_by_value_tag_or_picked_addresses) {
  filter.which = address_filter::kind::global;
  make();
  const auto is_change = [this](const std::string& text, size_t i = 0) {
    publish(text, i);
    return object()["change"].get<bool>();
  };
  EXPECT_TRUE(is_change("a"));
  EXPECT_FALSE(is_change("a"));
  EXPECT_TRUE(is_change("a", 1)) << "the first of its instance";
  EXPECT_TRUE(is_change("b"));
  addresses.add("2001:db8::1");
  EXPECT_TRUE(is_change("b"));
  EXPECT_FALSE(is_change("b"));
  addresses.fails = true;
  EXPECT_FALSE(is_change("b"));
  addresses.fails = false;
  EXPECT_FALSE(is_change("b"));
  values->print({loop.wall, 0, value{"other", 6, "b"}}, {"other", 6, "b"});
  EXPECT_TRUE(object()["change"]);
}

TEST_F(value_events_of_a_run, print_again_within_ten_seconds_what_the_filter_chooses_otherwise) {
  filter.which = address_filter::kind::stable;
  addresses.add("2001:db8::1");
  make();
  publish("2001:db8::1");
  publish("null", 1);
  printed();
  pass(100s);
  EXPECT_EQ(printed(), texts{}) << "nothing has changed";
  addresses.list[0].flags = IFA_F_DEPRECATED;
  pass(10s);
  const texts all = printed();
  ASSERT_EQ(all.size(), 2U) << "one for each instance";
  const json o = json::parse(all[0]);
  EXPECT_EQ(o["instance"], "a");
  EXPECT_EQ(o["value"], "2001:db8::1");
  EXPECT_EQ(o["change"], true);
  EXPECT_EQ(o["picked"], json::array());
  EXPECT_EQ(o["addresses"][0]["flags"], json{"deprecated"});
  EXPECT_EQ(json::parse(all[1])["instance"], "b");
  values->stop();
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(value_events_of_a_run, are_not_printed_again_after_the_stop) {
  filter.which = address_filter::kind::stable;
  addresses.add("2001:db8::1");
  make();
  publish("2001:db8::1");
  values->stop();
  publish("null");
  EXPECT_EQ(printed().size(), 2U);
  addresses.list[0].flags = IFA_F_DEPRECATED;
  pass(100s);
  EXPECT_EQ(printed(), texts{});
}

TEST_F(value_events_of_a_run, read_the_list_once_for_values_that_are_older_than_it) {
  make();
  loop.wall = wall_clock::time_point(100s);
  for (size_t i = 0; i < 2; ++i) values->print({loop.wall - 1ms, i, value{"tag", 6, "a"}}, {"tag", 6, "a"});
  EXPECT_EQ(addresses.readings, 1);
  publish("b");
  EXPECT_EQ(addresses.readings, 2);
  loop.wall = wall_clock::time_point(10s);
  publish("b");
  EXPECT_EQ(addresses.readings, 3) << "a clock that was set back";
}

TEST_F(value_events_of_a_run, say_when_the_list_cannot_be_read) {
  filter.which = address_filter::kind::global;
  addresses.fails = true;
  make();
  publish("a");
  const json o = object();
  EXPECT_EQ(o["picked"], nullptr);
  EXPECT_EQ(o["addresses"], nullptr);
  addresses.fails = false;
  addresses.add("2001:db8::1");
  pass(10s);
  EXPECT_EQ(object()["picked"], json{"2001:db8::1"});
}

TEST_F(value_events_of_a_run, add_picked_addresses_to_text_only_with_a_filter) {
  make(false);
  publish("a");
  EXPECT_EQ(printed(), texts{"1970-01-01T00:00:00.000Z\ta\tvalue\ttag\ta"});
  EXPECT_EQ(addresses.readings, 0);
  filter.excluded = {"eth1"};
  addresses.add("2001:db8::1");
  addresses.add("2001:db8::2");
  publish("a");
  EXPECT_EQ(printed(), texts{"1970-01-01T00:00:00.001Z\ta\tvalue\ttag\ta\t2001:db8::1,2001:db8::2"});
  addresses.list.clear();
  publish("a");
  EXPECT_EQ(printed(), texts{"1970-01-01T00:00:00.002Z\ta\tvalue\ttag\ta\tnull"});
  addresses.fails = true;
  publish("a");
  EXPECT_EQ(printed(), texts{"1970-01-01T00:00:00.003Z\ta\tvalue\ttag\ta\tunknown"});
}

TEST_F(value_events_of_a_run, read_nothing_when_values_are_not_printed) {
  filter.which = address_filter::kind::global;
  make(true, {"tag"});
  publish("a");
  EXPECT_EQ(addresses.readings, 0);
  EXPECT_EQ(loop.timers(), 0U);
}
