// Log messages of one instance, formatted, filtered by level and handed to the host's log callback.
#pragma once

#include <cstddef>
#include <string>

#include "com/ymlib3/ym_log"
#include "driver/dac.h"

/// Messages pass when their level is at most the threshold. [any thread], save bind and setlevel
class logDac : public ym::ilog {
 public:
  logDac() = default;
  ~logDac() override = default;
  logDac(const logDac&) = delete;
  logDac& operator=(const logDac&) = delete;

  // Loggers on the heap live in the pools; null, and no logger, when there is no memory.
  static void* operator new(size_t n) noexcept;
  static void operator delete(void* p) noexcept;

  /// Gives the logger its instance's name and the host's callback; null logs nothing. Sets the threshold to 40.
  void bind(const char* name, cblog callback, void* param);

  int open(const char* path) override;
  [[gnu::format(printf, 3, 4)]] int add(int level, const char* fmt, ...) override;
  [[gnu::format(printf, 3, 4)]] int append(int level, const char* fmt, ...) override;

  /// Delivers "[tag]message", or the message alone for a null or empty tag. Returns the characters delivered, 0 above
  /// the threshold, -1 without callback and for a message that is empty or has 30720 characters or more.
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

  template <size_t ROOM>
  [[gnu::noinline, gnu::format(printf, 4, 0)]] int deliver(int level, const char* tag, const char* fmt,
                                                           va_list args) const;
};
static_assert(sizeof(logDac) == 64);
