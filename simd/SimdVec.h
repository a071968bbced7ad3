#pragma once
// The 256-bit vector operations the kernels are made of, per voxel type. Minimum and maximum are
// the AVX2 instructions themselves: signedness follows the type, and for floats the second operand
// wins on a tie or when either is NaN (so a fold's NaN behaviour follows its order).
#include <immintrin.h>

#include <cstdint>

#include "simd/AlignedAllocator.h"
#include "simd/Target.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace SimdVec {

template <class T>
struct Ops;

template <class T>
struct IntOps {
    using V = __m256i;
    static constexpr unsigned long N = 32 / sizeof(T);
    static LYN_INLINE V load(const T* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static LYN_INLINE void store(T* p, V v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
};

#define LYN_INT_OPS(T, MAX, MIN)                                             \
    template <>                                                             \
    struct Ops<T> : IntOps<T> {                                             \
        static LYN_INLINE V max(V a, V b) { return MAX(a, b); }             \
        static LYN_INLINE V min(V a, V b) { return MIN(a, b); }             \
    };
LYN_INT_OPS(std::uint8_t, _mm256_max_epu8, _mm256_min_epu8)
LYN_INT_OPS(std::int8_t, _mm256_max_epi8, _mm256_min_epi8)
LYN_INT_OPS(std::uint16_t, _mm256_max_epu16, _mm256_min_epu16)
LYN_INT_OPS(std::int16_t, _mm256_max_epi16, _mm256_min_epi16)
LYN_INT_OPS(std::uint32_t, _mm256_max_epu32, _mm256_min_epu32)
LYN_INT_OPS(std::int32_t, _mm256_max_epi32, _mm256_min_epi32)
#undef LYN_INT_OPS

template <>
struct Ops<float> {
    using V = __m256;
    static constexpr unsigned long N = 8;
    static LYN_INLINE V load(const float* p) { return _mm256_loadu_ps(p); }
    static LYN_INLINE void store(float* p, V v) { _mm256_storeu_ps(p, v); }
    // vmaxps a, b: a if a > b, else b.
    static LYN_INLINE V max(V a, V b) { return _mm256_max_ps(a, b); }
    static LYN_INLINE V min(V a, V b) { return _mm256_min_ps(a, b); }
};

template <>
struct Ops<double> {
    using V = __m256d;
    static constexpr unsigned long N = 4;
    static LYN_INLINE V load(const double* p) { return _mm256_loadu_pd(p); }
    static LYN_INLINE void store(double* p, V v) { _mm256_storeu_pd(p, v); }
    static LYN_INLINE V max(V a, V b) { return _mm256_max_pd(a, b); }
    static LYN_INLINE V min(V a, V b) { return _mm256_min_pd(a, b); }
};

} // namespace SimdVec
} // namespace lyn
LYN_AVX2_END
