#include "tests/support/network.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace {

void enter_and_run(const std::function<void()>& body) {
  try {
    enter_network();
    body();
  } catch (const std::exception& e) {
    FAIL() << e.what();
  }
}

}  // namespace

void in_new_network(const std::function<void()>& body) {
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
