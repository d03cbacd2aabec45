// The file with the status of a run, step by step in virtual time.
#include "host/commands/status_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "tests/host/scripted_loop.h"
#include "tests/support/fake_disk.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

using namespace std::chrono_literals;

namespace {

constexpr char temporary[] = ".status.dachost-tmp";

class status_files : public testing::Test {
 protected:
  scratch dir;
  scripted_loop loop;
  output err{loop, 2};
  std::string text;
  status_file file{loop, dir.path("status"), err, [this] { return text; }};

  void change(const std::string& to) {
    text = to;
    file.update();
    loop.pass(0s);
  }
  std::string written() const { return read_file(dir.path("status")); }
  std::string reported() { return std::exchange(loop.sinks[2].text, ""); }
  texts names() const {
    texts all;
    for (const auto& f : std::filesystem::directory_iterator(dir.path(""))) all.push_back(f.path().filename());
    return all;
  }
};

}  // namespace

TEST_F(status_files, are_written_at_once_and_then_once_a_second) {
  change("a");
  EXPECT_EQ(written(), "a");
  change("b");
  loop.pass(500ms);
  change("c");
  loop.pass(500ms - 1ns);
  EXPECT_EQ(written(), "a");
  loop.pass(1ns);
  EXPECT_EQ(written(), "c");
  loop.pass(1h);
  EXPECT_EQ(loop.works, 2) << "nothing has changed";
  change("d");
  EXPECT_EQ(written(), "d");
  EXPECT_EQ(names(), texts{"status"});
  EXPECT_EQ(reported(), "");
}

TEST_F(status_files, without_a_path_are_not_written) {
  status_file none(loop, "", err, [] { return "a"; });
  none.update();
  loop.pass(1h);
  none.finish();
  EXPECT_EQ(loop.works, 0);
}

TEST_F(status_files, get_the_newest_text_after_a_disk_that_hangs) {
  loop.holds_work = true;
  change("a");
  change("b");
  change("c");
  loop.pass(1h);
  EXPECT_EQ(loop.held_work(), 1U) << "one write at a time";
  loop.release_work();
  loop.pass(0s);
  EXPECT_EQ(written(), "a");
  loop.holds_work = false;
  loop.pass(1s);
  EXPECT_EQ(written(), "c");
  EXPECT_EQ(loop.works, 2);
}

TEST_F(status_files, can_be_read_by_all) {
  const mode_t before = umask(0);
  change("a");
  umask(before);
  struct stat s {};
  ASSERT_EQ(stat(dir.path("status").c_str(), &s), 0);
  EXPECT_EQ(s.st_mode & 07777, 0644U);
}

TEST_F(status_files, are_reported_when_they_cannot_be_written_and_when_they_can_again) {
  const std::string path = dir.path("run/status");
  status_file missing(loop, path, err, [this] { return text; });
  for (int n = 0; n < 3; ++n) {
    missing.update();
    loop.pass(1s);
  }
  EXPECT_EQ(reported(),
            "dachost: " + path + ": cannot be written: No such file or directory; retry every 10 seconds\n");
  std::filesystem::create_directory(dir.path("run"));
  for (int n = 0; n < 3; ++n) {
    missing.update();
    loop.pass(1s);
  }
  EXPECT_EQ(reported(), "dachost: " + path + ": is written again\n");
}

TEST_F(status_files, are_written_again_ten_seconds_after_a_failure) {
  const std::string path = dir.path("run/status");
  status_file missing(loop, path, err, [this] { return text; });
  text = "a";
  missing.update();
  loop.pass(0s);
  for (int n = 1; n <= 3; ++n) {
    EXPECT_EQ(loop.works, n);
    loop.pass(10s - 1ns);
    EXPECT_EQ(loop.works, n) << "not before";
    loop.pass(1ns);
  }
  std::filesystem::create_directory(dir.path("run"));
  loop.pass(10s);
  EXPECT_EQ(read_file(path), "a");
  EXPECT_EQ(reported(), "dachost: " + path +
                            ": cannot be written: No such file or directory; retry every 10 seconds\n"
                            "dachost: " +
                            path + ": is written again\n");
  EXPECT_EQ(loop.timers(), 0U);
  const int works = loop.works;
  loop.pass(1h);
  EXPECT_EQ(loop.works, works) << "nothing has changed";
}

TEST_F(status_files, have_a_change_at_once_after_a_failure_and_no_retry_after_it) {
  const std::string path = dir.path("run/status");
  status_file missing(loop, path, err, [this] { return text; });
  missing.update();
  loop.pass(5s);
  std::filesystem::create_directory(dir.path("run"));
  text = "b";
  missing.update();
  loop.pass(0s);
  EXPECT_EQ(read_file(path), "b");
  EXPECT_EQ(loop.timers(), 0U);
  EXPECT_EQ(loop.works, 2);
}

TEST_F(status_files, are_written_at_most_once_a_second_after_a_failure_too) {
  status_file missing(loop, dir.path("run/status"), err, [this] { return text; });
  missing.update();
  loop.pass(500ms);
  missing.update();
  loop.pass(500ms - 1ns);
  EXPECT_EQ(loop.works, 1);
  loop.pass(1ns);
  EXPECT_EQ(loop.works, 2);
}

TEST_F(status_files, are_written_at_the_end_after_a_failure) {
  const std::string path = dir.path("run/status");
  status_file missing(loop, path, err, [this] { return text; });
  text = "a";
  missing.update();
  loop.pass(5s);
  std::filesystem::create_directory(dir.path("run"));
  const auto begun = loop.now();
  missing.finish();
  EXPECT_EQ(read_file(path), "a");
  EXPECT_EQ(loop.now(), begun) << "the end does not wait for the retry";
}

TEST_F(status_files, that_still_cannot_be_written_do_not_delay_the_end) {
  status_file missing(loop, dir.path("run/status"), err, [this] { return text; });
  missing.update();
  loop.pass(5s);
  const auto begun = loop.now();
  missing.finish();
  EXPECT_EQ(loop.now(), begun);
  EXPECT_EQ(loop.works, 2);
}

TEST_F(status_files, replace_a_temporary_file_of_a_crash) {
  dir.file("longer than the status", temporary);
  change("a");
  EXPECT_EQ(written(), "a");
  EXPECT_EQ(names(), texts{"status"});
}

TEST_F(status_files, leave_other_files_of_the_user_unchanged) {
  dir.file("precious", "status.tmp");
  EXPECT_EQ(unwritable(dir.path("status")), "");
  change("a");
  EXPECT_EQ(read_file(dir.path("status.tmp")), "precious");
}

TEST_F(status_files, do_not_wait_for_a_reader_of_a_FIFO_in_place_of_the_temporary_file) {
  const std::string fifo = dir.path(temporary), reason = fifo + ": not a regular file";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(unwritable(dir.path("status")), reason);
  const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_NE(reader, -1);
  EXPECT_EQ(unwritable(dir.path("status")), reason);
  change("a");
  EXPECT_EQ(reported(),
            "dachost: " + dir.path("status") + ": cannot be written: " + reason + "; retry every 10 seconds\n");
  char byte = 0;
  EXPECT_EQ(read(reader, &byte, 1), 0) << "nothing was written to the FIFO";
  close(reader);
  EXPECT_TRUE(std::filesystem::is_fifo(fifo));
  EXPECT_EQ(names(), texts{temporary});
}

TEST_F(status_files, can_have_a_path_without_a_directory) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir.path(""));
  fake_disk::recording disk;
  EXPECT_EQ(unwritable("status"), "");
  EXPECT_EQ(std::exchange(disk.made, {}), (texts{"open .status.dachost-tmp", "close .status.dachost-tmp"}));
  std::filesystem::current_path(before);
}

// Another user can place it in a directory for all, such as /tmp.
TEST_F(status_files, are_not_written_through_a_link_in_place_of_the_temporary_file) {
  std::filesystem::create_symlink(dir.file("precious", "other"), dir.path(temporary));
  EXPECT_EQ(unwritable(dir.path("status")), "Too many levels of symbolic links");
  change("a");
  EXPECT_EQ(read_file(dir.path("other")), "precious");
  EXPECT_EQ(reported(), "dachost: " + dir.path("status") +
                            ": cannot be written: Too many levels of symbolic links; retry every 10 seconds\n");
}

TEST_F(status_files, are_closed_and_not_inherited_by_programs) {
  fake_disk::recording disk;
  unwritable(dir.path("status"));
  change("a");
  const texts calls = {"open .status.dachost-tmp",  "close .status.dachost-tmp", "open .status.dachost-tmp",
                       "write .status.dachost-tmp", "close .status.dachost-tmp", "rename .status.dachost-tmp"};
  EXPECT_EQ(std::exchange(disk.made, {}), calls);
  EXPECT_EQ(disk.inheritable, 0);
}

TEST_F(status_files, can_be_checked_without_a_change) {
  EXPECT_EQ(unwritable(dir.path("status")), "");
  EXPECT_EQ(names(), texts{});
  change("a");
  EXPECT_EQ(unwritable(dir.path("status")), "");
  EXPECT_EQ(names(), texts{"status"});
  EXPECT_EQ(written(), "a");
  EXPECT_EQ(unwritable(dir.path("missing/status")), "No such file or directory");
  EXPECT_EQ(unwritable(dir.path("status/status")), "Not a directory");
  EXPECT_EQ(unwritable("/proc/status"), "No such file or directory") << "a directory that accepts no files";
}

// dachost would end for a reason that may pass, and a service manager would not start it again.
TEST_F(status_files, are_not_unwritable_while_the_disk_is_full) {
  fake_disk::recording disk;
  for (const int error : {ENOSPC, EDQUOT}) {
    disk.calls.refuse(1);
    disk.error = error;
    EXPECT_EQ(unwritable(dir.path("status")), "");
  }
  disk.calls.refuse(1);
  disk.error = EACCES;
  EXPECT_EQ(unwritable(dir.path("status")), "Permission denied");
}

TEST_F(status_files, are_complete_when_the_disk_accepts_a_part_or_a_signal_interrupts) {
  fake_disk::recording disk;
  disk.most_bytes = {0, 1, 0, 2};
  change("complete");
  EXPECT_TRUE(disk.most_bytes.empty());
  EXPECT_EQ(written(), "complete");
}

TEST_F(status_files, stay_as_they_are_when_a_call_fails) {
  change("old");
  fake_disk::recording disk;
  disk.error = ENOSPC;
  const auto write = [&] {
    change("new");
    loop.pass(1s);
  };
  const int failed = fail_each(disk.calls, write, [&](int n, bool has_failed) {
    EXPECT_EQ(written(), has_failed ? "old" : "new") << disk.made.back();
    EXPECT_EQ(names(), texts{"status"}) << "no temporary file is left by call " << n;
  });
  EXPECT_EQ(failed, 4) << "open, write, close, rename";
  EXPECT_EQ(reported(), "dachost: " + dir.path("status") +
                            ": cannot be written: No space left on device; retry every 10 seconds\n"
                            "dachost: " +
                            dir.path("status") + ": is written again\n");
}

TEST_F(status_files, have_the_newest_text_at_the_end) {
  file.finish();
  EXPECT_EQ(loop.works, 0) << "nothing has changed";
  change("a");
  change("b");
  const auto begun = loop.now();
  file.finish();
  EXPECT_EQ(written(), "b");
  EXPECT_EQ(loop.now(), begun) << "the end does not wait for the second";
  EXPECT_FALSE(loop.is_restored);
}

TEST_F(status_files, are_written_once_at_the_end_even_if_it_takes_time) {
  change("a");
  change("b");
  loop.holds_work = true;
  const auto wait = loop.call_in(1500ms, [this] { loop.release_work(); });
  file.finish();
  EXPECT_EQ(written(), "b");
  EXPECT_EQ(loop.works, 2);
}

TEST_F(status_files, have_the_newest_text_at_the_end_even_if_it_changes_during_a_write) {
  loop.holds_work = true;
  change("a");
  change("b");
  const auto wait = loop.call_in(500ms, [this] {
    loop.holds_work = false;
    loop.release_work();
  });
  file.finish();
  EXPECT_EQ(written(), "b");
}

TEST_F(status_files, end_by_a_signal_when_a_disk_hangs_for_two_seconds_at_the_end) {
  loop.holds_work = true;
  change("a");
  const auto early = loop.call_in(2s - 1ns, [this] { EXPECT_FALSE(loop.is_restored); });
  const auto late = loop.call_in(2s + 1ns, [this] {
    EXPECT_TRUE(loop.is_restored);
    loop.release_work();
  });
  file.finish();
  EXPECT_EQ(written(), "a");
}
