#include "tests/support/network.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

bool write_file(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text << std::flush;
  return file.good();
}

bool ip(const std::string& command) { return std::system(("ip -6 " + command).c_str()) == 0; }

namespace {

// A plain user gets a network namespace only in a user namespace, as the root of it. What a privileged user starts
// there has no privilege outside.
bool enter_as_user() {
  const std::string uid = "0 " + std::to_string(getuid()) + " 1", gid = "0 " + std::to_string(getgid()) + " 1";
  return unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 && write_file("/proc/self/setgroups", "deny") &&
         write_file("/proc/self/uid_map", uid) && write_file("/proc/self/gid_map", gid);
}

void enter_and_run(const std::function<void()>& body) {
  if (!enter_as_user() && unshare(CLONE_NEWNET) != 0)
    FAIL() << "the kernel allows no network namespace, neither in a user namespace nor to this user: "
           << std::strerror(errno);
  ASSERT_TRUE(ip("link set lo up")) << "the loopback interface cannot be brought up; is ip (iproute2) installed?";
  try {
    body();
  } catch (const std::exception& e) {
    FAIL() << e.what();
  }
}

}  // namespace

void in_a_network_of_its_own(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    enter_and_run(body);
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  ASSERT_GT(child, 0);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "see above; wait status " << status;
}
