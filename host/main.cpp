// dachost: loads the plug-in, runs instances of it and prints what they report.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <system_error>

#include "host/commands/commands.h"
#include "host/report.h"
#include "host/systemd.h"

namespace {

// Opens /dev/null in place of closed standard descriptors, so that no file opened later gets their numbers. Reading
// from standard input and writing to standard output fail, as on the closed descriptor. Standard error accepts writes:
// it is also the output of the programs that --exec starts, which may fail when they cannot print.
void fill_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDOUT_FILENO ? O_RDONLY : O_WRONLY);
}

// Writing to a stopped terminal blocks. Its own description can be non-blocking without effect on other processes.
int unblocked(int fd) {
  if (isatty(fd) == 0) return fd;
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const int own = open(path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  return own < 0 ? fd : own;
}

// ETIME: drain() gave up on the reader.
const char* reason_of(int error) { return error == ETIME ? "timed out waiting for the reader" : std::strerror(error); }

// From its construction, no SIGHUP ends the process by the signal. After its destruction they stay pending.
class hangup_guard {
 public:
  explicit hangup_guard(event_loop& l) : _handler(l.on_signals({SIGHUP}, [](int) {})) {}
  ~hangup_guard() {
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &hangup, nullptr);
  }
  hangup_guard(const hangup_guard&) = delete;
  hangup_guard& operator=(const hangup_guard&) = delete;

 private:
  const event_loop::handle _handler;
};

int carry_out(event_loop& l, const options& o, output& out, output& err) {
  std::optional<hangup_guard> guard;
  if (o.what == command::run || o.what == command::top) guard.emplace(l);
  systemd manager;
  const plugin p = load_plugin(o.plugin);
  process_launcher programs;
  kernel_address_list addresses;
  state_directory records(l, o.hook.state, settings_of(o.hook.program, environ));
  std::mt19937_64 source(std::random_device{}());
  const auto random = [&source] { return std::uniform_real_distribution<double>()(source); };
  switch (o.what) {
    case command::top:
      return top(l, p, o, out, err);
    case command::check:
      return check(p, o.files, out);
    case command::tags:
      return tags(p, o.files, out, err);
    case command::info:
      return info(p, o.files, out, err);
    case command::run:
      break;
  }
  return run({l, programs, addresses, records, random}, manager, p, o, out, err);
}

int reply(const answer& a, output& out, output& err) {
  if (a.status == 0) {
    out.line(a.text);
  } else {
    report(err, a.text);
  }
  return a.status;
}

int obey(event_loop& l, int argc, char** argv, output& out, output& err) {
  try {
    const auto parsed = parse(argc, argv);
    if (const auto* a = std::get_if<answer>(&parsed)) return reply(*a, out, err);
    return carry_out(l, std::get<options>(parsed), out, err);
  } catch (const std::invalid_argument& e) {
    report(err, e.what());
    return wrong_usage;
  } catch (const std::exception& e) {
    report(err, e.what());
    return 1;
  }
}

// Set at the start, because finding out allocates memory.
bool is_err_journal = false;

// A failure of standard output is reported at once: a signal may end the process before the end of the command.
int serve(event_loop& l, int argc, char** argv) {
  output err(l, unblocked(STDERR_FILENO), is_err_journal);
  output out(l, unblocked(STDOUT_FILENO));
  out.on_failure([&err](int error) { report(err, std::string("standard output: ") + reason_of(error)); });
  const int status = obey(l, argc, argv, out, err);
  drain_or_die(l, out, err);
  return out.error() == 0 ? status : 1;
}

// Writes directly to standard error: there is no event loop, or no memory.
int fail(const char* what) {
  for (const char* part : {is_err_journal ? "<3>" : "", "dachost: ", what, "\n"}) [[maybe_unused]]
    const ssize_t ignored = write(STDERR_FILENO, part, std::strlen(part));
  return 1;
}

// Unwinding would free what threads of the plug-in and of the loop still use, and they cannot be stopped without
// memory.
[[noreturn]] void end_without_memory() { _exit(fail("out of memory")); }

}  // namespace

int main(int argc, char** argv) {
  std::set_new_handler(end_without_memory);
  fill_standard_descriptors();
  is_err_journal = is_journal(STDERR_FILENO);
  std::signal(SIGPIPE, SIG_IGN);
  try {
    const auto loop = make_event_loop();
    return serve(*loop, argc, argv);
  } catch (const std::system_error& e) {
    return fail(e.what());
  }
}
