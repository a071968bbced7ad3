#pragma once
// Row objects held by the caches: an input row is a buffer; an output row also knows where it
// lies in the image and how to write itself back, deferring the voxels other blocks still read.
#include <vector>

#include "Core/private/Access/Block.h"
#include "host/View.h"

namespace lyn {
namespace access {

template <class View, class Alloc>
class BaseRow {
public:
    using value_type = typename View::value_type;
    using Data = std::vector<value_type, Alloc>;

    explicit BaseRow(unsigned long index = 0) : m_index(index) {}
    virtual ~BaseRow() = default;

    unsigned long getIndex() const { return m_index; }
    value_type* data() { return m_data.data(); }
    const value_type* data() const { return m_data.data(); }
    unsigned long size() const { return m_data.size(); }
    Data& buffer() { return m_data; }
    const Data& buffer() const { return m_data; }

protected:
    unsigned long m_index;
    Data m_data;
};

template <class View, class Alloc>
class InputRow : public BaseRow<View, Alloc> {
public:
    using BaseRow<View, Alloc>::BaseRow;
};

// Named so, letter for letter.
template <class View, class Alloc>
class OuputRow : public BaseRow<View, Alloc> {
public:
    using BaseRow<View, Alloc>::BaseRow;

    void setPosition(long col, long row, long plan, long seq, long spectral, View* view) {
        m_col = col;
        m_row = row;
        m_plan = plan;
        m_seq = seq;
        m_spec = spectral;
        m_view = view;
    }
    long getColumn() const { return m_col; }
    long getRow() const { return m_row; }
    long getPlan() const { return m_plan; }
    long getSequence() const { return m_seq; }
    long getSpectral() const { return m_spec; }
    View* getView() const { return m_view; }

    // Writes the voxels inside the core [rowMin, rowMax] x [planMin, planMax] x [colMin, colMax]
    // (inclusive) at once and, when `temporize` is true, hands the others to the view for deferred
    // writing. Positions outside the image are dropped silently.
    void writeRow(bool temporize, long rowMin, long rowMax, long planMin, long planMax, long colMin, long colMax) const;
    // Core from the block shrunk by the overlap on each side that is not an image edge.
    void writeRow(const Block& block, const OverlapBorder& overlap) const;
    // Core is the block with its end values included (the row, plan and column just past it count).
    void writeRow(const Block& block) const;

private:
    long m_col = 0, m_row = 0, m_plan = 0, m_seq = 0, m_spec = 0;
    View* m_view = nullptr;
};

} // namespace access
} // namespace lyn

#include "Core/private/Access/Rows.impl"
