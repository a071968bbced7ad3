#pragma once
// When a float fold may ignore its order: OrderFree watches the voxels a kernel loads for NaN and
// -0.0, the only values through which the order of a min/max fold shows.
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include "simd/SimdVec.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

// Float minimum and maximum depend on the fold order only through NaN (a NaN accumulator is
// replaced by the next operand, a NaN operand replaces the accumulator) and through ties of +0.0
// and -0.0 (the later operand wins). Over voxels holding neither NaN nor -0.0, equal values have
// equal bits, so any order gives the fold order's result: the order-free kernels may serve.
// Integer folds are always order-free.
template <class T>
struct OrderFree {
    using Ops = SimdVec::Ops<T>;

    // Sees voxels go by (as a kernel loads them) and tells whether all were order-free. It may
    // answer no for order-free voxels (infinities of both signs), which only costs speed. A kernel
    // folding three rows shows it the third row's voxels, or all three rows' with AllRows.
    template <bool AllRows>
    class Watcher {
    public:
        static constexpr bool kAllRows = AllRows;
        // Written out: an implicit constructor would be compiled without AVX2.
        LYN_INLINE Watcher() : m_a(Ops::fromBits(_mm256_setzero_si256())), m_b(_mm256_setzero_si256()) {}
        LYN_INLINE void vec(typename Ops::V v) {
            if constexpr (std::is_same_v<T, float>) {
                // Two steps per vector: a sum turns NaN if a NaN goes by (or +inf and -inf do), and
                // -0.0 is the only float whose bits are the least 32-bit integer.
                m_a = _mm256_add_ps(m_a, v);
                m_b = _mm256_min_epi32(m_b, Ops::bits(v));
            } else if constexpr (std::is_same_v<T, double>) {
                // A lane equal to zero or unordered keeps its bits: zero for +0.0, not for -0.0 and NaN.
                m_b = _mm256_or_si256(m_b, _mm256_and_si256(Ops::bits(v), Ops::bits(_mm256_cmp_pd(v, _mm256_setzero_pd(), _CMP_EQ_UQ))));
            }
        }
        LYN_INLINE void edges(T left, T right) {
            if constexpr (!std::is_integral_v<T>) m_badEdge |= special(left) || special(right);
        }
        LYN_INLINE bool clean() const {
            if constexpr (std::is_integral_v<T>) {
                return true;
            } else if constexpr (std::is_same_v<T, float>) {
                const __m256i nan = _mm256_castps_si256(_mm256_cmp_ps(m_a, m_a, _CMP_UNORD_Q));
                const __m256i negativeZero = _mm256_cmpeq_epi32(m_b, _mm256_set1_epi32(std::numeric_limits<std::int32_t>::min()));
                const __m256i bad = _mm256_or_si256(nan, negativeZero);
                return !m_badEdge && _mm256_testz_si256(bad, bad);
            } else {
                return !m_badEdge && _mm256_testz_si256(m_b, m_b);
            }
        }

    private:
        static LYN_INLINE bool special(T v) { return v != v || (v == T(0) && std::signbit(v)); }
        typename Ops::V m_a;
        __m256i m_b;
        bool m_badEdge = false;
    };

    using Watch = Watcher<false>;
    using WatchAll = Watcher<true>;
};

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
