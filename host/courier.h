// Hands every published value to a program, the record keeper, that is started for it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/child.h"
#include "host/deadline.h"
#include "host/event.h"
#include "host/options.h"
#include "host/output.h"
#include "host/printer.h"

/// A value as an instance published it.
struct order {
  wall_clock::time_point time;
  std::string instance;
  std::string tag;
  std::string value;
};

/// One program at a time for each instance. While it runs, or waits to be tried again, the newest value takes the place
/// of the ones before. Nothing here waits: keep() and close() say what is to be done, and turn() does what is due.
class courier {
 public:
  /// Without a program in `how` every value counts as kept.
  courier(const exec_options& how, bool once, size_t instances, printer& p, output& err);

  void keep(size_t i, order o);
  void turn();
  /// When turn() has something to do though nothing happened.
  deadline due() const;

  /// Whether every value is kept, or given up.
  bool is_idle() const;
  bool has_given_up() const { return _given_up; }

  /// Nothing is started any more. What runs has a moment to end, and is killed then.
  void close();

 private:
  struct job {
    order newest;
    bool waits = false;  // the newest value is still to be handed over
    steady_clock::time_point start;
    int failures = 0;  // with this value, one after the other
    std::unique_ptr<child> program;
    int sent = 0;  // the last signal
    steady_clock::time_point next_signal;
  };

  const exec_options& _how;
  const bool _once;
  printer& _printer;
  output& _err;
  std::vector<job> _jobs;
  bool _closed = false;
  bool _given_up = false;

  void begin(job& j);
  void launch(job& j);
  void press(job& j);
  void endure(job& j);
  void end(job& j);
  void fail(job& j, const std::string& what);
  std::string consequence(job& j);
  void abandon(const job& j);
  std::string told(const job& j, int status) const;
  void complain(const job& j, const std::string& what);
};
