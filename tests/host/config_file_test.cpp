// What the host finds out about configuration files without the plug-in.
#include "host/instances/config_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/scratch.h"

namespace {

class config_file : public testing::Test {
 protected:
  scratch dir;
};

}  // namespace

TEST_F(config_file, of_1_MiB_is_readable_and_a_larger_one_is_not) {
  const std::string file = dir.file(std::string(1 << 20, '#'));
  EXPECT_EQ(unreadable(file), "");
  dir.file(std::string((1 << 20) + 1, '#'));
  EXPECT_EQ(unreadable(file), file + ": larger than 1 MiB");
}

TEST_F(config_file, that_is_not_regular_is_unreadable) {
  const std::string fifo = dir.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(unreadable(fifo), fifo + ": not a regular file");
  EXPECT_EQ(unreadable("/dev/zero"), "/dev/zero: not a regular file");
  EXPECT_EQ(unreadable(dir.path("")), dir.path("") + ": not a regular file");
  std::filesystem::create_symlink(fifo, dir.path("link"));
  EXPECT_EQ(unreadable(dir.path("link")), dir.path("link") + ": not a regular file");
}

TEST_F(config_file, named_by_a_symbolic_link_is_readable) {
  std::filesystem::create_symlink(dir.file("hostname = a"), dir.path("link"));
  EXPECT_EQ(unreadable(dir.path("link")), "");
}

TEST_F(config_file, that_is_missing_is_left_to_the_plug_in) { EXPECT_EQ(unreadable(dir.path("none")), ""); }

TEST_F(config_file, names_the_line_that_hides_the_host_name) {
  const auto found = [this](const std::string& text) { return hidden_hostname(dir.file(text)); };
  const std::string rest = "; begin comments with #";
  EXPECT_EQ(found("stray\nhostname = a\n"), "line 1 hides hostname: \"stray\"" + rest);
  EXPECT_EQ(found("# one\n\n  Pump  house\t\r\n\nother\nHostName=a"), "line 3 hides hostname: \"Pump  house\"" + rest);
  EXPECT_EQ(found("\xef\xbb\xbfx\nhostname = a"), "line 1 hides hostname: \"\xef\xbb\xbfx\"" + rest);
  EXPECT_EQ(found("[net] stray\nhostname=a"), "line 1 hides hostname: \"[net] stray\"" + rest);
  EXPECT_EQ(found("my hostname = a"), "line 1 hides hostname: \"my hostname = a\"" + rest);
  EXPECT_EQ(found("hostname = a\nstray\nhostname = b"), "line 2 hides hostname: \"stray\"" + rest);
  EXPECT_EQ(found("a = b ; c\nstray\nhost\nname = b"), "line 2 hides hostname: \"stray\"" + rest);
  const std::string longest = 'b' + std::string(59, 'x');
  EXPECT_EQ(found(longest + "\nhostname = a"), "line 1 hides hostname: \"" + longest + '"' + rest);
  EXPECT_EQ(found(longest + "y\nhostname = a"), "line 1 hides hostname: \"" + longest + "...\"" + rest);
}

TEST_F(config_file, has_the_line_that_is_most_like_a_host_name) {
  const auto found = [this](const std::string& text) { return hostname_like_line(dir.file(text)); };
  EXPECT_EQ(found("hostnme = a"), "line 1: \"hostnme = a\"");
  EXPECT_EQ(found("# comment\nport = 1\nHostnam = a # b\nname = c\n"), "line 3: \"Hostnam = a # b\"");
  for (const char* key : {"hotsname", "ostname", "hostnames", "host-name", "host_name", "my_hostname", "h0stnam3"})
    EXPECT_EQ(found(std::string("a = b\n") + key + " = c\n"), std::string("line 2: \"") + key + " = c\"") << key;
  EXPECT_EQ(found("stray\nhostnme = a"), "line 2: \"hostnme = a\"") << "not the line of the stray text";
  EXPECT_EQ(found("hostname a"), "line 1: \"hostname a\"");
  EXPECT_EQ(found("\nhostname: a\nport = 1\n"), "line 2: \"hostname: a\"");
  EXPECT_EQ(found("hostname gateway # comment\n"), "line 1: \"hostname gateway # comment\"");
  EXPECT_EQ(found("hostnm = a\nhostnme = b\nhstnm = c"), "line 2: \"hostnme = b\"");
  for (const char* end : {"\n", "\r\n"})
    EXPECT_EQ(found(std::string("[net") + end + "hostnme = a"), "line 2: \"hostnme = a\"") << "a section ends its line";
  EXPECT_EQ(found("hostname = a\nHOST NAME =\nold_hostname = b\nhostnme = c"), "line 2: \"HOST NAME =\"")
      << "the last one counts";
  EXPECT_EQ(found("hostnme\nhostnme = a"), "line 2: \"hostnme = a\"") << "the last part of a key counts";
}

// h0s7n4me has three errors.
TEST_F(config_file, has_a_line_like_a_host_name_with_the_fewest_errors) {
  const auto line = [this](const std::string& text) { return hostname_like_line(dir.file(text)).substr(0, 7); };
  EXPECT_EQ(line("h0s7n4me = a\nport = 1"), "line 1:");
  EXPECT_EQ(line("h0s7n4m3 = a"), "") << "four are too many";
  EXPECT_EQ(line("hostnome = a\nhostnaxx = b"), "line 1:") << "the end of the word counts, too";
  EXPECT_EQ(line("ostname = a\nhotsname = b"), "line 1:");
  EXPECT_EQ(line("hostnme = a\nhotsname = b"), "line 1:");
  EXPECT_EQ(line("hostxname = a\nh0s7n4me = b"), "line 1:");
}

TEST_F(config_file, without_anything_like_a_host_name_has_no_such_line) {
  for (const char* text :
       {"", "port = 1", "username = a", "# hostname = a", "; hostnme = a", "port = hostname", "[hostname]"})
    EXPECT_EQ(hostname_like_line(dir.file(text)), "") << text;
  EXPECT_EQ(hostname_like_line(dir.path("none")), "");
}

TEST_F(config_file, has_a_first_line_that_is_not_used) {
  const auto found = [this](const std::string& text) { return first_unused_line(dir.file(text)); };
  EXPECT_EQ(found("name gateway.example"), "line 1 is not used: \"name gateway.example\"");
  EXPECT_EQ(found("# comment\n\n  name: gateway # x\nport = 1\n"), "line 3 is not used: \"name: gateway # x\"");
  EXPECT_EQ(found("[net]\r\nport = 1\r\n"), "line 2 is not used: \"port = 1\"");
  EXPECT_EQ(found("\n= gateway"), "line 2 is not used: \"= gateway\"");
  EXPECT_EQ(found("n\name = gateway"), "line 1 is not used: \"n\"") << "a key has no line feeds";
  EXPECT_EQ(found("[net] gateway"), "line 1 is not used: \"[net] gateway\"");
  EXPECT_EQ(found("\xef\xbb\xbfgateway"), "line 1 is not used: \"\xef\xbb\xbfgateway\"");
}

TEST_F(config_file, without_keys_and_values_has_no_line_that_is_not_used) {
  for (const char* text : {"", "\n \t\r\n", "# name = a", "; name", "[name]", "[name = a", "\xef\xbb\xbf"})
    EXPECT_EQ(first_unused_line(dir.file(text)), "") << text;
  EXPECT_EQ(first_unused_line(dir.path("none")), "");
}

TEST_F(config_file, hides_no_host_name_where_the_driver_reads_none) {
  for (const char* text :
       {"", "hostname = a", "\xef\xbb\xbfhostname=a", "host name = a", "stray", "stray\nport = 1\nhostname = a",
        "stray\n# comment\nhostname = a", "stray ; comment\rhostname = a", "stray\n[section]\nhostname = a",
        "stray\n[section\rhostname = a", "old_hostname = a", "a = stray\nhostname = a", "a = b ; stray\rhostname = c",
        "stray\nhostname", "stray [hostname = a", "stray\nhostname : a", "stray # hostname = a"})
    EXPECT_EQ(hidden_hostname(dir.file(text)), "") << text;
  EXPECT_EQ(hidden_hostname(dir.path("none")), "");
}

TEST_F(config_file, check_does_not_wake_the_writer_of_a_FIFO) {
  const std::string fifo = dir.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const pid_t writer = fork();
  if (writer == 0) _exit(open(fifo.c_str(), O_WRONLY) >= 0 ? 1 : 2);
  usleep(100'000);  // a writer that is not yet waiting would hide an error, never cause one
  unreadable(fifo);
  usleep(100'000);
  int status = 0;
  EXPECT_EQ(waitpid(writer, &status, WNOHANG), 0) << "it still waits for a reader";
  kill(writer, SIGKILL);
  waitpid(writer, &status, 0);
}
