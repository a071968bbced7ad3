// Offset generators: counts, order, symmetry, reach, and the rounding cases that decide single pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <tuple>

#include "host/Kernel.h"

using namespace lyn::kernel;

namespace {

std::set<std::tuple<long, long, long>> asSet(const std::vector<Offset3D>& v) {
    std::set<std::tuple<long, long, long>> s;
    for (const auto& o : v) s.insert({o.x, o.y, o.z});
    return s;
}

bool sortedZYX(const std::vector<Offset3D>& v) {
    return std::is_sorted(v.begin(), v.end(), [](const Offset3D& a, const Offset3D& b) {
        return std::tie(a.z, a.y, a.x) < std::tie(b.z, b.y, b.x);
    });
}

TEST(GeneratorTest, DisksAndBallsHoldTheLatticePointsOfTheCircleAndSphere) {
    // Lattice points with x² + y² <= r² and x² + y² + z² <= r², r = 0 .. 12.
    const unsigned long disk[] = {1, 5, 13, 29, 49, 81, 113, 149, 197, 253, 317, 377, 441};
    const unsigned long ball[] = {1, 7, 33, 123, 257, 515, 925, 1419, 2109, 3071, 4169, 5575, 7153};
    for (unsigned long r = 0; r <= 12; ++r) {
        const auto d = generateDiskOffset2DCollection(r);
        const auto b = generateSphereOffset3DCollection(r);
        EXPECT_EQ(d.size(), disk[r]) << r;
        EXPECT_EQ(b.size(), ball[r]) << r;
        EXPECT_EQ(countDiskOffsets(r, 1000000), disk[r]);
        EXPECT_EQ(countSphereOffsets(r, 1000000), ball[r]);
        EXPECT_TRUE(std::is_sorted(d.begin(), d.end(), [](const Offset2D& a, const Offset2D& c) {
            return std::tie(a.y, a.x) < std::tie(c.y, c.x);
        }));
        EXPECT_TRUE(sortedZYX(b));
        for (const auto& o : b) EXPECT_LE(o.x * o.x + o.y * o.y + o.z * o.z, long(r * r));
        long x0, x1, y0, y1, z0, z1;
        computeExtrema(b, x0, x1, y0, y1, z0, z1);
        EXPECT_EQ(std::make_tuple(x0, x1, y0, y1, z0, z1), std::make_tuple(-long(r), long(r), -long(r), long(r),
                                                                            -long(r), long(r)));
    }
}

TEST(GeneratorTest, CountsStopAtTheCapWithoutWalkingAbsurdSizes) {
    const unsigned long disk = generateDiskOffset2DCollection(40).size();
    const unsigned long ball = generateSphereOffset3DCollection(20).size();
    EXPECT_EQ(countDiskOffsets(40, disk), disk);
    EXPECT_EQ(countDiskOffsets(40, disk - 1), disk);
    EXPECT_EQ(countSphereOffsets(20, ball), ball);
    EXPECT_EQ(countSphereOffsets(20, ball - 1), ball);
    EXPECT_EQ(countDiskOffsets(4294967295ul, 1000000), 1000001u);
    EXPECT_EQ(countSphereOffsets(4294967295ul, 1000000), 1000001u);
    EXPECT_EQ(countDisk3DOffsets(20, 35, 4294967295ul, 1000000), 1000001u);
    EXPECT_EQ(countDisk3DOffsets(20, 35, 9, 1000000), generateDiskOffset3DCollection(20, 35, 9).size());
    EXPECT_EQ(countDisk3DOffsets(20, 35, 40, 100), 101u);
}

TEST(GeneratorTest, LinesHaveOnePixelPerStepOfTheMajorAxis) {
    for (double angle : {0.0, 30.0, 45.0, 90.0, 135.0, -60.0, 370.0, 26.565, 63.43, -150.0, 210.0, 1e-9})
        for (unsigned long length : {1ul, 2ul, 3ul, 4ul, 7ul, 10ul, 25ul}) {
            const auto line = generateLineOffset2DCollectionWithConstNumOfPixels(angle, length, true);
            ASSERT_EQ(line.size(), length) << angle;
            const double a = angle * M_PI / 180, ux = std::cos(a), uy = -std::sin(a);
            const bool colMajor = std::fabs(ux) >= std::fabs(uy);
            const long first = -long((length - 1) / 2);
            for (unsigned long i = 0; i < length; ++i) {
                const long k = first + long(i);
                const long major = colMajor ? line[i].x : line[i].y;
                const double sign = colMajor ? (ux > 0 ? 1 : -1) : (uy > 0 ? 1 : -1);
                EXPECT_EQ(major, long(sign) * k) << angle << " " << length << " " << i;
            }
            if (length % 2) {  // odd lines are centrally symmetric (rounding is symmetric)
                auto m = mirror(line);
                std::reverse(m.begin(), m.end());
                EXPECT_EQ(m, line) << angle;
            }
        }
    // The origin alone, and the axis-aligned cases.
    EXPECT_EQ(generateLineOffset2DCollectionWithConstNumOfPixels(123.0, 1, true), (std::vector<Offset2D>{{0, 0}}));
    EXPECT_EQ(generateLineOffset2DCollectionWithConstNumOfPixels(90, 4, true),
              (std::vector<Offset2D>{{0, 1}, {0, 0}, {0, -1}, {0, -2}}));  // 90 points up; even lengths reach +u further
    EXPECT_EQ(generateLineOffset2DCollectionWithConstNumOfPixels(45, 3, true),
              (std::vector<Offset2D>{{-1, 1}, {0, 0}, {1, -1}}));
    long x0, x1, y0, y1;
    computeExtrema(generateLineOffset2DCollectionWithConstNumOfPixels(30, 8, true), x0, x1, y0, y1);
    EXPECT_EQ(std::make_tuple(x0, x1, y0, y1), std::make_tuple(-3L, 4L, -2L, 2L));
    // -150 and 210 are the same direction but cos and sin of their radians differ in the last bits.
    EXPECT_EQ(generateLineOffset2DCollectionWithConstNumOfPixels(-150, 9, true).size(), 9u);
}

TEST(GeneratorTest, ThreeDimensionalLinesTakeElevationFirstAndRoundAsWritten) {
    // Azimuth 30, elevation 45: major axis plan; row of k = 7 is 7·u_y/|u_z| = -3.4999999999999996, which
    // rounds to -3 (the ratio taken first would give -3.5 and -4).
    const auto line = generateLineOffset3DCollectionWithConstNumOfPixels(45, 30, 15, true);
    ASSERT_EQ(line.size(), 15u);
    EXPECT_EQ(line[14], (Offset3D{6, -3, 7}));
    EXPECT_EQ(line[0], (Offset3D{-6, 3, -7}));
    EXPECT_EQ(asSet(line).size(), 15u);
    // Elevation 90 is the plan axis whatever the azimuth.
    const auto up = generateLineOffset3DCollectionWithConstNumOfPixels(90, 33, 3, true);
    EXPECT_EQ(up, (std::vector<Offset3D>{{0, 0, -1}, {0, 0, 0}, {0, 0, 1}}));
    EXPECT_NE(generateLineOffset3DCollectionWithConstNumOfPixels(30, 60, 9, true),
              generateLineOffset3DCollectionWithConstNumOfPixels(60, 30, 9, true));
}

TEST(GeneratorTest, EuclideanStepsDropCoincidingPixels) {
    const auto diag = generateLineOffset2DCollectionWithConstNumOfPixels(45, 9, false);
    EXPECT_LT(diag.size(), 9u);
    EXPECT_EQ(generateLineOffset2DCollectionWithConstNumOfPixels(0, 9, false),
              generateLineOffset2DCollectionWithConstNumOfPixels(0, 9, true));
}

TEST(GeneratorTest, OrientedDisksLieInThePlanePerpendicularToTheLine) {
    for (unsigned long r = 0; r <= 12; ++r) {
        // (elevation 90, azimuth 0): the image plane, equal to the 2D disk.
        const auto flat = generateDiskOffset3DCollection(90, 0, r);
        const auto disk = generateDiskOffset2DCollection(r);
        ASSERT_EQ(flat.size(), disk.size()) << r;
        for (std::size_t i = 0; i < disk.size(); ++i) EXPECT_EQ(flat[i], (Offset3D{disk[i].x, disk[i].y, 0}));
    }
    for (auto [e, a] : {std::pair{45.0, 30.0}, {30.0, 45.0}, {0.0, 0.0}, {-60.0, 135.0}, {370.0, 90.0}, {12.5, -77.0}})
        for (unsigned long r : {1ul, 4ul, 9ul}) {
            const auto d = generateDiskOffset3DCollection(e, a, r);
            EXPECT_TRUE(sortedZYX(d));
            const auto s = asSet(d);
            EXPECT_EQ(s.size(), d.size());
            EXPECT_EQ(asSet(mirror(d)), s) << e << " " << a << " " << r;  // centrally symmetric
            const double ee = e * M_PI / 180, aa = a * M_PI / 180;
            const double u[3] = {std::cos(ee) * std::cos(aa), -std::cos(ee) * std::sin(aa), std::sin(ee)};
            for (const auto& o : d) {
                const double t = u[0] * double(o.x) + u[1] * double(o.y) + u[2] * double(o.z);
                EXPECT_LE(std::fabs(t), 0.5 + 1e-12);  // within half a voxel of the plane
            }
            // Oblique radius-1 disks may be the origin alone; larger ones keep a fair share of the flat disk.
            if (r > 1) {
                EXPECT_GE(d.size(), generateDiskOffset2DCollection(r).size() / 2);
            }
        }
    EXPECT_NE(asSet(generateDiskOffset3DCollection(30, 60, 6)), asSet(generateDiskOffset3DCollection(60, 30, 6)));
}

TEST(GeneratorTest, MirrorNegatesInOrder) {
    const std::vector<Offset2D> l = {{1, 2}, {-3, 0}};
    EXPECT_EQ(mirror(l), (std::vector<Offset2D>{{-1, -2}, {3, 0}}));
    const std::vector<Offset3D> v = {{1, 2, 3}};
    EXPECT_EQ(mirror(v), (std::vector<Offset3D>{{-1, -2, -3}}));
}

} // namespace
