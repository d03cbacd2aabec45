// The search for the plug-in when /proc does not name the running program.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "host/instances/plugin.h"
#include "tests/support/network_namespace.h"
#include "tests/support/scratch.h"

namespace {

// Ends the process: 0 when only the bare name is found, which the dynamic loader searches for.
[[noreturn]] void search_without_proc(const std::string& directory) {
  enter_network();
  if (chdir(directory.c_str()) != 0 || unshare(CLONE_NEWNS) != 0 ||
      mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", "/proc", "tmpfs", 0, nullptr) != 0)
    _exit(2);
  _exit(find_plugin() == "libip6dns.so" ? 0 : 1);
}

}  // namespace

TEST(find_plugin, without_a_known_place_does_not_search_the_working_directory) {
  const scratch dir;
  for (const char* place : {"bin", "lib/dac"}) std::filesystem::create_directories(dir.path(place));
  for (const char* place : {"", "lib/dac/"}) dir.file("no library", std::string(place) + "libip6dns.so");
  EXPECT_EXIT(search_without_proc(dir.path("bin")), testing::ExitedWithCode(0), "");
}
