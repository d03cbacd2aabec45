// examples/nsupdate-aaaa: the commands that it gives to nsupdate. Then end to end: from an address on the kernel's
// interface through the plug-in, dachost and a name server to the answer of that server.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "tests/support/built.h"
#include "tests/support/name_server.h"
#include "tests/support/network.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

namespace {

constexpr char script[] = SOURCE_DIR "/examples/nsupdate-aaaa";
constexpr char tsig_key[] = "key \"gateway\" {\n\talgorithm hmac-sha256;\n\tsecret \"c2VjcmV0\";\n};\n";

/// The script alone, with an nsupdate that records its input.
class nsupdate_aaaa : public testing::Test {
 protected:
  scratch dir;

  nsupdate_aaaa() {
    const std::string fake = dir.file("#!/bin/sh\necho \"$@\" >'" + asked_path() + "'\ncat >>'" + asked_path() +
                                          "'\nprintf '%s' \"${ANSWER-}\" >&2\nexit ${STATUS:-0}\n",
                                      "nsupdate");
    if (chmod(fake.c_str(), 0700) != 0) throw std::runtime_error(fake);
    dir.file(tsig_key, "key");
  }

  /// With the required settings, followed by these: the last one of a name counts.
  ending run(const texts& settings) const {
    texts argv = {"env",
                  "PATH=" + dir.path("") + ":/usr/bin:/bin",
                  "NSUPDATE_SERVER=192.0.2.53",
                  "NSUPDATE_KEY=" + dir.path("key"),
                  "DAC_TAG=gw.example",
                  "DAC_VALUE=2001:db8::1"};
    argv.insert(argv.end(), settings.begin(), settings.end());
    argv.emplace_back(script);
    return process(argv).end();
  }
  std::string asked() const { return read_file(asked_path()); }

 private:
  std::string asked_path() const { return dir.path("asked"); }
};

/// dachost with the plug-in, the kernel's interfaces, the script, and a clock that the test advances.
class host {
 public:
  host(const name_server& dns, const std::string& key) : _dns(dns) {
    poll();
    _program = std::make_unique<process>(command(key));
  }

  process* operator->() { return _program.get(); }
  /// Makes the worker poll now.
  void poll() {
    _dir.file(std::to_string(_shift += 10), "next");
    std::filesystem::rename(_dir.path("next"), _dir.path("shift"));
  }
  /// Waits for the value.
  void publishes(const std::string& value) { _program->await_out("\tvalue\tgw.example.test\t" + value + '\t'); }
  /// Waits until the name has these addresses.
  bool gets(const texts& addresses) const { return _dns.gets("gw.example.test", addresses); }
  ending end() {
    _program->signal(SIGTERM);
    return _program->end();
  }

 private:
  const name_server& _dns;
  scratch _dir;
  int _shift = 0;
  std::unique_ptr<process> _program;

  texts command(const std::string& key) const {
    texts argv = {"env",
                  "NSUPDATE_SERVER=127.0.0.1",
                  std::string("NSUPDATE_PORT=") + name_server::port,
                  std::string("NSUPDATE_ZONE=") + name_server::zone,
                  "NSUPDATE_KEY=" + key,
                  "CLOCK_SHIFT=" + _dir.path("shift"),
                  "LD_PRELOAD=" + built("shifted_clock"),
                  "ASAN_OPTIONS=verify_asan_link_order=0"};
    std::istringstream emulator(built("emulator"));
    for (std::string word; emulator >> word;) argv.push_back(word);
    const std::string conf = _dir.file("hostname = gw.example.test");
    argv.insert(argv.end(), {built("dachost"), "run", "-p", built("plugin"), "--pick", "global", "--hold", "0",
                             "--exec", script, conf});
    return argv;
  }
};

bool add(const std::string& address) { return ip("addr add " + address + " dev lo nodad"); }
bool del(const std::string& address) { return ip("addr del " + address + " dev lo"); }

}  // namespace

// ---------------------------------------------------------------- the script

TEST_F(nsupdate_aaaa, sends_one_update_that_deletes_and_adds) {
  const struct row {
    const char* label;
    texts settings;
    std::string asked;
  } rows[] = {{"one address",
               {},
               "-v -t 20\nkey hmac-sha256:gateway c2VjcmV0\nserver 192.0.2.53 53\nprereq nxrrset gw.example CNAME\n"
               "update delete gw.example AAAA\nupdate add gw.example 60 AAAA 2001:db8::1\nsend\n"},
              {"none",
               {"DAC_VALUE=null"},
               "-v -t 20\nkey hmac-sha256:gateway c2VjcmV0\nserver 192.0.2.53 53\nprereq nxrrset gw.example CNAME\n"
               "update delete gw.example AAAA\nsend\n"},
              {"every setting",
               {"DAC_VALUE=2001:DB8::1,::192.0.2.1,64:ff9b::1", "NSUPDATE_NAME=other.example", "NSUPDATE_ZONE=example",
                "NSUPDATE_PORT=5353", "NSUPDATE_TTL=300", "NSUPDATE_TIMEOUT=7", "NSUPDATE_SERVER=ns_1.example",
                "NSUPDATE_NULL=keep"},
               "-v -t 7\nkey hmac-sha256:gateway c2VjcmV0\nserver ns_1.example 5353\nzone example\n"
               "prereq nxrrset other.example CNAME\nupdate delete other.example AAAA\n"
               "update add other.example 300 AAAA 2001:DB8::1\n"
               "update add other.example 300 AAAA ::192.0.2.1\n"
               "update add other.example 300 AAAA 64:ff9b::1\nsend\n"}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    const ending e = run(r.settings);
    EXPECT_EQ(e.status, 0);
    EXPECT_EQ(e.err, "");
    EXPECT_EQ(asked(), r.asked);
  }
}

TEST_F(nsupdate_aaaa, reports_an_unusable_setting_in_one_line) {
  const std::string host_name = " a name of ASCII letters, digits, dots, hyphens and underscores";
  const std::string addresses = " addresses separated by commas, or null", server = " an address or a host name";
  const std::string port = " a number from 1 to 65535", ttl = " a number of seconds from 0 to 2147483647";
  const std::string timeout = " a number of seconds from 1 to 3600";
  const struct row {
    const char* label;
    const char* setting;
    std::string message;
  } rows[] = {
      {"no name", "DAC_TAG=", "DAC_TAG is not set; expected" + host_name},
      {"a name of two words", "DAC_TAG=gw example", "DAC_TAG: expected" + host_name + ", got 'gw example'"},
      {"a name and more", "DAC_TAG=gw\tAAAA", "DAC_TAG: expected" + host_name + ", got 'gw?AAAA'"},
      {"a name beyond ASCII", "NSUPDATE_NAME=gw\xc3\xa4",
       "NSUPDATE_NAME: expected" + host_name +
           ", got 'gw?"
           "?'"},
      {"no value", "DAC_VALUE=", "DAC_VALUE is not set; expected" + addresses},
      {"a word", "DAC_VALUE=none", "DAC_VALUE: expected" + addresses + ", got 'none'"},
      {"a word after an address", "DAC_VALUE=::5,null", "DAC_VALUE: expected" + addresses + ", got '::5,null'"},
      {"an empty address", "DAC_VALUE=::5,,::6", "DAC_VALUE: expected" + addresses + ", got '::5,,::6'"},
      {"a comma at the end", "DAC_VALUE=::5,", "DAC_VALUE: expected" + addresses + ", got '::5,'"},
      {"a comma at the beginning", "DAC_VALUE=,::5", "DAC_VALUE: expected" + addresses + ", got ',::5'"},
      {"a comma alone", "DAC_VALUE=,", "DAC_VALUE: expected" + addresses + ", got ','"},
      {"a space", "DAC_VALUE=::5, ::6", "DAC_VALUE: expected" + addresses + ", got '::5, ::6'"},
      {"a pattern", "DAC_VALUE=*", "DAC_VALUE: expected" + addresses + ", got '*'"},
      {"no server", "NSUPDATE_SERVER=", "NSUPDATE_SERVER is not set; expected" + server},
      {"a server and more", "NSUPDATE_SERVER=a b", "NSUPDATE_SERVER: expected" + server + ", got 'a b'"},
      {"a port by name", "NSUPDATE_PORT=domain", "NSUPDATE_PORT: expected" + port + ", got 'domain'"},
      {"port 0", "NSUPDATE_PORT=0", "NSUPDATE_PORT: expected" + port + ", got '0'"},
      {"a port of 17 bits", "NSUPDATE_PORT=65536", "NSUPDATE_PORT: expected" + port + ", got '65536'"},
      {"a time with a unit", "NSUPDATE_TTL=1h", "NSUPDATE_TTL: expected" + ttl + ", got '1h'"},
      {"a time of 32 bits", "NSUPDATE_TTL=2147483648", "NSUPDATE_TTL: expected" + ttl + ", got '2147483648'"},
      {"a time of 64 bits", "NSUPDATE_TTL=18446744073709551617",
       "NSUPDATE_TTL: expected" + ttl + ", got '18446744073709551617'"},
      {"a negative time", "NSUPDATE_TIMEOUT=-1", "NSUPDATE_TIMEOUT: expected" + timeout + ", got '-1'"},
      {"zero time", "NSUPDATE_TIMEOUT=00", "NSUPDATE_TIMEOUT: expected" + timeout + ", got '00'"},
      {"a time of an hour", "NSUPDATE_TIMEOUT=3601", "NSUPDATE_TIMEOUT: expected" + timeout + ", got '3601'"},
      {"a backslash", "NSUPDATE_SERVER=a\\nb", "NSUPDATE_SERVER: expected" + server + ", got 'a\\nb'"},
      {"a second line", "DAC_TAG=gw\nsend", "DAC_TAG: expected" + host_name + ", got 'gw?send'"},
      {"a line feed at the end", "DAC_TAG=gw\n", "DAC_TAG: expected" + host_name + ", got 'gw?'"},
      {"two zones", "NSUPDATE_ZONE=a b", "NSUPDATE_ZONE: expected" + host_name + ", got 'a b'"},
      {"no key", "NSUPDATE_KEY=", "NSUPDATE_KEY is not set; expected a file with one TSIG key"},
      {"a missing key file", "NSUPDATE_KEY=/no/key", "NSUPDATE_KEY: /no/key cannot be read"},
      {"no nsupdate", "PATH=/no/programs", "nsupdate is missing; install the package bind9-dnsutils"},
      {"a word for null", "NSUPDATE_NULL=never", "NSUPDATE_NULL: expected delete or keep, got 'never'"},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.label);
    const ending e = run({r.setting});
    EXPECT_EQ(e.status, 1);
    EXPECT_EQ(e.out, "");
    EXPECT_EQ(e.err, "nsupdate-aaaa: " + r.message + '\n');
    EXPECT_EQ(asked(), "");
  }
}

TEST_F(nsupdate_aaaa, accepts_the_least_and_the_largest_numbers) {
  for (const texts& numbers : {texts{"1", "0", "1"}, texts{"65535", "2147483647", "3600"}, texts{"08", "09", "008"}}) {
    const ending e =
        run({"NSUPDATE_PORT=" + numbers[0], "NSUPDATE_TTL=" + numbers[1], "NSUPDATE_TIMEOUT=" + numbers[2]});
    EXPECT_EQ(e.err, "");
    EXPECT_EQ(e.status, 0);
    EXPECT_TRUE(asked().starts_with("-v -t " + numbers[2] + '\n')) << asked();
  }
}

TEST_F(nsupdate_aaaa, empty_settings_are_as_if_not_set) {
  const ending e = run(
      {"NSUPDATE_PORT=", "NSUPDATE_TTL=", "NSUPDATE_ZONE=", "NSUPDATE_NAME=", "NSUPDATE_TIMEOUT=", "NSUPDATE_NULL="});
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(asked(),
            "-v -t 20\nkey hmac-sha256:gateway c2VjcmV0\nserver 192.0.2.53 53\nprereq nxrrset gw.example CNAME\n"
            "update delete gw.example AAAA\nupdate add gw.example 60 AAAA 2001:db8::1\nsend\n");
}

TEST_F(nsupdate_aaaa, refuses_a_second_line_in_every_setting) {
  for (const char* name :
       {"DAC_TAG", "DAC_VALUE", "NSUPDATE_SERVER", "NSUPDATE_PORT", "NSUPDATE_TTL", "NSUPDATE_ZONE"}) {
    SCOPED_TRACE(name);
    for (const char* end : {"\n", "\nsend"}) {
      EXPECT_EQ(run({std::string(name) + "=1" + end}).status, 1);
      EXPECT_EQ(asked(), "");
    }
  }
}

TEST_F(nsupdate_aaaa, NSUPDATE_NULL_keep_sends_nothing_for_null) {
  const ending e = run({"NSUPDATE_NULL=keep", "DAC_VALUE=null"});
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  EXPECT_EQ(asked(), "");
  EXPECT_EQ(run({"NSUPDATE_NULL=delete", "DAC_VALUE=null"}).status, 0);
  EXPECT_NE(asked().find("update delete"), std::string::npos);
}

TEST_F(nsupdate_aaaa, a_key_file_may_be_written_in_one_line_and_have_comments) {
  for (const char* text :
       {"key gateway { algorithm hmac-sha256; secret c2VjcmV0; };",
        "# of gateway\n// 2026\nkey \"gateway\"{algorithm \"hmac-sha256\";secret \"c2VjcmV0\";};\n"}) {
    SCOPED_TRACE(text);
    dir.file(text, "key");
    EXPECT_EQ(run({}).status, 0);
    EXPECT_EQ(lines(asked()).at(1), "key hmac-sha256:gateway c2VjcmV0");
  }
}

TEST_F(nsupdate_aaaa, a_file_without_exactly_one_key_sends_nothing) {
  const std::string one = tsig_key;
  const std::string files[] = {"",
                               "\n",
                               "gateway c2VjcmV0\n",
                               "options { };\n",
                               "# " + one,
                               one + one,
                               "key gateway { };\n",
                               "key gateway { algorithm hmac-sha256; };\n",
                               "key gateway { algorithm hmac-sha256; secret \"\"; };\n",
                               "key gateway { algorithm hmac-sha256; secret \"c2VjcmV\"; };\n",
                               "key gateway { algorithm hmac-sha256; secret \"c2Vj=mV0\"; };\n",
                               "key gate way { algorithm hmac-sha256; secret \"c2VjcmV0\"; };\n"};
  for (const std::string& text : files) {
    SCOPED_TRACE(text);
    dir.file(text, "key");
    const ending e = run({});
    EXPECT_EQ(e.status, 1);
    EXPECT_EQ(e.err,
              "nsupdate-aaaa: NSUPDATE_KEY: " + dir.path("key") + " must contain one key, as tsig-keygen prints it\n");
    EXPECT_EQ(asked(), "");
  }
}

TEST_F(nsupdate_aaaa, reports_a_key_that_is_not_a_regular_file_at_once) {
  const std::string fifo = dir.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo, dir.path(""), std::string("/dev/zero"), std::string("/dev/stdin")}) {
    SCOPED_TRACE(path);
    const ending e = run({"NSUPDATE_KEY=" + path});
    EXPECT_EQ(e.status, 1);
    EXPECT_EQ(e.err, "nsupdate-aaaa: NSUPDATE_KEY: " + path + " is not a regular file\n");
    EXPECT_EQ(asked(), "");
  }
}

TEST_F(nsupdate_aaaa, reads_the_key_from_a_pipe_of_the_shell) {
  for (const char* pipe : {"/dev/fd/3", "/dev/stdin"}) {
    SCOPED_TRACE(pipe);
    dir.file("", "asked");
    const ending e = run({std::string("NSUPDATE_KEY=") + pipe, "KEY=" + dir.path("key"), "sh", "-c",
                          "cat \"$KEY\" | \"$0\" 3</dev/stdin"});
    EXPECT_EQ(e.err, "");
    EXPECT_EQ(e.status, 0);
    EXPECT_EQ(lines(asked()).at(1), "key hmac-sha256:gateway c2VjcmV0");
  }
}

TEST_F(nsupdate_aaaa, the_exit_status_and_the_messages_are_those_of_nsupdate) {
  const ending e = run({"STATUS=2", "ANSWER=update failed: REFUSED\n"});
  EXPECT_EQ(e.status, 2);
  EXPECT_EQ(e.err, "update failed: REFUSED\n");
}

TEST_F(nsupdate_aaaa, a_failed_prerequisite_is_reported_as_a_CNAME) {
  const ending e = run({"STATUS=2", "ANSWER=update failed: YXRRSET\n"});
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(
      e.err,
      "nsupdate-aaaa: gw.example is a CNAME; delete that record, or set NSUPDATE_NAME to the name it points to\n");
}

// ---------------------------------------------------------------- from end to end

TEST(name_record, follows_the_addresses_and_disappears_with_the_last_public_one) {
  in_new_network([] {
    name_server dns;
    dns.start();
    host h(dns, dns.key());
    h.publishes("null");
    h->await_err("addresses: none passes --pick global");
    ASSERT_TRUE(add("2001:db8::10"));
    h.poll();
    EXPECT_TRUE(h.gets({"2001:db8::10"}));
    ASSERT_TRUE(add("fd00::5"));
    ASSERT_TRUE(add("2001:db8::20"));
    h.poll();
    EXPECT_TRUE(h.gets({"2001:db8::10", "2001:db8::20"}));
    ASSERT_TRUE(del("2001:db8::10"));
    ASSERT_TRUE(add("2001:db8::30"));
    h.poll();
    EXPECT_TRUE(h.gets({"2001:db8::20", "2001:db8::30"}));
    ASSERT_TRUE(del("2001:db8::20"));
    ASSERT_TRUE(del("2001:db8::30"));
    h.poll();
    EXPECT_TRUE(h.gets({}));
    EXPECT_EQ(dns.serial(), 5U) << "one update for each change";
    const ending e = h.end();
    EXPECT_EQ(e.status, 0);
    const std::string none = "dachost: addresses: none passes --pick global; hooks get null\n";
    EXPECT_EQ(e.err, none + "dachost: addresses: at least one passes --pick global\n" + none);
  });
}

TEST(name_record, is_updated_after_an_outage_of_the_name_server) {
  in_new_network([] {
    name_server dns;
    dns.start();
    ASSERT_TRUE(add("2001:db8::10"));
    host h(dns, dns.key());
    EXPECT_TRUE(h.gets({"2001:db8::10"}));
    dns.stop();
    ASSERT_TRUE(del("2001:db8::10"));
    ASSERT_TRUE(add("2001:db8::20"));
    h.poll();
    h->await_err("; retry in about 1 s\n");
    dns.start();
    EXPECT_TRUE(h.gets({"2001:db8::20"}));
    const std::string out = h.end().out;
    EXPECT_NE(out.find("2001:db8::20\n"), std::string::npos);
    EXPECT_EQ(out.find("2001:db8::20\n"), out.rfind("2001:db8::20\n")) << "published once, tried twice";
  });
}

TEST(name_record, does_not_change_when_the_key_is_wrong) {
  in_new_network([] {
    name_server dns;
    dns.start();
    ASSERT_TRUE(add("2001:db8::10"));
    host h(dns, dns.wrong_key());
    h->await_err(std::string("dachost: ip6dns: ") + script + ": exit status 2; retry in about 1 s\n");
    EXPECT_EQ(dns.addresses("gw.example.test"), texts{});
    EXPECT_EQ(dns.serial(), 1U);
    h.end();
  });
}
