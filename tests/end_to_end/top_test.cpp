// `dachost top` from outside: plain tables through a pipe, and the screen of a terminal that tmux holds.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <thread>

#include "tests/support/built.h"
#include "tests/support/dachost_fixture.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/terminal.h"
#include "tests/support/texts.h"

namespace {

std::string joined(const texts& all) {
  std::string text;
  for (const std::string& line : all) text += line + '\n';
  return text;
}

/// Without the parts that vary: the time in the head, and ages with the spaces that align them.
std::string steady(const std::string& text) {
  const std::string timeless = std::regex_replace(text, std::regex("[0-9-]+T[0-9:]+Z"), "TIME");
  return std::regex_replace(timeless, std::regex(" +([0-9]+s|AGE) "), " AGE ");
}

/// Of the first instance on a screen.
std::string age(const texts& screen) {
  std::smatch found;
  const std::string row = screen.size() > 2 ? screen[2] : "";
  return std::regex_search(row, found, std::regex(" ([0-9]+s) ")) ? found.str(1) : "";
}

bool is_a_second_between_two_tables(const std::string& out) {
  const std::regex seconds("dachost top  \\S+:([0-9]{2})Z");
  int last = -1;
  for (std::sregex_iterator table(out.begin(), out.end(), seconds), end; table != end; ++table) {
    const int now = std::stoi(table->str(1));
    if (last >= 0 && now == (last + 1) % 60) return true;
    last = now;
  }
  return false;
}

std::string head(const std::string& counts) {
  return "dachost top  TIME  " + counts + "\nINSTANCE  HANDLE  RUNS AGE  PUBS  ERRORS  HOST NAME  VALUE\n";
}

/// A directory with configuration files, where `dachost top` is started by a script "go".
class top : public testing::Test {
 protected:
  scratch dir;

  /// Writes the script: options and names of files, for the plug-in that does what its files say, or for the real one.
  void prepare(const std::string& words, const std::string& plugin = built("fake_plugin")) const {
    const std::string command = built("emulator") + ' ' + built("dachost") + " top -p " + plugin + ' ' + words;
    dir.file("cd " + dir.path("") + "\necho $$ >pid\nFAKE_JOURNAL=journal LC_ALL=C.UTF-8 exec " + command + '\n', "go");
  }
  /// Starts it without a terminal.
  process start(const std::string& words, const std::string& plugin = built("fake_plugin")) const {
    prepare(words, plugin);
    return process({"sh", dir.path("go")});
  }
  /// The files i10.conf and so on, `n` of them; their names.
  std::string many(int n, const std::string& text) const {
    std::string names;
    for (int i = 10; i < 10 + n; ++i) {
      const std::string name = 'i' + std::to_string(i) + ".conf";
      dir.file(text, name);
      names += name + ' ';
    }
    return names;
  }

  texts journal() const {
    std::ifstream in(dir.path("journal"));
    return lines({std::istreambuf_iterator<char>(in), {}});
  }
  bool is_gone(const std::string& instance) const {
    const texts all = journal();
    return std::count(all.begin(), all.end(), "destroy " + instance) == 1;
  }
};

/// The same in a terminal.
class top_screen : public top {
 protected:
  /// Starts it and waits until the text is on the screen.
  void open(terminal& t, const std::string& words, const std::string& shown,
            const std::string& plugin = built("fake_plugin")) {
    prepare(words, plugin);
    t.type("cd " + dir.path("") + "; stty -g >before; sh go; echo status=$?; stty -g >after");
    t.press("Enter");
    t.await(shown);
  }
  /// The lines between the command and its status.
  static texts printed(const terminal& t) {
    const texts all = t.lines();
    const auto ends =
        std::find_if(all.begin(), all.end(), [](const auto& line) { return line.starts_with("status="); });
    const auto begins =
        std::find_if(all.begin(), ends, [](const auto& line) { return line.find("echo ") != line.npos; });
    return begins == ends ? texts() : texts(std::next(begins), ends);
  }
  pid_t host() const {
    pid_t id = 0;
    EXPECT_TRUE(eventually([&] { return static_cast<bool>(std::ifstream(dir.path("pid")) >> id); }));
    return id > 0 ? id : throw std::runtime_error("no process");
  }
  /// As another program would do that writes to the same terminal.
  void write_foreign(const std::string& text) const {
    std::ofstream(std::filesystem::read_symlink("/proc/" + std::to_string(host()) + "/fd/1")) << text << std::flush;
  }
  /// The program has ended with status 0 and has restored the terminal.
  void expect_restored(const terminal& t) const {
    t.await("status=0");
    EXPECT_FALSE(t.is_alternate());
    EXPECT_TRUE(t.has_cursor());
    const auto settings = [this](const char* name) {
      std::ifstream in(dir.path(name));
      return std::string(std::istreambuf_iterator<char>(in), {});
    };
    EXPECT_TRUE(eventually([&] { return !settings("after").empty(); }));
    EXPECT_EQ(settings("before"), settings("after"));
  }
};

}  // namespace

// ---------------------------------------------------------------- through a pipe

TEST_F(top, once_prints_one_table_when_every_instance_has_published) {
  dir.file("publish 2001:db8::10", "gw.conf");
  dir.file("publish null\nidle\nfail a failure", "pump.conf");
  const ending e = start("--once gw.conf pump.conf").end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "dachost: pump: a failure\n");
  EXPECT_EQ(steady(e.out), head("instances 2, running 1, errors 1") +
                               "gw             0  yes AGE     1       0  gw         2001:db8::10\n"
                               "pump           1  no AGE     1       1  pump       null\n");
}

TEST_F(top, shows_what_the_shipped_plugin_publishes) {
  dir.file("hostname = a.example", "a.conf");
  const ending e = start("--once a.conf", built("plugin")).end();
  EXPECT_EQ(e.status, 0);
  const texts out = lines(steady(e.out));
  ASSERT_EQ(out.size(), 3U) << e.out;
  EXPECT_EQ(out[0] + '\n' + out[1] + '\n', head("instances 1, running 1, errors 0"));
  EXPECT_TRUE(out[2].starts_with("a              0  yes AGE     1       0  a.example  ")) << out[2];
}

TEST_F(top, prints_a_table_a_second_until_it_is_stopped) {
  dir.file("publish 2001:db8::10", "gw.conf");
  process p = start("gw.conf");
  EXPECT_TRUE(eventually([&p] {
    p.read_out(p.out().size() + 1);
    return is_a_second_between_two_tables(p.out());
  })) << p.out();
  p.signal(SIGTERM);
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "");
  const texts out = lines(e.out);
  EXPECT_EQ(out.at(3), "");
  EXPECT_TRUE(out.at(4).starts_with("dachost top")) << e.out;
  EXPECT_TRUE(is_gone("gw 0"));
}

TEST_F(top, shows_instances_that_have_not_published_after_a_second) {
  dir.file("", "mute.conf");
  process p = start("mute.conf");
  p.await_out("mute");
  p.signal(SIGINT);
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(lines(e.out).at(2), "mute           0  yes     -     0       0  mute       -");
}

TEST_F(top, for_ends_after_its_seconds) {
  dir.file("", "mute.conf");
  const ending e = start("--for 0.001 mute.conf").end();
  EXPECT_EQ(e.status, 0);
  EXPECT_TRUE(is_gone("mute 0"));
}

TEST_F(top, starts_nothing_when_a_file_is_refused) {
  dir.file("", "a.conf");
  dir.file("refuse for a reason", "bad.conf");
  const ending e = start("a.conf bad.conf").end();
  EXPECT_EQ(e.status, 78);
  EXPECT_EQ(e.out, "");
  EXPECT_EQ(e.err, "dachost: bad.conf: for a reason; nothing is started\n");
  EXPECT_EQ(journal().back(), "destroy a 0");
}

TEST_F(top, SIGHUP_reads_the_files_again_and_resets_the_counts) {
  dir.file("publish before\nfail of the old one", "gw.conf");
  dir.file("publish other", "other.conf");
  process p = start("gw.conf other.conf");
  p.await_out("before");
  dir.file("publish after", "gw.conf");
  dir.file("refuse for a reason", "other.conf");
  p.signal(SIGHUP);
  p.await_out("after");
  p.signal(SIGTERM);
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  const std::string last = e.out.substr(e.out.rfind("dachost top"));
  EXPECT_EQ(steady(last), head("instances 2, running 2, errors 1") +
                              "gw             2  yes AGE     1       0  gw         after\n"
                              "other          1  yes AGE     1       1  other      other\n");
  const texts err = lines(e.err);
  ASSERT_EQ(err.size(), 2U) << e.err;
  EXPECT_EQ(err[0], "dachost: gw: of the old one");
  EXPECT_EQ(err[1], "dachost: other.conf: for a reason; the old instance continues");
}

TEST_F(top, reports_a_refusal_with_a_control_character_once) {
  dir.file("publish before", "gw.conf");
  dir.file("publish other", "other.conf");
  process p = start("gw.conf other.conf");
  p.await_out("before");
  dir.file("publish after", "gw.conf");
  dir.file("refuse for a\treason", "other.conf");
  p.signal(SIGHUP);
  p.await_out("after");
  p.signal(SIGTERM);
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.err, "dachost: other.conf: for a\\x09reason; the old instance continues\n");
}

TEST_F(top, shows_no_age_below_zero_when_the_clock_is_set_back) {
  dir.file("publish 2001:db8::10", "gw.conf");
  dir.file("0", "clock");
  texts command = {"env", "LD_PRELOAD=" + built("wall_clock"), "WALL_CLOCK=" + dir.path("clock"),
                   "ASAN_OPTIONS=verify_asan_link_order=0"};
  for (const texts& more :
       {split(built("emulator"), ' '), {built("dachost"), "top", "-p", built("fake_plugin"), dir.path("gw.conf")}})
    command.insert(command.end(), more.begin(), more.end());
  process p(command);
  p.await_out("2001:db8::10");
  dir.file("-3600", "clock");
  p.await_out("\n\n");
  const size_t before = p.out().size();
  p.read_out(p.out().size() + 400);
  p.signal(SIGTERM);
  const texts rows = lines(p.end().out.substr(before));
  EXPECT_GE(std::count_if(rows.begin(), rows.end(), [](const std::string& r) { return r.find(" 0s ") != r.npos; }), 2);
  for (const std::string& r : rows) EXPECT_EQ(r.find(" -"), std::string::npos) << r;
}

// The next table would be printed after a second, when the instance no longer exists.
TEST_F(top, prints_no_table_for_a_value_that_arrives_while_it_stops) {
  const remote_control gw(dir.path("fifo"));
  dir.file(gw.order() + "hold " + dir.path("released"), "gw.conf");
  process p = start("gw.conf");
  p.await_out("gw ");
  p.signal(SIGTERM);
  EXPECT_TRUE(eventually([this] { return journal().back() == "held gw 0"; }));
  gw.say("publish late");
  dir.file("", "released");
  const ending e = p.end();
  EXPECT_EQ(e.status, 0);
  EXPECT_EQ(e.out.find("late"), std::string::npos) << e.out;
}

TEST_F(top, ends_when_its_reader_closes) {
  dir.file("publish 2001:db8::10", "gw.conf");
  process p = start("gw.conf");
  p.await_out("2001:db8::10");
  p.close_out();
  const ending e = p.end();
  EXPECT_EQ(e.status, 1);
  EXPECT_EQ(e.err, "dachost: standard output: Broken pipe\n");
  EXPECT_TRUE(is_gone("gw 0"));
}

TEST_F(top, prints_no_table_before_the_reader_has_taken_the_last_one) {
  process p = start(many(190, "publish " + std::string(900, 'v')));
  p.await_out("dachost top");
  std::this_thread::sleep_for(std::chrono::seconds(6));
  p.signal(SIGTERM);
  const std::string out = p.end().out, heading = "dachost top";
  int tables = 0;
  for (size_t at = 0; (at = out.find(heading, at)) != std::string::npos; at += heading.size()) ++tables;
  EXPECT_LE(tables, 3) << "one would be printed each second";
}

TEST_F(top, a_signal_stops_a_run_whose_reader_does_not_read) {
  process p = start(many(190, "publish " + std::string(900, 'v')));
  p.await_out("dachost top");
  p.signal(SIGTERM);
  EXPECT_EQ(p.end_unread(), 1);
  EXPECT_TRUE(is_gone("i10 0"));
  EXPECT_EQ(p.end().err, "dachost: standard output: timed out waiting for the reader\n");
}

// ---------------------------------------------------------------- on a screen

TEST_F(top_screen, shows_the_table_until_q_and_restores_the_terminal) {
  dir.file("publish 2001:db8::10", "gw.conf");
  dir.file("publish null", "pump.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "gw.conf pump.conf", "2001:db8::10");
  EXPECT_TRUE(t.is_alternate());
  EXPECT_FALSE(t.has_cursor());
  EXPECT_EQ(steady(joined(t.lines())), head("instances 2, running 2, errors 0") +
                                           "gw             0  yes AGE     1       0  gw         2001:db8::10\n"
                                           "pump           1  yes AGE     1       0  pump       null\n"
                                           "\n\n\nq ends\n");
  t.type("q");
  expect_restored(t);
  EXPECT_TRUE(is_gone("gw 0") && is_gone("pump 1"));
}

TEST_F(top_screen, restores_the_terminal_before_its_instances_stop) {
  dir.file("stop takes 5000\npublish 2001:db8::10", "gw.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "gw.conf", "2001:db8::10");
  t.press("q");
  EXPECT_TRUE(eventually([&] { return !t.is_alternate(); }));
  EXPECT_EQ(kill(host(), 0), 0) << "the instance has stopped";
  expect_restored(t);
}

TEST_F(top_screen, restores_the_terminal_on_ctrl_c) {
  dir.file("publish 2001:db8::10", "gw.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "gw.conf", "2001:db8::10");
  t.press("C-c");
  expect_restored(t);
  EXPECT_TRUE(is_gone("gw 0"));
}

TEST_F(top_screen, restores_the_terminal_on_a_quit_key_and_signal) {
  dir.file("publish 2001:db8::10", "gw.conf");
  for (const bool by_key : {true, false}) {
    SCOPED_TRACE(by_key);
    terminal t(dir.path(""), 80, 8);
    open(t, "gw.conf", "2001:db8::10");
    if (by_key)
      t.press("C-\\");
    else
      kill(host(), SIGQUIT);
    expect_restored(t);
    for (const char* file : {"pid", "before", "after"}) std::filesystem::remove(dir.path(file));
  }
}

// Ctrl-S stops the output of a terminal; a write to it then blocks until Ctrl-Q.
TEST_F(top_screen, ends_on_a_signal_after_ctrl_s) {
  dir.file("publish 2001:db8::10", "gw.conf");
  for (const int sig : {SIGTERM, SIGHUP}) {
    SCOPED_TRACE(sig);
    terminal t(dir.path(""), 80, 8);
    open(t, "gw.conf", "2001:db8::10");
    t.press("C-s");
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // the next table is due meanwhile
    const size_t calls = journal().size();
    kill(host(), sig);
    EXPECT_TRUE(eventually([&] { return journal().size() > calls; })) << "the signal is answered";
    if (sig == SIGHUP) kill(host(), SIGTERM);
    EXPECT_TRUE(eventually([this] { return journal().back().starts_with("destroy gw "); }));
    t.press("C-q");
    expect_restored(t);
    for (const char* file : {"pid", "before", "after"}) std::filesystem::remove(dir.path(file));
  }
}

TEST_F(top_screen, changes_after_ctrl_s) {
  dir.file("publish 2001:db8::10", "gw.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "gw.conf", "2001:db8::10");
  t.press("C-s");
  dir.file("publish 2001:db8::11", "gw.conf");
  kill(host(), SIGHUP);
  t.await("2001:db8::11");
}

TEST_F(top_screen, restores_the_terminal_while_suspended_and_continues) {
  dir.file("publish 2001:db8::10", "gw.conf");
  terminal t(dir.path(""), 80, 8);
  prepare("gw.conf");
  t.type("cd " + dir.path("") + "; sh go");
  t.press("Enter");
  t.await("2001:db8::10");
  t.press("C-z");
  t.await("Stopped");
  EXPECT_FALSE(t.is_alternate());
  t.type("fg; echo status=$?");
  t.press("Enter");
  t.await("q ends");
  t.type("q");
  t.await("status=0");
}

TEST_F(top_screen, ages_grow_by_themselves) {
  dir.file("publish 2001:db8::10", "gw.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "gw.conf", "2001:db8::10");
  const std::string before = age(t.lines());
  ASSERT_NE(before, "");
  t.await([&](const texts& all) { return !age(all).empty() && age(all) != before; });
}

TEST_F(top_screen, cuts_long_lines_and_follows_the_size_of_the_terminal) {
  dir.file("publish " + std::string(100, 'v'), "gw.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "gw.conf", "vvv>");
  const texts narrow = t.lines();
  EXPECT_EQ(narrow.at(2).size(), 80U);
  EXPECT_EQ(narrow.at(3), "") << "the rest is not on the next line";
  t.resize(200, 5);
  const texts wide = t.await([](const texts& all) { return all.size() == 5 && all[2].ends_with("vvv"); });
  EXPECT_TRUE(wide.at(2).ends_with(' ' + std::string(100, 'v')));
  EXPECT_EQ(wide.at(4), "q ends");
  t.resize(30, 3);
  t.await([](const texts& all) { return all.size() == 3 && all[1].size() == 30 && all[2] == "q ends"; });
  t.resize(30, 2);
  t.await([](const texts& all) { return all.size() == 2 && all[1].starts_with("INSTANCE"); });
  t.resize(80, 4);
  t.await("vvv>");
  t.type("q");
  expect_restored(t);
}

// A table is drawn every second in any case. 20 sizes in a row take less than 16 seconds only if a new size is drawn at
// once.
TEST_F(top_screen, follows_each_new_size_at_once) {
  dir.file("publish null", "gw.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "gw.conf", "q ends");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(16);
  for (size_t height = 9; height < 29; ++height) {
    t.resize(80, static_cast<int>(height));
    t.await([&](const texts& all) { return all.size() == height && all.back() == "q ends"; });
  }
  EXPECT_LT(std::chrono::steady_clock::now(), end);
}

TEST_F(top_screen, has_24_lines_of_80_columns_if_the_terminal_does_not_know_its_size) {
  dir.file("publish " + std::string(100, 'v'), "gw.conf");
  prepare("--for 1 gw.conf");
  const std::string command = "stty rows 0 columns 0; TERM=xterm sh " + dir.path("go");
  const ending e = process({"script", "-qec", command, "/dev/null"}).end();
  EXPECT_EQ(e.status, 0);
  EXPECT_NE(e.out.find("\x1b[24;1H\x1b[Kq ends"), std::string::npos) << e.out;
  std::smatch row;
  ASSERT_TRUE(std::regex_search(e.out, row, std::regex("\x1b\\[K(gw .*>)\x1b"))) << e.out;
  EXPECT_EQ(row.str(1).size(), 80U);
}

TEST_F(top_screen, scrolls_through_more_instances_than_lines) {
  terminal t(dir.path(""), 100, 13);
  open(t, many(35, "publish null"), "rows 1-10 of 35; arrows, PgUp, PgDn, Home and End scroll; q ends");
  const struct {
    const char* key;
    const char* first;
    const char* last;
  } steps[] = {{"Down", "i11 ", "i20 "},  {"Down", "i12 ", "i21 "},  {"PPage", "i10 ", "i19 "},
               {"Up", "i10 ", "i19 "},    {"NPage", "i20 ", "i29 "}, {"Up", "i19 ", "i28 "},
               {"End", "i35 ", "i44 "},   {"NPage", "i35 ", "i44 "}, {"Down", "i35 ", "i44 "},
               {"PPage", "i25 ", "i34 "}, {"Home", "i10 ", "i19 "}};
  for (const auto& s : steps) {
    t.press(s.key);
    t.await([&](const texts& all) {
      return all.size() == 13 && all[2].starts_with(s.first) && all[11].starts_with(s.last);
    });
  }
  t.press("End");
  t.await("rows 26-35 of 35");
  t.resize(100, 33);
  t.await("rows 6-35 of 35");
  t.resize(100, 38);
  t.await([](const texts& all) { return all.size() == 38 && all[2].starts_with("i10 ") && all[37] == "q ends"; });
  t.resize(100, 60);
  t.await([](const texts& all) { return all.size() == 60 && all[2].starts_with("i10 ") && all[59] == "q ends"; });
}

TEST_F(top_screen, shows_a_failure_at_the_bottom_until_a_key_is_pressed) {
  dir.file("publish null\nfail to find addresses", "gw.conf");
  terminal t(dir.path(""), 100, 8);
  open(t, "gw.conf", "Z gw: to find addresses");
  EXPECT_NE(t.lines().at(2).find(" 1       1  gw"), std::string::npos);
  t.press("Down");
  t.await("q ends");
}

TEST_F(top_screen, handles_several_keys_at_once) {
  terminal t(dir.path(""), 100, 13);
  open(t, many(35, "publish null"), "rows 1-10 of 35");
  t.press_at_once({"Down", "Down", "NPage", "Down", "Up", "x", "Down"});
  t.await("rows 14-23 of 35");
  t.press_at_once({"x", "[", "Down"});
  t.await("rows 15-24 of 35");
  t.press_at_once({"Home", "Down", "q"});
  expect_restored(t);
}

TEST_F(top_screen, handles_a_key_that_arrives_in_two_parts) {
  terminal t(dir.path(""), 100, 13);
  open(t, many(35, "publish null"), "rows 1-10 of 35");
  t.press_bytes("\x1b[");
  t.press_bytes("B");
  t.await("rows 2-11 of 35");
}

TEST_F(top_screen, ignores_a_key_that_it_does_not_know) {
  terminal t(dir.path(""), 100, 13);
  open(t, many(35, "publish null"), "rows 1-10 of 35");
  t.press_bytes("\x1b[2@\x1b[B");
  t.await("rows 2-11 of 35");
}

TEST_F(top_screen, shows_a_note_after_a_resize) {
  dir.file("publish null\nfail to find addresses", "gw.conf");
  terminal t(dir.path(""), 100, 8);
  open(t, "gw.conf", "Z gw: to find addresses");
  t.resize(90, 6);
  t.await([](const texts& all) { return all.size() == 6 && all[5].ends_with("Z gw: to find addresses"); });
  t.resize(120, 10);
  t.await([](const texts& all) { return all.size() == 10 && all[9].ends_with("Z gw: to find addresses"); });
  t.press("Down");
  t.await("q ends");
}

TEST_F(top_screen, erases_foreign_output_on_ctrl_l) {
  dir.file("publish 2001:db8::10", "gw.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "gw.conf", "2001:db8::10");
  write_foreign("\x1b[3;1Hforeign words\x1b[6;1Hand more of them");
  t.await("foreign words");
  t.press("C-l");
  t.await([](const texts& all) {
    return joined(all).find("foreign") == std::string::npos && joined(all).find("more of them") == std::string::npos &&
           all.size() == 8 && all[2].starts_with("gw ") && all[7] == "q ends";
  });
}

TEST_F(top_screen, shows_a_note_after_ctrl_l) {
  dir.file("publish null\nfail to find addresses", "gw.conf");
  terminal t(dir.path(""), 100, 8);
  open(t, "gw.conf", "Z gw: to find addresses");
  write_foreign("\x1b[8;60Hforeign words");
  t.await("foreign words");
  t.press("C-l");
  const texts drawn = t.await([](const texts& all) {
    return all.size() == 8 && !all[7].empty() && all[7].find("foreign") == std::string::npos;
  });
  EXPECT_TRUE(drawn.at(7).ends_with("Z gw: to find addresses")) << joined(drawn);
}

// "e" and U+0301 take one column together, so the next columns are aligned.
TEST_F(top_screen, aligns_combining_characters) {
  const std::string accent = "e\xcc\x81";
  dir.file("publish plain", "abcd.conf");
  dir.file("publish " + accent + accent, "ab" + accent + "d.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "abcd.conf ab" + accent + "d.conf", accent + accent);
  const texts all = t.lines();
  EXPECT_EQ(all.at(2).find("0  yes"), all.at(3).find("1  yes") - 2) << joined(all);
  EXPECT_EQ(all.at(2).find("plain"), all.at(3).find(accent + accent) - 4) << joined(all);
}

TEST_F(top_screen, SIGHUP_shows_the_reason_of_every_refused_file_until_a_key_is_pressed) {
  const texts names = {"a", "b", "c"};
  for (const std::string& n : names) dir.file("publish value of " + n, n + ".conf");
  terminal t(dir.path(""), 100, 12);
  open(t, "a.conf b.conf c.conf", "value of c");
  for (const std::string& n : names) dir.file("refuse for reason " + n, n + ".conf");
  ASSERT_EQ(kill(host(), SIGHUP), 0);
  const auto shows_all = [&](const texts& all) {
    return std::all_of(names.begin(), names.end(), [&](const std::string& n) {
      return joined(all).find("dachost: " + n + ".conf: for reason " + n + "; the old instance continues") !=
             std::string::npos;
    });
  };
  const texts screen = t.await(shows_all);
  for (const std::string& n : names)
    EXPECT_NE(joined(screen).find("value of " + n), std::string::npos) << "the table is still there";
  t.press("Down");
  t.await([](const texts& all) { return all.back() == "q ends" && joined(all).find("reason") == std::string::npos; });
}

TEST_F(top_screen, shows_at_least_half_a_table_and_the_newest_reasons_when_many_files_are_refused) {
  terminal t(dir.path(""), 100, 12);
  const std::string names = many(30, "publish null");
  open(t, names, "null");
  many(30, "refuse for a reason");
  ASSERT_EQ(kill(host(), SIGHUP), 0);
  const texts screen =
      t.await([](const texts& all) { return all.back().find("i39.conf: for a") != std::string::npos; });
  EXPECT_EQ(screen.size(), 12U);
  EXPECT_TRUE(screen.at(2).starts_with("i10 ")) << screen.at(2);
  EXPECT_TRUE(screen.at(6).starts_with("i14 ")) << screen.at(6);
  EXPECT_NE(joined(screen).find("26 more"), std::string::npos) << joined(screen);
}

TEST_F(top_screen, counts_the_reasons_that_it_does_not_show) {
  terminal t(dir.path(""), 100, 12);
  open(t, many(6, "publish null"), "null");
  many(6, "refuse for a reason");
  ASSERT_EQ(kill(host(), SIGHUP), 0);
  const texts screen =
      t.await([](const texts& all) { return all.back().find("i15.conf: for a") != std::string::npos; });
  EXPECT_EQ(screen.at(7), "2 more");
}

TEST_F(top_screen, shows_the_newest_failure_also_of_an_instance_that_failed_before_others) {
  const remote_control first(dir.path("fifo"));
  dir.file(first.order() + "publish null\nfail for the first time", "a.conf");
  for (const char* name : {"b.conf", "c.conf"}) dir.file("publish null\nfail to find addresses", name);
  terminal t(dir.path(""), 100, 6);
  open(t, "a.conf b.conf c.conf", "Z c: to find addresses");
  first.say("fail again");
  t.await([](const texts& all) { return all.back().ends_with("Z a: again"); });
  EXPECT_EQ(t.lines().at(4), "2 more");
}

TEST_F(top_screen, leaves_the_reason_of_a_refusal_at_the_start) {
  terminal t(dir.path(""), 80, 8);
  dir.file("refuse for a reason", "gw.conf");
  open(t, "gw.conf", "status=78");
  t.await("dachost: gw.conf: for a reason");
  EXPECT_FALSE(t.is_alternate());
}

TEST_F(top_screen, SIGHUP_shows_a_refusal_at_the_bottom) {
  dir.file("publish 2001:db8::10", "gw.conf");
  terminal t(dir.path(""), 100, 8);
  open(t, "gw.conf", "2001:db8::10");
  dir.file("refuse for a reason", "gw.conf");
  ASSERT_EQ(kill(host(), SIGHUP), 0);
  const texts all = t.await("dachost: gw.conf: for a reason; the old instance continues");
  EXPECT_NE(all.at(2).find("2001:db8::10"), std::string::npos);
}

TEST_F(top_screen, once_prints_a_table_on_a_terminal) {
  dir.file("publish null", "gw.conf");
  terminal t(dir.path(""), 150, 12);
  open(t, "--once gw.conf", "status=0");
  EXPECT_EQ(steady(joined(printed(t))),
            head("instances 1, running 1, errors 0") + "gw             0  yes AGE     1       0  gw         null\n");
}

TEST_F(top_screen, prints_tables_if_input_or_output_is_not_a_terminal) {
  dir.file("publish null", "gw.conf");
  prepare("--for 1.5 gw.conf");
  for (const std::string command : {"sh go </dev/null", "sh go | cat"}) {
    SCOPED_TRACE(command);
    terminal t(dir.path(""), 150, 12);
    t.type("cd " + dir.path("") + "; " + command + "; echo status=$?");
    t.press("Enter");
    t.await("status=0");
    const texts all = printed(t);
    ASSERT_GE(all.size(), 3U);
    EXPECT_EQ(steady(joined({all[0], all[1]})), head("instances 1, running 1, errors 0"));
  }
}

TEST_F(top_screen, prints_tables_when_the_terminal_cannot_be_used) {
  dir.file("publish null", "gw.conf");
  const struct row {
    const char* setting;
    const char* reason;
  } rows[] = {{"export TERM=no-such-terminal", "TERM names an unknown terminal"},
              {"unset TERM", "TERM names an unknown terminal"},
              {"export TERM=dumb", "the terminal named by TERM cannot move its cursor"}};
  for (const row& r : rows) {
    SCOPED_TRACE(r.setting);
    terminal t(dir.path(""), 120, 30);
    t.type(std::string("clear; ") + r.setting);
    t.press("Enter");
    open(t, "gw.conf", std::string(r.reason) + "; tables are printed one after another");
    t.await([](const texts& all) { return joined(all).find("null\n\ndachost top") != std::string::npos; });
    t.press("C-c");
    expect_restored(t);
  }
}

TEST_F(top_screen, ends_in_order_when_the_terminal_disappears) {
  dir.file("publish null", "gw.conf");
  terminal t(dir.path(""), 80, 8);
  open(t, "gw.conf", "null");
  t.hang_up();
  EXPECT_TRUE(eventually([this] { return is_gone("gw 0"); })) << joined(journal());
}
