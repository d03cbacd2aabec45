// Processor time and wake-ups of dachost with one instance and of other clients that watch an address, all idle at the
// same time in a network where nothing changes.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/versus.h"
#include "tests/support/network_namespace.h"
#include "tests/support/scratch.h"

namespace {

namespace fs = std::filesystem;

constexpr auto window = std::chrono::seconds(60);  // ddclient polls once in it
constexpr auto settling = std::chrono::seconds(5);

class process {
 public:
  explicit process(const std::string& command) : _pid(fork()) {
    if (_pid != 0) return;
    const std::string quiet = "exec " + command + " >/dev/null 2>&1";
    execl("/bin/sh", "sh", "-c", quiet.c_str(), nullptr);
    _exit(127);
  }
  ~process() {
    kill(_pid, SIGTERM);
    waitpid(_pid, nullptr, 0);
  }
  process(const process&) = delete;
  process& operator=(const process&) = delete;

  struct usage {
    double nanoseconds, wakes;
  };

  usage used() const {
    if (waitpid(_pid, nullptr, WNOHANG) != 0) throw std::runtime_error("a client ends by itself");
    usage u = {nanoseconds_of_children(), 0};
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(_pid) + "/task")) {
      double nanoseconds;
      std::ifstream(task.path() / "schedstat") >> nanoseconds;
      u.nanoseconds += nanoseconds;
      u.wakes += wakes_of(task.path());
    }
    return u;
  }

 private:
  pid_t _pid;

  static double wakes_of(const fs::path& task) {
    std::ifstream status(task / "status");
    for (std::string word; status >> word;)
      if (double n; word == "voluntary_ctxt_switches:" && status >> n) return n;
    return 0;
  }

  // Fields 16 and 17, in ticks, after the name in parentheses.
  double nanoseconds_of_children() const {
    std::ifstream stat("/proc/" + std::to_string(_pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string skipped;
    for (int i = 3; i < 16; ++i) fields >> skipped;
    double user, system;
    fields >> user >> system;
    return (user + system) * 1e9 / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
};

// Both have the address in their cache, so they have nothing to send.
std::string inadyn(const scratch& d) {
  d.file("2001:db8::1", "gateway.example.org.cache");
  const std::string file = d.file(
      "period = 10\nallow-ipv6 = true\nverify-address = false\niface = lo\n"
      "custom bench {\n  hostname = gateway.example.org\n  username = user\n"
      "  password = word\n  ddns-server = localhost\n  ddns-path = \"/\"\n}\n",
      "inadyn.conf");
  return "inadyn -n -C -f " + file + " --cache-dir=" + d.path("") + " -P " + d.path("inadyn.pid");
}

std::string ddclient(const scratch& d) {
  const std::string file = d.file(
      "daemon=60\nuse=no\nusev6=ifv6, ifv6=lo\nprotocol=dyndns2\nserver=localhost\n"
      "login=user\npassword=word\ngateway.example.org\n",
      "ddclient.conf");
  const std::string cache =
      d.file("## ddclient-3.10.0\natime=0,host=gateway.example.org,ipv6=2001:db8::1,mtime=" +
                 std::to_string(std::time(nullptr)) + ",status=good,status-ipv6=good,wtime=30 gateway.example.org\n",
             "ddclient.cache");
  return "ddclient -foreground -file " + file + " -cache " + cache + " -pid " + d.path("ddclient.pid");
}

struct client {
  std::string name;
  process runs;
  process::usage before, after;
};

void report(const client& ours, const client& theirs) {
  const double seconds = std::chrono::duration<double>(window).count();
  const auto per_second = [&](double process::usage::*figure, const client& c) {
    return std::vector<double>{(c.after.*figure - c.before.*figure) / seconds};
  };
  for (const auto& [what, unit, figure] : {std::tuple{"processor time", "ns/s", &process::usage::nanoseconds},
                                           std::tuple{"wakes", "1/s", &process::usage::wakes}})
    add_row(std::string("idle process, ") + what, theirs.name, unit, per_second(figure, ours),
            per_second(figure, theirs));
}

}  // namespace

void enter() {
  enter_network();
  if (!ip("addr add 2001:db8::1/128 dev lo nodad")) throw std::runtime_error("cannot add the address");
  const scratch d;
  const std::string conf = d.file("hostname = gateway.example.org\n");
  client all[] = {{"dachost", process(DACHOST " run -p " PLUGIN " " + conf), {}, {}},
                  {"inadyn", process(inadyn(d)), {}, {}},
                  {"ddclient", process(ddclient(d)), {}, {}}};
  std::this_thread::sleep_for(settling);
  for (client& c : all) c.before = c.runs.used();
  std::this_thread::sleep_for(window);
  for (client& c : all) c.after = c.runs.used();
  report(all[0], all[1]);
  report(all[0], all[2]);
}
