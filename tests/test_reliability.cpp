// The API where it used to mislead: extrema at the edges of the value range (infinities, NaN
// only, empty, 64-bit integers), cancellation asked for before a run, images with axes of extent 0,
// byte counts that are not decimal, and libraries that are not our plug-in. Runs with the real
// plug-in (LYN_PLUGIN) so that both implementations go through the same checks.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "host/Algorithms.h"
#include "host/Cpu.h"
#include "host/PluginLoader.h"
#include "host/Settings.h"

using namespace lyn;
using analysis::ExactValue;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Extremes {
    std::vector<ExactValue> min, max;
    std::vector<double> dmin, dmax;
};

Extremes extremaOf(const ImageModel& image, int mode, bool plugin) {
    analysis::IntensityExtremaMsr msr;
    analysis::IntensityExtrema algo;
    algo.inputImage = &image;
    algo.rangeMode = mode;
    algo.result = &msr;
    algo.setUsePlugin(plugin);
    algo.execute();
    return {msr.exactMinimum(), msr.exactMaximum(), msr.minimum().values(), msr.maximum().values()};
}

template <class T>
std::unique_ptr<MemoryImage> filled(VoxelTypes t, Extents e, std::vector<T> values) {
    auto img = std::make_unique<MemoryImage>(t, e);
    for (std::uint64_t i = 0; i < img->getNumOfVoxels(); ++i) img->dataAs<T>()[i] = values[i % values.size()];
    return img;
}

// Every element's expected minimum and maximum as text ("none" when it has no values), both paths.
template <class T>
void expectExtrema(VoxelTypes t, Extents e, std::vector<T> values, int mode, std::vector<std::string> mins,
                   std::vector<std::string> maxs) {
    auto img = filled<T>(t, e, values);
    for (bool plugin : {true, false}) {
        const Extremes x = extremaOf(*img, mode, plugin);
        ASSERT_EQ(x.min.size(), mins.size());
        for (std::size_t i = 0; i < mins.size(); ++i) {
            const std::string what = std::string(voxelTypeName(t)) + (plugin ? " plug-in" : " generic") + " element " +
                                     std::to_string(i);
            EXPECT_EQ(x.min[i].toString(), mins[i]) << what;
            EXPECT_EQ(x.max[i].toString(), maxs[i]) << what;
            // The doubles agree, NaN standing for "no value".
            EXPECT_TRUE(mins[i] == "none" ? std::isnan(x.dmin[i]) : x.dmin[i] == x.min[i].toDouble()) << what;
            EXPECT_TRUE(maxs[i] == "none" ? std::isnan(x.dmax[i]) : x.dmax[i] == x.max[i].toDouble()) << what;
        }
    }
}

TEST(ExtremaEdges, InfinitiesNaNAndFiniteLimitsAreReportedAsTheyAre) {
    const float fmax = std::numeric_limits<float>::max();
    // Per plan: +inf only, -inf only, NaN only, NaN with +inf, the finite limits themselves.
    expectExtrema<float>(Float, {9, 2, 1, 1, 1}, {float(kInf)}, 0, {"inf"}, {"inf"});
    expectExtrema<float>(Float, {9, 2, 1, 1, 1}, {-float(kInf)}, 0, {"-inf"}, {"-inf"});
    expectExtrema<double>(Double, {9, 2, 1, 1, 1}, {kInf}, 0, {"inf"}, {"inf"});
    expectExtrema<double>(Double, {9, 2, 1, 1, 1}, {-kInf}, 0, {"-inf"}, {"-inf"});
    expectExtrema<double>(Double, {9, 2, 1, 1, 1}, {kNaN}, 0, {"none"}, {"none"});
    expectExtrema<float>(Float, {9, 2, 1, 1, 1}, {float(kNaN), float(kInf)}, 0, {"inf"}, {"inf"});
    expectExtrema<float>(Float, {9, 2, 1, 1, 1}, {fmax, -fmax}, 0, {"-3.4028234663852886e+38"}, {"3.4028234663852886e+38"});
    // Plans mixing the cases in one image, for the per-plan mode.
    std::vector<float> planwise(5 * 3 * 4);
    for (int i = 0; i < 15; ++i) {
        planwise[i] = float(kInf);
        planwise[15 + i] = float(kNaN);
        planwise[30 + i] = -float(kInf);
        planwise[45 + i] = float(i) - 7;
    }
    expectExtrema<float>(Float, {5, 3, 4, 1, 1}, planwise, 1, {"inf", "none", "-inf", "-7"}, {"inf", "none", "-inf", "7"});
    // Integers at their limits: a re-scan confirms them.
    expectExtrema<std::uint8_t>(UInt8, {40, 3, 1, 1, 1}, {255}, 0, {"255"}, {"255"});
    expectExtrema<std::int16_t>(Int16, {40, 3, 1, 1, 1}, {-32768}, 0, {"-32768"}, {"-32768"});
}

TEST(ExtremaEdges, SixtyFourBitIntegersAreExact) {
    const std::int64_t big = (std::int64_t(1) << 53) + 1;
    expectExtrema<std::int64_t>(Int64, {5, 2, 1, 1, 1}, {big, -big, 7}, 0, {"-9007199254740993"}, {"9007199254740993"});
    expectExtrema<std::uint64_t>(UInt64, {5, 2, 1, 1, 1}, {std::numeric_limits<std::uint64_t>::max(), 1}, 0, {"1"},
                                 {"18446744073709551615"});
    expectExtrema<std::int64_t>(Int64, {3, 1, 1, 1, 1}, {std::numeric_limits<std::int64_t>::max()}, 0,
                                {"9223372036854775807"}, {"9223372036854775807"});
}

TEST(ExtremaEdges, AnEmptyImageHasNoValues) {
    MemoryImage empty(Float, Extents{0, 0, 0, 0, 0});
    for (bool plugin : {true, false}) {
        const Extremes x = extremaOf(empty, 0, plugin);
        ASSERT_EQ(x.min.size(), 1u);
        EXPECT_FALSE(x.min[0].hasValue());
        EXPECT_FALSE(x.max[0].hasValue());
        EXPECT_TRUE(std::isnan(x.dmin[0]) && std::isnan(x.dmax[0]));
    }
}

TEST(ExactValueText, ShortestRoundTripAndWholeIntegers) {
    EXPECT_EQ(ExactValue::ofReal(0.1).toString(), "0.1");
    EXPECT_EQ(ExactValue::ofReal(1e300).toString(), "1e+300");
    EXPECT_EQ(ExactValue::ofReal(double(0.1f)).toString(), "0.10000000149011612");
    EXPECT_EQ(ExactValue::ofReal(kNaN).toString(), "none");
    EXPECT_EQ(ExactValue::ofSigned(std::numeric_limits<std::int64_t>::min()).toString(), "-9223372036854775808");
}

// ---------------------------------------------------------------------------------------------
TEST(Cancellation, RequestedBeforeTheRunStopsItAtOnceAndIsThenSpent) {
    MemoryImage in(Float, 200, 200, 40);
    MemoryImage out;
    morphology::Dilation3d algo;
    algo.inputImage = &in;
    algo.outputImage = &out;
    algo.kernelRadius = 200;
    algo.setUsePlugin(false);
    algo.cancelExecution();
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_THROW(algo.execute(), ExceptionCancelation);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    algo.kernelRadius = 1;
    EXPECT_NO_THROW(algo.execute());
}

// ---------------------------------------------------------------------------------------------
TEST(ImageExtents, AxesOfZeroBesideOthersAreRefused) {
    std::vector<float> buffer(12);
    EXPECT_THROW(MemoryImage(buffer.data(), Float, Extents{4, 3}), RuleException);
    EXPECT_THROW(MemoryImage(Float, Extents{4, 3, 0, 1, 1}), RuleException);
    MemoryImage img;
    EXPECT_THROW(img.allocate(UInt8, {4, 0, 1, 1, 1}), RuleException);
    EXPECT_NO_THROW(MemoryImage(buffer.data(), Float, Extents{4, 3, 1, 1, 1}));
    EXPECT_EQ(MemoryImage(Float, 4, 3).getNumOfVoxels(), 12u);
    EXPECT_EQ(MemoryImage(Float, Extents{0, 0, 0, 0, 0}).getNumOfVoxels(), 0u);
}

TEST(ByteCounts, DecimalOnly) {
    EXPECT_EQ(parseByteCount("1024", "x"), 1024u);
    EXPECT_EQ(parseByteCount("512M", "x"), 512u << 20);
    EXPECT_EQ(parseByteCount("1.5K", "x"), 1536u);
    EXPECT_EQ(parseByteCount("010", "x"), 10u);
    for (const char* bad : {"1e3", "0x10M", "0x10", "+5", "-1", " 5", "inf", "nan", ".5", "5.", "M", ""})
        EXPECT_THROW(parseByteCount(bad, "x"), RuleException) << bad;
}

// ---------------------------------------------------------------------------------------------
TEST(PluginLoading, ALibraryThatRegistersNoRunnerIsNotOurPlugin) {
    Plugin::unload();
    EXPECT_FALSE(Plugin::load("libm.so.6"));
    EXPECT_NE(Plugin::lastError().find("not a lyn plug-in"), std::string::npos) << Plugin::lastError();
    EXPECT_FALSE(Plugin::isLoaded());
    EXPECT_TRUE(Plugin::load(Plugin::defaultPath())) << Plugin::lastError();
}

} // namespace
