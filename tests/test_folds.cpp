// Fold orders. Floats make the order of a min/max fold visible (a NaN accumulator gives way to the
// next operand, a NaN operand replaces the accumulator, of +0.0 and -0.0 the later wins), so the
// plug-in and the host's generic code are both checked against a plain scalar reference written
// here from each neighbourhood's definition: an order changed in both would pass the differential
// tests, not these.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "host/Cpu.h"
#include "host/PluginLoader.h"
#include "tests/support.h"

using namespace lyn;
using namespace lyn::test;

namespace {

// One plan stack of voxels with the out-of-image value around it.
template <class T>
struct Volume {
    long nc, nr, np;
    T border;
    std::vector<T> v;
    T at(long x, long y, long z) const {
        if (x < 0 || y < 0 || z < 0 || x >= nc || y >= nr || z >= np) return border;
        return v[std::size_t((z * nr + y) * nc + x)];
    }
};

// The accumulator first: it stays only when strictly greater (dilation) or smaller (erosion).
template <class T>
T step(bool dilate, T acc, T next) {
    return dilate ? (acc > next ? acc : next) : (acc < next ? acc : next);
}

// One output voxel, from the definitions:
//   4-connected   up, left, centre, right, down
//   8-connected   each row left to right, then the rows above, at and below, in that order
//   6-connected   back, up, left, centre, right, down, front
//   18-connected  the 4-connected cross of the plan before, this plan's 8-connected square read
//                 row by row, left to right, then the cross of the plan after
//   26-connected  per row: the plan before, this plan, the plan after, each left to right; then
//                 the rows above, at and below
template <class T>
T reference(const Volume<T>& in, int dims, int n, bool dilate, long x, long y, long z) {
    std::vector<T> ops;
    auto cross = [&](long dz) {
        static const int kCross[5][2] = {{0, -1}, {-1, 0}, {0, 0}, {1, 0}, {0, 1}};
        for (const auto& d : kCross) ops.push_back(in.at(x + d[0], y + d[1], z + dz));
    };
    auto fold = [&](const std::vector<T>& list) {
        T acc = list[0];
        for (std::size_t k = 1; k < list.size(); ++k) acc = step(dilate, acc, list[k]);
        return acc;
    };
    if (dims == 2 && n == 0) {
        cross(0);
        return fold(ops);
    }
    if (dims == 2) {
        std::vector<T> rows;
        for (long dy = -1; dy <= 1; ++dy) rows.push_back(fold({in.at(x - 1, y + dy, z), in.at(x, y + dy, z), in.at(x + 1, y + dy, z)}));
        return fold(rows);
    }
    if (n == 0) {
        ops = {in.at(x, y, z - 1), in.at(x, y - 1, z), in.at(x - 1, y, z), in.at(x, y, z),
               in.at(x + 1, y, z), in.at(x, y + 1, z), in.at(x, y, z + 1)};
        return fold(ops);
    }
    if (n == 1) {
        cross(-1);
        for (long dy = -1; dy <= 1; ++dy)
            for (long dx = -1; dx <= 1; ++dx) ops.push_back(in.at(x + dx, y + dy, z));
        cross(1);
        return fold(ops);
    }
    std::vector<T> rows;
    for (long dy = -1; dy <= 1; ++dy) {
        std::vector<T> row;
        for (long dz = -1; dz <= 1; ++dz)
            for (long dx = -1; dx <= 1; ++dx) row.push_back(in.at(x + dx, y + dy, z + dz));
        rows.push_back(fold(row));
    }
    return fold(rows);
}

// `passes` passes of the reference over the image (2D: plan by plan).
template <class T>
std::vector<T> referenceRun(const MemoryImage& image, int dims, int n, bool dilate, unsigned passes) {
    const Extents e = image.extents();
    Volume<T> cur{long(e[0]), long(e[1]), long(e[2]),
                  dilate ? std::numeric_limits<T>::lowest() : std::numeric_limits<T>::max(),
                  std::vector<T>(image.dataAs<T>(), image.dataAs<T>() + image.getNumOfVoxels())};
    for (unsigned p = 0; p < passes; ++p) {
        Volume<T> next = cur;
        for (long z = 0; z < cur.np; ++z) {
            Volume<T> plan = cur;
            if (dims == 2) {  // a 2D pass sees one plan, with the border above and below it
                plan = {cur.nc, cur.nr, 1, cur.border,
                        std::vector<T>(cur.v.begin() + z * cur.nc * cur.nr, cur.v.begin() + (z + 1) * cur.nc * cur.nr)};
            }
            for (long y = 0; y < cur.nr; ++y)
                for (long x = 0; x < cur.nc; ++x)
                    next.v[std::size_t((z * cur.nr + y) * cur.nc + x)] =
                        dims == 2 ? reference(plan, 2, n, dilate, x, y, 0) : reference(cur, 3, n, dilate, x, y, z);
        }
        cur = std::move(next);
    }
    return cur.v;
}

MemoryImage* runAlgorithm(const MemoryImage& input, MemoryImage& out, int dims, int n, bool dilate, unsigned passes,
                          bool plugin) {
    auto algo = makeSquare(dims, dilate);
    algo->inputImage = &input;
    algo->outputImage = &out;
    algo->neighborhood = n;
    algo->kernelRadius = passes;
    algo->setUsePlugin(plugin);
    algo->setGrainSizes({2, 3, 16});  // many blocks, edges inside rows
    algo->execute();
    if (plugin) {
        EXPECT_NE(algo->getLastRunner(), nullptr) << "the plug-in declined";
    }
    return &out;
}

// Floats with NaN and zeros of both signs among few distinct values, so that most neighbourhoods
// hold a tie or a NaN and a changed order shows.
template <class T>
void fillOrderRevealing(MemoryImage& image, std::uint64_t seed) {
    if constexpr (std::is_integral_v<T>) return fill(image, seed);
    std::mt19937_64 rng(seed);
    const T values[] = {std::numeric_limits<T>::quiet_NaN(), T(0), -T(0), T(1), T(-1), std::numeric_limits<T>::infinity()};
    T* d = image.dataAs<T>();
    for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i) d[i] = values[rng() % 6];
}

template <class T>
void checkAgainstReference(int dims, int n, bool dilate, unsigned passes, const Extents& e) {
    MemoryImage input(voxelTypeOf<T>(), e);
    fillOrderRevealing<T>(input, std::uint64_t(dims * 100 + n * 10 + passes));
    const std::vector<T> expected = referenceRun<T>(input, dims, n, dilate, passes);
    for (bool plugin : {false, true}) {
        if (plugin && devices::Cpu::getDevice().getAVXLevel() < 2) continue;
        MemoryImage out;
        runAlgorithm(input, out, dims, n, dilate, passes, plugin);
        const T* got = out.dataAs<T>();
        for (std::size_t i = 0; i < expected.size(); ++i)
            ASSERT_EQ(std::memcmp(&got[i], &expected[i], sizeof(T)), 0)
                << (plugin ? "plug-in" : "generic") << " " << dims << "D n=" << n << (dilate ? " dilate" : " erode")
                << " passes=" << passes << " voxel " << i << ": " << got[i] << " expected " << expected[i];
    }
}

class FoldOrderTest : public ::testing::Test {
protected:
    void SetUp() override { Plugin::load(Plugin::defaultPath()); }
};

TEST_F(FoldOrderTest, SquareFoldsMatchTheirDefinitions) {
    forAll([](int n, bool dilate, unsigned passes) {
        checkAgainstReference<float>(2, n, dilate, passes, {37, 11, 2, 1, 1});
        checkAgainstReference<double>(2, n, dilate, passes, {9, 6, 1, 1, 1});
    }, std::array{0, 1}, std::array{true, false}, std::array{1u, 2u});
}

TEST_F(FoldOrderTest, CubeFoldsMatchTheirDefinitions) {
    forAll([](int n, bool dilate, unsigned passes) {
        checkAgainstReference<float>(3, n, dilate, passes, {19, 7, 6, 1, 1});
        checkAgainstReference<double>(3, n, dilate, passes, {9, 5, 4, 1, 1});
    }, std::array{0, 1, 2}, std::array{true, false}, std::array{1u, 2u});
}

// Integers have no order to show, but their border is the type's extreme and their comparisons
// are signed or not by type: the same reference holds for them.
TEST_F(FoldOrderTest, IntegerFoldsMatchTheDefinitionsToo) {
    forAll([](int n) {
        checkAgainstReference<std::int8_t>(3, n, true, 1, {40, 5, 3, 1, 1});
        checkAgainstReference<std::uint16_t>(3, n, false, 2, {17, 4, 3, 1, 1});
    }, std::array{0, 1, 2});
    checkAgainstReference<std::int8_t>(2, 1, false, 1, {40, 5, 1, 1, 1});
    checkAgainstReference<std::uint32_t>(2, 0, true, 2, {11, 5, 1, 1, 1});
}

} // namespace
