#pragma once
// Blocks: the pieces of a region that TBB hands to one parallel body. Each is a TBB range with a
// splitting constructor; caches, rows and iterators read their extents through Block.
#include <tbb/blocked_range.h>

#include "Core/private/Access/Region.h"
#include "host/BorderInfluence.h"

namespace lyn {
namespace access {

class Block {
public:
    virtual ~Block() = default;
    virtual unsigned long getNbRows() const = 0;
    virtual long rowsBegin() const = 0;
    virtual long rowsEnd() const = 0;
    virtual unsigned long getNbCols() const = 0;
    virtual long colsBegin() const = 0;
    virtual long colsEnd() const = 0;
    virtual unsigned long getNbPlans() const = 0;
    virtual long plansBegin() const = 0;
    virtual long plansEnd() const = 0;
    virtual unsigned long getNbSequencePlans() const = 0;
    virtual long sequenceBegin() const = 0;
    virtual long sequenceEnd() const = 0;
    virtual unsigned long getNbSpectralSeries() const = 0;
    virtual long spectralSeriesBegin() const = 0;
    virtual long spectralSeriesEnd() const = 0;
};

namespace details {
// Half-open range of longs in TBB's layout (end, begin, grain).
struct LongRange {
    long end = 0;
    long begin = 0;
    unsigned long grain = 1;

    unsigned long size() const { return static_cast<unsigned long>(end - begin); }
    bool empty() const { return !(begin < end); }
    bool divisible() const { return grain < size(); }
    // This range keeps the lower half; the returned range is the upper one (larger by one if odd).
    LongRange splitUpper() {
        LongRange upper = *this;
        const long middle = begin + (end - begin) / 2;
        end = middle;
        upper.begin = middle;
        return upper;
    }
};
} // namespace details

class Block2d : public Block {
public:
    Block2d() = default;
    Block2d(long rowsBegin, long rowsEnd, unsigned long rowsGrain, long colsBegin, long colsEnd,
            unsigned long colsGrain, long plan, long sequence, long spectral)
        : m_rows{rowsEnd, rowsBegin, rowsGrain ? rowsGrain : 1}, m_cols{colsEnd, colsBegin, colsGrain ? colsGrain : 1},
          m_plan(plan), m_sequence(sequence), m_spectral(spectral) {}
    Block2d(Block2d& r, tbb::split) : Block2d(r) {
        // The dimension with more grains is halved; ties go to rows.
        const double rowsSize = double(r.m_rows.size()), colsSize = double(r.m_cols.size());
        const double rowsGrain = double(r.m_rows.grain), colsGrain = double(r.m_cols.grain);
        if (colsSize * rowsGrain > rowsSize * colsGrain) m_cols = r.m_cols.splitUpper();
        else m_rows = r.m_rows.splitUpper();
    }
    Block2d(const Block2d&) = default;
    Block2d& operator=(const Block2d&) = default;

    bool is_divisible() const { return m_rows.divisible() || m_cols.divisible(); }
    bool empty() const { return m_rows.empty() || m_cols.empty(); }

    unsigned long getNbRows() const override { return m_rows.size(); }
    long rowsBegin() const override { return m_rows.begin; }
    long rowsEnd() const override { return m_rows.end; }
    unsigned long getNbCols() const override { return m_cols.size(); }
    long colsBegin() const override { return m_cols.begin; }
    long colsEnd() const override { return m_cols.end; }
    unsigned long getNbPlans() const override { return 1; }
    long plansBegin() const override { return m_plan; }
    long plansEnd() const override { return m_plan + 1; }
    unsigned long getNbSequencePlans() const override { return 1; }
    long sequenceBegin() const override { return m_sequence; }
    long sequenceEnd() const override { return m_sequence + 1; }
    unsigned long getNbSpectralSeries() const override { return 1; }
    long spectralSeriesBegin() const override { return m_spectral; }
    long spectralSeriesEnd() const override { return m_spectral + 1; }

    unsigned long getNumOfVoxels() const { return getNbRows() * getNbCols(); }

private:
    details::LongRange m_rows;
    details::LongRange m_cols;
    long m_plan = 0;
    long m_sequence = 0;
    long m_spectral = 0;
};

class Block3d : public Block {
public:
    Block3d() = default;
    Block3d(long plansBegin, long plansEnd, unsigned long plansGrain, long rowsBegin, long rowsEnd,
            unsigned long rowsGrain, long colsBegin, long colsEnd, unsigned long colsGrain, long sequence,
            long spectral)
        : m_plans{plansEnd, plansBegin, plansGrain ? plansGrain : 1}, m_rows{rowsEnd, rowsBegin, rowsGrain ? rowsGrain : 1},
          m_cols{colsEnd, colsBegin, colsGrain ? colsGrain : 1}, m_sequence(sequence), m_spectral(spectral) {}
    Block3d(Block3d& r, tbb::split) : Block3d(r) {
        // The dimension with the most grains is halved; ties go to plans over rows, rows over cols.
        const double plansSize = double(r.m_plans.size()), rowsSize = double(r.m_rows.size()),
                     colsSize = double(r.m_cols.size());
        const double plansGrain = double(r.m_plans.grain), rowsGrain = double(r.m_rows.grain),
                     colsGrain = double(r.m_cols.grain);
        if (rowsSize * plansGrain > plansSize * rowsGrain) {
            if (colsSize * rowsGrain > rowsSize * colsGrain) m_cols = r.m_cols.splitUpper();
            else m_rows = r.m_rows.splitUpper();
        } else {
            if (colsSize * plansGrain > plansSize * colsGrain) m_cols = r.m_cols.splitUpper();
            else m_plans = r.m_plans.splitUpper();
        }
    }
    Block3d(const Block3d&) = default;
    Block3d& operator=(const Block3d&) = default;

    bool is_divisible() const { return m_plans.divisible() || m_rows.divisible() || m_cols.divisible(); }
    bool empty() const { return m_plans.empty() || m_rows.empty() || m_cols.empty(); }

    unsigned long getNbRows() const override { return m_rows.size(); }
    long rowsBegin() const override { return m_rows.begin; }
    long rowsEnd() const override { return m_rows.end; }
    unsigned long getNbCols() const override { return m_cols.size(); }
    long colsBegin() const override { return m_cols.begin; }
    long colsEnd() const override { return m_cols.end; }
    unsigned long getNbPlans() const override { return m_plans.size(); }
    long plansBegin() const override { return m_plans.begin; }
    long plansEnd() const override { return m_plans.end; }
    unsigned long getNbSequencePlans() const override { return 1; }
    long sequenceBegin() const override { return m_sequence; }
    long sequenceEnd() const override { return m_sequence + 1; }
    unsigned long getNbSpectralSeries() const override { return 1; }
    long spectralSeriesBegin() const override { return m_spectral; }
    long spectralSeriesEnd() const override { return m_spectral + 1; }

    // Rows x cols x plans; the sequence and spectral extents are 1 by construction.
    unsigned long getNumOfVoxels() const { return getNbRows() * getNbCols() * getNbPlans(); }

private:
    details::LongRange m_plans;
    details::LongRange m_rows;
    details::LongRange m_cols;
    long m_sequence = 0;
    long m_spectral = 0;
};

// By how many voxels neighbouring blocks overlap on each side: voxels that close to an inner
// block edge are written only after every block of the pass has read them.
class OverlapBorder {
public:
    OverlapBorder() = default;
    OverlapBorder(long rowsBegin, long rowsEnd, long colsBegin, long colsEnd, long plansBegin, long plansEnd)
        : m_rowsBegin(rowsBegin), m_rowsEnd(rowsEnd), m_colsBegin(colsBegin), m_colsEnd(colsEnd),
          m_plansBegin(plansBegin), m_plansEnd(plansEnd) {}
    // The block after this one reads back by the influence towards lower coordinates, and so on.
    explicit OverlapBorder(const AlgoBorderInfluence& influence)
        : m_rowsBegin(long(influence.getNumOfVoxels(DirectionTypes(3)))),
          m_rowsEnd(long(influence.getNumOfVoxels(DirectionTypes(2)))),
          m_colsBegin(long(influence.getNumOfVoxels(DirectionTypes(1)))),
          m_colsEnd(long(influence.getNumOfVoxels(DirectionTypes(0)))),
          m_plansBegin(long(influence.getNumOfVoxels(DirectionTypes(5)))),
          m_plansEnd(long(influence.getNumOfVoxels(DirectionTypes(4)))) {}

    long rowsBegin() const { return m_rowsBegin; }
    long rowsEnd() const { return m_rowsEnd; }
    long colsBegin() const { return m_colsBegin; }
    long colsEnd() const { return m_colsEnd; }
    long plansBegin() const { return m_plansBegin; }
    long plansEnd() const { return m_plansEnd; }
    bool isZero() const {
        return !m_rowsBegin && !m_rowsEnd && !m_colsBegin && !m_colsEnd && !m_plansBegin && !m_plansEnd;
    }

private:
    long m_rowsBegin = 0, m_rowsEnd = 0, m_colsBegin = 0, m_colsEnd = 0, m_plansBegin = 0, m_plansEnd = 0;
};

} // namespace access
} // namespace lyn
