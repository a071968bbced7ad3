#pragma once
// Several square (cube) passes as one box of side 2N + 1 in vector code: the host's box
// (host/generic/Generic.h) for images in memory, with each plan's rows boxed along both of its
// axes in one sweep while they stay in cache. Same outcomes and the same contract, but for one
// thing: it steps aside, having written nothing, where its buffers would not fit, and where the fold
// order would show, in place; out of place, it finds a NaN or zeros of both signs as it reads the
// rows, and may have written some of the output by then (the passes that follow overwrite it).
// A cube of 2 to 7 passes out of place goes in tiles along all three axes at once (Box.cpp).
#include <cstdint>

#include "host/generic/Generic.h"

namespace lyn {
namespace morphology {

// Images in memory with contiguous rows only; NotABox for anything else (the caller's other routes
// serve it). `source` may be `output`.
generic::BoxOutcome runBoxSimd(const ImageModel& source, ImageModel& output, const generic::Stage& stage, bool dilate,
                               std::uint64_t memoryBudget, generic::BoxPoll& poll);

// Whether a cube of reach 2 to 7 (2 or 3 for 8-byte voxels) goes in tiles (budget allowing): at
// reach 2 and 3 the sweeps would cost more than the passes they replace, and up to 7 the tiles cost
// less than the sweeps.
bool cubeTilesServe(const Extents& extents, std::size_t elementSize, const generic::Stage& stage, bool inPlace);

// The buffers runBoxSimd would take for such images, all workers together; 0 when it would step
// aside for want of room. Strictly below the budget, and per worker within 1 MiB or the image's
// share, whichever is larger.
std::uint64_t boxSimdWorkingBytes(const Extents& extents, std::size_t elementSize, const generic::Stage& stage,
                                  bool inPlace, int threads, std::uint64_t memoryBudget);

} // namespace morphology
} // namespace lyn
