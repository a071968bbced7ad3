// Structuring elements in the host: the stages a run goes through and the progress steps it reports,
// the fold order seen through NaN and signed zeros, property checks, and the shape table.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <set>

#include "host/Shapes.h"
#include "host/generic/Generic.h"

using namespace lyn;
using generic::Neighbourhood;

namespace {

struct Recorder : ProgressObserver {
    std::vector<double> seen;
    void onProgress(double f) override { seen.push_back(f); }
};

struct StageRecord {
    Neighbourhood n;
    unsigned passes;
    bool readsInput;
    std::size_t steps;
    bool operator==(const StageRecord& o) const {
        return n == o.n && passes == o.passes && readsInput == o.readsInput && steps == o.steps;
    }
};

std::vector<StageRecord> stagesRun(morphology::StructuringElementMorphology& algo, const ImageModel& in,
                                   ImageModel& out) {
    std::vector<StageRecord> seen;
    generic::runPasses(algo, in, out, algo.passList(), algo.isDilation(), [&](const generic::StageStart& s) {
        seen.push_back({s.stage->neighbourhood, s.stage->passes, s.readsInput, s.steps});
    });
    return seen;
}

TEST(FastDecompositionTest, StagesPassCountsAndProgressSteps) {
    // r, 6-, 18-, 26-connected passes of the ball; 8-connected, 4-connected passes of the disk.
    const unsigned table[][6] = {{0, 0, 0, 0, 0, 0},   {1, 0, 0, 1, 0, 1},   {2, 1, 0, 1, 1, 1},    {3, 1, 0, 2, 1, 2},
                                 {4, 2, 1, 1, 2, 2},   {5, 3, 1, 1, 2, 3},   {6, 3, 1, 2, 3, 3},    {7, 4, 2, 1, 3, 4},
                                 {10, 6, 3, 1, 5, 5},  {20, 12, 6, 2, 10, 10}, {100, 60, 30, 10, 50, 50}};
    MemoryImage in(Int16, 5, 4, 3), out;
    for (const auto& row : table) {
        const unsigned r = row[0];
        morphology::ErosionBall3d ball;
        ball.kernelRadius = r;
        ball.inputImage = &in;
        ball.outputImage = &out;
        out.enforceSameCharacteristics(&in, ImageModel::SameAll);
        std::vector<StageRecord> expected;
        const std::size_t steps = 1 + (row[1] != 0) + (row[2] != 0);
        bool readsInput = true;
        if (row[1]) expected.push_back({Neighbourhood::Six, row[1], true, steps}), readsInput = false;
        if (row[2]) expected.push_back({Neighbourhood::Eighteen, row[2], readsInput, steps}), readsInput = false;
        expected.push_back({Neighbourhood::TwentySix, row[3], readsInput, steps});
        EXPECT_EQ(stagesRun(ball, in, out), expected) << "ball " << r;

        morphology::DilationDisk2d disk;
        disk.kernelRadius = r;
        if (r > 1)
            expected = {{Neighbourhood::Square8, row[4], true, 2}, {Neighbourhood::Cross4, row[5], false, 2}};
        else
            expected = {{Neighbourhood::Cross4, r, true, 1}};
        EXPECT_EQ(stagesRun(disk, in, out), expected) << "disk " << r;
    }
}

TEST(FastDecompositionTest, ProgressReachesEachStepAsItsStageEnds) {
    MemoryImage in(UInt8, 6, 5, 4), out;
    morphology::DilationBall3d ball;  // r = 4: three stages of 2, 1 and 1 passes
    ball.kernelRadius = 4;
    ball.inputImage = &in;
    ball.outputImage = &out;
    ball.setUsePlugin(false);
    Recorder rec;
    ball.setProgressObserver(&rec);
    ball.execute();
    for (double step : {0.333, 0.666, 1.0}) EXPECT_NE(std::find(rec.seen.begin(), rec.seen.end(), step), rec.seen.end()) << step;
    EXPECT_TRUE(std::is_sorted(rec.seen.begin(), rec.seen.end()));
}

TEST(FastDecompositionTest, RadiusZeroLeavesTheOutputUntouched) {
    MemoryImage in(Float, 4, 4), out(Float, 4, 4);
    for (int i = 0; i < 16; ++i) out.dataAs<float>()[i] = 7.5f;
    morphology::ErosionDisk2d disk;
    disk.kernelRadius = 0;
    disk.inputImage = &in;
    disk.outputImage = &out;
    disk.setUsePlugin(false);
    disk.execute();
    for (int i = 0; i < 16; ++i) EXPECT_EQ(out.dataAs<float>()[i], 7.5f);
}

// Folding in list order with the accumulator first, a NaN or a -0.0 read by any offset but the last
// is replaced by the next value read (x > NaN, NaN > x, -0 > +0 and +0 > -0 are all false). So in a
// field of 1.0 (or of +0.0), a NaN (or -0.0) at q survives at p = q - last offset and nowhere else.
template <class Algo>
void expectOnlyTheLastOffsetKeeps(Algo& algo, long lx, long ly, long lz) {
    const long nc = 11, nr = 10, np = 9, qx = 5, qy = 4, qz = 4;
    for (float field : {1.0f, 0.0f}) {
        const float special = field == 1.0f ? std::numeric_limits<float>::quiet_NaN() : -0.0f;
        MemoryImage in(Float, nc, nr, np), out;
        for (std::uint64_t i = 0; i < in.getNumOfVoxels(); ++i) in.dataAs<float>()[i] = field;
        in.dataAs<float>()[in.index(qx, qy, qz)] = special;
        algo.inputImage = &in;
        algo.outputImage = &out;
        algo.setUsePlugin(false);
        algo.execute();
        // A 2D element works plan by plan: only plan qz holds the special value.
        for (long z = 0; z < np; ++z)
            for (long y = 0; y < nr; ++y)
                for (long x = 0; x < nc; ++x) {
                    const float v = out.dataAs<float>()[out.index(x, y, z)];
                    const bool keeps = x == qx - lx && y == qy - ly && z == qz - lz;
                    const bool isSpecial = std::isnan(v) || (v == 0 && std::signbit(v));
                    EXPECT_EQ(isSpecial, keeps) << algo.getClassName() << " field " << field << " at " << x << ","
                                                << y << "," << z;
                    if (!isSpecial) {
                        EXPECT_EQ(v, field);
                    }
                }
    }
}

TEST(FoldOrderTest, NaNAndNegativeZeroSurviveOnlyWhereTheLastOffsetReadsThem) {
    {
        morphology::DilationDisk2d a;  // exact: last offset (0, 1)
        a.kernelRadius = 2;
        a.mode = 1;
        expectOnlyTheLastOffsetKeeps(a, 0, 2, 0);
        morphology::ErosionDisk2d e;  // fast radius 1: one 4-connected pass, last (0, 1)
        e.kernelRadius = 1;
        expectOnlyTheLastOffsetKeeps(e, 0, 1, 0);
    }
    {
        morphology::ErosionBall3d e;  // exact: last (0, 0, r)
        e.kernelRadius = 2;
        e.mode = 3;
        expectOnlyTheLastOffsetKeeps(e, 0, 0, 2);
        morphology::DilationBall3d a;  // fast radius 1: one 26-connected pass; its last row (dy = 1) ends at (1, 1, 1)
        a.kernelRadius = 1;
        expectOnlyTheLastOffsetKeeps(a, 1, 1, 1);
    }
    {
        morphology::DilationLine2d a;  // 45 degrees, length 4: k = -1 .. 2, last (2, -2)
        a.angle = 45;
        a.length = 4;
        expectOnlyTheLastOffsetKeeps(a, 2, -2, 0);
    }
    {
        morphology::ErosionLine3d e;  // elevation 90: along the plans, length 3 ends at (0, 0, 1)
        e.angle1 = 20;
        e.angle2 = 90;
        e.size = 3;
        expectOnlyTheLastOffsetKeeps(e, 0, 0, 1);
        morphology::DilationDisk3d a;  // the image plane: the exact disk, last (0, 2, 0)
        a.angle1 = 0;
        a.angle2 = 90;
        a.size = 2;
        expectOnlyTheLastOffsetKeeps(a, 0, 2, 0);
    }
}

TEST(PassListTest, InPlaceEqualsOutOfPlaceAndMirrorNegates) {
    MemoryImage in(Int32, 13, 11, 7);
    for (std::uint64_t i = 0; i < in.getNumOfVoxels(); ++i) in.dataAs<int>()[i] = int((i * 2654435761u) % 1000);
    morphology::DilationLine3d algo;
    const generic::PassList lists[] = {
        generic::offsetPasses(kernel::generateLineOffset3DCollectionWithConstNumOfPixels(30, 45, 6, true)),
        generic::offsetPasses(std::vector<kernel::Offset3D>{{2, 1, 2}, {3, -1, 1}}),  // origin not included
        generic::offsetPasses(std::vector<kernel::Offset2D>{{-3, -2}, {-1, -1}}),
        {generic::Stage{Neighbourhood::Six, 2, {}}, generic::Stage{Neighbourhood::Offsets2D, 1, {{1, 0, 0}}}}};
    for (const auto& list : lists)
        for (bool dilate : {true, false}) {
            MemoryImage out, inPlace(Int32, 13, 11, 7);
            std::memcpy(inPlace.dataAs<int>(), in.dataAs<int>(), in.getSizeInBytes());
            out.enforceSameCharacteristics(&in, ImageModel::SameAll);
            generic::runPasses(algo, in, out, list, dilate);
            generic::runPasses(algo, inPlace, inPlace, list, dilate);
            EXPECT_EQ(std::memcmp(out.dataAs<int>(), inPlace.dataAs<int>(), in.getSizeInBytes()), 0);
        }
    const auto mirrored = generic::mirror(lists[3]);
    EXPECT_EQ(mirrored[0], lists[3][0]);
    EXPECT_EQ(mirrored[1].offsets, (std::vector<kernel::Offset3D>{{-1, 0, 0}}));
}

TEST(PassListTest, CancellationStopsTheRun) {
    struct CancelAtFirstReport : ProgressObserver {
        BaseAlgorithm* algo;
        double last = 0;
        void onProgress(double f) override {
            last = f;
            algo->cancelExecution();
        }
    };
    MemoryImage in(UInt8, 8, 8, 8), out;
    for (bool exact : {false, true}) {
        morphology::ErosionBall3d algo;
        algo.kernelRadius = 10;
        algo.mode = exact;
        algo.setImages(&in, &out);
        algo.setUsePlugin(false);
        CancelAtFirstReport cancel;
        cancel.algo = &algo;
        algo.setProgressObserver(&cancel);
        EXPECT_THROW(algo.execute(), ExceptionCancelation);
        EXPECT_LT(cancel.last, 0.5);
    }
}

TEST(PropertyCheckTest, ZeroLengthsAndAbsurdOffsetListsNameTheProperty) {
    MemoryImage in(UInt8, 4, 4), out;
    auto expectRefused = [&](morphology::StructuringElementMorphology& algo, const char* property) {
        algo.setImages(&in, &out);
        try {
            algo.execute();
            ADD_FAILURE() << algo.getClassName() << ": expected RuleException";
        } catch (const RuleException& e) {
            EXPECT_NE(std::string(e.what()).find(property), std::string::npos) << e.what();
        }
    };
    morphology::DilationLine2d line;
    line.length = 0;
    expectRefused(line, "Length");
    line.length = 1000001;
    expectRefused(line, "Length");
    line.length = 3;
    line.angle = std::numeric_limits<double>::infinity();
    expectRefused(line, "Angle");
    morphology::ErosionLine3d line3;
    line3.size = 0;
    expectRefused(line3, "Size");
    morphology::DilationBall3d ball;
    ball.mode = 1;
    ball.kernelRadius = 63;  // about 1.05 million offsets
    expectRefused(ball, "KernelRadius");
    morphology::ErosionDisk2d disk;
    disk.mode = 1;
    disk.kernelRadius = 4000000000u;
    expectRefused(disk, "KernelRadius");
    morphology::ErosionDisk3d disk3;
    disk3.size = 5000;
    expectRefused(disk3, "Size");
    disk3.size = 2;
    disk3.angle2 = std::nan("");
    expectRefused(disk3, "Angle2");
    // The decomposition makes no offset list: any radius is accepted.
    ball.mode = 0;
    ball.kernelRadius = 1;
    ball.setImages(&in, &out);
    EXPECT_NO_THROW(ball.execute());
}

TEST(ShapeTableTest, ValidationNamesTheOption) {
    using shapes::ShapeParams;
    struct Case {
        const char* shape;
        ShapeParams params;
        const char* option;  // "" when valid
    };
    ShapeParams radius3, length3, line3d, lengthZero, both, conn4, conn6, exactLine, hugeRadius, angle;
    radius3.radius = 3;
    length3.length = 3;
    line3d.length = 3;
    line3d.angles = std::array<double, 2>{30, 45};
    lengthZero.length = 0;
    both = radius3;
    both.length = 3;
    conn4.connectivity = 4;
    conn6.connectivity = 6;
    exactLine = length3;
    exactLine.exact = true;
    hugeRadius.radius = 5000000000ull;
    angle = length3;
    angle.angle = -60;
    const Case cases[] = {
        {"square", {}, ""},          {"square", conn4, ""},           {"square", conn6, "connectivity"},
        {"cube", conn6, ""},         {"cube", conn4, "connectivity"}, {"disk", {}, "radius"},
        {"disk", radius3, ""},       {"ball", both, "length"},        {"line", {}, "length"},
        {"line", lengthZero, "length"}, {"line", angle, ""},          {"line", exactLine, "exact"},
        {"line3d", length3, "angles"}, {"line3d", line3d, ""},        {"disk3d", radius3, "angles"},
        {"square", hugeRadius, "radius"}, {"star", {}, "shape"},
    };
    for (const Case& c : cases) {
        std::string option;
        try {
            shapes::validate(shapes::findShape(c.shape), c.params);
        } catch (const shapes::ShapeError& e) {
            option = e.option();
        }
        EXPECT_EQ(option, c.option) << c.shape;
    }
}

TEST(ShapeTableTest, BuildsTheConfiguredAlgorithm) {
    for (const auto& shape : shapes::shapeTable()) {
        shapes::ShapeParams p;
        if (shape.required & shapes::Radius) p.radius = 2;
        if (shape.required & shapes::Length) p.length = 5;
        if (shape.required & shapes::Angles) p.angles = std::array<double, 2>{30, 60};
        shapes::validate(shape, p);
        for (bool dilate : {true, false}) {
            auto algo = shapes::makeAlgorithm(shape, p, dilate);
            EXPECT_EQ(algo->isDilation(), dilate);
            EXPECT_EQ(std::string(algo->getClassName()).find(dilate ? "Dilation" : "Erosion"), 17u) << shape.name;
        }
    }
    shapes::ShapeParams p;
    p.length = 4;
    p.angles = std::array<double, 2>{30, 60};  // azimuth, elevation
    auto line = shapes::makeAlgorithm(shapes::findShape("line3d"), p, false);
    const auto& oriented = static_cast<const morphology::OrientedMorphology3d&>(*line);
    EXPECT_EQ(oriented.angle1.get(), 30.0);
    EXPECT_EQ(oriented.angle2.get(), 60.0);
    EXPECT_EQ(line->passList()[0].offsets,
              kernel::generateLineOffset3DCollectionWithConstNumOfPixels(60, 30, 4, true));
    p = {};
    p.radius = 0;
    EXPECT_TRUE(shapes::isIdentity(shapes::findShape("ball"), p));
    p = {};
    p.length = 1;
    EXPECT_TRUE(shapes::isIdentity(shapes::findShape("line"), p));
    EXPECT_FALSE(shapes::isIdentity(shapes::findShape("square"), {}));  // radius defaults to 1
}

TEST(ShapeTableTest, ReachIsWhatATileNeedsAroundIt) {
    struct Case {
        const char* shape;
        unsigned long long radius, length;
        bool exact;
        std::array<long, 3> reach;
    };
    const Case cases[] = {{"square", 3, 0, false, {3, 3, 0}}, {"cube", 2, 0, false, {2, 2, 2}},
                          {"disk", 5, 0, false, {5, 5, 0}},   {"disk", 5, 0, true, {5, 5, 0}},
                          {"ball", 7, 0, false, {7, 7, 7}},   {"line", 0, 8, false, {4, 2, 0}}};
    for (const Case& c : cases) {
        shapes::ShapeParams p;
        if (c.radius) p.radius = c.radius;
        if (c.length) {
            p.length = c.length;
            p.angle = 30;
        }
        p.exact = c.exact;
        EXPECT_EQ(shapes::reach(shapes::findShape(c.shape), p), c.reach) << c.shape;
    }
}

} // namespace
