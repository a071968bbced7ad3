#pragma once
// Kernel code is compiled for AVX2 through these region markers, not through a global -mavx2, so
// the rest of the plug-in (its eligibility checks above all) runs on any x86-64. Include every
// header a kernel needs before LYN_AVX2_BEGIN: whatever is defined inside the region is AVX2 code.
#define LYN_AVX2_BEGIN _Pragma("GCC push_options") _Pragma("GCC target(\"avx2\")")
#define LYN_AVX2_END _Pragma("GCC pop_options")
#define LYN_INLINE inline __attribute__((always_inline))
// The same for a lambda handed objects that live in its caller: inlined, the compiler knows that
// vector stores cannot change them and keeps their fields in registers.
#define LYN_LAMBDA_INLINE __attribute__((always_inline))
