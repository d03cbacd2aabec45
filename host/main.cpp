// dachost: loads the plug-in, runs instances of it and prints what they tell.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>

#include "host/commands.h"
#include "host/options.h"
#include "host/output.h"
#include "host/plugin.h"
#include "host/search.h"
#include "host/text.h"

namespace {

// Opens /dev/null in place of closed standard descriptors, so that no file opened later gets their numbers. Reading
// from standard input and writing to standard output fail, as on the closed descriptor. Standard error accepts writes:
// it is also the output of the programs that --exec starts, which may fail when they cannot print.
void fill_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDOUT_FILENO ? O_RDONLY : O_WRONLY);
}

// ETIME: drain() gave up on the reader.
const char* reason_of(int error) { return error == ETIME ? "nobody has read it to its end" : std::strerror(error); }

int carry_out(const options& o, output& out, output& err) {
  const plugin p(o.plugin.empty() ? find_plugin() : o.plugin);
  switch (o.what) {
    case command::top:
      return top(p, o, out, err);
    case command::check:
      return check(p, o.files, out);
    case command::tags:
      return tags(p, o.files, out, err);
    case command::info:
      return info(p, o.files, out, err);
    case command::run:
      break;
  }
  return run(p, o, out, err);
}

int reply(const answer& a, output& out, output& err) {
  (a.status == 0 ? out : err).line(a.text);
  return a.status;
}

int obey(int argc, char** argv, output& out, output& err) {
  try {
    const auto parsed = parse(argc, argv);
    if (const auto* a = std::get_if<answer>(&parsed)) return reply(*a, out, err);
    return carry_out(std::get<options>(parsed), out, err);
  } catch (const std::exception& e) {
    err.line("dachost: " + printable(e.what()));
    return 1;
  }
}

// Nothing runs any more that is to end in order, so the signals that were kept for it may end the wait for a reader.
void finish(output& o) {
  if (!o.waiting()) return;
  sigset_t deadly;
  sigemptyset(&deadly);
  for (const int sig : {SIGINT, SIGQUIT, SIGTERM}) sigaddset(&deadly, sig);
  sigprocmask(SIG_UNBLOCK, &deadly, nullptr);
  o.drain();
}

}  // namespace

int main(int argc, char** argv) {
  fill_standard_descriptors();
  std::signal(SIGPIPE, SIG_IGN);
  output out(STDOUT_FILENO);
  output err(STDERR_FILENO);
  int status = obey(argc, argv, out, err);
  finish(out);
  if (out.error() != 0) {
    err.line(std::string("dachost: standard output: ") + reason_of(out.error()));
    status = 1;
  }
  finish(err);
  return status;
}
