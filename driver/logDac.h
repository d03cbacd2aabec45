// Formats the log messages of one instance, filters them by level and passes them to the host's log callback.
#pragma once

#include <cstddef>
#include <string>

#include "com/ymlib3/ym_log"
#include "driver/dac.h"

/// Delivers messages whose level is at most the threshold. [any thread] except bind and setlevel
class logDac : public ym::ilog {
 public:
  logDac() = default;
  ~logDac() override = default;
  logDac(const logDac&) = delete;
  logDac& operator=(const logDac&) = delete;

  // Loggers on the heap use the pools. If there is no memory, `new` returns null and constructs nothing.
  static void* operator new(size_t n) noexcept;
  static void operator delete(void* p) noexcept;

  /// Sets the instance's name and the host's callback (null: logs nothing), and the threshold to 40.
  void bind(const char* name, cblog callback, void* param);

  int open(const char* path) override;
  [[gnu::format(printf, 3, 4)]] int add(int level, const char* fmt, ...) override;
  [[gnu::format(printf, 3, 4)]] int append(int level, const char* fmt, ...) override;

  /// Delivers "[tag]message", or the message alone if `tag` is null or empty. Cuts the prefix "[tag]" to 80 characters.
  /// Returns the number of characters delivered, or 0 if `level` is above the threshold. Returns -1 if there is no
  /// callback, if formatting fails, or if the message without its prefix is empty or has 30720 characters or more.
  [[gnu::format(printf, 4, 0)]] int push(int level, const char* tag, const char* fmt, va_list args) override;
  int getlevel() override;
  void setlevel(int level) override;
  void runtime() override;
  void release() override;

 private:
  int _level = 40;            // threshold
  cblog _callback = nullptr;  // null: nothing is logged
  void* _param = nullptr;     // the callback's last argument
  std::string _name;          // the callback's first argument
};
static_assert(sizeof(logDac) == 64);
