#pragma once
// How far an operator reads beyond the voxel it computes, per direction. Blocks that process the
// same image in place defer the voxels their neighbours still read, by these margins.
#include <array>
#include <cstdint>

namespace lyn {

// Direction d holds how far the operator reads towards: 0 lower columns, 1 higher columns,
// 2 lower rows, 3 higher rows, 4 lower plans, 5 higher plans, 6/7 sequence, 8/9 spectral series.
enum DirectionTypes : int {
    ColsLower = 0, ColsUpper = 1, RowsLower = 2, RowsUpper = 3, PlansLower = 4, PlansUpper = 5,
    SequenceLower = 6, SequenceUpper = 7, SpectralLower = 8, SpectralUpper = 9,
};

class AlgoBorderInfluence {
public:
    // The same margin on both sides of each axis.
    AlgoBorderInfluence(std::uint64_t cols, std::uint64_t rows, std::uint64_t plans, std::uint64_t seq,
                        std::uint64_t spectral)
        : m_margins{cols, cols, rows, rows, plans, plans, seq, seq, spectral, spectral} {}
    AlgoBorderInfluence(std::uint64_t colsLower, std::uint64_t colsUpper, std::uint64_t rowsLower,
                        std::uint64_t rowsUpper, std::uint64_t plansLower, std::uint64_t plansUpper,
                        std::uint64_t seqLower, std::uint64_t seqUpper, std::uint64_t specLower,
                        std::uint64_t specUpper)
        : m_margins{colsLower, colsUpper, rowsLower, rowsUpper, plansLower, plansUpper,
                    seqLower,  seqUpper,  specLower, specUpper} {}

    std::uint64_t getNumOfVoxels(DirectionTypes d) const { return m_margins[d]; }

private:
    std::array<std::uint64_t, 10> m_margins;
};

} // namespace lyn
