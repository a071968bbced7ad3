#pragma once
// Neighbourhood and output iterators. Each owns a cache, fetches for one block the rows (2D) or
// plans (3D) that its neighbourhood needs, margins included, and exposes one read pointer per
// neighbour for the current row: pointer k plus x is neighbour k of block column x. Kernels walk
// a row in whole vectors and call nextRow()/nextPlan() to roll the band.
#include <algorithm>
#include <memory>
#include <vector>

#include "Core/private/Access/Caches.h"
#include "host/Kernel.h"
#include "host/Neighbourhood.h"

namespace lyn {
namespace access {

struct NoDataType {};
struct Neighborhood2D_4Tag {};
struct Neighborhood2D_GenTag {};
struct Neighborhood3D_6Tag {};
struct Neighborhood3D_18Tag {};
struct Neighborhood3D_GenTag {};

namespace details {
// Position and loop limits shared by the iterators.
struct IteratorState {
    Block2d block2d;
    Block3d block3d;
    long col = 0, row = 0, plan = 0;
    long lastVectorCol = 0, lastRow = -1, nbRows = 0, lastPlan = -1, nbPlans = 0;
    int valid = 0;

    template <unsigned long N>
    void start(const Block& b) {
        col = row = plan = 0;
        lastVectorCol = long(b.getNbCols()) - long(N);
        lastRow = long(b.getNbRows()) - 1;
        nbRows = long(b.getNbRows());
        lastPlan = long(b.getNbPlans()) - 1;
        nbPlans = long(b.getNbPlans());
        valid = 1;
    }
};
} // namespace details

// Output rows of a block, one at a time; a finished row is written with the overlap border.
template <class View, unsigned long N>
class IteratorPixelOutput {
public:
    using T = typename View::value_type;
    using Alloc = typename View::allocator_type;

    // With `direct`, rows lying wholly inside an image held in memory are computed in place and
    // need no writing; only for passes that defer nothing (not in place) and never write past a
    // row's end.
    IteratorPixelOutput(std::shared_ptr<View> view, bool fetch, const OverlapBorder& overlap, bool direct = false)
        : m_view(std::move(view)), m_fetch(fetch), m_direct(direct && !fetch), m_overlap(overlap),
          m_cache(m_view->createRowCacheReadWrite(1)) {}

    void init(const Block2d& block) {
        m_s.block2d = block;
        m_block = &m_s.block2d;
        start();
    }
    void init(const Block3d& block) {
        m_s.block3d = block;
        m_block = &m_s.block3d;
        start();
    }

    T* rowData() { return m_inPlace ? m_inPlace : m_row->data(); }
    // Writes the current row and moves to the next one (the next plan after a plan's last row).
    void nextRow() {
        // A staged row cannot be refused: rowToWrite gave its place only inside a writable image.
        if (m_staged)
            m_view->writeRowAt(m_cols, m_inPlace, m_origin[0], m_origin[1] + m_s.row, m_origin[2] + m_s.plan, m_origin[3],
                               m_origin[4]);
        else if (!m_inPlace)
            m_row->writeRow(*m_block, m_overlap);
        if (++m_s.row > m_s.lastRow) {
            m_s.row = 0;
            if (++m_s.plan > m_s.lastPlan) {
                m_s.valid = 0;
                return;
            }
        }
        load();
    }
    bool isValid() const { return m_s.valid != 0; }
    // Back to the first row of block plan `plan`, so that a kernel can compute the plan again.
    void rewindToPlan(long plan) {
        m_s.plan = plan;
        m_s.row = 0;
        m_s.valid = 1;
        load();
    }

private:
    void start() {
        m_s.start<N>(*m_block);
        // The block's origin, looked up once: load() runs for every row.
        m_cols = m_block->getNbCols();
        m_origin[0] = m_block->colsBegin();
        m_origin[1] = m_block->rowsBegin();
        m_origin[2] = m_block->plansBegin();
        m_origin[3] = m_block->sequenceBegin();
        m_origin[4] = m_block->spectralSeriesBegin();
        // Direct rows of a block inside an image in memory are found by strides, not looked up.
        m_strided = nullptr;
        MemoryLayout layout;
        if (m_direct && m_cols >= N && m_view->writableLayout(layout) && layout.strides[0] == long(sizeof(T)) &&
            m_origin[0] >= 0 && m_origin[0] + long(m_cols) <= m_view->getNbCols() && m_origin[1] >= 0 &&
            m_block->rowsEnd() <= m_view->getNbRows() && m_origin[2] >= 0 && m_block->plansEnd() <= m_view->getNbPlans() &&
            m_origin[3] >= 0 && m_origin[3] < m_view->getNbSequence() && m_origin[4] >= 0 &&
            m_origin[4] < m_view->getNbSpectral()) {
            m_strided = layout.base + m_origin[0] * layout.strides[0] + m_origin[1] * layout.strides[1] +
                        m_origin[2] * layout.strides[2] + m_origin[3] * layout.strides[3] + m_origin[4] * layout.strides[4];
            m_rowStride = layout.strides[1];
            m_planStride = layout.strides[2];
        }
        load();
    }
    void load() {
        if (m_s.nbRows == 0 || m_s.nbPlans == 0) {
            m_s.valid = 0;
            return;
        }
        if (m_strided) {
            m_inPlace = reinterpret_cast<T*>(m_strided + m_s.row * m_rowStride + m_s.plan * m_planStride);
            return;
        }
        const unsigned long cols = m_cols;
        m_staged = false;
        m_inPlace = m_direct && cols >= N ? m_view->directRowWrite(m_origin[0], m_origin[1] + m_s.row,
                                                                   m_origin[2] + m_s.plan, m_origin[3], m_origin[4], cols)
                                          : nullptr;
        if (!m_inPlace && m_direct && cols >= N) {
            // An image on disk: computed in its held-back writes, written by nextRow without a copy.
            m_inPlace = m_view->rowToWrite(m_origin[0], m_origin[1] + m_s.row, m_origin[2] + m_s.plan, m_origin[3],
                                           m_origin[4], cols);
            m_staged = m_inPlace != nullptr;
        }
        if (m_inPlace) return;
        m_row = m_fetch ? &m_cache->fetchRowInBlock(0, cols, *m_block, 0, m_s.row, m_s.plan, 0, 0)
                        : &m_cache->getRowInBlock(0, cols, *m_block, 0, m_s.row, m_s.plan, 0, 0);
    }

    std::shared_ptr<View> m_view;
    bool m_fetch;
    bool m_direct;
    OverlapBorder m_overlap;
    std::shared_ptr<RowCacheReadWrite<View, Alloc>> m_cache;
    details::IteratorState m_s;
    const Block* m_block = nullptr;
    OuputRow<View, Alloc>* m_row = nullptr;
    T* m_inPlace = nullptr;
    bool m_staged = false;  // m_inPlace is a place the image gave (rowToWrite), written by nextRow
    unsigned long m_cols = 0;
    long m_origin[5] = {0, 0, 0, 0, 0};
    char* m_strided = nullptr;  // the block's first voxel, when rows are found by strides
    long m_rowStride = 0, m_planStride = 0;
};

// Centre and its four edge neighbours, over a band of three cached rows.
template <class View, unsigned long N>
class IteratorNeighborhood2D_4 {
public:
    using T = typename View::value_type;
    using Alloc = typename View::allocator_type;
    enum { Up, Left, Centre, Right, Down, Count };

    IteratorNeighborhood2D_4(std::shared_ptr<const View> view, NoDataType)
        : m_view(std::move(view)), m_cache(m_view->createRowCacheRead(3)) {}

    void init(const Block2d& block) {
        m_s.block2d = block;
        m_s.start<N>(block);
        for (unsigned long i = 0; i < 3; ++i) {
            m_slots[i] = i;
            fetch(i, long(i) - 1);
        }
        aim();
    }
    // Operand pointers: up, left, centre, right, down.
    const T* ptr(int k) const { return m_ptr[k]; }
    void nextRow() {
        ++m_s.row;
        const unsigned long freed = m_slots[0];
        m_slots[0] = m_slots[1];
        m_slots[1] = m_slots[2];
        m_slots[2] = freed;
        fetch(freed, m_s.row + 1);
        aim();
    }

private:
    void fetch(unsigned long slot, long rowOffset) {
        m_cache->fetchRowInBlock(slot, m_s.block2d.getNbCols() + 2, m_s.block2d, -1, rowOffset, 0, 0, 0);
    }
    void aim() {
        const T* up = m_cache->row(m_slots[0]).data();
        const T* mid = m_cache->row(m_slots[1]).data();
        const T* down = m_cache->row(m_slots[2]).data();
        m_ptr[Up] = up + 1;
        m_ptr[Left] = mid;
        m_ptr[Centre] = mid + 1;
        m_ptr[Right] = mid + 2;
        m_ptr[Down] = down + 1;
    }

    std::shared_ptr<const View> m_view;
    std::shared_ptr<RowCacheRead<View, Alloc>> m_cache;
    details::IteratorState m_s;
    unsigned long m_slots[3] = {0, 1, 2};
    const T* m_ptr[Count] = {};
};

// Any list of (dx, dy) offsets, over a band of maxRow - minRow + 1 cached rows.
template <class View, unsigned long N>
class IteratorNeighborhood2D_Gen {
public:
    using T = typename View::value_type;
    using Alloc = typename View::allocator_type;

    IteratorNeighborhood2D_Gen(std::shared_ptr<const View> view, std::vector<kernel::Offset2D> offsets)
        : m_view(std::move(view)), m_offsets(std::move(offsets)) {
        kernel::computeExtrema(m_offsets, m_minCol, m_maxCol, m_minRow, m_maxRow);
        m_nbSlots = static_cast<unsigned long>(m_maxRow - m_minRow + 1);
        m_cache = m_view->createRowCacheRead(m_nbSlots);
        m_ptr.resize(m_offsets.size());
    }

    void init(const Block2d& block) {
        m_s.block2d = block;
        m_s.start<N>(block);
        m_first = 0;
        for (unsigned long i = 0; i < m_nbSlots; ++i) fetch(i, m_minRow + long(i));
        aim();
    }
    const T* ptr(std::size_t k) const { return m_ptr[k]; }
    std::size_t size() const { return m_ptr.size(); }
    void nextRow() {
        ++m_s.row;
        // The slot of the oldest row takes the new bottom row.
        fetch(m_first, m_s.row + m_maxRow);
        m_first = (m_first + 1) % m_nbSlots;
        aim();
    }
    AlgoBorderInfluence getBorderInfluence() const {
        return AlgoBorderInfluence(std::uint64_t(std::max(-m_minCol, 0L)), std::uint64_t(std::max(m_maxCol, 0L)),
                                   std::uint64_t(std::max(-m_minRow, 0L)), std::uint64_t(std::max(m_maxRow, 0L)), 0, 0,
                                   0, 0, 0, 0);
    }

private:
    void fetch(unsigned long slot, long rowOffset) {
        const long length = long(m_s.block2d.getNbCols()) - m_minCol + m_maxCol;
        m_cache->fetchRowInBlock(slot, static_cast<unsigned long>(length), m_s.block2d, m_minCol, rowOffset, 0, 0, 0);
    }
    void aim() {
        for (std::size_t k = 0; k < m_offsets.size(); ++k) {
            const unsigned long slot = (m_first + static_cast<unsigned long>(m_offsets[k].y - m_minRow)) % m_nbSlots;
            m_ptr[k] = m_cache->row(slot).data() + (m_offsets[k].x - m_minCol);
        }
    }

    std::shared_ptr<const View> m_view;
    std::vector<kernel::Offset2D> m_offsets;
    long m_minCol = 0, m_maxCol = 0, m_minRow = 0, m_maxRow = 0;
    unsigned long m_nbSlots = 1, m_first = 0;
    std::shared_ptr<RowCacheRead<View, Alloc>> m_cache;
    details::IteratorState m_s;
    std::vector<const T*> m_ptr;
};

namespace details {
// A band of cached plans rolled one plan at a time; plan slot i of the band holds block plan
// (current + firstPlanOffset + i), each with rows from rowOffset and columns from colOffset.
template <class View>
class PlanBand {
public:
    using T = typename View::value_type;
    using Alloc = typename View::allocator_type;
    using Plan = RowCacheRead<View, Alloc>;

    void create(const View& view, unsigned long nbPlans) {
        m_nbPlans = nbPlans;
        m_cache = view.createPlanCacheRead(nbPlans);
    }
    void init(const Block3d& block, long colOffset, long rowOffset, long firstPlanOffset, unsigned long rowLength,
              unsigned long nbRows) {
        m_block = block;
        m_colOffset = colOffset;
        m_rowOffset = rowOffset;
        m_planOffset = firstPlanOffset;
        m_rowLength = rowLength;
        m_nbRows = nbRows;
        m_first = 0;
        m_plans.resize(m_nbPlans);
        m_ordered.resize(m_nbPlans);
        for (unsigned long i = 0; i < m_nbPlans; ++i) m_plans[i] = &fetch(i, firstPlanOffset + long(i));
        order();
    }
    // Plan i of the band, oldest first.
    const Plan& plan(unsigned long i) const { return *m_ordered[i]; }
    void next() {
        ++m_planOffset;
        m_plans[m_first] = &fetch(m_first, m_planOffset + long(m_nbPlans) - 1);
        m_first = (m_first + 1) % m_nbPlans;
        order();
    }

private:
    void order() {
        for (unsigned long i = 0; i < m_nbPlans; ++i) m_ordered[i] = m_plans[(m_first + i) % m_nbPlans];
    }
    const Plan& fetch(unsigned long slot, long planOffset) {
        return m_cache->fetchPlanInBlock(slot, m_rowLength, m_nbRows, m_block, m_colOffset, m_rowOffset, planOffset, 0,
                                         0);
    }

    std::shared_ptr<PlanCacheRead<View, Alloc>> m_cache;
    std::vector<const Plan*> m_plans;    // by slot
    std::vector<const Plan*> m_ordered;  // by position in the band
    Block3d m_block;
    unsigned long m_nbPlans = 0, m_first = 0, m_rowLength = 0, m_nbRows = 0;
    long m_colOffset = 0, m_rowOffset = 0, m_planOffset = 0;
};

} // namespace details

// The 6- or 18-neighbourhood over a band of three plans (rows -1..rows, columns -1..cols).
template <class View, unsigned long N, int Count>
class IteratorNeighborhood3D_Fixed {
public:
    using T = typename View::value_type;

    IteratorNeighborhood3D_Fixed(std::shared_ptr<const View> view, NoDataType) : m_view(std::move(view)) {
        m_band.create(*m_view, 3);
    }
    void init(const Block3d& block) {
        m_s.block3d = block;
        m_s.start<N>(block);
        m_band.init(block, -1, -1, -1, block.getNbCols() + 2, block.getNbRows() + 2);
        aim();
    }
    const T* ptr(int k) const { return m_ptr[k]; }
    void nextRow() {
        ++m_s.row;
        aim();
    }
    void nextPlan() {
        ++m_s.plan;
        m_s.row = 0;
        m_band.next();
        aim();
    }

private:
    void aim() {
        if (m_s.nbRows == 0) return;
        for (int k = 0; k < Count; ++k) {
            const int* o = Count == 7 ? kOffsets6[k] : kOffsets18[k];
            m_ptr[k] = m_band.plan(static_cast<unsigned long>(o[0] + 1)).row(static_cast<unsigned long>(m_s.row + 1 + o[1])).data() + 1 + o[2];
        }
    }

    std::shared_ptr<const View> m_view;
    details::PlanBand<View> m_band;
    details::IteratorState m_s;
    const T* m_ptr[Count] = {};
};

template <class View, unsigned long N>
using IteratorNeighborhood3D_6 = IteratorNeighborhood3D_Fixed<View, N, 7>;
template <class View, unsigned long N>
using IteratorNeighborhood3D_18 = IteratorNeighborhood3D_Fixed<View, N, 19>;

// Any list of (dx, dy, dz) offsets over a band of maxPlan - minPlan + 1 plans.
template <class View, unsigned long N>
class IteratorNeighborhood3D_Gen {
public:
    using T = typename View::value_type;

    IteratorNeighborhood3D_Gen(std::shared_ptr<const View> view, std::vector<kernel::Offset3D> offsets)
        : m_view(std::move(view)), m_offsets(std::move(offsets)) {
        kernel::computeExtrema(m_offsets, m_minCol, m_maxCol, m_minRow, m_maxRow, m_minPlan, m_maxPlan);
        m_band.create(*m_view, static_cast<unsigned long>(m_maxPlan - m_minPlan + 1));
        m_ptr.resize(m_offsets.size());
    }
    void init(const Block3d& block) {
        m_s.block3d = block;
        m_s.start<N>(block);
        m_band.init(block, m_minCol, m_minRow, m_minPlan,
                    static_cast<unsigned long>(long(block.getNbCols()) - m_minCol + m_maxCol),
                    static_cast<unsigned long>(long(block.getNbRows()) - m_minRow + m_maxRow));
        aim();
    }
    const T* ptr(std::size_t k) const { return m_ptr[k]; }
    std::size_t size() const { return m_ptr.size(); }
    void nextRow() {
        ++m_s.row;
        aim();
    }
    void nextPlan() {
        ++m_s.plan;
        m_s.row = 0;
        m_band.next();
        aim();
    }
    AlgoBorderInfluence getBorderInfluence() const {
        auto pos = [](long v) { return std::uint64_t(std::max(v, 0L)); };
        return AlgoBorderInfluence(pos(-m_minCol), pos(m_maxCol), pos(-m_minRow), pos(m_maxRow), pos(-m_minPlan),
                                   pos(m_maxPlan), 0, 0, 0, 0);
    }

private:
    void aim() {
        if (m_s.nbRows == 0) return;
        for (std::size_t k = 0; k < m_offsets.size(); ++k) {
            const auto& o = m_offsets[k];
            m_ptr[k] = m_band.plan(static_cast<unsigned long>(o.z - m_minPlan))
                           .row(static_cast<unsigned long>(m_s.row + o.y - m_minRow))
                           .data() +
                       (o.x - m_minCol);
        }
    }

    std::shared_ptr<const View> m_view;
    std::vector<kernel::Offset3D> m_offsets;
    long m_minCol = 0, m_maxCol = 0, m_minRow = 0, m_maxRow = 0, m_minPlan = 0, m_maxPlan = 0;
    details::PlanBand<View> m_band;
    details::IteratorState m_s;
    std::vector<const T*> m_ptr;
};

} // namespace access
} // namespace lyn
