// A name server for one test, with one zone that accepts signed updates.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/scratch.h"

/// Listens on the loopback interface. The zone survives a restart. Every wait ends after 20 seconds with an
/// exception.
class name_server {
 public:
  static constexpr char port[] = "5300";
  static constexpr char zone[] = "example.test";

  name_server();

  /// Returns when it answers, and when it is gone.
  void start();
  void stop();

  /// The key file that its updates are signed with, and one with another secret.
  std::string key() const { return _dir.path("key"); }
  std::string wrong_key() const { return _dir.path("wrong_key"); }

  /// The AAAA records of the name, sorted.
  std::vector<std::string> addresses(const std::string& name) const;
  /// Waits until the name has these, sorted; false when it does not get them.
  bool gets(const std::string& name, const std::vector<std::string>& addresses) const;
  /// How often the zone has changed.
  unsigned long serial() const;

 private:
  scratch _dir;
  std::unique_ptr<process> _program;

  std::vector<std::string> ask(const std::string& type, const std::string& name) const;
};
