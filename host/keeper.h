// Keeps a fleet: brings it up, reads its files again on SIGHUP, passes on what it tells, and ends it.
#pragma once

#include <poll.h>

#include <array>
#include <deque>
#include <string>
#include <vector>

#include "host/fleet.h"
#include "host/listener.h"
#include "host/signals.h"

class keeper {
 public:
  keeper(const plugin& p, const std::vector<std::string>& files, listener& l);

  const fleet& instances() const { return _fleet; }

  /// Starts an instance for each file. False when one was refused: then none is started.
  bool launch();

  /// What a poll loop watches, and what it calls then; again without waiting while is_busy().
  std::array<pollfd, 2> interest() const;
  void turn();
  bool is_busy() const { return !_to_renew.empty(); }

  void answer_signals();
  /// A signal said so.
  bool is_to_stop() const { return _stop; }
  /// Stops and destroys all instances.
  void shut_down();

 private:
  void bring_up(const std::vector<size_t>& files);
  std::vector<size_t> prepare_renewal();
  void complain(size_t i, const std::string& reason, const char* consequence);
  void dispatch();

  listener& _listener;
  signals _signals;  // before the fleet: its threads are to be left alone by signals
  event_queue _queue;
  fleet _fleet;
  std::deque<size_t> _to_renew;  // files to be read again
  bool _stop = false;
};
