#include "host/drain.h"

#include <cerrno>
#include <iterator>

#include "host/deadline.h"

namespace {

constexpr auto patience = std::chrono::seconds(1);

void wait(const keeper& k, output& out, output& err, const deadline& end) {
  pollfd fds[] = {k.interest()[0], out.interest(), err.interest()};
  if (poll(fds, std::size(fds), milliseconds_until(end)) <= 0) return;
  out.notice(fds[1].revents);
  err.notice(fds[2].revents);
}

void give_up(output& o) {
  if (o.waiting()) o.fail(ETIME);
}

}  // namespace

void drain(keeper& k, output& out, output& err) {
  deadline end;
  while ((out.waiting() || err.waiting()) && !is_past(end)) {
    if (k.is_to_stop() && !end) end = steady_clock::now() + patience;
    wait(k, out, err, end);
    k.answer_signals();
  }
  give_up(out);
  give_up(err);
}
