// Disk, ball and line runners through the real plug-in module: every class against the host's
// generic code bit for bit, over a sample of types, sizes, radii, angles, modes, in-place runs,
// memory budgets, threads and blocks; the decompositions' stages as seen through progress;
// cancellation between stages; and when the runners decline.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <type_traits>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "host/Algorithms.h"
#include "host/Cpu.h"
#include "host/Image.h"
#include "host/PluginLoader.h"
#include "host/VoxelTypes.h"
#include "tests/support.h"

using namespace lyn;
using namespace lyn::test;

namespace {

const Grain kDefaultGrain = AbstractPartitionerPolicy::defaults();
const Grain kOneBlock = {kHuge, kHuge, kHuge};

enum class Shape { Disk2d, Ball3d, Disk3d, Line2d, Line3d };

const char* const kClasses[] = {
    "lyn::morphology::DilationBall3d", "lyn::morphology::DilationDisk2d", "lyn::morphology::DilationDisk3d",
    "lyn::morphology::DilationLine2d", "lyn::morphology::DilationLine3d", "lyn::morphology::ErosionBall3d",
    "lyn::morphology::ErosionDisk2d",  "lyn::morphology::ErosionDisk3d",  "lyn::morphology::ErosionLine2d",
    "lyn::morphology::ErosionLine3d"};

struct SeCase {
    Shape shape;
    bool dilate;
    int mode = 1;          // disk and ball: 0 fast, other values exact
    unsigned size = 1;     // radius or length
    double angle1 = 0;     // the line's angle, or the 3D azimuth
    double angle2 = 0;     // the 3D elevation
    Extents extents{1, 1, 1, 1, 1};
    bool inPlace = false;
    std::uint64_t budget = kHuge;
    int threads = 2;
    Grain grain = kDefaultGrain;

    int dims() const { return shape == Shape::Disk2d || shape == Shape::Line2d ? 2 : 3; }
    std::string name(VoxelTypes t) const {
        static const char* const shapes[] = {"disk2d", "ball3d", "disk3d", "line2d", "line3d"};
        return std::string(voxelTypeName(t)) + (dilate ? " dilate " : " erode ") + shapes[int(shape)] +
               " mode=" + std::to_string(mode) + " size=" + std::to_string(size) + " angles=" + std::to_string(angle1) +
               "," + std::to_string(angle2) + " " + std::to_string(extents[0]) + "x" + std::to_string(extents[1]) + "x" +
               std::to_string(extents[2]) + "x" + std::to_string(extents[3]) + "x" + std::to_string(extents[4]) +
               (inPlace ? " in-place" : "") + " budget=" + std::to_string(budget) + " threads=" +
               std::to_string(threads) + " grain=" + std::to_string(grain.plans) + "," + std::to_string(grain.rows) + "," +
               std::to_string(grain.cols);
    }
};

std::unique_ptr<BaseAlgorithm> makeAlgorithm(Shape shape, bool dilate) {
    using namespace morphology;
    switch (shape) {
    case Shape::Disk2d: return dilate ? std::unique_ptr<BaseAlgorithm>(new DilationDisk2d) : std::make_unique<ErosionDisk2d>();
    case Shape::Ball3d: return dilate ? std::unique_ptr<BaseAlgorithm>(new DilationBall3d) : std::make_unique<ErosionBall3d>();
    case Shape::Disk3d: return dilate ? std::unique_ptr<BaseAlgorithm>(new DilationDisk3d) : std::make_unique<ErosionDisk3d>();
    case Shape::Line2d: return dilate ? std::unique_ptr<BaseAlgorithm>(new DilationLine2d) : std::make_unique<ErosionLine2d>();
    case Shape::Line3d: return dilate ? std::unique_ptr<BaseAlgorithm>(new DilationLine3d) : std::make_unique<ErosionLine3d>();
    }
    return nullptr;
}

// The case's properties on its algorithm, with the given images.
void configure(BaseAlgorithm* algo, const SeCase& c, const ImageModel* in, ImageModel* out) {
    if (auto* a = dynamic_cast<morphology::RadiusModeMorphology*>(algo)) {
        a->inputImage = in;
        a->outputImage = out;
        a->kernelRadius = c.size;
        a->mode = c.mode;
    } else if (auto* l = dynamic_cast<morphology::LineMorphology2d*>(algo)) {
        l->inputImage = in;
        l->outputImage = out;
        l->angle = c.angle1;
        l->length = c.size;
    } else if (auto* o = dynamic_cast<morphology::OrientedMorphology3d*>(algo)) {
        o->inputImage = in;
        o->outputImage = out;
        o->angle1 = c.angle1;
        o->angle2 = c.angle2;
        o->size = c.size;
    }
    algo->setMaxThreads(c.threads);
    algo->setGrainSizes(c.grain);
    algo->setMaximumExtraMemoryUsageInBytes(c.budget);
}

// Runs the case through the plug-in or the generic code; the output starts as a sentinel pattern
// so that a run that should leave it untouched can be seen to.
std::unique_ptr<MemoryImage> runCase(const SeCase& c, const MemoryImage& input, bool plugin, bool* usedRunner,
                                     ProgressObserver* observer = nullptr) {
    auto algo = makeAlgorithm(c.shape, c.dilate);
    auto out = std::make_unique<MemoryImage>(input.getVoxelType(), c.extents);
    if (c.inPlace) std::memcpy(out->data(), input.data(), input.getSizeInBytes());
    else std::memset(out->data(), 0x5a, out->getSizeInBytes());
    configure(algo.get(), c, c.inPlace ? out.get() : &input, out.get());
    algo->setUsePlugin(plugin);
    algo->setProgressObserver(observer);
    algo->execute();
    if (usedRunner) *usedRunner = algo->getLastRunner() != nullptr;
    return out;
}

using Filler = std::function<void(MemoryImage&, std::uint64_t)>;

void check(const SeCase& c, VoxelTypes t, std::uint64_t seed, const Filler& filler = fill) {
    MemoryImage input(t, c.extents);
    filler(input, seed);
    bool used = false;
    auto fast = runCase(c, input, true, &used);
    auto reference = runCase(c, input, false, nullptr);
    ASSERT_TRUE(used) << "plug-in declined: " << c.name(t);
    ASSERT_TRUE(sameBits(*fast, *reference)) << c.name(t) << ": " << firstDifference(*fast, *reference);
}

class SeRunnerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "the processor has no AVX2: every runner declines";
        ASSERT_TRUE(Plugin::load(Plugin::defaultPath())) << Plugin::lastError();
    }
};

const double kAngles[] = {0, 30, 45, 90, 135, -60, 370};
const SeCase kShapes[] = {
    {Shape::Disk2d, true, 0},  {Shape::Disk2d, false, 0}, {Shape::Disk2d, true, 1},  {Shape::Disk2d, false, -1},
    {Shape::Ball3d, true, 0},  {Shape::Ball3d, false, 0}, {Shape::Ball3d, true, 2},  {Shape::Ball3d, false, 1},
    {Shape::Disk3d, true},     {Shape::Disk3d, false},    {Shape::Line2d, true},     {Shape::Line2d, false},
    {Shape::Line3d, true},     {Shape::Line3d, false}};

// ---------------------------------------------------------------------------------------------
TEST_F(SeRunnerTest, EveryClassHasItsRunner) {
    for (const char* cls : kClasses) {
        AlgoInfo* info = AlgoRegistry::getClassInfo(cls);
        ASSERT_NE(info, nullptr) << cls;
        EXPECT_EQ(info->getRunners().size(), 1u) << cls;
    }
}

// Every class and mode, every type, every size 0..12 (lengths from 1), the angles, on images a
// little wider than one vector and volumes of one plan or several. The remaining settings are
// drawn from their lists so that each run differs without taking every combination.
TEST_F(SeRunnerTest, EveryClassTypeSizeAndAngleAgainstGenericCode) {
    std::mt19937 rng(12);
    const auto pick = [&](auto const& list) { return list[rng() % std::size(list)]; };
    const Grain grains[] = {{1, 1, 1}, {1, 3, 5}, {2, 2, kHuge}, kDefaultGrain};
    const std::uint64_t budgets[] = {0, kHuge};
    const int threads[] = {1, 2};
    const bool inPlace[] = {false, true};
    unsigned step = 0;
    for (SeCase c : kShapes)
        for (VoxelTypes t : kServed)
            for (unsigned size = 0; size <= 12; ++size, ++step) {
                if ((c.shape == Shape::Line2d || c.shape == Shape::Line3d) && size == 0) continue;
                const std::uint64_t l = lanes(t);
                const std::uint64_t widths[] = {1, l - 1, l, l + 1, 2 * l + 3};
                c.size = size;
                c.angle1 = kAngles[step % 7];
                c.angle2 = kAngles[(step / 7 + step) % 7];
                c.extents = c.dims() == 2 ? Extents{pick(widths), 1 + rng() % 19, 1, 1, 1}
                                          : Extents{pick(widths), 1 + rng() % 9, rng() % 3 == 0 ? 1 : 2 + rng() % 6, 1, 1};
                // Exact balls and oriented disks of large radii on large volumes are slow in the generic code.
                if (c.dims() == 3 && c.mode != 0 && size > 8) c.extents[0] = std::min<std::uint64_t>(c.extents[0], l + 1);
                c.grain = pick(grains);
                c.budget = pick(budgets);
                c.threads = pick(threads);
                c.inPlace = pick(inPlace);
                check(c, t, step);
                if (HasFatalFailure()) return;
            }
}

// Ping-pong through a temporary image or in place, 1 or 2 threads, many blocks or one, for the
// decompositions (whose stages chain several passes) and the exact shapes.
TEST_F(SeRunnerTest, InPlaceBudgetsThreadsAndBlocks) {
    const Grain grains[] = {{1, 1, 1}, {2, 3, 7}, kOneBlock};
    forAll(
        [&](const SeCase& shape, VoxelTypes t, bool inPlace, std::uint64_t budget, int threads, const Grain& g) {
            SeCase c = shape;
            c.size = c.shape == Shape::Disk2d || c.shape == Shape::Line2d ? 7 : 4;
            c.angle1 = 30;
            c.angle2 = -60;
            c.extents = c.dims() == 2 ? Extents{71, 53, 1, 1, 1} : Extents{37, 11, 9, 1, 1};
            c.inPlace = inPlace;
            c.budget = budget;
            c.threads = threads;
            c.grain = g;
            check(c, t, std::uint64_t(threads) * 5 + budget % 7);
        },
        kShapes, std::vector<VoxelTypes>{UInt8, Int16, Float, Double}, std::vector<bool>{false, true},
        std::vector<std::uint64_t>{0, kHuge}, std::vector<int>{1, 2}, grains);
}

// Radii far beyond the image: many passes of the decompositions, long offset lists.
TEST_F(SeRunnerTest, LargeRadii) {
    for (VoxelTypes t : {UInt8, Float})
        for (bool dilate : {true, false}) {
            check({Shape::Disk2d, dilate, 0, 101, 0, 0, {45, 31, 1, 1, 1}, false, kHuge, 2, {1, 4, kHuge}}, t, 1);
            check({Shape::Disk2d, dilate, 1, 40, 0, 0, {45, 31, 1, 1, 1}, true, 0, 2, {1, 4, kHuge}}, t, 2);
            check({Shape::Ball3d, dilate, 0, 63, 0, 0, {19, 9, 7, 1, 1}, false, 0, 2, {1, 2, kHuge}}, t, 3);
            check({Shape::Line2d, dilate, 1, 301, 30, 0, {45, 31, 1, 1, 1}, false, kHuge, 2, kDefaultGrain}, t, 4);
            check({Shape::Line3d, dilate, 1, 99, 45, 30, {19, 9, 7, 1, 1}, true, kHuge, 2, kDefaultGrain}, t, 5);
            check({Shape::Disk3d, dilate, 1, 21, 135, 45, {19, 9, 7, 1, 1}, false, kHuge, 2, kDefaultGrain}, t, 6);
        }
}

// One middle value with, about once in `every` voxels, the type's lowest, its highest or a random
// value: each output voxel is decided by one or two offsets of the shape, so that a lost or
// misplaced offset shows. Floats also get infinities, and NaN and both zeros now and then, so that
// some rows are order-free and others not.
Filler sparseExtremes(std::uint64_t every) {
    return [every](MemoryImage& image, std::uint64_t seed) {
        std::mt19937_64 rng(seed);
        dispatchVoxelType(image.getVoxelType(), [&](auto traits) {
            using T = typename decltype(traits)::type;
            using L = std::numeric_limits<T>;
            const T mid = std::is_integral_v<T> ? T(L::lowest() / 2 + L::max() / 2) : T(1.5);
            const T rare[] = {L::lowest(), L::max(), std::is_integral_v<T> ? L::min() : -L::infinity(),
                              std::is_integral_v<T> ? L::max() : L::infinity()};
            const T special[] = {L::quiet_NaN(), T(0), -T(0)};
            T* d = image.template dataAs<T>();
            for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i) {
                const std::uint64_t r = rng(), pick = (r >> 32) % 8;
                if (r % every != 0) d[i] = mid;
                else if (pick < 4) d[i] = rare[pick];
                else if (std::is_integral_v<T> || pick < 7) d[i] = T(std::int64_t(r >> 40) - (std::int64_t(1) << 22));
                else d[i] = special[(r >> 48) % 3];
            }
        });
    };
}

// Exact shapes fold runs of consecutive offsets along x where the order cannot show: long
// horizontal runs, runs of one voxel (steep lines, tilted disks), radii 0..12 and one far beyond
// the image, widths around the vector and narrower than the shape, single-plan volumes, type
// extremes, float rows with and without NaN or signed zeros.
TEST_F(SeRunnerTest, RunsAlongXAgainstGenericCode) {
    struct Row {
        Shape shape;
        unsigned size;
        double angle1, angle2;
    };
    std::vector<Row> rows = {{Shape::Line2d, 21, 0, 0},  {Shape::Line2d, 64, 0, 0},   {Shape::Line2d, 301, 0, 0},
                             {Shape::Line2d, 21, 30, 0}, {Shape::Line2d, 40, 90, 0},  {Shape::Line2d, 33, 170, 0},
                             {Shape::Line3d, 15, 0, 0},  {Shape::Line3d, 31, 30, 45}, {Shape::Disk3d, 5, 30, 45},
                             {Shape::Disk3d, 7, 0, 90},  {Shape::Disk3d, 6, 90, 0},   {Shape::Disk2d, 40, 0, 0},
                             {Shape::Ball3d, 12, 0, 0}};
    for (unsigned r = 0; r <= 12; ++r) rows.push_back({Shape::Disk2d, r, 0, 0});
    for (unsigned r = 0; r <= 6; ++r) rows.push_back({Shape::Ball3d, r, 0, 0});
    std::mt19937 rng(21);
    const auto pick = [&](auto const& list) { return list[rng() % std::size(list)]; };
    const Grain grains[] = {{1, 1, 1}, {1, 3, 5}, {2, 7, kHuge}, kOneBlock};
    unsigned step = 0;
    for (const Row& row : rows)
        for (VoxelTypes t : kServed)
            for (bool dilate : {true, false}) {
                SeCase c{row.shape, dilate, 1, row.size, row.angle1, row.angle2};
                const std::uint64_t l = lanes(t), reach = 2 * row.size + 1;
                const std::uint64_t widths[] = {1, l - 1, l, l + 1, 2 * l + 3, reach - 1, reach + l};
                const std::uint64_t w = std::max<std::uint64_t>(1, std::min<std::uint64_t>(pick(widths), 3 * l));
                c.extents = c.dims() == 2 ? Extents{w, 1 + rng() % 29, 1, 1, 1}
                                          : Extents{w, 1 + rng() % 13, rng() % 3 == 0 ? 1 : 2 + rng() % 8, 1, 1};
                c.grain = pick(grains);
                c.threads = 1 + int(rng() % 2);
                c.inPlace = rng() % 2 == 0;
                const std::uint64_t every = c.shape == Shape::Ball3d ? reach * reach * reach / 2
                                            : c.shape == Shape::Disk2d || c.shape == Shape::Disk3d ? reach * reach
                                                                                                   : row.size;
                check(c, t, ++step, sparseExtremes(std::max<std::uint64_t>(every, 3)));
                if (HasFatalFailure()) return;
            }
    // Rows too wide for the G rows a thread keeps (32 MiB): a disk of radius 40 holds 81 input rows
    // of 6 levels each, so 12000 doubles need about 47 MiB and every row folds in list order instead.
    for (bool dilate : {true, false}) {
        SeCase c{Shape::Disk2d, dilate, 1, 40, 0, 0};
        c.extents = Extents{12000, 3, 1, 1, 1};
        c.grain = kOneBlock;
        c.threads = 2;
        c.inPlace = dilate;
        check(c, Double, ++step, sparseExtremes(81 * 81));
    }
}

// ---------------------------------------------------------------------------------------------
// Records what the algorithm reports, in permille.
struct Recorder : ProgressObserver {
    std::vector<int> permille;
    void onProgress(double f) override { permille.push_back(int(f * 1000.0 + 0.5)); }
};

// What one block per pass reports: after pass i of the p passes of step s (from 0) of n steps,
// (s + i / p) / n, as the host computes and rounds it.
std::vector<int> expectedProgress(const std::vector<unsigned long>& stagePasses) {
    std::vector<int> out;
    const double n = double(stagePasses.size());
    int last = -1;
    const auto add = [&](double fraction) {
        const int p = int(std::min(1.0, fraction) * 1000.0);
        if (p > last) out.push_back(last = p);
    };
    for (std::size_t s = 0; s < stagePasses.size(); ++s) {
        for (unsigned long i = 1; i <= stagePasses[s]; ++i) add((double(s) + double(i) / double(stagePasses[s])) / n);
        add(double(s + 1) / n);  // the step's end
    }
    return out;
}

TEST_F(SeRunnerTest, DecompositionStagesAndProgressSteps) {
    struct Row {
        Shape shape;
        unsigned radius;
        std::vector<unsigned long> passes;  // per progress step, in stage order
    };
    const Row rows[] = {
        {Shape::Disk2d, 0, {0}},        {Shape::Disk2d, 1, {1}},         {Shape::Disk2d, 2, {1, 1}},
        {Shape::Disk2d, 3, {1, 2}},     {Shape::Disk2d, 10, {5, 5}},     {Shape::Disk2d, 11, {5, 6}},
        {Shape::Ball3d, 0, {0}},        {Shape::Ball3d, 1, {1}},         {Shape::Ball3d, 2, {1, 1}},
        {Shape::Ball3d, 3, {1, 2}},     {Shape::Ball3d, 4, {2, 1, 1}},   {Shape::Ball3d, 7, {4, 2, 1}},
        {Shape::Ball3d, 10, {6, 3, 1}}, {Shape::Ball3d, 20, {12, 6, 2}},
    };
    for (const Row& row : rows) {
        SeCase c{row.shape, true, 0, row.radius};
        c.extents = c.dims() == 2 ? Extents{40, 20, 1, 1, 1} : Extents{20, 10, 6, 1, 1};
        c.threads = 1;
        c.grain = kOneBlock;
        MemoryImage input(UInt8, c.extents);
        fill(input, row.radius);
        Recorder recorder;
        bool used = false;
        runCase(c, input, true, &used, &recorder);
        ASSERT_TRUE(used);
        std::vector<int> expected = expectedProgress(row.passes);
        EXPECT_EQ(recorder.permille, expected) << c.name(UInt8);
    }
}

// A cancellation during the first stage ends the call: no later stage runs, and each output voxel
// is untouched or the first pass's value.
TEST_F(SeRunnerTest, CancellationInTheFirstStageStopsTheLaterOnes) {
    struct CancelEarly : Recorder {
        BaseAlgorithm* algo = nullptr;
        void onProgress(double f) override {
            Recorder::onProgress(f);
            algo->cancelExecution();
        }
    };
    // Budget 0: the stages run in place and the first pass writes the output; otherwise every pass
    // goes between the output and one temporary image, the first (of four) to the temporary.
    for (std::uint64_t budget : {std::uint64_t(0), kHuge})
    for (Shape shape : {Shape::Disk2d, Shape::Ball3d}) {
        SeCase c{shape, true, 0, 4};  // disk: 2 square then 2 cross passes; ball: 2, 1, 1
        c.extents = shape == Shape::Disk2d ? Extents{300, 400, 1, 1, 1} : Extents{40, 30, 60, 1, 1};
        c.grain = {1, 1, kHuge};
        c.budget = budget;
        MemoryImage input(Float, c.extents);
        fill(input, 4);
        auto algo = makeAlgorithm(shape, true);
        MemoryImage out(Float, c.extents);
        std::memset(out.data(), 0x5a, out.getSizeInBytes());
        configure(algo.get(), c, &input, &out);
        CancelEarly cancel;
        cancel.algo = algo.get();
        algo->setProgressObserver(&cancel);
        EXPECT_THROW(algo->execute(), ExceptionCancelation);
        ASSERT_NE(algo->getLastRunner(), nullptr);
        ASSERT_FALSE(cancel.permille.empty());
        const int firstStageEnd = shape == Shape::Disk2d ? 500 : 333;
        EXPECT_LT(cancel.permille.back(), firstStageEnd / 2) << "a later pass or stage ran";

        // One pass of the first stage's kernel: the 8-connected square, or the 6-connected cube.
        auto square = makeSquare(shape == Shape::Disk2d ? 2 : 3, true);
        MemoryImage onePass;
        square->inputImage = &input;
        square->outputImage = &onePass;
        square->neighborhood = shape == Shape::Disk2d ? 1 : 0;
        square->kernelRadius = 1;
        square->execute();
        float sentinel;
        std::memset(&sentinel, 0x5a, sizeof sentinel);
        std::uint64_t untouched = 0;
        for (std::uint64_t i = 0; i < out.getNumOfVoxels(); ++i) {
            const float v = out.dataAs<float>()[i], r = onePass.dataAs<float>()[i];
            const bool isSentinel = std::memcmp(&v, &sentinel, sizeof v) == 0;
            untouched += isSentinel;
            ASSERT_TRUE(isSentinel || std::memcmp(&v, &r, sizeof v) == 0) << "voxel " << i;
        }
        EXPECT_GT(untouched, 0u) << "cancellation came too late to be seen";
    }
}

// ---------------------------------------------------------------------------------------------
// Without AVX2, on types the plug-in does not serve, and when output and input types differ,
// every runner declines and the generic code serves.
TEST_F(SeRunnerTest, RunnersDecline) {
    for (const SeCase& shape : kShapes) {
        SeCase c = shape;
        c.size = 2;
        c.extents = c.dims() == 2 ? Extents{20, 10, 1, 1, 1} : Extents{20, 10, 4, 1, 1};
        MemoryImage in(Int16, c.extents), out(Int16, c.extents), other(Int32, c.extents);
        fill(in, 3);
        auto algo = makeAlgorithm(c.shape, c.dilate);
        configure(algo.get(), c, &in, &out);
        EXPECT_NE(algo->selectRunner(), nullptr) << c.name(Int16);
        for (int level : {0, 1}) {
            devices::Cpu::overrideAVXLevel(level);
            EXPECT_EQ(algo->selectRunner(), nullptr) << c.name(Int16) << " AVX level " << level;
        }
        devices::Cpu::overrideAVXLevel(-1);
        configure(algo.get(), c, &in, &other);
        EXPECT_EQ(algo->selectRunner(), nullptr) << c.name(Int16) << " into int32";
        MemoryImage wide(UInt64, c.extents), wideOut(UInt64, c.extents);
        configure(algo.get(), c, &wide, &wideOut);
        EXPECT_EQ(algo->selectRunner(), nullptr) << c.name(UInt64);
    }
}

} // namespace
