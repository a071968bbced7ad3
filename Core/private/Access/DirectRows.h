#pragma once
// Input rows of a block read in place from an image held in memory, for passes that do not write
// the image they read. A row is its block columns plus the two voxels just outside them (from the
// image, or the border value beyond its edges): kernels shift those into their first and last
// vectors instead of reading padded copies, so nothing is copied. Rows outside the image are one
// constant row of the border value. Only for fixed borders, which describe every outside voxel
// with one value.
#include <vector>

#include "Core/private/Access/Block.h"
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

private:
    const char* m_base = nullptr;
    long m_n = 0, m_row0 = 0, m_plan0 = 0, m_nbRows = 0, m_nbPlans = 0;
    long m_rowStride = 0, m_planStride = 0;
    bool m_hasLeft = false, m_hasRight = false;
    T m_border{};
    std::vector<T> m_constant;
};

} // namespace access
} // namespace lyn
