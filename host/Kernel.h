#pragma once
// Structuring elements as explicit offset lists.
#include <vector>

namespace lyn {
namespace kernel {

struct Offset2D {
    long x;  // column displacement
    long y;  // row displacement
    bool operator==(const Offset2D& o) const { return x == o.x && y == o.y; }
};

struct Offset3D {
    long x;
    long y;
    long z;  // plan displacement
    bool operator==(const Offset3D& o) const { return x == o.x && y == o.y && z == o.z; }
};

// Smallest and largest displacement along each axis; all zero for an empty list.
void computeExtrema(const std::vector<Offset2D>& offsets, long& minX, long& maxX, long& minY, long& maxY);
void computeExtrema(const std::vector<Offset3D>& offsets, long& minX, long& maxX, long& minY, long& maxY, long& minZ,
                    long& maxZ);

} // namespace kernel
} // namespace lyn
