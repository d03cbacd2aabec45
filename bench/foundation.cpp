// The globals of a program that uses the foundation. UNTUNED does not tune the C library's heap.
#include "com/ymlib3/ym_alloctor"

#ifndef UNTUNED
ym_glibc_noarena g_ym_glibc_noarena;
#endif
ym_allocator_ g_ym_allocator;
