// State of functions that replace the C library's. They are called before the program's initialisers and until its end.
#pragma once

#include <new>

/// A T that is created at first use and never destroyed. Not on the heap, so that no block is left at the end.
template <class T>
T& immortal() {
  alignas(T) static unsigned char room[sizeof(T)];
  static T* one = new (room) T;
  return *one;
}
