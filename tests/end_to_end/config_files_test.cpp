// Configuration files that block or never end, and a plug-in that does not return from them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/dachost_fixture.h"

namespace {

class config_files : public dachost_fixture {
 protected:
  std::string fifo(const std::string& name = "fifo.conf") const {
    if (mkfifo(dir.path(name).c_str(), 0600) != 0) throw std::runtime_error(name);
    return dir.path(name);
  }
  /// Another file takes the place of gw.conf, and dachost is to read it.
  void replace(const process& p, const std::string& by) const {
    std::filesystem::rename(by, dir.path("gw.conf"));
    p.signal(SIGHUP);
  }
  texts journal_to() const { return {"FAKE_JOURNAL=" + dir.path("journal")}; }
};

}  // namespace

TEST_F(config_files, that_block_or_never_end_are_refused_in_one_line) {
  const std::string large = dir.file(std::string((1 << 20) + 1, '#'), "large.conf"), pipe = fifo();
  const struct row {
    std::string file;
    const char* why;
  } rows[] = {{pipe, ": not a regular file"},
              {"/dev/zero", ": not a regular file"},
              {dir.path(""), ": not a regular file"},
              {large, ": larger than 1 MiB"}};
  for (const row& r : rows) {
    for (const char* command : {"run", "top", "check", "tags", "info"}) {
      SCOPED_TRACE(std::string(command) + ' ' + r.file);
      const ending e = start({command, "-p", built("plugin"), r.file}).end();
      EXPECT_GT(e.status, 0);
      const std::string& report = command == std::string("check") ? e.out : e.err;
      ASSERT_EQ(lines(report).size(), 1U) << report;
      EXPECT_NE(report.find(r.file + r.why), std::string::npos) << report;
      EXPECT_EQ(report.find(r.file), report.rfind(r.file)) << report;
    }
  }
}

TEST_F(config_files, that_become_FIFOs_do_not_stop_the_old_instance_or_block_dachost) {
  for (const char* command : {"run", "top"}) {
    SCOPED_TRACE(command);
    const std::string file = dir.file("hostname=before", "gw.conf");
    process p = start({command, "-p", built("plugin"), file});
    p.await_out("before");
    replace(p, fifo());
    p.await_err(file + ": not a regular file; the old instance continues\n");
    dir.file("hostname=after", "next.conf");
    replace(p, dir.path("next.conf"));
    p.await_out("after");
    terminate(p);
  }
}

TEST_F(config_files, on_which_the_plug_in_hangs_leave_dachost_answering_SIGTERM) {
  for (const char* command : {"run", "top"}) {
    SCOPED_TRACE(command);
    process p =
        start({command, "-p", built("fake_plugin"), conf("hang")}, preloaded(built("short_minutes"), journal_to()));
    await_journal("hang gw");
    p.signal(SIGTERM);
    const ending e = p.end();
    EXPECT_EQ(e.status, 1);
    EXPECT_EQ(e.err, "dachost: the plug-in does not return; the instances are not stopped\n");
    std::filesystem::remove(dir.path("journal"));
  }
  process p = start({"check", "-p", built("fake_plugin"), conf("hang")}, journal_to());
  await_journal("hang gw");
  p.signal(SIGTERM);
  EXPECT_EQ(p.end().status, -SIGTERM);
}

TEST_F(config_files, on_which_the_plug_in_hangs_at_a_reload_leave_dachost_answering_SIGTERM) {
  process p =
      start({"run", "-p", built("fake_plugin"), conf("publish a")}, preloaded(built("short_minutes"), journal_to()));
  p.await_out("\ta\n");
  conf("hang");
  p.signal(SIGHUP);
  await_journal("hang gw");
  p.signal(SIGTERM);
  EXPECT_EQ(p.end().status, 1);
}
