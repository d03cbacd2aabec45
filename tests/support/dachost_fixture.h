// Tests that run the built dachost: how they start it, feed its instances and read what it prints.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "tests/support/built.h"
#include "tests/support/process.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

/// A FIFO that an instance of the fake plug-in obeys (see fake_plugin.cpp) while it runs.
class remote_control {
 public:
  explicit remote_control(std::string path) : _path(std::move(path)) {
    if (mkfifo(_path.c_str(), 0600) != 0) throw std::runtime_error(_path);
    _fd = open(_path.c_str(), O_RDWR | O_CLOEXEC);
    if (_fd < 0) throw std::runtime_error(_path);
  }
  ~remote_control() { close(_fd); }
  remote_control(const remote_control&) = delete;
  remote_control& operator=(const remote_control&) = delete;

  /// The line of the configuration file that has the instance obey.
  std::string order() const { return "obey " + _path + '\n'; }
  /// "publish TEXT", "fail TEXT" or "flood N".
  void say(const std::string& order) const {
    const std::string line = order + '\n';
    if (write(_fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) throw std::runtime_error(order);
  }

 private:
  std::string _path;
  int _fd = -1;
};

/// Processor time of a process and its threads.
inline double processor_seconds(pid_t pid) {
  const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  const texts fields = split(stat.substr(stat.rfind(") ") + 2), ' ');
  return static_cast<double>(std::stol(fields.at(11)) + std::stol(fields.at(12))) /
         static_cast<double>(sysconf(_SC_CLK_TCK));
}

/// How often the threads of a process have waited.
inline long waits(pid_t pid) {
  long all = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const std::string status = read_file(task.path().string() + "/status"), name = "\nvoluntary_ctxt_switches:";
    if (const size_t at = status.find(name); at != std::string::npos) all += std::stol(status.substr(at + name.size()));
  }
  return all;
}

/// Waits until a process has finished its pending work. A busy loop never does.
inline void await_settled(const process& p) {
  EXPECT_TRUE(eventually([&p] {
    const double before = processor_seconds(p.pid());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return processor_seconds(p.pid()) - before < 0.02;
  }));
}

/// Watches a process that has nothing to do. A loop that does not wait would take most of the time, and a tenth of it
/// still on a machine that is ten times overloaded. One that waits for a millisecond at a time is seen by its waits;
/// the thread sanitizer has a thread that waits ten times a second.
inline void expect_quiet(const process& p, std::chrono::milliseconds time = std::chrono::milliseconds(1500)) {
  const double before = processor_seconds(p.pid());
  const long waits_before = waits(p.pid());
  std::this_thread::sleep_for(time);
  const double seconds = std::chrono::duration<double>(time).count();
  EXPECT_LT(processor_seconds(p.pid()) - before, 0.1 * seconds);
  EXPECT_LT(static_cast<double>(waits(p.pid()) - waits_before), 50 * seconds);
}

class dachost_fixture : public testing::Test {
 protected:
  scratch dir;

  static texts preloaded(const std::string& library, texts environment = {}) {
    environment.insert(environment.end(), {"LD_PRELOAD=" + library, "ASAN_OPTIONS=verify_asan_link_order=0"});
    return environment;
  }

  /// dachost with these arguments, run by `wrapper`, a command such as {"env", "NAME=VALUE"}.
  static process start(const texts& args, const texts& wrapper = {}, const process_settings& s = {}) {
    texts argv = {"env"};
    for (const texts& more : {wrapper, split(built("emulator"), ' '), {built("dachost")}, args})
      argv.insert(argv.end(), more.begin(), more.end());
    return process(argv, s);
  }
  /// `dachost run` with the fake plug-in.
  process run(texts args, const texts& wrapper = {}, process_settings s = {}) const {
    args.insert(args.begin(), {"run", "-p", built("fake_plugin")});
    s.environment.push_back("FAKE_JOURNAL=" + dir.path("journal"));
    return start(args, wrapper, s);
  }
  static ending terminate(process& p, int sig = SIGTERM) {
    p.signal(sig);
    ending e = p.end();
    EXPECT_EQ(e.status, 0) << e.err;
    return e;
  }

  /// A configuration file for the fake plug-in.
  std::string conf(const std::string& orders, const std::string& name = "gw") const {
    return dir.file(orders, name + ".conf");
  }
  /// Makes a program continue that waits with `wait_for_go`.
  void go() const { dir.file("", "go"); }
  static constexpr char wait_for_go[] = "while ! [ -e go ]; do sleep 0.02; done\n";
  static constexpr char ignore_SIGTERM[] = "trap '' TERM; echo begin >>did; while :; do sleep 1000; done\n";

  /// A program, started in the test's directory.
  std::string program(const std::string& body) const {
    std::string file = dir.file("#!/bin/sh\ncd '" + dir.path("") + "' || exit\n" + body + '\n', "prog");
    if (chmod(file.c_str(), 0700) != 0) throw std::runtime_error(file);
    return file;
  }
  /// What the program wrote into the file "did".
  std::string did() const { return read_file(dir.path("did")); }
  void await_did(const std::string& text) const { await_text("did", text); }
  texts journal() const { return lines(read_file(dir.path("journal"))); }
  void await_journal(const std::string& line) const { await_text("journal", line + '\n'); }
  void await_text(const std::string& name, const std::string& text) const {
    if (!eventually([&] { return read_file(dir.path(name)).find(text) != std::string::npos; }))
      throw std::runtime_error("waited for: " + text + "\nin " + name + ": " + read_file(dir.path(name)));
  }
  /// The line that reports an error of the program.
  std::string hook_message(const std::string& what, const std::string& instance = "gw") const {
    return "dachost: " + instance + ": " + dir.path("prog") + ": " + what + '\n';
  }

  /// The lines of a run whose third field is `what`, in their order, without the time.
  static texts lines_of(const std::string& out, const std::string& what) {
    texts found;
    for (const std::string& line : lines(out)) {
      const texts fields = split(line, '\t');
      if (fields.size() > 2 && fields[2] == what) found.push_back(line.substr(line.find('\t') + 1));
    }
    return found;
  }
};
