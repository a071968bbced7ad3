#pragma once
// The input rows of a block as kernels see them: an EdgedRow, a pointer to block column 0 with the
// voxels just outside the block beside it. DirectRows reads them in place from an image held in
// memory, for passes that do not write the image they read: kernels shift the edge voxels (from
// the image, or the border value beyond its edges) into their first and last vectors, so nothing
// is copied; rows outside the image are one constant row of the border value; only for fixed
// borders, which describe every outside voxel with one value. PaddedRows copies them, for every
// other pass. Either way a kernel has one body.
#include <array>
#include <type_traits>
#include <vector>

#include "Core/private/Access/Block.h"
#include "Core/private/Access/Caches.h"
#include "host/BorderCondition.h"

namespace lyn {
namespace access {

template <class T>
struct EdgedRow {
    const T* p;  // block column 0; p[0] .. p[cols - 1] are readable
    T left;      // the voxel at column -1
    T right;     // the voxel at column cols
};

template <class View>
class DirectRows {
public:
    using T = typename View::value_type;
    static constexpr bool kAnyWidth = false;  // rows have at least the minCols of init

    // False (and unusable) when the image is not in memory, its border is not a fixed value, or the
    // block has fewer than minCols columns.
    bool init(const View& view, const Block& block, unsigned long minCols) {
        const ImageAccess& access = view.getAccess();
        MemoryLayout layout;
        if (block.getNbCols() < minCols || !view.getBorderCondition()->fixedValue(m_border) || !access.layout(layout) ||
            layout.strides[0] != long(sizeof(T)))
            return false;
        m_n = long(block.getNbCols());
        m_row0 = block.rowsBegin();
        m_plan0 = block.plansBegin();
        m_nbRows = access.extent(1);
        m_nbPlans = access.extent(2);
        m_rowStride = layout.strides[1];
        m_planStride = layout.strides[2];
        const long seq = block.sequenceBegin(), spectral = block.spectralSeriesBegin();
        if (seq < 0 || seq >= access.extent(3) || spectral < 0 || spectral >= access.extent(4) || block.colsBegin() < 0 ||
            block.colsEnd() > access.extent(0))
            return false;
        m_base = layout.base + block.colsBegin() * layout.strides[0] + seq * layout.strides[3] +
                 spectral * layout.strides[4];
        m_hasLeft = block.colsBegin() > 0;
        m_hasRight = block.colsEnd() < access.extent(0);
        m_constant.assign(static_cast<std::size_t>(m_n), m_border);
        return true;
    }

    // Block row rowOffset of block plan planOffset; either may lie outside the block or the image.
    // Always inlined: called from AVX2 code, an out-of-line copy compiled for plain x86-64 would hand
    // float edges back through legacy SSE instructions while the upper vector halves are dirty,
    // which stalls on every call.
    __attribute__((always_inline)) EdgedRow<T> row(long planOffset, long rowOffset) const {
        const long r = m_row0 + rowOffset, z = m_plan0 + planOffset;
        if (r < 0 || r >= m_nbRows || z < 0 || z >= m_nbPlans) return {m_constant.data(), m_border, m_border};
        const T* p = reinterpret_cast<const T*>(m_base + r * m_rowStride + z * m_planStride);
        return {p, m_hasLeft ? p[-1] : m_border, m_hasRight ? p[m_n] : m_border};
    }

    // Asks the cache for a row that a later call will read: on images larger than the cache, the
    // rows of the plan ahead come from memory while the kernel still folds the rows at hand.
    __attribute__((always_inline)) void prefetch(long planOffset, long rowOffset) const {
        const long r = m_row0 + rowOffset, z = m_plan0 + planOffset;
        if (r < 0 || r >= m_nbRows || z < 0 || z >= m_nbPlans) return;
        const char* p = m_base + r * m_rowStride + z * m_planStride;
        for (long b = 0; b < m_n * long(sizeof(T)); b += 64) __builtin_prefetch(p + b, 0, 3);
    }

private:
    const char* m_base = nullptr;
    long m_n = 0, m_row0 = 0, m_plan0 = 0, m_nbRows = 0, m_nbPlans = 0;
    long m_rowStride = 0, m_planStride = 0;
    bool m_hasLeft = false, m_hasRight = false;
    T m_border{};
    std::vector<T> m_constant;
};

// The same rows for passes that cannot read their input in place (they write the image they read,
// or it is not in memory): copies with one margin voxel either side, in the calling thread's
// caches. With Planes == 1 (2D) rows are fetched one by one into a ring of three row slots, the
// first time each is asked for; otherwise a plan is fetched whole (rows -1 to rows of the block)
// into a band of Planes plan slots. Either way an in-place pass has copied every input row it
// still needs before it writes the output row that replaces it, provided it asks for rows no
// further than one ahead of the output row (plans: one plan ahead) and in rising order. Rows of
// any width: a copy is readable from column -1 to at least N, so a row narrower than a vector is
// one whole vector too.
template <class View, int Planes>
class PaddedRows {
public:
    using T = typename View::value_type;
    using Alloc = typename View::allocator_type;
    static constexpr bool kAnyWidth = true;
    // The cache init takes: a row cache of three slots for 2D, a plan cache of Planes slots else.
    using Cache = std::conditional_t<Planes == 1, RowCacheRead<View, Alloc>, PlanCacheRead<View, Alloc>>;

    void init(const Cache& cache, const Block& block) {
        m_cache = &cache;
        m_block = &block;
        m_n = long(block.getNbCols());
        m_last = Planes == 1 ? -2 : -(Planes / 2) - 1;  // the last row (2D) or plan fetched
        if constexpr (Planes > 1)
            while (m_last < Planes / 2) fetchNext();
    }

    // Same contract as DirectRows::row; inlined for the same reason.
    __attribute__((always_inline)) EdgedRow<T> row(long planOffset, long rowOffset) const {
        const T* p;
        if constexpr (Planes == 1) {
            (void)planOffset;
            while (rowOffset > m_last) fetchNext();
            p = m_cache->row(static_cast<unsigned long>((rowOffset + 1) % 3)).data() + 1;
        } else {
            while (planOffset > m_last) fetchNext();
            p = m_plans[slot(planOffset)]->row(static_cast<unsigned long>(rowOffset + 1)).data() + 1;
        }
        return {p, p[-1], p[m_n]};
    }

    void prefetch(long, long) const {}  // the caches hold the rows

private:
    static std::size_t slot(long planOffset) { return static_cast<std::size_t>((planOffset + Planes / 2) % Planes); }
    // The next row (2D) or plan.
    __attribute__((noinline)) void fetchNext() const {
        ++m_last;
        if constexpr (Planes == 1) {
            m_cache->fetchRowInBlock(static_cast<unsigned long>((m_last + 1) % 3), static_cast<unsigned long>(m_n + 2),
                                     *m_block, -1, m_last, 0, 0, 0);
        } else {
            const std::size_t s = slot(m_last);
            m_plans[s] = &m_cache->fetchPlanInBlock(s, static_cast<unsigned long>(m_n + 2), m_block->getNbRows() + 2,
                                                    *m_block, -1, -1, m_last, 0, 0);
        }
    }

    const Cache* m_cache = nullptr;
    const Block* m_block = nullptr;
    long m_n = 0;
    mutable long m_last = 0;
    mutable std::array<const typename PlanCacheRead<View, Alloc>::Plan*, Planes> m_plans{};
};

} // namespace access
} // namespace lyn
