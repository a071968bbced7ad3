// Runner layer, white box (the plug-in's code linked statically, its runners unregistered): type
// dispatch, checked casts, and which requests each runner accepts.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <utility>
#include <typeinfo>

#include "Core/private/Helper/safe_cast.h"
#include "Core/private/TmplDispatch/Visitor1Args.h"
#include "analysis/IntensityExtremaAVX.h"
#include "host/Cpu.h"
#include "morphology/Runners.h"

using namespace lyn;

namespace {

// ---------------------------------------------------------------------------------------------
struct RecordingDispatcher {
    static std::string last;
    template <class T>
    static void run(int* calls) {
        last = typeid(T).name();
        ++*calls;
    }
};
std::string RecordingDispatcher::last;

TEST(Visitor1ArgsTest, EveryIdReachesItsTypeOrFails) {
    struct Case {
        int id;
        const char* type;  // null: no call
        bool throws;
    } cases[] = {{0, typeid(unsigned char).name(), false},  {1, typeid(unsigned short).name(), false},
                 {2, typeid(unsigned int).name(), false},   {3, nullptr, true},
                 {4, typeid(signed char).name(), false},    {5, typeid(short).name(), false},
                 {6, typeid(int).name(), false},            {7, nullptr, true},
                 {8, typeid(float).name(), false},          {9, typeid(double).name(), false},
                 {10, nullptr, false},                      {11, nullptr, false},
                 {12, nullptr, true},                       {1000000, nullptr, true},
                 {-1, nullptr, true}};
    tmpl_dispatch::Visitor1Args<tmpl_dispatch::VoxelTypeList, RecordingDispatcher> visit;
    for (const Case& c : cases) {
        int calls = 0;
        RecordingDispatcher::last.clear();
        if (c.throws) {
            try {
                visit(c.id, &calls);
                ADD_FAILURE() << "id " << c.id << " did not throw";
            } catch (const RuntimeError& e) {
                auto info = e.getInfo();
                EXPECT_EQ(info.message, "Invalid type in Visitor1Args : " + std::to_string(c.id));
                EXPECT_EQ(info.file, "Core/private/TmplDispatch/Visitor1Args");
                EXPECT_EQ(info.line, 139);
            }
            EXPECT_EQ(calls, 0);
        } else {
            EXPECT_NO_THROW(visit(c.id, &calls)) << c.id;
            EXPECT_EQ(calls, c.type ? 1 : 0) << c.id;
            if (c.type) {
                EXPECT_EQ(RecordingDispatcher::last, c.type) << c.id;
            }
        }
    }
}

TEST(SafeCastTest, NullAndWrongClassRaiseUnexpectedError) {
    morphology::Dilation2d dilation;
    BaseAlgorithm* asBase = &dilation;
    EXPECT_EQ(helper::safe_cast<morphology::Dilation2d*>(asBase), &dilation);
    const std::string expected = "bad cast when casting PN3lyn13BaseAlgorithmE into PN3lyn8analysis16IntensityExtremaE";
    for (BaseAlgorithm* p : {static_cast<BaseAlgorithm*>(nullptr), asBase}) {
        try {
            helper::safe_cast<analysis::IntensityExtrema*>(p);
            ADD_FAILURE() << "no exception";
        } catch (const UnexpectedError& e) {
            EXPECT_EQ(e.getInfo().message, expected);
            EXPECT_EQ(e.getInfo().file, "Core/private/Helper/safe_cast");
            EXPECT_EQ(e.getInfo().line, 17);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// An image that reports itself as stored on disk.
class DiskLikeImage : public MemoryImage {
public:
    using MemoryImage::MemoryImage;
    int getStorageType() const override { return 1; }
};

class LevelGuard {
public:
    explicit LevelGuard(int level) { devices::Cpu::overrideAVXLevel(level); }
    ~LevelGuard() { devices::Cpu::overrideAVXLevel(-1); }
};

struct NoDispatcher {
    template <class T, class A>
    static void run(A*) {}
};

bool squareAccepts(const Runnable& runner, morphology::SquareMorphology& algo, int neighbourhood, unsigned radius) {
    algo.neighborhood = neighbourhood;
    algo.kernelRadius = radius;
    return runner.isRunnable(&algo);
}

// The largest radius a runner accepts for a neighbourhood value, or -1 when it accepts every
// radius tried. Checks that what it accepts is every radius up to that one.
long acceptedRadii(const Runnable& runner, morphology::SquareMorphology& algo, int neighbourhood) {
    long largest = -1;
    for (unsigned r = 0; r <= 400; ++r) {
        const bool accepted = squareAccepts(runner, algo, neighbourhood, r);
        if (!accepted && largest < 0) largest = long(r) - 1;
        if (accepted && largest >= 0) {
            ADD_FAILURE() << runnerName(&runner) << " n=" << neighbourhood << " accepts " << r << " after declining " << largest + 1;
            return largest;
        }
    }
    return largest;
}

// Square and cube runners accept a prefix of the radii for each neighbourhood value: bounded for
// the values that name a neighbourhood (but the 2D square's, whose kernel is cheap at any radius),
// unbounded for other values and for inputs stored on disk. Each runner serves its class only.
TEST(EligibilityTest, SquareAndCubeRunnersAcceptRadiiUpToALimit) {
    LevelGuard avx2(2);
    MemoryImage image(UInt8, 8, 8, 8), out;
    DiskLikeImage onDisk(UInt8, 8, 8, 8);
    morphology::Dilation2d d2;
    morphology::Erosion2d e2;
    morphology::Dilation3d d3;
    morphology::Erosion3d e3;
    morphology::Dilation2dAVX2Runner rd2;
    morphology::Erosion2dAVX2Runner re2;
    morphology::Dilation3dAVX2Runner rd3;
    morphology::Erosion3dAVX2Runner re3;
    const std::pair<const Runnable*, morphology::SquareMorphology*> cases[] = {{&rd2, &d2}, {&re2, &e2}, {&rd3, &d3}, {&re3, &e3}};
    for (const auto& [runner, algo] : cases) {
        algo->inputImage = &image;
        algo->outputImage = &out;
        const bool is2d = algo == &d2 || algo == &e2;
        for (int n = 0; n < 3; ++n) {
            const long largest = acceptedRadii(*runner, *algo, n);
            if (is2d && n == 2) {
                EXPECT_EQ(largest, -1) << runnerName(runner);
                continue;
            }
            EXPECT_GT(largest, 30) << runnerName(runner) << " n=" << n;
            algo->inputImage = &onDisk;
            EXPECT_EQ(acceptedRadii(*runner, *algo, n), -1) << runnerName(runner) << " n=" << n << " on disk";
            algo->inputImage = &image;
        }
        EXPECT_EQ(acceptedRadii(*runner, *algo, 5), -1) << runnerName(runner);
        EXPECT_EQ(acceptedRadii(*runner, *algo, -1), -1) << runnerName(runner);
        for (morphology::SquareMorphology* other : std::array<morphology::SquareMorphology*, 4>{&d2, &e2, &d3, &e3}) {
            other->inputImage = &image;
            other->outputImage = &out;
            EXPECT_EQ(runner->isRunnable(other), other == algo) << runnerName(runner);
        }
        EXPECT_EQ(runner->getOptimType(), 2);
    }
}

TEST(EligibilityTest, TypesAndProcessorLevelDecideForEveryRunner) {
    morphology::Dilation2d sq;
    morphology::DilationDisk2d disk;
    analysis::IntensityExtrema extrema;
    analysis::IntensityExtremaMsr msr;
    morphology::Dilation2dAVX2Runner squareRunner;
    morphology::AVX2OneTypeMinMaxRunner<morphology::DilationDisk2d, NoDispatcher> diskRunner;
    analysis::IntensityExtremaAVXRunner extremaRunner;
    sq.kernelRadius = 1;
    extrema.result = &msr;
    for (int id = 0; id < kNumVoxelTypes; ++id) {
        MemoryImage in(static_cast<VoxelTypes>(id), 4, 4), out(static_cast<VoxelTypes>(id), 4, 4);
        sq.inputImage = &in;
        sq.outputImage = &out;
        disk.inputImage = &in;
        disk.outputImage = &out;
        extrema.inputImage = &in;
        const bool served = id != 3 && id != 7 && id != 10 && id != 11;
        for (int level : {0, 1, 2, 3}) {
            LevelGuard guard(level);
            const bool expect = served && level >= 2;
            EXPECT_EQ(squareRunner.isRunnable(&sq), expect) << id << " level " << level;
            EXPECT_EQ(diskRunner.isRunnable(&disk), expect) << id << " level " << level;
            EXPECT_EQ(extremaRunner.isRunnable(&extrema), expect) << id << " level " << level;
        }
    }
    // Structuring-element runners need the output of the input's type.
    LevelGuard avx2(2);
    MemoryImage in(UInt8, 4, 4), out(UInt16, 4, 4);
    disk.inputImage = &in;
    disk.outputImage = &out;
    EXPECT_FALSE(diskRunner.isRunnable(&disk));
    out.allocate(UInt8, {4, 4, 1, 1, 1});
    EXPECT_TRUE(diskRunner.isRunnable(&disk));
    EXPECT_FALSE(diskRunner.isRunnable(&sq));
}

} // namespace
