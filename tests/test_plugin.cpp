// Through the real plug-in module: loading and registration, then every runner against the host's
// generic code, bit for bit, over voxel types, sizes around the vector width, neighbourhoods, pass
// counts, in-place runs, temporary images, thread counts and block sizes.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <mutex>
#include <thread>
#include <vector>

#include "host/Algorithms.h"
#include "host/Cpu.h"
#include "host/PluginLoader.h"
#include "host/Settings.h"
#include "tests/support.h"

#include <sys/resource.h>
#include <unistd.h>

using namespace lyn;
using namespace lyn::test;

namespace {

const Grain kDefaultGrain = AbstractPartitionerPolicy::defaults();

// The runners' own passes against the generic passes: no box on either side (test_box covers it),
// whether or not the environment says so.
struct PassesNotBoxes : ::testing::Environment {
    void SetUp() override {
        if (!std::getenv("LYN_GENERIC_BOX")) globalSettings()->setValue("LYN_GENERIC_BOX", "0");
    }
};
const ::testing::Environment* const kPassesNotBoxes = ::testing::AddGlobalTestEnvironment(new PassesNotBoxes);

bool hasAvx2() { return devices::Cpu::getDevice().getAVXLevel() >= 2; }

std::string pluginPath() { return Plugin::defaultPath(); }

std::size_t runnerCount(const char* cls) {
    AlgoInfo* info = AlgoRegistry::getClassInfo(cls);
    return info ? info->getRunners().size() : 0;
}

struct MorphCase {
    int dims;
    bool dilate;
    int neighbourhood;
    unsigned passes;
    Extents extents;
    bool inPlace = false;
    std::uint64_t budget = kHuge;
    int threads = 2;
    Grain grain = kDefaultGrain;

    std::string name(VoxelTypes t) const {
        return std::string(voxelTypeName(t)) + (dilate ? " dilate " : " erode ") + std::to_string(dims) + "D n=" +
               std::to_string(neighbourhood) + " passes=" + std::to_string(passes) + " " +
               std::to_string(extents[0]) + "x" + std::to_string(extents[1]) + "x" + std::to_string(extents[2]) + "x" +
               std::to_string(extents[3]) + "x" + std::to_string(extents[4]) + (inPlace ? " in-place" : "") +
               " budget=" + std::to_string(budget) + " threads=" + std::to_string(threads) + " grain=" +
               std::to_string(grain.plans) + "," + std::to_string(grain.rows) + "," + std::to_string(grain.cols);
    }
};

// Runs the case through the plug-in or the generic code; the output starts as a sentinel pattern
// so that zero passes can be seen to leave it untouched.
std::unique_ptr<MemoryImage> runMorph(const MorphCase& c, const MemoryImage& input, bool plugin, bool* usedRunner) {
    auto algo = makeSquare(c.dims, c.dilate);
    auto out = std::make_unique<MemoryImage>(input.getVoxelType(), c.extents);
    if (c.inPlace) std::memcpy(out->data(), input.data(), input.getSizeInBytes());
    else std::memset(out->data(), 0x5a, out->getSizeInBytes());
    algo->inputImage = c.inPlace ? out.get() : &input;
    algo->outputImage = out.get();
    algo->kernelRadius = c.passes;
    algo->neighborhood = c.neighbourhood;
    algo->setUsePlugin(plugin);
    algo->setMaxThreads(c.threads);
    algo->setGrainSizes(c.grain);
    algo->setMaximumExtraMemoryUsageInBytes(c.budget);
    algo->execute();
    if (usedRunner) *usedRunner = algo->getLastRunner() != nullptr;
    return out;
}

void checkMorph(const MorphCase& c, VoxelTypes t, std::uint64_t seed,
                const std::function<void(MemoryImage&)>& fillWith = nullptr) {
    MemoryImage input(t, c.extents);
    if (fillWith) fillWith(input);
    else fill(input, seed);
    bool used = false;
    auto fast = runMorph(c, input, true, &used);
    auto reference = runMorph(c, input, false, nullptr);
    ASSERT_TRUE(used) << "plug-in declined: " << c.name(t);
    ASSERT_TRUE(sameBits(*fast, *reference)) << c.name(t) << ": " << firstDifference(*fast, *reference);
}

class PluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!hasAvx2()) GTEST_SKIP() << "the processor has no AVX2: every runner declines";
        ASSERT_TRUE(Plugin::load(pluginPath())) << Plugin::lastError();
    }
};

// ---------------------------------------------------------------------------------------------
TEST(PluginLoadTest, LoadingRegistersAndUnloadingRemovesRunners) {
    const char* withRunners[] = {"lyn::analysis::IntensityExtrema",   "lyn::morphology::Dilation2d",
                                 "lyn::morphology::Dilation3d",       "lyn::morphology::DilationBall3d",
                                 "lyn::morphology::DilationDisk2d",   "lyn::morphology::DilationDisk3d",
                                 "lyn::morphology::DilationLine2d",   "lyn::morphology::DilationLine3d",
                                 "lyn::morphology::Erosion2d",        "lyn::morphology::Erosion3d",
                                 "lyn::morphology::ErosionBall3d",    "lyn::morphology::ErosionDisk2d",
                                 "lyn::morphology::ErosionDisk3d",    "lyn::morphology::ErosionLine2d",
                                 "lyn::morphology::ErosionLine3d"};
    Plugin::unload();
    for (const char* cls : algorithmClassNames()) EXPECT_EQ(runnerCount(cls), 0u) << cls;
    ASSERT_TRUE(Plugin::load(pluginPath())) << Plugin::lastError();
    for (const char* cls : algorithmClassNames()) {
        const bool expected = std::find_if(std::begin(withRunners), std::end(withRunners),
                                           [&](const char* c) { return std::string(c) == cls; }) != std::end(withRunners);
        EXPECT_EQ(runnerCount(cls), expected ? 1u : 0u) << cls;
    }
    Plugin::unload();
    for (const char* cls : withRunners) EXPECT_EQ(runnerCount(cls), 0u) << cls;

    // A class unavailable at load time gets no runner, and unloading does not touch it.
    AlgoRegistry::setClassAvailable("lyn::morphology::Dilation3d", false);
    ASSERT_TRUE(Plugin::load(pluginPath()));
    AlgoRegistry::setClassAvailable("lyn::morphology::Dilation3d", true);
    EXPECT_EQ(runnerCount("lyn::morphology::Dilation3d"), 0u);
    EXPECT_EQ(runnerCount("lyn::morphology::Erosion3d"), 1u);
    Plugin::unload();
    EXPECT_EQ(runnerCount("lyn::morphology::Erosion3d"), 0u);
    ASSERT_TRUE(Plugin::load(pluginPath()));
    EXPECT_EQ(runnerCount("lyn::morphology::Dilation3d"), 1u);
    EXPECT_FALSE(Plugin::load("/nonexistent/liblyn_avx2.so"));  // another path while one is loaded
}

TEST_F(PluginTest, RunnersDeclineBeyondTheirLimitsAndTheGenericCodeServes) {
    MemoryImage in(UInt8, 40, 30), out;
    fill(in, 1);
    morphology::Dilation2d d;
    d.inputImage = &in;
    d.outputImage = &out;
    d.neighborhood = 0;
    d.kernelRadius = 47;
    d.execute();
    EXPECT_EQ(d.getLastRunner(), nullptr);
    d.kernelRadius = 46;
    EXPECT_NE(d.selectRunner(), nullptr);
    devices::Cpu::overrideAVXLevel(1);
    EXPECT_EQ(d.selectRunner(), nullptr);
    devices::Cpu::overrideAVXLevel(-1);
    MemoryImage wide(UInt64, 8, 8);
    d.inputImage = &wide;
    EXPECT_EQ(d.selectRunner(), nullptr);
}

// ---------------------------------------------------------------------------------------------
TEST_F(PluginTest, Square2dEveryTypeNeighbourhoodAndPassCount) {
    forAll([](VoxelTypes t, bool dilate, int n, unsigned passes) {
        checkMorph({2, dilate, n, passes, {37, 29, 1, 1, 1}, false, kHuge, 2, {1, 4, 8}}, t, passes * 7 + unsigned(n + 3));
    }, kServed, std::array{true, false}, std::array{0, 1, 2, -3}, std::array{0u, 1u, 2u, 3u, 4u, 30u});
}

TEST_F(PluginTest, Square2dSizesAroundTheVectorWidth) {
    for (VoxelTypes t : kServed) {
        const std::uint64_t l = lanes(t);
        forAll([&](std::uint64_t w, std::uint64_t h, int n) {
            checkMorph({2, (w + h) % 2 == 0, n, 2, {w, h, 1, 1, 1}, false, kHuge, 2, {1, 1, 5}}, t, w * 131 + h);
        }, std::array{std::uint64_t(1), l - 1, l, l + 1, 2 * l + 3}, std::array{std::uint64_t(1), std::uint64_t(2), l - 1, l + 1},
           std::array{0, 1});
    }
}

TEST_F(PluginTest, Square2dInPlaceTemporaryImagesThreadsAndBlocks) {
    const Grain grains[] = {{1, 1, 1}, {1, 3, 5}, kDefaultGrain};
    forAll([](VoxelTypes t, int n, bool inPlace, std::uint64_t budget, int threads, const Grain& g, unsigned passes) {
        checkMorph({2, n == 0, n, passes, {71, 53, 2, 1, 1}, inPlace, budget, threads, g}, t, passes + unsigned(threads) * 3);
    }, std::array{UInt8, Int16, Float, Double}, std::array{0, 1}, std::array{false, true}, std::array{std::uint64_t(0), kHuge},
       std::array{1, 2}, grains, std::array{1u, 3u, 4u});
}

TEST_F(PluginTest, Cube3dEveryTypeNeighbourhoodAndPassCount) {
    forAll([](VoxelTypes t, bool dilate, int n, unsigned passes) {
        checkMorph({3, dilate, n, passes, {13, 11, 9, 1, 1}, false, kHuge, 2, {1, 2, 8}}, t, passes * 11 + unsigned(n));
    }, kServed, std::array{true, false}, std::array{0, 1, 2, 7}, std::array{0u, 1u, 2u, 3u, 8u});
}

TEST_F(PluginTest, Cube3dSizesAroundTheVectorWidth) {
    for (VoxelTypes t : kServed) {
        const std::uint64_t l = lanes(t);
        forAll([&](std::uint64_t w, std::uint64_t h, std::uint64_t p, int n) {
            checkMorph({3, (w + p) % 2 == 1, n, 2, {w, h, p, 1, 1}, false, kHuge, 2, {1, 1, 7}}, t, w + h * 7 + p);
        }, std::array{std::uint64_t(1), l - 1, l, l + 1}, std::array<std::uint64_t, 2>{1, 3},
           std::array<std::uint64_t, 3>{1, 2, 5}, std::array{0, 1, 2});
    }
}

TEST_F(PluginTest, Cube3dInPlaceTemporaryImagesSeriesThreadsAndBlocks) {
    const Grain grains[] = {{1, 1, 1}, {2, 3, 5}, kDefaultGrain};
    forAll([](VoxelTypes t, int n, bool inPlace, std::uint64_t budget, int threads, const Grain& g) {
        checkMorph({3, n != 1, n, 3, {19, 9, 7, 2, 2}, inPlace, budget, threads, g}, t, unsigned(n) * 5 + 1);
    }, std::array{UInt8, Int32, Float, Double}, std::array{0, 1, 2}, std::array{false, true},
       std::array{std::uint64_t(0), kHuge}, std::array{1, 2}, grains);
}

// Passes that do not write their input read its rows in place and complete the first and last
// vector of each row from the voxel beside the block (or the border value): widths just above the
// vector width, blocks that start and end inside rows (whole vectors or not), and streaming stores
// on and off.
TEST_F(PluginTest, RowsReadInPlaceAcrossWidthsColumnSplitsAndStreaming) {
    for (const char* streamFrom : {"0", ""}) {
        if (*streamFrom) globalSettings()->setValue("LYN_STREAMING_STORES_MIN_BYTES", streamFrom);
        else globalSettings()->unsetValue("LYN_STREAMING_STORES_MIN_BYTES");
        for (VoxelTypes t : kServed) {
            const std::uint64_t lanes = 32 / helper::getSizeOf(t);
            const Grain grains[] = {kDefaultGrain, {2, 3, lanes + 1}, {1, 2, 2 * lanes}};
            for (std::uint64_t w : {lanes + 1, 2 * lanes - 1, 2 * lanes, 2 * lanes + 1, 3 * lanes + 5, 4 * lanes})
                for (const Grain& g : grains) {
                    for (int n : {0, 1})
                        checkMorph({2, n == 0, n, 1 + unsigned(w % 2), {w, 6, 1, 1, 1}, false, kHuge, 2, g}, t, w + unsigned(n));
                    for (int n : {0, 1, 2})
                        checkMorph({3, n != 1, n, 1 + unsigned(w % 2), {w, 4, 5, 1, 1}, false, kHuge, 2, g}, t, w * 3 + unsigned(n));
                }
        }
    }
    globalSettings()->unsetValue("LYN_STREAMING_STORES_MIN_BYTES");
}

// Float 18- and 26-connected kernels fold plans in any order where neither NaN nor -0.0 can show
// the order, and in the fixed order from the plan before such a voxel on. Values -1 or 1 and +0.0,
// so that zero is often the result, and one NaN or -0.0 placed inside, at block edges (columns
// lanes and lanes + 1 with the column grain), and in the first and last rows and plans.
TEST_F(PluginTest, FloatPlansWithoutNaNOrNegativeZeroFoldInAnyOrder) {
    for (VoxelTypes t : {Float, Double}) {
        const std::uint64_t lanes = 32 / helper::getSizeOf(t);
        const std::uint64_t w = 2 * lanes + 3;
        const std::array<std::uint64_t, 3> places[] = {{5, 3, 4},        {0, 0, 0},         {w - 1, 6, 8},
                                                        {lanes, 3, 1},   {lanes + 1, 2, 7}, {w - 1, 0, 4}};
        for (const Grain& g : {Grain{16, 16, w}, Grain{3, 2, lanes + 1}})  // one block; many
            for (int n : {1, 2})
                for (bool dilate : {true, false})
                    for (int special = 0; special < 3; ++special)
                        for (const auto& at : places) {
                            const auto fillWith = [&](MemoryImage& image) {
                                dispatchVoxelType(image.getVoxelType(), [&](auto traits) {
                                    using T = typename decltype(traits)::type;
                                    if constexpr (std::is_floating_point_v<T>) {
                                        std::mt19937_64 rng(at[0] + at[1] * 3 + at[2] * 7);
                                        T* d = image.template dataAs<T>();
                                        for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i)
                                            d[i] = rng() % 2 ? T(0) : T(dilate ? -1 : 1);
                                        const T value = special == 0 ? std::numeric_limits<T>::quiet_NaN() : -T(0);
                                        if (special < 2) d[at[0] + w * (at[1] + 7 * at[2])] = value;
                                    }
                                });
                            };
                            checkMorph({3, dilate, n, 1, {w, 7, 9, 1, 1}, false, kHuge, 2, g}, t, 0, fillWith);
                            if (special == 2) break;  // no special voxel: one placement is enough
                        }
    }
}

// Border values are the finite extremes, so an all -inf neighbourhood dilates to the lowest float.
TEST_F(PluginTest, BorderValuesAreTheTypesFiniteExtremes) {
    MemoryImage in(Float, 3, 3), out;
    for (int i = 0; i < 9; ++i) in.dataAs<float>()[i] = -std::numeric_limits<float>::infinity();
    morphology::Dilation2d d;
    d.inputImage = &in;
    d.outputImage = &out;
    d.neighborhood = 1;
    d.kernelRadius = 1;
    d.execute();
    ASSERT_NE(d.getLastRunner(), nullptr);
    EXPECT_EQ(out.dataAs<float>()[0], std::numeric_limits<float>::lowest());
    EXPECT_EQ(out.dataAs<float>()[4], -std::numeric_limits<float>::infinity());

    MemoryImage white(UInt8, 33, 5, 4), eroded;
    std::memset(white.data(), 255, white.getSizeInBytes());
    morphology::Erosion3d e;
    e.inputImage = &white;
    e.outputImage = &eroded;
    e.neighborhood = 2;
    e.kernelRadius = 2;
    e.execute();
    ASSERT_NE(e.getLastRunner(), nullptr);
    for (std::uint64_t i = 0; i < eroded.getNumOfVoxels(); ++i) ASSERT_EQ(eroded.dataAs<std::uint8_t>()[i], 255);
}

// ---------------------------------------------------------------------------------------------
void checkExtrema(VoxelTypes t, int mode, const Extents& e, const Grain& g, int threads, std::uint64_t seed,
                  void (*tweak)(MemoryImage&) = nullptr) {
    MemoryImage input(t, e);
    fill(input, seed);
    if (tweak) tweak(input);
    analysis::IntensityExtremaMsr fast, reference;
    for (bool plugin : {true, false}) {
        analysis::IntensityExtrema algo;
        algo.inputImage = &input;
        algo.rangeMode = mode;
        algo.result = plugin ? &fast : &reference;
        algo.setUsePlugin(plugin);
        algo.setGrainSizes(g);
        algo.setMaxThreads(threads);
        algo.execute();
        if (plugin) {
            ASSERT_NE(algo.getLastRunner(), nullptr);
        }
    }
    const std::string what = std::string(voxelTypeName(t)) + " mode " + std::to_string(mode) + " " + input.describe();
    ASSERT_EQ(fast.minimum().shape(), reference.minimum().shape()) << what;
    const auto& a = fast.minimum().values();
    const auto& b = reference.minimum().values();
    const auto& c = fast.maximum().values();
    const auto& d = reference.maximum().values();
    for (std::size_t i = 0; i < a.size(); ++i) {
        ASSERT_EQ(std::memcmp(&a[i], &b[i], sizeof(double)), 0) << what << " min[" << i << "] " << a[i] << " vs " << b[i];
        ASSERT_EQ(std::memcmp(&c[i], &d[i], sizeof(double)), 0) << what << " max[" << i << "] " << c[i] << " vs " << d[i];
    }
}

TEST_F(PluginTest, ExtremaEveryTypeModeShapeAndBlockSize) {
    const Grain grains[] = {{1, 1, 1}, {1, 2, 3}, kDefaultGrain};
    for (VoxelTypes t : kServed) {
        const std::uint64_t l = lanes(t);
        const Extents shapes[] = {{1, 1, 1, 1, 1}, {l - 1, 3, 2, 1, 1}, {l + 1, 5, 4, 3, 2}, {67, 13, 7, 2, 3}};
        forAll([&](int mode, const Extents& e, const Grain& g, int threads) {
            checkExtrema(t, mode, e, g, threads, e[0] + std::uint64_t(mode));
        }, std::array{0, 1, 2, 3, 4, 5, 6, 7}, shapes, grains, std::array{1, 2});
    }
}

TEST_F(PluginTest, ExtremaOfExtremeValues) {
    // Type limits (the early exit), a huge double, zeros of both signs only, and all-NaN planes.
    for (VoxelTypes t : kServed)
        checkExtrema(t, 1, {40, 9, 5, 1, 1}, {1, 1, 1}, 2, 3, [](MemoryImage& img) {
            dispatchVoxelType(img.getVoxelType(), [&](auto traits) {
                using T = typename decltype(traits)::type;
                T* d = img.template dataAs<T>();
                d[5] = decltype(traits)::lowest();
                d[77] = decltype(traits)::highest();
            });
        });
    checkExtrema(Double, 0, {9, 9, 9, 1, 1}, {1, 1, 1}, 2, 4, [](MemoryImage& img) { img.dataAs<double>()[400] = 1e300; });
    checkExtrema(Float, 1, {17, 3, 4, 1, 1}, {1, 1, 1}, 2, 5, [](MemoryImage& img) {
        float* d = img.dataAs<float>();
        for (int i = 0; i < 51; ++i) d[i] = (i % 2) ? -0.0f : 0.0f;               // plan 0: signed zeros
        for (int i = 51; i < 102; ++i) d[i] = std::numeric_limits<float>::quiet_NaN();  // plan 1: NaN only
    });
    MemoryImage big(Double, 9, 9, 9);
    fill(big, 5);
    big.dataAs<double>()[100] = 1e300;
    analysis::IntensityExtremaMsr msr;
    analysis::IntensityExtrema algo;
    algo.inputImage = &big;
    algo.result = &msr;
    algo.execute();
    EXPECT_EQ(msr.maximum().at(0), std::numeric_limits<double>::infinity());  // the fill holds +inf too
}

// ---------------------------------------------------------------------------------------------
// Cancels the algorithm from a worker thread as soon as progress passes a threshold.
struct CancelAt : ProgressObserver {
    BaseAlgorithm* algo;
    double threshold;
    CancelAt(BaseAlgorithm* a, double t) : algo(a), threshold(t) {}
    void onProgress(double f) override {
        if (f >= threshold) algo->cancelExecution();
    }
};

// After a cancelled single pass, every output voxel is either untouched or final.
void checkCancelledPass(int dims, int n, const Extents& e, const Grain& g) {
    MemoryImage input(Float, e);
    fill(input, 9);
    MorphCase c{dims, true, n, 1, e, false, 0, 2, g};
    auto reference = runMorph(c, input, false, nullptr);
    auto algo = makeSquare(dims, true);
    MemoryImage out(Float, e);
    std::memset(out.data(), 0x5a, out.getSizeInBytes());
    float sentinel;
    std::memset(&sentinel, 0x5a, sizeof sentinel);
    algo->inputImage = &input;
    algo->outputImage = &out;
    algo->kernelRadius = 1;
    algo->neighborhood = n;
    algo->setGrainSizes(g);
    CancelAt cancel(algo.get(), 0.001);
    algo->setProgressObserver(&cancel);
    EXPECT_THROW(algo->execute(), ExceptionCancelation);
    ASSERT_NE(algo->getLastRunner(), nullptr);
    std::uint64_t untouched = 0;
    for (std::uint64_t i = 0; i < out.getNumOfVoxels(); ++i) {
        const float v = out.dataAs<float>()[i], r = reference->dataAs<float>()[i];
        const bool isSentinel = std::memcmp(&v, &sentinel, sizeof v) == 0;
        untouched += isSentinel;
        ASSERT_TRUE(isSentinel || std::memcmp(&v, &r, sizeof v) == 0) << "voxel " << i;
    }
    EXPECT_GT(untouched, 0u) << "cancellation came too late to be seen";
    // The same object runs to completion afterwards.
    algo->setProgressObserver(nullptr);
    algo->execute();
    EXPECT_TRUE(sameBits(out, *reference));
}

TEST_F(PluginTest, CancellationStopsAPassAndLeavesConsistentOutput) {
    checkCancelledPass(2, 1, {256, 400, 1, 1, 1}, {1, 1, kHuge});
    checkCancelledPass(2, 0, {256, 400, 1, 1, 1}, {1, 1, kHuge});
    checkCancelledPass(3, 2, {40, 30, 60, 1, 1}, {1, 4, kHuge});
    checkCancelledPass(3, 0, {40, 30, 60, 1, 1}, {1, 4, kHuge});
}

TEST_F(PluginTest, CancellationBetweenPassesAndDuringExtrema) {
    MemoryImage input(UInt16, 64, 64, 16);
    fill(input, 2);
    MemoryImage out;
    morphology::Erosion3d e;
    e.inputImage = &input;
    e.outputImage = &out;
    e.kernelRadius = 6;
    e.neighborhood = 1;
    e.setGrainSizes({1, 64, kHuge});
    CancelAt cancel(&e, 0.5);
    e.setProgressObserver(&cancel);
    EXPECT_THROW(e.execute(), ExceptionCancelation);

    analysis::IntensityExtrema x;
    analysis::IntensityExtremaMsr msr;
    x.inputImage = &input;
    x.result = &msr;
    x.setGrainSizes({1, 1, kHuge});
    CancelAt cancelX(&x, 0.01);
    x.setProgressObserver(&cancelX);
    EXPECT_THROW(x.execute(), ExceptionCancelation);
}

// ---------------------------------------------------------------------------------------------
// An image whose voxels are reachable only through row reads and writes: the kernels cannot read
// its rows in place nor write output rows straight into it, and take the cached path.
TEST_F(PluginTest, ImagesWithoutAMemoryLayoutGiveTheSameResults) {
    forAll([](VoxelTypes t, int dims, int n, unsigned passes) {
        if (dims == 2 && n == 2) return;
        const Extents e = dims == 2 ? Extents{lanes(t) * 2 + 3, 9, 2, 1, 1} : Extents{lanes(t) + 3, 6, 5, 1, 1};
        OpaqueImage input(t, e);
        fill(input, e[0] + unsigned(n));
        MemoryImage plain(t, e);
        std::memcpy(plain.data(), input.data(), input.getSizeInBytes());
        MemoryImage reference;
        OpaqueImage out;
        for (bool plugin : {true, false}) {
            auto algo = makeSquare(dims, n != 1);
            algo->inputImage = plugin ? static_cast<const ImageModel*>(&input) : &plain;
            algo->outputImage = plugin ? static_cast<ImageModel*>(&out) : &reference;
            algo->neighborhood = n;
            algo->kernelRadius = passes;
            algo->setGrainSizes({2, 3, lanes(t) + 1});
            algo->setUsePlugin(plugin);
            algo->execute();
            if (plugin) {
                ASSERT_NE(algo->getLastRunner(), nullptr);
            }
        }
        ASSERT_TRUE(sameBits(out, reference)) << voxelTypeName(t) << " " << dims << "D n=" << n << " passes=" << passes
                                              << ": " << firstDifference(out, reference);
    }, std::array{UInt8, Int16, Float, Double}, std::array{2, 3}, std::array{0, 1, 2}, std::array{1u, 3u});

    // In place, and the extrema, of such an image.
    OpaqueImage inPlace(Float, 45, 13, 6);
    fill(inPlace, 8);
    MemoryImage plain(Float, 45, 13, 6), reference;
    std::memcpy(plain.data(), inPlace.data(), inPlace.getSizeInBytes());
    analysis::IntensityExtremaMsr opaqueMsr, plainMsr;
    for (bool plugin : {true, false}) {
        analysis::IntensityExtrema x;
        x.inputImage = plugin ? static_cast<const ImageModel*>(&inPlace) : &plain;
        x.result = plugin ? &opaqueMsr : &plainMsr;
        x.rangeMode = analysis::IntensityExtrema::PerPlan;
        x.setUsePlugin(plugin);
        x.execute();
    }
    const auto sameValues = [](const std::vector<double>& x, const std::vector<double>& y) {
        return x.size() == y.size() && std::memcmp(x.data(), y.data(), x.size() * sizeof(double)) == 0;
    };
    EXPECT_TRUE(sameValues(opaqueMsr.minimum().values(), plainMsr.minimum().values()));
    EXPECT_TRUE(sameValues(opaqueMsr.maximum().values(), plainMsr.maximum().values()));
    for (bool plugin : {true, false}) {
        morphology::Erosion3d e;
        e.inputImage = plugin ? static_cast<const ImageModel*>(&inPlace) : &plain;
        e.outputImage = plugin ? static_cast<ImageModel*>(&inPlace) : &reference;
        e.neighborhood = 1;
        e.kernelRadius = 2;
        e.setGrainSizes({2, 3, 9});
        e.setUsePlugin(plugin);
        e.execute();
    }
    EXPECT_TRUE(sameBits(inPlace, reference)) << firstDifference(inPlace, reference);
}

// Progress rises, never falls, and ends at one, whatever splits the work: passes (with a temporary
// image or in place), plans of a 2D image, series of a 3D one. One thread: two workers may hand
// the observer their reports in the other order.
struct ProgressLog : ProgressObserver {
    std::mutex mutex;
    std::vector<double> seen;
    void onProgress(double f) override {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(f);
    }
};

TEST_F(PluginTest, ProgressRisesToOneAcrossPassesPlansAndSeries) {
    forAll([](int dims, unsigned passes, std::uint64_t budget) {
        const Extents e = dims == 2 ? Extents{50, 40, 3, 1, 1} : Extents{20, 16, 12, 2, 2};
        MemoryImage input(UInt16, e), out;
        fill(input, 4);
        auto algo = makeSquare(dims, true);
        algo->inputImage = &input;
        algo->outputImage = &out;
        algo->kernelRadius = passes;
        algo->neighborhood = 1;
        algo->setMaximumExtraMemoryUsageInBytes(budget);
        algo->setGrainSizes({1, 2, kHuge});
        algo->setMaxThreads(1);
        ProgressLog log;
        algo->setProgressObserver(&log);
        algo->execute();
        ASSERT_NE(algo->getLastRunner(), nullptr);
        ASSERT_FALSE(log.seen.empty());
        for (std::size_t i = 1; i < log.seen.size(); ++i) ASSERT_LE(log.seen[i - 1], log.seen[i]) << i;
        EXPECT_EQ(log.seen.back(), 1.0);
        EXPECT_GE(log.seen.front(), 0.0);
    }, std::array{2, 3}, std::array{1u, 4u}, std::array{std::uint64_t(0), kHuge});
}

// Runners hold no state and every run builds its own filter, context and caches: two algorithms
// run from two host threads at once give what each gives alone.
TEST_F(PluginTest, TwoAlgorithmsRunFromTwoHostThreadsAtOnce) {
    MemoryImage a(Float, 67, 41, 23), b(UInt16, 130, 70, 1);
    fill(a, 11);
    fill(b, 12);
    auto runA = [&](MemoryImage& out) {
        morphology::Dilation3d d;
        d.inputImage = &a;
        d.outputImage = &out;
        d.neighborhood = 2;
        d.kernelRadius = 3;
        d.setGrainSizes({1, 4, 16});
        d.execute();
        return d.getLastRunner() != nullptr;
    };
    auto runB = [&](MemoryImage& out, analysis::IntensityExtremaMsr& msr) {
        morphology::Erosion2d e;
        e.inputImage = &b;
        e.outputImage = &out;
        e.neighborhood = 1;
        e.kernelRadius = 4;
        e.setGrainSizes({1, 3, 40});
        e.execute();
        analysis::IntensityExtrema x;
        x.inputImage = &out;
        x.result = &msr;
        x.execute();
        return e.getLastRunner() != nullptr && x.getLastRunner() != nullptr;
    };
    MemoryImage aAlone, bAlone;
    analysis::IntensityExtremaMsr msrAlone;
    ASSERT_TRUE(runA(aAlone));
    ASSERT_TRUE(runB(bAlone, msrAlone));
    for (int round = 0; round < 3; ++round) {
        MemoryImage aTogether, bTogether;
        analysis::IntensityExtremaMsr msrTogether;
        bool okA = false, okB = false;
        std::thread first([&] { okA = runA(aTogether); });
        std::thread second([&] { okB = runB(bTogether, msrTogether); });
        first.join();
        second.join();
        ASSERT_TRUE(okA && okB);
        ASSERT_TRUE(sameBits(aTogether, aAlone)) << firstDifference(aTogether, aAlone);
        ASSERT_TRUE(sameBits(bTogether, bAlone)) << firstDifference(bTogether, bAlone);
        EXPECT_EQ(msrTogether.minimum().at(0), msrAlone.minimum().at(0));
        EXPECT_EQ(msrTogether.maximum().at(0), msrAlone.maximum().at(0));
    }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// A temporary image that cannot be allocated stops the run with the host's rule error and leaves
// the output as it was. The address-space limit that makes the allocation fail is set in a child
// process (sanitizers reserve more address space than any such limit allows).
// Run in a child process: 0 when the run stops with the rule error and the output unchanged.
int dilateWithTheAddressSpaceNearlyFull() {
    MemoryImage input(Float, 256, 256, 64), out(Float, 256, 256, 64);  // 16 MiB each
    fill(input, 3);
    std::memset(out.data(), 0x5a, out.getSizeInBytes());
    long pages = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld", &pages) != 1) pages = 0;
        std::fclose(f);
    }
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = rlim_t(pages) * rlim_t(sysconf(_SC_PAGESIZE)) + (8u << 20);
    if (setrlimit(RLIMIT_AS, &limit) != 0) return 3;
    morphology::Dilation3d d;
    d.inputImage = &input;
    d.outputImage = &out;
    d.neighborhood = 2;
    d.kernelRadius = 2;
    d.setMaxThreads(1);
    d.setMaximumExtraMemoryUsageInBytes(kHuge);
    try {
        d.execute();
    } catch (const RuleException& e) {
        if (std::string(e.what()).find("The temporary in memory image cannot be allocated.") == std::string::npos) return 4;
        for (std::uint64_t i = 0; i < out.getSizeInBytes(); ++i)
            if (static_cast<const unsigned char*>(out.data())[i] != 0x5a) return 5;
        return 0;
    }
    return 1;
}

TEST_F(PluginTest, TemporaryImageThatCannotBeAllocatedStopsTheRunCleanly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(dilateWithTheAddressSpaceNearlyFull()), ::testing::ExitedWithCode(0), "");
}
#endif

} // namespace
