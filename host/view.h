// Where tables are shown: on a terminal's screen, or one below the other.
#pragma once

#include <poll.h>

#include <memory>
#include <string>
#include <vector>

#include "host/output.h"
#include "host/table.h"

class view {
 public:
  view() = default;
  virtual ~view() = default;
  view(const view&) = delete;
  view& operator=(const view&) = delete;

  /// Shows the rows below the head line.
  virtual void show(const std::string& head, const std::vector<row>& rows) = 0;
  /// One line about file i, where something went wrong. A screen shows the newest line of each file.
  virtual void note(size_t i, const std::string& line) = 0;

  /// What a poll loop watches. Its answer goes to notice(), which tells whether to show everything anew.
  virtual pollfd interest() const = 0;
  virtual bool notice(short revents) = 0;
  /// The user has asked for the end.
  virtual bool is_closed() const = 0;
};

/// A table each time; notes go to `err`. A reader that does not keep up gets fewer tables.
std::unique_ptr<view> make_plain_view(output& out, output& err);
/// The terminal, taken over until the view goes. Throws std::runtime_error, which tells why, when it cannot be. One
/// that has gone away is told to `out` as its failure.
std::unique_ptr<view> make_screen_view(output& out);
