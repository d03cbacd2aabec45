// The service manager that started the process, as sd_notify(3), sd_watchdog_enabled(3) and sd-daemon(3) describe it.
#pragma once

#include <chrono>
#include <string>

#include "host/interface.h"

class service_manager : public interface {
 public:
  /// Whether it accepts notifications.
  virtual bool is_present() const = 0;
  /// The manager ends the process if it does not send WATCHDOG=1 within this time. 0: no watchdog.
  virtual std::chrono::microseconds watchdog() const = 0;
  /// Sends NAME=VALUE lines of at most 4096 bytes without waiting. Returns false if they must be sent again later.
  virtual bool notify(const std::string& lines) = 0;
};

class systemd : public service_manager {
 public:
  /// Removes what it reads from the environment, so that programs started later do not get it.
  systemd();
  bool is_present() const override { return !_address.empty(); }
  std::chrono::microseconds watchdog() const override { return _watchdog; }
  bool notify(const std::string& lines) override;

 private:
  std::string _address;  // begins with a zero byte in the abstract namespace; empty: none
  std::chrono::microseconds _watchdog{0};
};

/// Whether the descriptor writes to the journal, which reads "<N>" at the start of a line as its level.
bool is_journal(int fd);
