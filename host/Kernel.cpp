#include "host/Kernel.h"

#include <algorithm>

namespace lyn {
namespace kernel {

void computeExtrema(const std::vector<Offset2D>& offsets, long& minX, long& maxX, long& minY, long& maxY) {
    minX = maxX = minY = maxY = 0;
    if (offsets.empty()) return;
    minX = maxX = offsets[0].x;
    minY = maxY = offsets[0].y;
    for (const auto& o : offsets) {
        minX = std::min(minX, o.x);
        maxX = std::max(maxX, o.x);
        minY = std::min(minY, o.y);
        maxY = std::max(maxY, o.y);
    }
}

void computeExtrema(const std::vector<Offset3D>& offsets, long& minX, long& maxX, long& minY, long& maxY, long& minZ,
                    long& maxZ) {
    minX = maxX = minY = maxY = minZ = maxZ = 0;
    if (offsets.empty()) return;
    minX = maxX = offsets[0].x;
    minY = maxY = offsets[0].y;
    minZ = maxZ = offsets[0].z;
    for (const auto& o : offsets) {
        minX = std::min(minX, o.x);
        maxX = std::max(maxX, o.x);
        minY = std::min(minY, o.y);
        maxY = std::max(maxY, o.y);
        minZ = std::min(minZ, o.z);
        maxZ = std::max(maxZ, o.z);
    }
}

} // namespace kernel
} // namespace lyn
