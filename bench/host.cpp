// Times of dachost: from its start to the first value, and from SIGTERM to its end.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/versus.h"
#include "tests/support/scratch.h"

namespace {

using clock_type = std::chrono::steady_clock;

double milliseconds_since(clock_type::time_point start) {
  return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

class host_process {
 public:
  explicit host_process(const std::vector<std::string>& files) : _start(clock_type::now()) {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    _pid = fork();
    if (_pid == 0) become_host(ends, files);
    close(ends[1]);
    _out = fdopen(ends[0], "r");
  }
  ~host_process() { std::fclose(_out); }
  host_process(const host_process&) = delete;
  host_process& operator=(const host_process&) = delete;

  /// Reads until `count` values have been published. Returns the milliseconds since the start.
  double await_values(size_t count) {
    char line[4096];
    while (count != 0) {
      if (!std::fgets(line, sizeof line, _out)) throw std::runtime_error("dachost ends early");
      if (std::strstr(line, R"("event":"value")")) --count;
    }
    return milliseconds_since(_start);
  }

  /// Milliseconds from SIGTERM to the end.
  double terminate() {
    const auto start = clock_type::now();
    kill(_pid, SIGTERM);
    char line[4096];
    while (std::fgets(line, sizeof line, _out)) continue;
    int status;
    if (waitpid(_pid, &status, 0) != _pid || status != 0) throw std::runtime_error("dachost fails");
    return milliseconds_since(start);
  }

 private:
  clock_type::time_point _start;
  pid_t _pid;
  std::FILE* _out;

  [[noreturn]] static void become_host(const int (&ends)[2], const std::vector<std::string>& files) {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    std::vector<const char*> argv = {DACHOST, "run", "--json", "-p", PLUGIN};
    for (const std::string& f : files) argv.push_back(f.c_str());
    argv.push_back(nullptr);
    execv(DACHOST, const_cast<char* const*>(argv.data()));
    _exit(127);
  }
};

void measure(size_t instances, int rounds) {
  const scratch dir;
  const std::vector<std::string> files(instances, dir.file("hostname = bench\n"));
  std::vector<double> first, last;
  for (int i = 0; i < rounds; ++i) {
    host_process host(files);
    first.push_back(host.await_values(1));
    host.await_values(instances - 1);
    last.push_back(host.terminate());
  }
  const std::vector<double> round(first.size(), 100);  // of the worker: 0.1 s
  const std::string which = instances == 1 ? ", 1 instance" : ", " + std::to_string(instances) + " instances";
  add_row("dachost from start to first value" + which, "one round of the worker", "ms", first, round);
  add_row("dachost from SIGTERM to end" + which, "one round of the worker", "ms", last, round);
}

}  // namespace

void enter() {
  measure(1, 11);
  measure(1024, 5);
}
