#include "host/loop/output.h"

#include <cerrno>

namespace {

constexpr auto drain_timeout = std::chrono::seconds(1);

}  // namespace

output::output(event_loop& l, int fd, bool is_journal) : _loop(l), _fd(fd), _is_journal(is_journal) { watch(_watched); }

void output::line(std::string_view text) {
  if (_error != 0) return;
  _waiting.append(text).push_back('\n');
  flush();
}

void output::put(std::string_view bytes) {
  if (_error != 0) return;
  _waiting.append(bytes);
  flush();
}

void output::fail(int error) {
  if (_error != 0) return;
  _error = error;
  _waiting.clear();
  _sent = 0;
  _watch = nullptr;
  _on_failure(error);
}

void output::flush() {
  while (!is_empty()) {
    const ssize_t n = _loop.write(_fd, std::string_view(_waiting).substr(_sent));
    if (n == -EAGAIN) return wait_for_room();
    if (n < 0) return fail(static_cast<int>(-n));
    _sent += static_cast<size_t>(n);
  }
  forget_sent();
  if (_watched != event_loop::readiness::none) watch(event_loop::readiness::none);
}

void output::wait_for_room() {
  if (_sent >= _waiting.size() / 2) forget_sent();
  if (_watched != event_loop::readiness::writable) watch(event_loop::readiness::writable);
  if (!_watch) fail(EAGAIN);  // no handler would be called
}

void output::forget_sent() {
  _waiting.erase(0, _sent);
  _sent = 0;
}

// If no bytes are pending, the call means that the reader has closed its end.
void output::watch(event_loop::readiness r) {
  _watched = r;
  _watch = nullptr;
  _watch = _loop.watch(_fd, r, [this] { is_empty() ? fail(EPIPE) : flush(); });
}

void drain(event_loop& l, output& out, output& err, const std::function<bool()>& is_to_stop) {
  const auto is_written = [&] { return out.is_empty() && err.is_empty(); };
  l.run_until([&] { return is_written() || is_to_stop(); });
  const auto limit = l.call_in(drain_timeout, [&] {
    for (output* o : {&out, &err})
      if (!o->is_empty()) o->fail(ETIME);
  });
  l.run_until(is_written);
}

void drain_or_die(event_loop& l, output& out, output& err) {
  const auto is_written = [&] { return out.is_empty() && err.is_empty(); };
  if (is_written()) return;
  l.restore_signals();
  l.run_until(is_written);
}
