#pragma once
// Block kernel of the intensity extrema: running minimum and maximum vectors over whole-vector
// rows, folded into a scalar accumulator. NaN voxels never win (the new value is the first
// operand of the vector minimum/maximum, so a NaN there keeps the running value), which makes the
// result independent of how the image is cut into blocks.
#include <limits>

#include "Core/private/Access/Caches.h"
#include "host/VoxelTypes.h"
#include "simd/SimdVec.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace analysis {

template <class T>
class IntensityExtremaSIMDGeneric {
public:
    static constexpr T lowestValue() { return VoxelTraits<voxelTypeOf<T>()>::lowest(); }
    static constexpr T highestValue() { return VoxelTraits<voxelTypeOf<T>()>::highest(); }

    // The result starts at the finite extremes. The early exit needs values nothing can pass: for
    // floats those are the infinities, since -inf and +inf may follow the finite extremes.
    IntensityExtremaSIMDGeneric()
        : m_min(highestValue()), m_max(lowestValue()), m_lowest(bound(true)), m_highest(bound(false)) {}

    T getMinimum() const { return m_min; }
    T getMaximum() const { return m_max; }

    template <class Filter>
    void run(const access::Block3d& block, Filter& filter) {
        using Ops = SimdVec::Ops<T>;
        constexpr unsigned long N = Ops::N;
        // Nothing can change a result that already spans the type's whole range.
        if (m_min == m_lowest && m_max == m_highest) return;
        if (block.empty()) return;
        auto cache = filter.getView().createRowCacheRead(1);
        const unsigned long width = (block.getNbCols() + N - 1) / N * N;
        typename Ops::V vmin = broadcast(m_min), vmax = broadcast(m_max);
        for (long p = 0; p < long(block.getNbPlans()); ++p)
            for (long r = 0; r < long(block.getNbRows()); ++r) {
                const T* row = cache->fetchRowInBlock(0, width, block, 0, r, p, 0, 0).data();
                for (unsigned long x = 0; x < width; x += N) {
                    const typename Ops::V v = Ops::load(row + x);
                    vmin = Ops::min(v, vmin);
                    vmax = Ops::max(v, vmax);
                }
            }
        alignas(32) T lo[N], hi[N];
        Ops::store(lo, vmin);
        Ops::store(hi, vmax);
        for (unsigned long i = 0; i < N; ++i) {
            if (lo[i] < m_min) m_min = lo[i];
            if (hi[i] > m_max) m_max = hi[i];
        }
    }

    void join(const IntensityExtremaSIMDGeneric& rhs) {
        if (rhs.m_min < m_min) m_min = rhs.m_min;
        if (rhs.m_max > m_max) m_max = rhs.m_max;
    }

private:
    static constexpr T bound(bool lower) {
        if constexpr (std::numeric_limits<T>::has_infinity)
            return lower ? -std::numeric_limits<T>::infinity() : std::numeric_limits<T>::infinity();
        else return lower ? lowestValue() : highestValue();
    }
    static LYN_INLINE typename SimdVec::Ops<T>::V broadcast(T value) {
        alignas(32) T values[SimdVec::Ops<T>::N];
        for (auto& v : values) v = value;
        return SimdVec::Ops<T>::load(values);
    }

    // Order matters to the host's measurement code: minimum, maximum, then the type's limits.
    T m_min;
    T m_max;
    T m_lowest;
    T m_highest;
};

} // namespace analysis
} // namespace lyn
LYN_AVX2_END
