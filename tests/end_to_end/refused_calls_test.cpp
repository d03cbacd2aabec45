// What dachost does when a system call fails: each call, at each of its occurrences in a run with a hook, JSON and a
// reload. It reports the error and ends with status 1, or it continues; it never hangs, and never prints, passes on or
// saves a part of a value.
//
// REFUSALS is the greatest number of occurrences of each call that are tried. Without it forty are, of requests for
// memory every 29th.
#include <sys/prctl.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/support/dachost_fixture.h"
#include "tests/support/network.h"

using namespace std::chrono_literals;

namespace {

struct refusal {
  std::string call;
  int error;
  int step = 1;  // from one occurrence that is tried to the next
};

std::string name(const refusal& r, int n) {
  return r.call + " number " + std::to_string(n) + ": " + (r.error == 0 ? "half" : std::strerror(r.error));
}

int most_occurrences() {
  const char* text = std::getenv("REFUSALS");
  return text ? std::atoi(text) : 40;
}
int step(const refusal& r) { return std::getenv("REFUSALS") ? 1 : r.step; }

enum class extra { none, file, state };  // standard output is a file; the state is saved

// Its directory, its files and its results.
class refused_run {
 public:
  refused_run(refusal r, int n, extra e) : _refusal(std::move(r)), _number(n), _extra(e) {
    if (e == extra::file) _settings.out_file = _dir.path("out");
    if (e == extra::state) std::filesystem::create_directory(_dir.path("state"));
    _dir.file("hostname = one\n", "gw.conf");
    const std::lock_guard hold(_program_is_open);
    _dir.file("#!/bin/sh\necho \"$DAC_TAG $DAC_VALUE\" >>'" + _dir.path("did") + "'\necho printed\n", "prog");
    if (chmod(_dir.path("prog").c_str(), 0700) != 0) throw std::runtime_error("chmod");
  }

  /// False when the call does not occur that often.
  bool carry_out() {
    texts command = {"env",
                     "LD_PRELOAD=" + built("refused_calls"),
                     "REFUSED=" + _refusal.call + ' ' + std::to_string(_number) + ' ' + std::to_string(_refusal.error),
                     "REFUSED_MARK=" + _dir.path("mark"),
                     built("dachost"),
                     "run",
                     "-p",
                     built("ip6dns"),
                     "--json",
                     "--pick",
                     "stable",
                     "--exec",
                     _dir.path("prog"),
                     _dir.path("gw.conf")};
    if (_extra == extra::state) command.insert(command.end(), {"--state", _dir.path("state")});
    process p = start(command);
    const bool has_one = await_hook(p, "one 2001:db8::1\n");
    _dir.file("hostname = two\n", "gw.conf");
    if (p.is_running()) p.signal(SIGHUP);
    const bool has_two = has_one && await_hook(p, "two 2001:db8::1\n");
    if (p.is_running()) p.signal(SIGTERM);
    _end = p.end();
    if (!_settings.out_file.empty()) _end.out = read_file(_settings.out_file);
    judge(has_two);
    return std::filesystem::exists(_dir.path("mark"));
  }

  const texts& wrong() const { return _wrong; }
  int status() const { return _end.status; }
  bool has_message() const { return _end.err.find("dachost: ") != std::string::npos; }

 private:
  // A process that another thread starts while a program is written inherits the descriptor. The program is then busy
  // and cannot be started until that process ends.
  inline static std::mutex _program_is_open;

  const refusal _refusal;
  const int _number;
  const extra _extra;
  const scratch _dir;
  process_settings _settings;
  ending _end{};
  texts _wrong;

  process start(const texts& command) const {
    const std::lock_guard hold(_program_is_open);
    return process(command, _settings);
  }

  void require(bool so, const std::string& what) {
    if (!so) _wrong.push_back(what + "\nstatus " + std::to_string(_end.status) + "\n" + _end.out + _end.err);
  }

  /// False when the program ends first, or says that it does not start the new instance.
  bool await_hook(process& p, const std::string& line) const {
    for (int hundredths = 0; hundredths < 1000; ++hundredths) {
      if (read_file(_dir.path("did")).find(line) != std::string::npos) return true;
      if (!p.is_running()) return false;
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }

  void judge(bool is_complete) {
    const bool is_silenced = _refusal.call == "write_err";
    // SIGTERM has its default action again when a run that has failed is about to end.
    const bool has_no_state = _end.status == 2 && _end.err.starts_with("dachost: --state: ");  // at the start
    const bool has_failed = _end.status == 1 || has_no_state || (_end.status == -SIGTERM && has_message());
    require(_end.status == 0 || has_failed, "an exit status of 0 or 1, or 2 for the state directory");
    require(_end.status == 0 || has_message() || is_silenced, "a message about the failure");
    require(is_complete || has_failed || has_message() || is_silenced, "a message about what is missing");
    const bool has_no_effect = _refusal.error == 0 || _refusal.error == EINTR;
    require(!has_no_effect || (_end.status == 0 && is_complete), "a complete run");
    require(_end.out.empty() || _end.out.back() == '\n', "whole lines");
    for (const std::string& line : lines(_end.out))
      require(nlohmann::json::accept(line), "a line that is JSON: " + line);
    for (const std::string& line : lines(read_file(_dir.path("did"))))
      require(line == "one 2001:db8::1" || line == "two 2001:db8::1" || line == "one null" || line == "two null",
              "whole values in the hook, not " + line);
    if (_end.status == 0 && is_complete) judge_events();
    if (_extra == extra::state) judge_state(is_complete);
  }

  /// One that is damaged is as bad as one that is outdated without a message.
  void judge_state(bool is_complete) {
    const bool is_there = std::filesystem::exists(_dir.path("state/gw.state"));
    const texts state = lines(read_file(_dir.path("state/gw.state")));
    const bool is_whole = state.size() == 5 && state[0] == "dachost state 1" && state[3] == "2001:db8::1" &&
                          (state[2] == "one" || state[2] == "two") && state[4].size() == 16;
    require(!is_there || is_whole, "a whole state file");
    const bool is_reported = _end.err.find("the state is not saved") != std::string::npos;
    require(!is_complete || _end.status != 0 || is_reported || (is_whole && state[2] == "two"), "a saved state");
  }

  /// A run to the end prints every event once. A plug-in without memory finds no address for a while.
  void judge_events() {
    texts events;
    bool was_null = false;
    for (const std::string& line : lines(_end.out)) {
      const auto event = nlohmann::json::parse(line);
      if (event.at("event") == "message" || event.at("event") == "hook") continue;
      if (!was_null || event.at("event") != "value") events.push_back(event.at("event"));
      was_null = event.value("value", "") == "null";
    }
    require(events == texts{"version", "tag", "value", "tag", "value"}, "every event once");
  }
};

// In parallel, because the runs spend most of their time waiting.
class refused_calls : public testing::Test {
 protected:
  static void try_each(const std::vector<refusal>& refusals, extra more = extra::none) {
    in_new_network([&] {
      ASSERT_TRUE(ip("addr add 2001:db8::1/128 dev lo nodad"));
      prctl(PR_SET_CHILD_SUBREAPER, 1);
      for (const refusal& r : refusals) try_each_occurrence(r, more);
      expect_no_child();
    });
  }

 private:
  static void try_each_occurrence(const refusal& r, extra more) {
    std::atomic<int> next = 0, ended = 0, failed = 0;
    std::atomic<bool> is_over = false;
    std::mutex printing;
    const auto work = [&] {
      while (!is_over) {
        const int turn = next++, n = turn * step(r);
        if (turn >= most_occurrences()) return;
        refused_run run(r, n, more);
        try {
          if (!run.carry_out()) is_over = true;
        } catch (const std::exception& e) {
          const std::lock_guard hold(printing);
          ADD_FAILURE() << name(r, n) << ": " << e.what();
        }
        ++(run.status() == 0 ? ended : failed);
        const std::lock_guard hold(printing);
        for (const std::string& what : run.wrong()) ADD_FAILURE() << name(r, n) << ": not " << what;
      }
    };
    {
      std::vector<std::jthread> workers(8);
      for (std::jthread& w : workers) w = std::jthread(work);
    }
    EXPECT_GT(ended + failed, 0);
    std::printf("%-15s %-35s runs %3d, status 0 %3d\n", r.call.c_str(), r.error == 0 ? "half" : std::strerror(r.error),
                ended + failed, ended.load());
  }

  /// Programs that outlive dachost become this process's children.
  static void expect_no_child() {
    EXPECT_TRUE(eventually([] {
      while (waitpid(-1, nullptr, WNOHANG) > 0) {
      }
      return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
    })) << "a program is left";
  }
};

}  // namespace

TEST_F(refused_calls, to_programs_and_threads_end_in_a_message) {
  try_each({{"posix_spawnp", EAGAIN}, {"posix_spawnp", ENOMEM}, {"pthread_create", EAGAIN}});
}

TEST_F(refused_calls, to_write_leave_no_part_of_a_line) {
  try_each({{"write_out", 0},
            {"write_out", EINTR},
            {"write_out", EAGAIN},
            {"write_out", ENOSPC},
            {"write_err", 0},
            {"write_err", EAGAIN},
            {"write_err", ENOSPC}});
}

TEST_F(refused_calls, to_write_into_a_file_leave_no_part_of_a_line) {
  try_each({{"write_out", 0}, {"write_out", EINTR}, {"write_out", EAGAIN}, {"write_out", ENOSPC}}, extra::file);
}

TEST_F(refused_calls, to_save_the_state_leave_a_whole_state_file) {
  try_each({{"open", EMFILE},
            {"fchmod", EPERM},
            {"write_file", 0},
            {"write_file", EINTR},
            {"write_file", ENOSPC},
            {"fsync", EIO},
            {"rename", EIO}},
           extra::state);
}

TEST_F(refused_calls, to_the_kernels_addresses_end_in_a_message) {
  try_each({{"socket", EMFILE}, {"send", ENOBUFS}, {"recv", ENOBUFS}, {"recv", EINTR}, {"open", EMFILE}});
}

TEST_F(refused_calls, to_the_event_loop_end_in_a_message) {
  try_each({{"epoll_create1", EMFILE},
            {"epoll_ctl", ENOSPC},
            {"epoll_wait", EINTR},
            {"eventfd", EMFILE},
            {"timerfd_create", EMFILE},
            {"pipe", EMFILE},
            {"poll", EINTR},
            {"poll", ENOMEM}});
}

TEST_F(refused_calls, for_memory_end_in_a_message) { try_each({{"malloc", ENOMEM, 29}}); }
