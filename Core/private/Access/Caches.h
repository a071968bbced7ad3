#pragma once
// Per-thread row and plan caches. A slot is a reusable buffer: every fetch refills it from the
// image through the view's border condition, so kernels see margins without testing edges.
// Slots keep their capacity when a shorter row comes, so steady-state work allocates nothing.
#include <memory>
#include <vector>

#include "Core/private/Access/Rows.h"

namespace lyn {
namespace access {

namespace details {
// Absolute position of a block-relative offset.
struct Position {
    long col, row, plan, seq, spectral;
    Position(const Block& b, long c, long r, long p, long s, long l)
        : col(b.colsBegin() + c), row(b.rowsBegin() + r), plan(b.plansBegin() + p), seq(b.sequenceBegin() + s),
          spectral(b.spectralSeriesBegin() + l) {}
};

template <class RowT>
RowT& slotAt(std::vector<std::shared_ptr<RowT>>& slots, unsigned long slot) {
    if (slot >= slots.size()) slots.resize(slot + 1);
    if (!slots[slot]) slots[slot] = std::make_shared<RowT>(slot);
    return *slots[slot];
}
} // namespace details

template <class View, class Alloc>
class RowCacheRead {
public:
    using Row = InputRow<View, Alloc>;

    RowCacheRead(const View* view, unsigned long slots) : m_view(view), m_slots(slots) {}

    const Row& fetchRowInBlock(unsigned long slot, unsigned long length, const Block& block, long colOffset,
                               long rowOffset, long planOffset, long seqOffset, long spectralOffset) const {
        Row& row = details::slotAt(m_slots, slot);
        row.buffer().resize(length);
        const details::Position p(block, colOffset, rowOffset, planOffset, seqOffset, spectralOffset);
        m_view->readRow(row.data(), row.data() + length, p.col, p.row, p.plan, p.seq, p.spectral);
        return row;
    }

    // Slots 0 .. nbRows - 1 filled with consecutive rows from rowOffset, in one read of the view.
    void fetchRowsInBlock(unsigned long nbRows, unsigned long length, const Block& block, long colOffset, long rowOffset,
                          long planOffset, long seqOffset, long spectralOffset) const {
        m_data.resize(nbRows);
        for (unsigned long i = 0; i < nbRows; ++i) {
            Row& row = details::slotAt(m_slots, i);
            row.buffer().resize(length);
            m_data[i] = row.data();
        }
        const details::Position p(block, colOffset, rowOffset, planOffset, seqOffset, spectralOffset);
        m_view->readRows(m_data.data(), long(length), p.col, p.row, long(nbRows), p.plan, p.seq, p.spectral);
    }

    // Rows of a plan slot (see PlanCacheRead): entry i and the number in use.
    const Row& row(unsigned long i) const { return *m_slots[i]; }
    unsigned long getNbRowsInUse() const { return m_inUse; }
    void setNbRowsInUse(unsigned long n) const {
        if (m_slots.size() < n) m_slots.resize(n);
        m_inUse = n;
    }
    unsigned long getNbSlots() const { return m_slots.size(); }

private:
    const View* m_view;
    mutable std::vector<std::shared_ptr<Row>> m_slots;
    mutable unsigned long m_inUse = 0;
    mutable std::vector<typename View::value_type*> m_data;  // fetchRowsInBlock's row pointers
};

template <class View, class Alloc>
class RowCacheReadWrite {
public:
    using Row = OuputRow<View, Alloc>;

    RowCacheReadWrite(View* view, unsigned long slots) : m_view(view), m_slots(slots) {}

    // Positioned and filled with the image's current values.
    Row& fetchRowInBlock(unsigned long slot, unsigned long length, const Block& block, long colOffset, long rowOffset,
                         long planOffset, long seqOffset, long spectralOffset) const {
        Row& row = getRowInBlock(slot, length, block, colOffset, rowOffset, planOffset, seqOffset, spectralOffset);
        m_view->readRow(row.data(), row.data() + length, row.getColumn(), row.getRow(), row.getPlan(),
                        row.getSequence(), row.getSpectral());
        return row;
    }
    // Positioned only: the caller overwrites every voxel.
    Row& getRowInBlock(unsigned long slot, unsigned long length, const Block& block, long colOffset, long rowOffset,
                       long planOffset, long seqOffset, long spectralOffset) const {
        Row& row = details::slotAt(m_slots, slot);
        row.buffer().resize(length);
        const details::Position p(block, colOffset, rowOffset, planOffset, seqOffset, spectralOffset);
        row.setPosition(p.col, p.row, p.plan, p.seq, p.spectral, m_view);
        return row;
    }

    Row& row(unsigned long i) const { return *m_slots[i]; }
    unsigned long getNbRowsInUse() const { return m_inUse; }
    void setNbRowsInUse(unsigned long n) const {
        if (m_slots.size() < n) m_slots.resize(n);
        m_inUse = n;
    }

private:
    View* m_view;
    mutable std::vector<std::shared_ptr<Row>> m_slots;
    mutable unsigned long m_inUse = 0;
};

template <class View, class Alloc>
class PlanCacheRead {
public:
    using Plan = RowCacheRead<View, Alloc>;

    PlanCacheRead(const View* view, unsigned long slots) : m_view(view) {
        for (unsigned long i = 0; i < slots; ++i) m_plans.push_back(std::make_unique<Plan>(view, 0));
    }

    // Row i of the returned plan is image row rowsBegin() + rowOffset + i.
    const Plan& fetchPlanInBlock(unsigned long slot, unsigned long rowLength, unsigned long nbRows, const Block& block,
                                 long colOffset, long rowOffset, long planOffset, long seqOffset,
                                 long spectralOffset) const {
        while (slot >= m_plans.size()) m_plans.push_back(std::make_unique<Plan>(m_view, 0));
        Plan& plan = *m_plans[slot];
        plan.setNbRowsInUse(nbRows);
        plan.fetchRowsInBlock(nbRows, rowLength, block, colOffset, rowOffset, planOffset, seqOffset, spectralOffset);
        return plan;
    }

private:
    const View* m_view;
    mutable std::vector<std::unique_ptr<Plan>> m_plans;
};

template <class View, class Alloc>
class PlanCacheReadWrite {
public:
    using Plan = RowCacheReadWrite<View, Alloc>;

    PlanCacheReadWrite(View* view, unsigned long slots) : m_view(view) {
        for (unsigned long i = 0; i < slots; ++i) m_plans.push_back(std::make_unique<Plan>(view, 0));
    }

    // Positioned, unfilled rows: row i of the plan is image row rowsBegin() + rowOffset + i.
    const Plan& getPlanInBlock(unsigned long slot, unsigned long rowLength, unsigned long nbRows, const Block& block,
                               long colOffset, long rowOffset, long planOffset, long seqOffset,
                               long spectralOffset) const {
        while (slot >= m_plans.size()) m_plans.push_back(std::make_unique<Plan>(m_view, 0));
        Plan& plan = *m_plans[slot];
        plan.setNbRowsInUse(nbRows);
        for (unsigned long i = 0; i < nbRows; ++i)
            plan.getRowInBlock(i, rowLength, block, colOffset, rowOffset + static_cast<long>(i), planOffset, seqOffset,
                               spectralOffset);
        return plan;
    }

private:
    View* m_view;
    mutable std::vector<std::unique_ptr<Plan>> m_plans;
};

} // namespace access

// The view's cache factories, defined here with the cache classes.
template <class T, class Alloc>
std::shared_ptr<access::RowCacheRead<access::View<T, Alloc>, Alloc>> access::View<T, Alloc>::createRowCacheRead(
    unsigned long n) const {
    return std::make_shared<RowCacheRead<View, Alloc>>(this, n);
}
template <class T, class Alloc>
std::shared_ptr<access::RowCacheReadWrite<access::View<T, Alloc>, Alloc>>
access::View<T, Alloc>::createRowCacheReadWrite(unsigned long n) {
    return std::make_shared<RowCacheReadWrite<View, Alloc>>(this, n);
}
template <class T, class Alloc>
std::shared_ptr<access::PlanCacheRead<access::View<T, Alloc>, Alloc>> access::View<T, Alloc>::createPlanCacheRead(
    unsigned long n) const {
    return std::make_shared<PlanCacheRead<View, Alloc>>(this, n);
}
template <class T, class Alloc>
std::shared_ptr<access::PlanCacheReadWrite<access::View<T, Alloc>, Alloc>>
access::View<T, Alloc>::createPlanCacheReadWrite(unsigned long n) {
    return std::make_shared<PlanCacheReadWrite<View, Alloc>>(this, n);
}

} // namespace lyn
