#pragma once
// The host's own implementations: portable scalar code for every voxel type the host serves.
// They define the results the plug-in must reproduce bit for bit, fold order included (the order
// decides which value wins among NaNs and signed zeros).
#include "host/Algorithms.h"

namespace lyn {
namespace generic {

enum class Neighbourhood { Cross4, Square8, Six, Eighteen, TwentySix };

// Neighbourhood of a square/cube algorithm from its dimension and property value.
Neighbourhood neighbourhoodOf(int dimensions, int value);
const char* neighbourhoodName(Neighbourhood n);

// `passes` passes of the elementary operator; pass 0 reads `input`, later passes the output.
// Out-of-image voxels read as the type's lowest value (dilation) or highest (erosion).
void squareMorphology(BaseAlgorithm& algo, const ImageModel& input, ImageModel& output, unsigned passes,
                      Neighbourhood n, bool dilate);

void intensityExtrema(BaseAlgorithm& algo, const ImageModel& input, int mode, analysis::IntensityExtremaMsr& result);

} // namespace generic
} // namespace lyn
