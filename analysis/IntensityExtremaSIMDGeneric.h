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
        const auto& view = filter.getView();
        const unsigned long cols = block.getNbCols();
        typename Ops::V lo0 = broadcast(m_min), hi0 = broadcast(m_max), lo1 = lo0, hi1 = hi0;
        decltype(view.createRowCacheRead(1)) cache;
        for (long p = 0; p < long(block.getNbPlans()); ++p)
            for (long r = 0; r < long(block.getNbRows()); ++r) {
                // Rows held in memory are read in place, the last vector overlapping the one before
                // it (folding a voxel twice changes nothing); others come padded through the cache.
                const T* row = cols >= N ? view.directRow(block.colsBegin(), block.rowsBegin() + r,
                                                          block.plansBegin() + p, block.sequenceBegin(),
                                                          block.spectralSeriesBegin(), cols)
                                         : nullptr;
                unsigned long width = cols;
                if (!row) {
                    if (!cache) cache = view.createRowCacheRead(1);
                    width = (cols + N - 1) / N * N;
                    row = cache->fetchRowInBlock(0, width, block, 0, r, p, 0, 0).data();
                }
                unsigned long x = 0;
                for (; x + 2 * N <= width; x += 2 * N) {
                    const typename Ops::V a = Ops::load(row + x), b = Ops::load(row + x + N);
                    lo0 = Ops::min(a, lo0);
                    hi0 = Ops::max(a, hi0);
                    lo1 = Ops::min(b, lo1);
                    hi1 = Ops::max(b, hi1);
                }
                if (x + N <= width) {
                    const typename Ops::V a = Ops::load(row + x);
                    lo0 = Ops::min(a, lo0);
                    hi0 = Ops::max(a, hi0);
                    x += N;
                }
                if (x < width) {
                    const typename Ops::V a = Ops::load(row + width - N);
                    lo1 = Ops::min(a, lo1);
                    hi1 = Ops::max(a, hi1);
                }
            }
        // NaN-free accumulators: the order of these folds cannot change the result.
        const typename Ops::V vmin = Ops::min(lo0, lo1), vmax = Ops::max(hi0, hi1);
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
