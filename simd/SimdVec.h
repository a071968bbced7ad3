#pragma once
// The 256-bit vector operations the kernels are made of, per voxel type. Minimum and maximum are
// the AVX2 instructions themselves: signedness follows the type, and for floats the second operand
// wins on a tie or when either is NaN (so a fold's NaN behaviour follows its order).
#include <immintrin.h>

#include <cstdint>
#include <cstring>

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
    static LYN_INLINE __m256i bits(V v) { return v; }
    static LYN_INLINE V fromBits(__m256i v) { return v; }
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
    static LYN_INLINE __m256i bits(V v) { return _mm256_castps_si256(v); }
    static LYN_INLINE V fromBits(__m256i v) { return _mm256_castsi256_ps(v); }
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
    static LYN_INLINE __m256i bits(V v) { return _mm256_castpd_si256(v); }
    static LYN_INLINE V fromBits(__m256i v) { return _mm256_castsi256_pd(v); }
    static LYN_INLINE V max(V a, V b) { return _mm256_max_pd(a, b); }
    static LYN_INLINE V min(V a, V b) { return _mm256_min_pd(a, b); }
};

namespace details {
// Lane I of v (lanes of S bytes) replaced by the bits of b.
template <unsigned long S, int I, class T>
LYN_INLINE __m256i insertLane(__m256i v, T b) {
    static_assert(sizeof(T) == S, "lane size");
    if constexpr (S == 1) {
        std::int8_t u;
        std::memcpy(&u, &b, S);
        return _mm256_insert_epi8(v, u, I);
    } else if constexpr (S == 2) {
        std::int16_t u;
        std::memcpy(&u, &b, S);
        return _mm256_insert_epi16(v, u, I);
    } else if constexpr (S == 4) {
        std::int32_t u;
        std::memcpy(&u, &b, S);
        return _mm256_insert_epi32(v, u, I);
    } else {
        long long u;
        std::memcpy(&u, &b, S);
        return _mm256_insert_epi64(v, u, I);
    }
}
} // namespace details

// [b, v0, ..., v(N-2)]: the vector one voxel to the left of v, b entering at lane 0. Lets a kernel
// read the first vector of a row in place and still see the voxel before the row.
template <class T>
LYN_INLINE typename Ops<T>::V shiftInFirst(typename Ops<T>::V v, T b) {
    constexpr int S = int(sizeof(T));
    const __m256i x = Ops<T>::bits(v);
    const __m256i t = _mm256_permute2x128_si256(x, x, 0x08);  // low half zero, high half = x's low half
    return Ops<T>::fromBits(details::insertLane<sizeof(T), 0>(_mm256_alignr_epi8(x, t, 16 - S), b));
}

// [v1, ..., v(N-1), b]: the vector one voxel to the right of v, b entering at the last lane.
template <class T>
LYN_INLINE typename Ops<T>::V shiftInLast(typename Ops<T>::V v, T b) {
    constexpr int S = int(sizeof(T));
    const __m256i x = Ops<T>::bits(v);
    const __m256i t = _mm256_permute2x128_si256(x, x, 0x81);  // low half = x's high half, high half zero
    return Ops<T>::fromBits(
        details::insertLane<sizeof(T), int(Ops<T>::N) - 1>(_mm256_alignr_epi8(t, x, S), b));
}

// Stores a computed output vector; with `stream`, a non-temporal store where the address is
// vector-aligned. A large output written with ordinary stores is first read, line by line, into
// the cache; streaming skips that read. The writer fences (_mm_sfence) before others read.
template <class T>
LYN_INLINE void storeOut(T* p, typename Ops<T>::V v, bool stream) {
    if (stream && (reinterpret_cast<std::uintptr_t>(p) & 31) == 0)
        _mm256_stream_si256(reinterpret_cast<__m256i*>(p), Ops<T>::bits(v));
    else
        Ops<T>::store(p, v);
}

} // namespace SimdVec
} // namespace lyn
LYN_AVX2_END
