#include "driver/logDac.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "com/ymlib3/ym_alloctor"

namespace {

// | prefix "[tag]", 80 at most | message, 30719 at most | zero |
constexpr size_t message_room = 30720;
constexpr size_t buffer_size = 30800;
constexpr size_t prefix_room = buffer_size - message_room;

constexpr size_t short_room = 512;  // holds all of the driver's own messages unless a path is long

// kept: 30, the driver's progress, has no code of its own and reaches the host as 0.
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

// Writes "[tag]", cut to the room that the buffer has beyond the message; the length written, or negative.
int write_prefix(char* buf, const char* tag) {
  if (!tag || !*tag) return 0;
  return std::min(std::snprintf(buf, prefix_room + 1, "[%s]", tag), static_cast<int>(prefix_room));
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

// A frame of 30 kB would reach a page of the worker's stack that nothing else does, in every instance and for good.
int logDac::push(int level, const char* tag, const char* fmt, va_list args) {
  if (!_callback) return -1;
  if (level > _level) return 0;
  va_list again;
  va_copy(again, args);
  int n = deliver<short_room>(level, tag, fmt, args);
  if (n == 0) n = deliver<message_room>(level, tag, fmt, again);
  va_end(again);
  return n != 0 ? n : -1;  // kept: what does not fit is refused, not cut
}

// The characters delivered, -1 for what cannot be formatted or is empty, 0 for a message that does not fit ROOM.
template <size_t ROOM>
int logDac::deliver(int level, const char* tag, const char* fmt, va_list args) const {
  char buf[prefix_room + ROOM];
  const int p = write_prefix(buf, tag);
  if (p < 0) return -1;
  const int m = std::vsnprintf(buf + p, ROOM, fmt, args);
  if (m < 1) return -1;
  if (m >= static_cast<int>(ROOM)) return 0;
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
