// Readers of dachost's output that are late, slow, or close it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "tests/support/dachost_fixture.h"

using namespace std::chrono_literals;

namespace {

/// Both ends of a socket; what is written at one is read at the other.
class socket_pair {
 public:
  enum class kind { local, tcp };

  /// Local ones take all or nothing of 4096 bytes. TCP takes parts.
  explicit socket_pair(kind k = kind::local) {
    if (k == kind::tcp)
      connect_tcp();
    else if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, _fds) != 0)
      throw std::runtime_error("socketpair");
    set_buffer(_fds[1], SO_SNDBUF, k == kind::tcp ? 1 : 4096);
    fcntl(_fds[1], F_SETFL, O_NONBLOCK);
  }
  ~socket_pair() {
    close(_fds[0]);
    close_writing();
  }
  socket_pair(const socket_pair&) = delete;
  socket_pair& operator=(const socket_pair&) = delete;

  int writing() const { return _fds[1]; }
  void close_writing() {
    if (_fds[1] >= 0) close(std::exchange(_fds[1], -1));
  }
  /// Up to `size` bytes; false at the end.
  bool read_some(std::string& text, size_t size) const {
    pollfd p = {_fds[0], POLLIN, 0};
    if (poll(&p, 1, 20000) <= 0) throw std::runtime_error("nothing to read after: " + text);
    std::string piece(size, '\0');
    const ssize_t n = read(_fds[0], piece.data(), size);
    if (n > 0) text.append(piece, 0, static_cast<size_t>(n));
    return n > 0;
  }

 private:
  static void set_buffer(int fd, int which, int size) { setsockopt(fd, SOL_SOCKET, which, &size, sizeof size); }
  void connect_tcp() {
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof local;
    auto* address = reinterpret_cast<sockaddr*>(&local);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    _fds[1] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    set_buffer(listener, SO_RCVBUF, 4096);
    if (bind(listener, address, size) != 0 || listen(listener, 1) != 0 || getsockname(listener, address, &size) != 0 ||
        connect(_fds[1], address, size) != 0)
      throw std::runtime_error("TCP");
    _fds[0] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (_fds[0] < 0) throw std::runtime_error("accept4");
    close(listener);
  }

  int _fds[2] = {-1, -1};
};

class readers : public dachost_fixture {
 protected:
  /// The lines' texts, after `before`, are "message 1 of N" ..., from the first on, and the last line may be cut.
  static void expect_beginning_of_flood(const std::string& out, int n, const std::string& before = "\tmessage\t") {
    int k = 0;
    for (const std::string& line : lines(out)) {
      const size_t at = line.find(before);
      if (at == std::string::npos) continue;
      const std::string expected = "message " + std::to_string(++k) + " of " + std::to_string(n);
      const std::string got = line.substr(at + before.size());
      const bool is_last = out.ends_with(got);
      EXPECT_TRUE(got == expected || (is_last && expected.starts_with(got))) << got << ", expected: " << expected;
    }
    EXPECT_GT(k, 0);
  }
};

}  // namespace

TEST_F(readers, of_standard_error_that_are_late_get_every_line_in_order) {
  process p = run({"--json", "--events", "value", "--for", "0.001", conf("failures 4000")});
  await_journal("destroy gw 0");
  std::this_thread::sleep_for(1500ms);  // longer than a reader has after a signal
  EXPECT_TRUE(p.is_running()) << "the rest waits for its reader";
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(lines(e.err).size(), 4000U);
  expect_beginning_of_flood(e.err, 4000, "dachost: gw: ");
}

TEST_F(readers, of_standard_error_that_read_nothing_do_not_delay_values) {
  const remote_control gw(dir.path("fifo"));
  const std::string unread = dir.path("unread");
  ASSERT_EQ(mkfifo(unread.c_str(), 0600), 0);
  const int fd = open(unread.c_str(), O_RDWR | O_CLOEXEC);
  process p = run({"--json", conf(gw.order())}, {"sh", "-c", "exec \"$@\" 2>'" + unread + '\'', "sh"});
  gw.say("failures 4000");
  gw.say("publish a");
  p.await_out("\"value\":\"a\"");
  p.signal(SIGTERM);
  EXPECT_EQ(p.end().status, 0);
  close(fd);
}

// It stops handling signals before it waits for the reader of its last line.
TEST_F(readers, of_standard_error_that_read_nothing_do_not_prevent_the_end_by_a_signal) {
  const std::string unread = dir.path("unread");
  ASSERT_EQ(mkfifo(unread.c_str(), 0600), 0);
  const int fd = open(unread.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  while (write(fd, "full\n", 5) > 0) continue;
  process p = run({"--status", dir.path("none/status"), conf("publish a")},
                  {"sh", "-c", "exec \"$@\" 2>'" + unread + '\'', "sh"});
  await_settled(p);
  p.signal(SIGTERM);
  EXPECT_EQ(p.end().status, -SIGTERM);
  close(fd);
}

TEST_F(readers, of_check_that_are_late_get_every_line) {
  texts args = {"check", "-p", built("fake_plugin")};
  args.resize(args.size() + 100, conf("refuse " + std::string(2000, 'x')));
  process p = start(args);
  await_settled(p);
  EXPECT_TRUE(p.is_running()) << "the rest waits for its reader";
  const ending e = p.end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(lines(e.out).size(), 100U);
}

TEST_F(readers, of_check_that_close_make_it_fail) {
  texts args = {"check", "-p", built("fake_plugin")};
  args.resize(args.size() + 300, conf("", std::string(200, 'x')));
  process p = start(args);
  await_settled(p);
  p.close_out();
  const ending e = p.end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: standard output: Broken pipe\n");
}

TEST_F(readers, that_close_during_the_last_flush_are_reported) {
  process p = run({"--for", "0.001", conf("flood 4000")});
  await_journal("destroy gw 0");
  p.await_out("message 100 of 4000");
  p.close_out();
  const ending e = p.end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: standard output: Broken pipe\n");
}

TEST_F(readers, that_close_after_a_stop_signal_are_reported) {
  process p = run({conf("flood 4000")});
  p.await_out("message 1 of 4000");
  p.signal(SIGTERM);
  p.close_out();
  const ending e = p.end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: standard output: Broken pipe\n");
  EXPECT_EQ(journal().back(), "destroy gw 0");
}

// Otherwise a stop signal could end dachost before it has said why it stops.
TEST_F(readers, that_close_are_reported_before_the_instances_stop) {
  process p = run({conf("hold " + dir.path("released"))});
  await_journal("start gw 0");
  p.close_out();
  p.await_err("dachost: standard output: Broken pipe\n");
  dir.file("", "released");
  const ending e = p.end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: standard output: Broken pipe\n");
}

TEST_F(readers, that_read_nothing_are_reported_after_a_stop_on_which_the_plug_in_hangs) {
  const std::string file = conf("flood 4000\nhold " + dir.path("released"));
  for (const bool is_signalled : {true, false}) {
    const texts args = is_signalled ? texts{file} : texts{"--for", "1", file};
    process p = run(args, preloaded(built("short_minutes")));
    await_journal("start gw 0");
    if (is_signalled) p.signal(SIGTERM);
    EXPECT_EQ(p.end_unread(), 1);
    EXPECT_EQ(p.end().err,
              "dachost: the plug-in does not return; the instances are not stopped\n"
              "dachost: standard output: timed out waiting for the reader\n");
  }
}

// It takes what it can within the second that it has, and does not prolong it: all of it would take 25 seconds.
TEST_F(readers, that_are_slow_after_a_stop_signal_get_the_beginning) {
  socket_pair s;
  process p = run({conf("flood 4000")}, {}, {.out_fd = s.writing()});
  s.close_writing();
  await_journal("start gw 0");
  std::string out;
  s.read_some(out, 4096);
  p.signal(SIGTERM);
  int pieces = 0;
  for (; p.is_running() && pieces < 20; ++pieces) {
    std::this_thread::sleep_for(500ms);
    s.read_some(out, 4096);
  }
  EXPECT_LT(pieces, 20);
  EXPECT_EQ(p.end_unread(), 1);
  while (s.read_some(out, 4096)) continue;
  expect_beginning_of_flood(out, 4000);
  EXPECT_EQ(p.end().err, "dachost: standard output: timed out waiting for the reader\n");
}

// A terminal has room for a part of what is written, and a blocking write would wait for room for the rest.
TEST_F(readers, of_a_terminal_that_read_nothing_do_not_prevent_the_stop) {
  const int reader = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_EQ(grantpt(reader) + unlockpt(reader), 0);
  const int terminal = open(ptsname(reader), O_RDWR | O_NOCTTY | O_CLOEXEC);
  process p = run({conf("flood 4000")}, {}, {.out_fd = terminal});
  close(terminal);
  await_journal("start gw 0");
  await_settled(p);
  p.signal(SIGTERM);
  EXPECT_EQ(p.end_unread(), 1);
  EXPECT_EQ(p.end().err, "dachost: standard output: timed out waiting for the reader\n");
  close(reader);
}

TEST_F(readers, of_a_non_blocking_socket_that_takes_parts_of_lines_get_every_line) {
  socket_pair s(socket_pair::kind::tcp);
  process p =
      run({"--for", "0.001", conf("flood 4000\npublish " + std::string(900, 'v'))}, {}, {.out_fd = s.writing()});
  s.close_writing();
  std::string out;
  for (size_t size = 1; s.read_some(out, size); std::this_thread::sleep_for(1ms)) size = size % 5000 + 611;
  EXPECT_EQ(p.end_unread(), 0);
  EXPECT_EQ(lines_of(out, "message").size(), 4000U);
  EXPECT_EQ(lines_of(out, "value"), texts{"gw\tvalue\tgw\t" + std::string(900, 'v')});
  expect_beginning_of_flood(out, 4000);
}

TEST_F(readers, of_a_full_non_blocking_socket_use_no_processor_time) {
  socket_pair s;
  process p = run({conf("flood 4000")}, {}, {.out_fd = s.writing()});
  s.close_writing();
  await_journal("start gw 0");
  await_settled(p);
  expect_quiet(p);
  p.signal(SIGTERM);
  expect_quiet(p, 700ms);
  EXPECT_EQ(p.end_unread(), 1);
}

TEST_F(readers, that_come_back_after_a_pause_get_lines_in_order) {
  const remote_control gw(dir.path("fifo"));
  process p = run({conf(gw.order())});
  for (int round = 0; round < 3; ++round) {
    gw.say("flood 3000");
    std::this_thread::sleep_for(200ms);
    p.await_out("message 3000 of 3000");
  }
  gw.say("publish end");
  p.await_out("\tend\n");
  const texts all = lines_of(terminate(p).out, "message");
  ASSERT_EQ(all.size(), 9000U);
  for (size_t n = 0; n < all.size(); ++n)
    EXPECT_EQ(all[n], "gw\tmessage\tmessage " + std::to_string(n % 3000 + 1) + " of 3000");
}
