// The globals of a program that uses only the foundation, in the order of construction.
#include "com/ymlib3/ym_alloctor"

ym_glibc_noarena g_ym_glibc_noarena;
ym_allocator_ g_ym_allocator;
