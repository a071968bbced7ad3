// What the plug-in, disk and composite tests share: the served types, data that shows fold orders,
// bit comparison with a readable first difference, and a combinator for case tables.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <type_traits>

#include "host/Algorithms.h"

namespace lyn::test {

inline constexpr std::array<VoxelTypes, 8> kServed = {UInt8, UInt16, UInt32, Int8, Int16, Int32, Float, Double};
inline constexpr std::uint64_t kHuge = std::uint64_t(1) << 40;
using Grain = AbstractPartitionerPolicy::PartitionerGrainSizes;

// Voxels per 256-bit vector.
inline std::uint64_t lanes(VoxelTypes t) { return 32 / helper::getSizeOf(t); }

// forAll(f, a, b, c) calls f(x, y, z) for every x of a, y of b, z of c (a outermost).
template <class F>
void forAll(F&& f) {
    f();
}
template <class F, class List, class... Lists>
void forAll(F&& f, const List& list, const Lists&... rest) {
    for (const auto& v : list) forAll([&](const auto&... vs) { f(v, vs...); }, rest...);
}

// Random voxels. Floats mix in NaN, both zeros, infinities and the finite extremes, which is where
// fold orders show; integers use a narrow range so ties are common.
inline void fill(MemoryImage& image, std::uint64_t seed) {
    std::mt19937_64 rng(seed);
    dispatchVoxelType(image.getVoxelType(), [&](auto traits) {
        using T = typename decltype(traits)::type;
        T* d = image.template dataAs<T>();
        for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i) {
            if constexpr (std::is_floating_point_v<T>) {
                const int pick = int(rng() % 40);
                const T specials[] = {std::numeric_limits<T>::quiet_NaN(), T(0), -T(0), std::numeric_limits<T>::infinity(),
                                      -std::numeric_limits<T>::infinity(), std::numeric_limits<T>::lowest(),
                                      std::numeric_limits<T>::max()};
                d[i] = pick < 7 ? specials[pick] : T(std::normal_distribution<double>(0, 100)(rng));
            } else {
                const std::uint64_t r = rng();
                d[i] = (r & 7) == 0 ? T(r >> 8) : T(std::int64_t(r >> 16) % 23);
            }
        }
    });
}

inline bool sameBits(const MemoryImage& a, const MemoryImage& b) {
    return a.extents() == b.extents() && a.getVoxelType() == b.getVoxelType() &&
           std::memcmp(a.data(), b.data(), a.getSizeInBytes()) == 0;
}

// Where two images first differ, for failure messages; empty when they do not.
inline std::string firstDifference(const MemoryImage& a, const MemoryImage& b) {
    if (a.extents() != b.extents() || a.getVoxelType() != b.getVoxelType()) return "types or extents differ";
    const std::size_t size = helper::getSizeOf(a.getVoxelType());
    for (std::uint64_t i = 0; i < a.getNumOfVoxels(); ++i)
        if (std::memcmp(static_cast<const char*>(a.data()) + i * size, static_cast<const char*>(b.data()) + i * size, size)) {
            const auto e = a.extents();
            return "first difference at voxel " + std::to_string(i % e[0]) + "," + std::to_string(i / e[0] % e[1]) + "," +
                   std::to_string(i / e[0] / e[1]) + " of " + a.describe();
        }
    return "";
}

inline std::unique_ptr<morphology::SquareMorphology> makeSquare(int dims, bool dilate) {
    if (dims == 2) {
        if (dilate) return std::make_unique<morphology::Dilation2d>();
        return std::make_unique<morphology::Erosion2d>();
    }
    if (dilate) return std::make_unique<morphology::Dilation3d>();
    return std::make_unique<morphology::Erosion3d>();
}

// An image held in memory that does not expose its layout: algorithms reach its voxels only
// through row reads and writes, as they would an image kept elsewhere.
class OpaqueImage : public MemoryImage {
public:
    using MemoryImage::MemoryImage;
    bool getMemoryLayout(MemoryLayout&) const override { return false; }
};

} // namespace lyn::test
