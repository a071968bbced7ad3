#pragma once
// Structuring elements as explicit offset lists. An output voxel at p folds the input at p + offset,
// in list order. Angles are in degrees and used as given (never reduced modulo 360).
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

// Every (dx, dy) with dx² + dy² <= r², by ascending dy then dx.
std::vector<Offset2D> generateDiskOffset2DCollection(unsigned long radius);

// Every (dx, dy, dz) with dx² + dy² + dz² <= r², by ascending dz, dy, dx.
std::vector<Offset3D> generateSphereOffset3DCollection(unsigned long radius);

// The one-voxel-thick disk of radius r in the plane through the origin whose normal is the 3D line
// direction of (elevation, azimuth); (90, 0) gives the exact 2D disk. By ascending dz, dy, dx.
// Elevation comes first: callers holding (azimuth, elevation) pass them swapped.
std::vector<Offset3D> generateDiskOffset3DCollection(double elevation, double azimuth, unsigned long radius);

// Line of `length` pixels centred on the origin at `angle` degrees counter-clockwise from the
// column axis, rows growing downwards (90 points to smaller rows). With constNumOfPixels the line
// has exactly `length` distinct pixels, one per step along its major axis, even lengths reaching
// one further on the +direction side; without it the steps are of unit Euclidean length and
// coinciding pixels are dropped (fewer pixels off the axes).
std::vector<Offset2D> generateLineOffset2DCollectionWithConstNumOfPixels(double angle, unsigned long length,
                                                                          bool constNumOfPixels);

// Line in 3D along (cos e · cos a, −cos e · sin a, sin e): azimuth a as in 2D, elevation e towards
// larger plans. Same rules as the 2D line.
std::vector<Offset3D> generateLineOffset3DCollectionWithConstNumOfPixels(double elevation, double azimuth,
                                                                          unsigned long length, bool constNumOfPixels);

// Smallest and largest displacement along each axis; all zero for an empty list.
void computeExtrema(const std::vector<Offset2D>& offsets, long& minX, long& maxX, long& minY, long& maxY);
void computeExtrema(const std::vector<Offset3D>& offsets, long& minX, long& maxX, long& minY, long& maxY, long& minZ,
                    long& maxZ);

// Every offset negated, same order: the reflected structuring element, for opening and closing
// with shapes that are not centrally symmetric.
std::vector<Offset2D> mirror(const std::vector<Offset2D>& offsets);
std::vector<Offset3D> mirror(const std::vector<Offset3D>& offsets);

// Number of offsets the disk, ball and oriented-disk generators would return, or `cap` + 1 when
// that is more than `cap`; cheap even for absurd radii.
unsigned long countDiskOffsets(unsigned long radius, unsigned long cap);
unsigned long countSphereOffsets(unsigned long radius, unsigned long cap);
unsigned long countDisk3DOffsets(double elevation, double azimuth, unsigned long radius, unsigned long cap);

} // namespace kernel
} // namespace lyn
