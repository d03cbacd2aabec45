// State of functions that stand in for the C library's: they are called before the program's initialisers run and
// until its last moment.
#pragma once

#include <new>

/// A T that is made at first use and never destroyed; no block of the heap, so that none is left at the end.
template <class T>
T& immortal() {
  alignas(T) static unsigned char room[sizeof(T)];
  static T* one = new (room) T;
  return *one;
}
