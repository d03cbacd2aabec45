// What a program that uses the foundation alone defines, in the order in which it is built.
#include "com/ymlib3/ym_alloctor"

ym_glibc_noarena g_ym_glibc_noarena;
ym_allocator_ g_ym_allocator;
