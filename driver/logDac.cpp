#include "driver/logDac.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "com/ymlib3/ym_alloctor"

namespace {

// | prefix "[tag]", at most 80 | message, at most 30719 | zero |
constexpr size_t buffer_size = 30800;
constexpr size_t message_room = 30720;
constexpr int prefix_max = buffer_size - message_room;

// compat: level 30, the driver's progress messages, has no code and reaches the host as 0.
int host_level(int level) {
  switch (level) {
    case 10:
      return 2;
    case 20:
      return 1;
    case 40:
      return 3;
    case 999:
      return 4;
    default:
      return 0;
  }
}

}  // namespace

void* logDac::operator new(size_t n) noexcept { return get_ym_allocator()->malloc_(n, nullptr); }
void logDac::operator delete(void* p) noexcept { ym_free(p); }

void logDac::bind(const char* name, cblog callback, void* param) {
  _name = name;
  _callback = callback;
  _param = param;
  _level = 40;
}

int logDac::push(int level, const char* tag, const char* fmt, va_list args) {
  if (!_callback) return -1;
  if (level > _level) return 0;
  char buf[buffer_size];
  int p = 0;
  if (tag && *tag) p = std::min(std::snprintf(buf, sizeof buf, "[%s]", tag), prefix_max);
  if (p < 0) return -1;
  const int m = std::vsnprintf(buf + p, message_room, fmt, args);
  // compat: an empty message is refused, and one that does not fit is refused instead of cut.
  if (m < 1 || m >= static_cast<int>(message_room)) return -1;
  _callback(_name.c_str(), host_level(level), buf, 1, _param);
  return p + m;
}

int logDac::add(int level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int n = logDac::push(level, nullptr, fmt, args);
  va_end(args);
  return n;
}

int logDac::append(int level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int n = logDac::push(level, nullptr, fmt, args);
  va_end(args);
  return n;
}

int logDac::open(const char* /*path*/) { return 0; }
int logDac::getlevel() { return _level; }
void logDac::setlevel(int level) { _level = level; }
void logDac::runtime() {}
void logDac::release() {}
