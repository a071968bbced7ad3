#pragma once
// The processing region of one run: five half-open ranges, begin before end.
#include <cstdint>

namespace lyn {
namespace access {

class Region {
public:
    Region() = default;
    Region(long rowsBegin, long rowsEnd, long colsBegin, long colsEnd, long plansBegin, long plansEnd,
           long sequenceBegin, long sequenceEnd, long spectralBegin, long spectralEnd)
        : m_rowsBegin(rowsBegin), m_rowsEnd(rowsEnd), m_colsBegin(colsBegin), m_colsEnd(colsEnd),
          m_plansBegin(plansBegin), m_plansEnd(plansEnd), m_sequenceBegin(sequenceBegin),
          m_sequenceEnd(sequenceEnd), m_spectralBegin(spectralBegin), m_spectralEnd(spectralEnd) {}
    virtual ~Region() = default;
    Region(const Region&) = default;
    Region& operator=(const Region&) = default;

    virtual unsigned long getNbRows() const { return static_cast<unsigned long>(m_rowsEnd - m_rowsBegin); }
    virtual long rowsBegin() const { return m_rowsBegin; }
    virtual unsigned long getNbCols() const { return static_cast<unsigned long>(m_colsEnd - m_colsBegin); }
    virtual long colsBegin() const { return m_colsBegin; }
    virtual unsigned long getNbPlans() const { return static_cast<unsigned long>(m_plansEnd - m_plansBegin); }
    virtual long plansBegin() const { return m_plansBegin; }
    virtual unsigned long getNbSequencePlans() const {
        return static_cast<unsigned long>(m_sequenceEnd - m_sequenceBegin);
    }
    virtual long sequenceBegin() const { return m_sequenceBegin; }
    virtual unsigned long getNbSpectralSeries() const {
        return static_cast<unsigned long>(m_spectralEnd - m_spectralBegin);
    }
    virtual long spectralSeriesBegin() const { return m_spectralBegin; }

    // Unsigned 64-bit product of the five counts, through the virtual accessors.
    virtual unsigned long getNumOfVoxels() const {
        return getNbRows() * getNbCols() * getNbPlans() * getNbSpectralSeries() * getNbSequencePlans();
    }

private:
    long m_rowsBegin = 0, m_rowsEnd = 0;
    long m_colsBegin = 0, m_colsEnd = 0;
    long m_plansBegin = 0, m_plansEnd = 0;
    long m_sequenceBegin = 0, m_sequenceEnd = 0;
    long m_spectralBegin = 0, m_spectralEnd = 0;
};

} // namespace access
} // namespace lyn
