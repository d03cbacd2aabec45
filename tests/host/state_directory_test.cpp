// What hooks were given, stored in files.
#include "host/hook/state_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <stdexcept>
#include <utility>

#include "tests/host/scripted_loop.h"
#include "tests/support/fake_disk.h"
#include "tests/support/no_descriptors.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

using namespace std::chrono_literals;
using time_point = std::chrono::system_clock::time_point;

namespace {

class state_files : public testing::Test {
 protected:
  scratch dir;
  scripted_loop loop;
  state_directory state{loop, dir.path("")};

  static std::string text_of(const std::optional<hook_record>& r) {
    return r ? r->tag + ' ' + r->value + ' ' + std::to_string(r->time.time_since_epoch() / 1s) : "none";
  }
  /// Returns the reason of a failure.
  std::string save(state_directory& d, const std::string& instance, const hook_record& r) {
    std::string result = "not called back";
    d.save(instance, r, [&result](const std::string& failure) { result = failure; });
    loop.pass(0s);
    return result;
  }
  std::string loaded(const std::string& instance = "gw") { return text_of(state.load(instance)); }
  void save(const std::string& instance, const std::string& value) {
    EXPECT_EQ(save(state, instance, {"a.example", value, time_point(1700000000s)}), "");
  }
  std::string error_of(const std::string& instance = "gw") {
    try {
      return loaded(instance);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  }
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& f : std::filesystem::directory_iterator(dir.path(""))) names.insert(f.path().filename());
    return names;
  }
};

}  // namespace

TEST_F(state_files, store_a_record_for_each_instance) {
  EXPECT_EQ(loaded(), "none");
  save("gw", "2001:db8::1,2001:db8::2");
  save("other", "null");
  state_directory later(loop, dir.path(""));
  EXPECT_EQ(text_of(later.load("gw")), "a.example 2001:db8::1,2001:db8::2 1700000000");
  EXPECT_EQ(text_of(later.load("other")), "a.example null 1700000000");
  EXPECT_EQ(text_of(later.load("none")), "none");
  save("gw", "2001:db8::3");
  EXPECT_EQ(loaded(), "a.example 2001:db8::3 1700000000");
  EXPECT_EQ(files(), (std::set<std::string>{"gw.state", "other.state"})) << "no temporary file is left";
}

TEST_F(state_files, have_a_documented_form) {
  save("gw", "2001:db8::1,2001:db8::2");
  EXPECT_EQ(read_file(dir.path("gw.state")), "dachost state 1\n1700000000\na.example\n2001:db8::1,2001:db8::2\nnone\n");
}

TEST_F(state_files, of_other_settings_are_not_loaded) {
  save("gw", "a");
  state_directory other(loop, dir.path(""), "0123");
  EXPECT_EQ(text_of(other.load("gw")), "none");
  EXPECT_EQ(save(other, "gw", {"a.example", "b", time_point(1s)}), "");
  EXPECT_EQ(text_of(other.load("gw")), "a.example b 1");
  EXPECT_EQ(loaded(), "none");
}

TEST(settings, identify_the_hook_and_its_environment_but_not_a_start) {
  const char* const before[] = {"A=1", "B=2", nullptr};
  const char* const reordered[] = {"B=2", "A=1", nullptr};
  const char* const changed[] = {"A=1", "B=3", nullptr};
  const char* const removed[] = {"A=1", nullptr};
  const std::string s = settings_of("update", before);
  EXPECT_EQ(settings_of("update", reordered), s);
  EXPECT_NE(settings_of("other", before), s);
  EXPECT_NE(settings_of("update", changed), s);
  EXPECT_NE(settings_of("update", removed), s);
  for (const std::string name : {"INVOCATION_ID", "JOURNAL_STREAM", "LISTEN_PID", "LISTEN_PIDFDID", "MANAGERPID",
                                 "MANAGERPIDFDID", "SYSTEMD_EXEC_PID", "TRIGGER_PATH", "TRIGGER_TIMER_MONOTONIC_USEC",
                                 "TRIGGER_TIMER_REALTIME_USEC", "TRIGGER_UNIT", "OLDPWD", "PWD", "SHLVL", "_"}) {
    const std::string variable = name + "=1";
    const char* const restarted[] = {"A=1", variable.c_str(), "B=2", nullptr};
    EXPECT_EQ(settings_of("update", restarted), s) << variable;
  }
}

// Otherwise an upgrade would make every hook run.
TEST(settings, have_the_same_identity_in_every_version) {
  const char* const none[] = {nullptr};
  EXPECT_EQ(settings_of("foobar", none), "85944171f73967e8") << "a published test vector of FNV-1a";
}

TEST_F(state_files, preserve_every_byte_of_a_name) {
  save(state, "gw", {"\xe4 \t\x01 =", "a", time_point(1s)});
  EXPECT_EQ(loaded(), "\xe4 \t\x01 = a 1");
  save(state, "gw", {"", "a", time_point(0s)});
  EXPECT_EQ(loaded(), " a 0");
}

TEST_F(state_files, have_safe_names) {
  const std::string longer(300, 'x');
  const std::string names[] = {"/etc/ip6dns/gw.conf", "../gw", "..",   ".",    "a b",        "a%20b",
                               "\xc3\xa4\n",          "GW",    "gw#2", longer, longer + 'y', std::string(200, '/')};
  int n = 0;
  for (const std::string& name : names) save(name, "value" + std::to_string(n++));
  n = 0;
  for (const std::string& name : names)
    EXPECT_EQ(loaded(name), "a.example value" + std::to_string(n++) + " 1700000000") << name;
  EXPECT_EQ(files().size(), std::size(names));
  EXPECT_TRUE(files().contains("%2Fetc%2Fip6dns%2Fgw.conf.state"));
  EXPECT_TRUE(files().contains("a%20b.state"));
  EXPECT_TRUE(files().contains("a%2520b.state"));
}

TEST_F(state_files, have_names_with_the_plain_characters_of_their_instances) {
  save("AZaz09-_.", "v");
  save("@[`{/:", "v");
  EXPECT_EQ(files(), (std::set<std::string>{"AZaz09-_..state", "%40%5B%60%7B%2F%3A.state"}));
}

TEST_F(state_files, of_long_names_have_the_first_200_characters_and_a_hash) {
  const std::string longest = 'a' + std::string(199, 'x');
  save(longest, "v");
  EXPECT_EQ(files(), std::set<std::string>{longest + ".state"});
  save(longest + 'y', "v");
  save(longest + 'z', "v");
  std::set<std::string> hashes;
  for (const std::string& name : files())
    if (name.starts_with(longest + '-')) hashes.insert(name.substr(longest.size() + 1));
  ASSERT_EQ(hashes.size(), 2U) << "two names have two files";
  for (const std::string& h : hashes) {
    EXPECT_EQ(h.size(), 16 + std::string(".state").size());
    EXPECT_EQ(h.find_first_not_of("0123456789abcdef"), 16U);
  }
}

TEST_F(state_files, of_long_names_have_the_same_names_in_every_version) {
  save(std::string(201, 'x'), "v");
  EXPECT_EQ(files(), std::set<std::string>{std::string(200, 'x') + "-3631500d06f3bba7.state"});
}

TEST_F(state_files, of_the_latest_time_are_loaded) {
  dir.file("dachost state 1\n9000000000\na\nb\nnone\n", "gw.state");
  EXPECT_EQ(error_of().find("damaged"), std::string::npos) << error_of();
}

TEST_F(state_files, are_readable_by_their_owner_alone_under_every_umask) {
  for (const mode_t mask : {0777U, 0U, 022U}) {
    const mode_t before = umask(mask);
    save("gw", "a");
    umask(before);
    struct stat s {};
    ASSERT_EQ(stat(dir.path("gw.state").c_str(), &s), 0);
    EXPECT_EQ(s.st_mode & 07777, 0600U);
  }
}

TEST_F(state_files, that_are_damaged_are_an_error) {
  save("gw", "2001:db8::1");
  const std::string good = read_file(dir.path("gw.state"));
  for (size_t n = 0; n < good.size(); ++n) {
    dir.file(good.substr(0, n), "gw.state");
    EXPECT_EQ(error_of(), dir.path("") + "/gw.state: damaged") << n;
  }
  for (const std::string& text :
       {std::string("dachost state 2\n1\na\nb\nnone\n"), std::string("dachost state 1\nx\na\nb\nnone\n"),
        std::string("dachost state 1\n1x\na\nb\nnone\n"), std::string("dachost state 1\n\na\nb\nnone\n"),
        std::string("dachost state 1\n-1\na\nb\nnone\n"), std::string("dachost state 1\n9000000001\na\nb\nnone\n"),
        std::string("dachost state 1\n99999999999999999999\na\nb\nnone\n"),
        std::string("dachost state 1\n1\na\n\nnone\n"), good + '\n', good + 'x', std::string(4096, '\0'),
        std::string(4096, '\n')}) {
    dir.file(text, "gw.state");
    EXPECT_EQ(error_of(), dir.path("") + "/gw.state: damaged") << text;
  }
  dir.file(good, "gw.state");
  EXPECT_EQ(error_of(), "a.example 2001:db8::1 1700000000");
}

TEST_F(state_files, that_are_damaged_are_replaced) {
  dir.file("", "gw.state");
  save("gw", "a");
  EXPECT_EQ(loaded(), "a.example a 1700000000");
}

TEST_F(state_files, that_are_not_regular_are_an_error_and_not_waited_for) {
  ASSERT_EQ(mkfifo(dir.path("gw.state").c_str(), 0600), 0);
  EXPECT_EQ(error_of(), dir.path("") + "/gw.state: not a regular file");
}

TEST_F(state_files, survive_a_temporary_file_of_a_crash) {
  const std::string left = dir.file("dachost sta", "gw.state.tmp");
  chmod(left.c_str(), 0);
  save("gw", "a");
  EXPECT_EQ(loaded(), "a.example a 1700000000");
}

TEST_F(state_files, are_not_inherited_by_programs) {
  fake_disk::recording disk;
  save("gw", "a");
  EXPECT_NE(std::exchange(disk.made, {}), texts{});
  EXPECT_EQ(disk.inheritable, 0);
}

TEST_F(state_files, that_cannot_be_read_or_written_are_an_error) {
  std::filesystem::create_directory(dir.path("gw.state"));
  EXPECT_NE(error_of().find("gw.state"), std::string::npos);
  EXPECT_EQ(save(state, "gw", {"a", "b", time_point(1s)}), dir.path("") + "/gw.state: Is a directory");
  state_directory missing(loop, dir.path("missing"));
  EXPECT_EQ(text_of(missing.load("gw")), "none");
  EXPECT_EQ(save(missing, "gw", {"a", "b", time_point(1s)}),
            dir.path("missing") + "/gw.state.tmp: No such file or directory");
}

TEST_F(state_files, are_written_in_the_background) {
  loop.holds_work = true;
  EXPECT_EQ(save(state, "gw", {"a", "b", time_point(1s)}), "not called back");
  EXPECT_EQ(files(), std::set<std::string>{});
  EXPECT_EQ(loop.held_work(), 1U);
}

TEST_F(state_files, that_cannot_be_opened_are_not_called_damaged) {
  save("gw", "a");
  const std::string instance = "gw";
  try {
    const no_descriptors none;
    state.load(instance);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), dir.path("") + "/gw.state: Too many open files");
  }
}

TEST_F(state_files, are_on_the_disk_before_they_replace_others_and_before_a_save_returns) {
  fake_disk::recording disk;
  save("gw", "a");
  const texts of_file = {"open gw.state.tmp",  "fchmod gw.state.tmp", "write gw.state.tmp",
                         "fsync gw.state.tmp", "close gw.state.tmp",  "rename gw.state.tmp"};
  const texts of_directory = {"open ", "fsync ", "close "};
  EXPECT_EQ(texts(disk.made.begin(), disk.made.begin() + 6), of_file);
  EXPECT_EQ(texts(disk.made.begin() + 6, disk.made.end()), of_directory);
}

TEST_F(state_files, are_complete_when_the_disk_accepts_a_part_or_a_signal_interrupts) {
  fake_disk::recording disk;
  disk.most_bytes = {0, 1, 0, 2, 16};
  save("gw", "2001:db8::1");
  EXPECT_TRUE(disk.most_bytes.empty());
  EXPECT_EQ(loaded(), "a.example 2001:db8::1 1700000000");
}

TEST_F(state_files, have_the_old_or_the_new_record_when_a_call_fails) {
  save("gw", "old");
  fake_disk::recording disk;
  std::string error;
  const auto save_new = [&] {
    disk.made.clear();
    error = save(state, "gw", {"a.example", "new", time_point(1700000000s)});
  };
  constexpr int of_close = 5, of_rename = 6;  // the file is complete at its close
  const int failed = fail_each(disk.calls, save_new, [&](int n, bool has_failed) {
    const bool is_old = has_failed && n <= of_rename && n != of_close;
    EXPECT_EQ(loaded(), is_old ? "a.example old 1700000000" : "a.example new 1700000000") << disk.made.back();
    const bool is_reported = error.find(dir.path("")) != std::string::npos;
    EXPECT_EQ(is_reported, has_failed && !disk.made[static_cast<size_t>(n - 1)].starts_with("close")) << error;
    save("gw", "old");
  });
  EXPECT_EQ(failed, 9);
}

TEST_F(state_files, preserve_the_old_record_if_the_new_one_cannot_be_written) {
  save("gw", "a");
  std::filesystem::create_directories(dir.path("gw.state.tmp/x"));
  EXPECT_EQ(save(state, "gw", {"a", "b", time_point(1s)}), dir.path("") + "/gw.state.tmp: File exists");
  EXPECT_EQ(loaded(), "a.example a 1700000000");
}

TEST(state_directory, without_a_path_stores_nothing) {
  scripted_loop loop;
  state_directory none(loop, "");
  std::string result = "not called back";
  none.save("gw", {"a", "b", time_point(1s)}, [&result](const std::string& failure) { result = failure; });
  EXPECT_EQ(result, "");
  EXPECT_EQ(loop.works, 0);
  EXPECT_FALSE(none.load("gw"));
}
