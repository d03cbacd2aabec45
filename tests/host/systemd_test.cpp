// The protocol of the service manager, over real sockets.
#include "host/systemd.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/support/notify_socket.h"
#include "tests/support/scratch.h"

using namespace std::chrono_literals;

namespace {

class systemds : public testing::Test {
 protected:
  scratch dir;

  ~systemds() override {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "JOURNAL_STREAM"}) unsetenv(name);
  }
  static std::chrono::microseconds watchdog(const char* interval, const std::string& pid) {
    setenv("WATCHDOG_USEC", interval, 1);
    if (!pid.empty()) setenv("WATCHDOG_PID", pid.c_str(), 1);
    return systemd().watchdog();
  }
};

}  // namespace

TEST_F(systemds, get_a_datagram_at_a_path_or_an_abstract_address) {
  for (const std::string& address : {dir.path("socket"), "@" + dir.path("abstract")}) {
    SCOPED_TRACE(address);
    const notify_socket s(address);
    setenv("NOTIFY_SOCKET", address.c_str(), 1);
    systemd manager;
    EXPECT_TRUE(manager.is_present());
    EXPECT_TRUE(manager.notify("READY=1\nSTATUS=fine"));
    EXPECT_EQ(s.receive(), "READY=1\nSTATUS=fine");
  }
}

TEST_F(systemds, leave_nothing_in_the_environment) {
  for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) setenv(name, "@1", 1);
  const systemd manager;
  for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) EXPECT_FALSE(std::getenv(name)) << name;
}

TEST_F(systemds, are_absent_without_an_address_that_can_be_used) {
  for (const std::string& address :
       {std::string(), std::string("socket"), std::string("vsock:2:1"), '/' + std::string(107, 'x')}) {
    setenv("NOTIFY_SOCKET", address.c_str(), 1);
    systemd manager;
    EXPECT_FALSE(manager.is_present()) << address;
    EXPECT_TRUE(manager.notify("READY=1"));
  }
  EXPECT_FALSE(systemd().is_present());
}

TEST_F(systemds, that_do_not_read_never_block_and_are_to_be_notified_later) {
  const notify_socket s(dir.path("socket"));
  setenv("NOTIFY_SOCKET", dir.path("socket").c_str(), 1);
  systemd manager;
  int sent = 0;
  while (sent < 100'000 && manager.notify("READY=1")) ++sent;
  EXPECT_LT(sent, 100'000);
  s.receive();
  EXPECT_TRUE(manager.notify("READY=1"));
}

TEST_F(systemds, have_a_watchdog_for_the_process_that_is_named) {
  EXPECT_EQ(watchdog("3000000", ""), 3s);
  EXPECT_EQ(watchdog("3000000", std::to_string(getpid())), 3s);
  EXPECT_EQ(watchdog("3000000", std::to_string(getppid())), 0s);
  for (const char* text : {"soon", "3000000 us"}) EXPECT_EQ(watchdog(text, ""), 0s);
  EXPECT_EQ(systemd().watchdog(), 0s);
}

TEST_F(systemds, have_a_journal_that_JOURNAL_STREAM_identifies) {
  struct stat s {};
  ASSERT_EQ(fstat(STDERR_FILENO, &s), 0);
  EXPECT_FALSE(is_journal(STDERR_FILENO));
  const std::string id = std::to_string(s.st_dev) + ':' + std::to_string(s.st_ino);
  setenv("JOURNAL_STREAM", id.c_str(), 1);
  EXPECT_TRUE(is_journal(STDERR_FILENO));
  EXPECT_TRUE(std::getenv("JOURNAL_STREAM")) << "hooks write to the same journal";
  for (const std::string& other : {id + '0', '1' + id}) {
    setenv("JOURNAL_STREAM", other.c_str(), 1);
    EXPECT_FALSE(is_journal(STDERR_FILENO)) << other;
  }
}
