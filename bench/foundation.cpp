// What a program that uses the foundation defines; the variant UNTUNED leaves the C library's heap as it is.
#include "com/ymlib3/ym_alloctor"

#ifndef UNTUNED
ym_glibc_noarena g_ym_glibc_noarena;
#endif
ym_allocator_ g_ym_allocator;
