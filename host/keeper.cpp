#include "host/keeper.h"

#include <csignal>
#include <numeric>

#include "host/refusal.h"
#include "host/text.h"

namespace {

std::vector<size_t> all_of(size_t n) {
  std::vector<size_t> all(n);
  std::iota(all.begin(), all.end(), 0);
  return all;
}

}  // namespace

keeper::keeper(const plugin& p, const std::vector<std::string>& files, listener& l)
    : _listener(l), _fleet(p, _queue, files) {}

// ---------------------------------------------------------------- instances come

bool keeper::launch() {
  bool accepted = true;
  for (size_t i = 0; i < _fleet.size(); ++i) {
    std::string reason;
    if (_fleet.prepare(i, reason)) continue;
    complain(i, reason, "nothing is started");
    accepted = false;
  }
  dispatch();
  if (accepted) bring_up(all_of(_fleet.size()));
  return accepted;
}

void keeper::bring_up(const std::vector<size_t>& files) {
  _fleet.take_over(files);
  dispatch();
  for (const size_t i : files)
    for (const tag& t : _fleet.tags(i)) _listener.announce(i, t);
  for (const size_t i : files) _fleet.start(i);
}

// A plug-in without room for one more refuses without a reason. Old and new instances stand side by side, so then
// those that are prepared take over first and leave their room to the rest.
std::vector<size_t> keeper::prepare_renewal() {
  std::vector<size_t> prepared;
  for (; !_to_renew.empty(); _to_renew.pop_front()) {
    std::string reason;
    const size_t i = _to_renew.front();
    if (_fleet.prepare(i, reason))
      prepared.push_back(i);
    else if (reason.empty() && !prepared.empty())
      break;
    else
      complain(i, reason, "the old instance goes on");
  }
  return prepared;
}

void keeper::complain(size_t i, const std::string& reason, const char* consequence) {
  const std::string why = reason.empty() ? "refused without a reason, as one too many is" : reason;
  _listener.complain(i, printable("dachost: " + refusal(_fleet.file(i), why) + "; " + consequence));
}

// ---------------------------------------------------------------- while they run

std::array<pollfd, 2> keeper::interest() const {
  return {pollfd{_signals.fd(), POLLIN, 0}, pollfd{_queue.fd(), POLLIN, 0}};
}

void keeper::turn() {
  answer_signals();
  dispatch();
  if (is_busy() && !_stop) bring_up(prepare_renewal());
}

void keeper::answer_signals() {
  for (int sig = _signals.next(); sig != 0; sig = _signals.next()) {
    if (sig == SIGCHLD) continue;  // it has ended the wait, and that is all
    if (sig != SIGHUP) {
      _stop = true;
      continue;
    }
    const std::vector<size_t> all = all_of(_fleet.size());
    _to_renew.assign(all.begin(), all.end());
  }
}

void keeper::dispatch() {
  for (const event& e : _queue.take()) std::visit([&](const auto& what) { _listener.on(e, what); }, e.what);
}

// ---------------------------------------------------------------- instances go

void keeper::shut_down() {
  _fleet.stop();
  _fleet.clear();
  dispatch();
}
