// Opening, closing, gradient and top-hats through the real plug-in: each against its stages run as
// separate algorithms and a subtraction written here, the plug-in against the generic code, in
// place and not; the intermediate image's budget, progress over all stages, and cancellation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "host/CompositeMorphology.h"
#include "host/Cpu.h"
#include "host/PluginLoader.h"
#include "host/generic/Generic.h"
#include "tests/support.h"

using namespace lyn;
using namespace lyn::test;
using morphology::CompositeMorphology;

namespace {

const CompositeMorphology::Operation kOps[] = {CompositeMorphology::Open, CompositeMorphology::Close,
                                               CompositeMorphology::Gradient, CompositeMorphology::TopHat,
                                               CompositeMorphology::BlackHat};
const char* kOpNames[] = {"open", "close", "gradient", "tophat", "blackhat"};

// Floats mix in NaN, both zeros, infinities and the finite extremes; integers span the whole range
// (so differences saturate) with many ties.
void fillWholeRange(MemoryImage& image, std::uint64_t seed) {
    std::mt19937_64 rng(seed);
    dispatchVoxelType(image.getVoxelType(), [&](auto traits) {
        using Traits = decltype(traits);
        using T = typename Traits::type;
        T* d = image.template dataAs<T>();
        for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i) {
            const std::uint64_t r = rng();
            if constexpr (std::is_floating_point_v<T>) {
                const T specials[] = {std::numeric_limits<T>::quiet_NaN(), T(0), -T(0), std::numeric_limits<T>::infinity(),
                                      -std::numeric_limits<T>::infinity(), std::numeric_limits<T>::lowest(),
                                      std::numeric_limits<T>::max()};
                d[i] = r % 40 < 7 ? specials[r % 40] : T(std::normal_distribution<double>(0, 100)(rng));
            } else {
                const T extremes[] = {Traits::lowest(), Traits::highest()};
                d[i] = r % 8 == 0 ? extremes[(r >> 3) & 1] : r % 8 < 4 ? T(r >> 8) : T(Traits::lowest() + T(r % 23));
            }
        }
    });
}


std::unique_ptr<MemoryImage> copyOf(const MemoryImage& image) {
    auto c = std::make_unique<MemoryImage>(image.getVoxelType(), image.extents());
    std::memcpy(c->data(), image.data(), image.getSizeInBytes());
    return c;
}

struct Case {
    int dims;
    unsigned passes;
    int neighbourhood;
    Extents extents;
};

morphology::StageFactory element(const Case& c) {
    shapes::ShapeParams p;
    p.radius = c.passes;
    p.connectivity = c.dims == 2 ? (c.neighbourhood == 0 ? 4 : 8) : (c.neighbourhood == 0 ? 6 : c.neighbourhood == 1 ? 18 : 26);
    return morphology::shapeElement(shapes::findShape(c.dims == 2 ? "square" : "cube"), p);
}

// One stage as a separate algorithm, on a copy.
std::unique_ptr<MemoryImage> stage(const Case& c, bool dilate, const MemoryImage& in, bool plugin) {
    auto algo = element(c)(dilate, false);
    auto out = copyOf(in);
    if (!algo) return out;
    algo->setImages(&in, out.get());
    algo->setUsePlugin(plugin);
    algo->execute();
    return out;
}

// a - b saturated to the type's range, or IEEE.
std::unique_ptr<MemoryImage> difference(const MemoryImage& a, const MemoryImage& b) {
    auto out = copyOf(a);
    dispatchVoxelType(a.getVoxelType(), [&](auto traits) {
        using Traits = decltype(traits);
        using T = typename Traits::type;
        for (std::uint64_t i = 0; i < a.getNumOfVoxels(); ++i) {
            const T x = a.dataAs<T>()[i], y = b.dataAs<T>()[i];
            T& r = out->dataAs<T>()[i];
            if constexpr (std::is_floating_point_v<T>) r = x - y;
            else if constexpr (std::is_unsigned_v<T>) r = y > x ? Traits::lowest() : std::min<T>(T(x - y), Traits::highest());
            else if (y > 0 && x < Traits::lowest() + y) r = Traits::lowest();
            else if (y < 0 && x > Traits::highest() + y) r = Traits::highest();
            else r = T(x - y);
        }
    });
    return out;
}

std::unique_ptr<MemoryImage> expected(CompositeMorphology::Operation op, const Case& c, const MemoryImage& in,
                                      bool plugin) {
    auto dil = [&](const MemoryImage& x) { return stage(c, true, x, plugin); };
    auto ero = [&](const MemoryImage& x) { return stage(c, false, x, plugin); };
    switch (op) {
    case CompositeMorphology::Open: return dil(*ero(in));
    case CompositeMorphology::Close: return ero(*dil(in));
    case CompositeMorphology::Gradient: return difference(*dil(in), *ero(in));
    case CompositeMorphology::TopHat: return difference(in, *dil(*ero(in)));
    case CompositeMorphology::BlackHat: return difference(*ero(*dil(in)), in);
    }
    return nullptr;
}

std::unique_ptr<CompositeMorphology> composite(CompositeMorphology::Operation op, const Case& c) {
    auto algo = CompositeMorphology::create(op);
    algo->setStructuringElement(element(c));
    return algo;
}

// Runs the composite into a fresh output (or over a copy of the input, in place).
std::unique_ptr<MemoryImage> run(CompositeMorphology& algo, const MemoryImage& in, bool inPlace, bool plugin) {
    auto out = inPlace ? copyOf(in) : std::make_unique<MemoryImage>();
    algo.inputImage = inPlace ? out.get() : &in;
    algo.outputImage = out.get();
    algo.setUsePlugin(plugin);
    algo.execute();
    return out;
}

class CompositeTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2: every runner declines";
        ASSERT_TRUE(Plugin::load(Plugin::defaultPath())) << Plugin::lastError();
    }
};

TEST_F(CompositeTest, EveryOperationTypeAndShapeMatchesItsStagesOnBothPathsInPlaceAndNot) {
    const VoxelTypes served[] = {UInt8, UInt16, UInt32, Int8, Int16, Int32, Float, Double};
    const Case cases[] = {{2, 1, 1, {37, 23, 1, 1, 1}},  {2, 2, 0, {33, 17, 2, 1, 1}}, {2, 0, 1, {9, 5, 1, 1, 1}},
                          {3, 1, 2, {19, 11, 7, 1, 1}},  {3, 2, 1, {17, 9, 6, 1, 1}},  {3, 1, 0, {35, 4, 5, 2, 1}}};
    std::uint64_t seed = 1;
    for (VoxelTypes t : served)
        for (const Case& c : cases) {
            MemoryImage in(t, c.extents);
            fillWholeRange(in, seed++);
            for (int k = 0; k < 5; ++k) {
                const auto op = kOps[k];
                const auto want = expected(op, c, in, false);
                for (bool plugin : {true, false})
                    for (bool inPlace : {false, true}) {
                        auto algo = composite(op, c);
                        const auto got = run(*algo, in, inPlace, plugin);
                        const std::string what = std::string(kOpNames[k]) + " " + voxelTypeName(t) + " " +
                                                 std::to_string(c.dims) + "D passes=" + std::to_string(c.passes) +
                                                 " n=" + std::to_string(c.neighbourhood) +
                                                 (plugin ? " plug-in" : " generic") + (inPlace ? " in place" : "");
                        ASSERT_EQ(firstDifference(*got, *want), "") << what;
                        for (const Runnable* r : algo->getStageRunners())
                            EXPECT_EQ(r != nullptr, plugin) << what << ": who served a stage";
                    }
            }
        }
}

TEST_F(CompositeTest, TypesOnlyTheHostServesAndSaturationAtBothEnds) {
    // Binary differences stay within 0..1; 64-bit integers saturate without overflowing.
    for (VoxelTypes t : {Binary, Int64, UInt64}) {
        MemoryImage in(t, 21, 13, 1);
        fillWholeRange(in, 7);
        if (t == Binary)
            for (std::uint64_t i = 0; i < in.getNumOfVoxels(); ++i) in.dataAs<std::uint8_t>()[i] &= 1;
        const Case c{2, 1, 1, in.extents()};
        for (int k = 0; k < 5; ++k) {
            auto algo = composite(kOps[k], c);
            EXPECT_EQ(firstDifference(*run(*algo, in, false, true), *expected(kOps[k], c, in, false)), "")
                << kOpNames[k] << " " << voxelTypeName(t);
        }
    }
    // int8 neighbours -128 and 127: the gradient saturates at 127, not -1.
    MemoryImage in(Int8, 2, 1, 1);
    in.dataAs<std::int8_t>()[0] = -128;
    in.dataAs<std::int8_t>()[1] = 127;
    auto g = composite(CompositeMorphology::Gradient, {2, 1, 1, in.extents()});
    const auto out = run(*g, in, false, true);
    EXPECT_EQ(out->dataAs<std::int8_t>()[0], 127);
    EXPECT_EQ(out->dataAs<std::int8_t>()[1], 127);
}

TEST_F(CompositeTest, OpeningBelowInputBelowClosingAndBothIdempotent) {
    for (VoxelTypes t : {UInt8, Int16, Float}) {
        MemoryImage in(t, 41, 29, 5);
        fillWholeRange(in, 11);
        // Ordering needs comparable values, and finite ones: the border is the finite extreme, so
        // an infinity at the edge would come out of a closing as that extreme.
        if (t == Float)
            for (std::uint64_t i = 0; i < in.getNumOfVoxels(); ++i)
                if (!std::isfinite(in.dataAs<float>()[i])) in.dataAs<float>()[i] = 1.5f;
        for (const Case& c : {Case{3, 2, 1, in.extents()}, Case{2, 3, 0, in.extents()}}) {
            auto open = composite(CompositeMorphology::Open, c), close = composite(CompositeMorphology::Close, c);
            const auto o = run(*open, in, false, true), cl = run(*close, in, false, true);
            dispatchVoxelType(t, [&](auto traits) {
                using T = typename decltype(traits)::type;
                for (std::uint64_t i = 0; i < in.getNumOfVoxels(); ++i) {
                    ASSERT_LE(o->dataAs<T>()[i], in.dataAs<T>()[i]) << i;
                    ASSERT_GE(cl->dataAs<T>()[i], in.dataAs<T>()[i]) << i;
                }
            });
            EXPECT_EQ(firstDifference(*run(*open, *o, true, true), *o), "") << voxelTypeName(t);
            EXPECT_EQ(firstDifference(*run(*close, *cl, true, true), *cl), "") << voxelTypeName(t);
        }
    }
}

TEST_F(CompositeTest, AnEvenLineIsMirroredByItsNegatedOffsetsAndItsOpeningStaysBelowTheInput) {
    shapes::ShapeParams p;
    p.length = 4;
    p.angle = 30.0;
    const auto line = morphology::shapeElement(shapes::findShape("line"), p);
    const auto plain = line(true, false), mirrored = line(true, true);
    ASSERT_NE(dynamic_cast<morphology::MirroredMorphology*>(mirrored.get()), nullptr);
    EXPECT_FALSE(morphology::isCentrallySymmetric(plain->passList()));
    const auto offsets = plain->passList().at(0).offsets, negated = mirrored->passList().at(0).offsets;
    ASSERT_EQ(offsets.size(), negated.size());
    for (std::size_t i = 0; i < offsets.size(); ++i)  // same order, every offset negated
        EXPECT_TRUE((negated[i] == kernel::Offset3D{-offsets[i].x, -offsets[i].y, -offsets[i].z})) << i;
    // An odd line, a disk and the fixed neighbourhoods are their own mirrors.
    p.length = 5;
    EXPECT_EQ(dynamic_cast<morphology::MirroredMorphology*>(morphology::shapeElement(shapes::findShape("line"), p)(true, true).get()), nullptr);

    p.length = 4;
    MemoryImage in(Int16, 31, 23, 1);
    fillWholeRange(in, 17);
    auto open = CompositeMorphology::create(CompositeMorphology::Open);
    auto close = CompositeMorphology::create(CompositeMorphology::Close);
    open->setStructuringElement(line);
    close->setStructuringElement(line);
    const auto o = run(*open, in, false, true), c = run(*close, in, false, true);
    for (std::uint64_t i = 0; i < in.getNumOfVoxels(); ++i) {
        ASSERT_LE(o->dataAs<std::int16_t>()[i], in.dataAs<std::int16_t>()[i]) << i;
        ASSERT_GE(c->dataAs<std::int16_t>()[i], in.dataAs<std::int16_t>()[i]) << i;
    }
    EXPECT_EQ(firstDifference(*run(*open, *o, true, true), *o), "");
    EXPECT_EQ(firstDifference(*run(*close, *c, true, false), *c), "");
}

TEST_F(CompositeTest, IntermediateImageWithinTheMemoryBudget) {
    MemoryImage in(UInt16, 64, 32, 4);  // 16 KiB
    fillWholeRange(in, 3);
    const Case c{3, 2, 2, in.extents()};
    // Gradient always holds one intermediate image; the top-hats only when they write over the input.
    for (auto [op, inPlace, needs] : {std::tuple{CompositeMorphology::Gradient, false, true},
                                      std::tuple{CompositeMorphology::TopHat, true, true},
                                      std::tuple{CompositeMorphology::TopHat, false, false},
                                      std::tuple{CompositeMorphology::BlackHat, false, false},
                                      std::tuple{CompositeMorphology::Open, true, false}}) {
        auto algo = composite(op, c);
        algo->setMaximumExtraMemoryUsageInBytes(in.getSizeInBytes());
        if (needs) {
            try {
                run(*algo, in, inPlace, true);
                ADD_FAILURE() << "no error without room for the intermediate image";
            } catch (const RuleException& e) {
                EXPECT_NE(std::string(e.what()).find("memory budget"), std::string::npos) << e.what();
            }
            algo->setMaximumExtraMemoryUsageInBytes(in.getSizeInBytes() + 1);
        }
        EXPECT_EQ(firstDifference(*run(*algo, in, inPlace, true), *expected(op, c, in, true)), "");
    }
}

TEST_F(CompositeTest, TheIntermediateImageIsKeptWhileItFitsAndReplacedWhenNot) {
    MemoryImage a(UInt16, 64, 32, 4), b(UInt16, 64, 32, 4), wider(UInt16, 65, 32, 4), other(Float, 64, 32, 4);
    for (MemoryImage* image : {&a, &b, &wider, &other}) fillWholeRange(*image, image->getNumOfVoxels() + image->getVoxelType());
    const Case c{3, 1, 2, a.extents()};
    auto algo = composite(CompositeMorphology::Gradient, c);
    const ImageModel* held = nullptr;
    // Same type and extents: the same image again; any change of either: a new one of the right size.
    for (auto [image, same] : {std::pair{&a, false}, std::pair{&b, true}, std::pair{&wider, false},
                               std::pair{&other, false}, std::pair{&a, false}, std::pair{&a, true}}) {
        EXPECT_EQ(firstDifference(*run(*algo, *image, false, true), *expected(CompositeMorphology::Gradient, c, *image, true)), "");
        ASSERT_NE(algo->getIntermediate(), nullptr);
        // (a new one may reuse the freed one's address, so only sameness is checked)
        if (same) {
            EXPECT_EQ(algo->getIntermediate(), held);
        }
        EXPECT_EQ(algo->getIntermediate()->extents(), image->extents());
        held = algo->getIntermediate();
    }
    algo->releaseIntermediate();
    EXPECT_EQ(algo->getIntermediate(), nullptr);
    // A top-hat beside its input needs none and keeps none.
    auto tophat = composite(CompositeMorphology::TopHat, c);
    run(*tophat, a, true, true);
    EXPECT_NE(tophat->getIntermediate(), nullptr);
    EXPECT_EQ(firstDifference(*run(*tophat, a, false, true), *expected(CompositeMorphology::TopHat, c, a, true)), "");
    EXPECT_EQ(tophat->getIntermediate(), nullptr);
}

struct Recorder : ProgressObserver {
    BaseAlgorithm* algo = nullptr;
    double cancelAt = 2;
    std::vector<double> seen;
    void onProgress(double f) override {
        seen.push_back(f);
        if (f >= cancelAt) algo->cancelExecution();
    }
};

TEST_F(CompositeTest, ProgressCoversEveryStageAndCancellationStopsAnyOfThem) {
    MemoryImage in(Float, 64, 64, 48);
    fillWholeRange(in, 5);
    const Case c{3, 3, 1, in.extents()};
    auto algo = composite(CompositeMorphology::Gradient, c);  // three steps: erosion, dilation, subtraction
    algo->setGrainSizes({1, 8, kHuge});
    Recorder all;
    algo->setProgressObserver(&all);
    run(*algo, in, false, true);
    ASSERT_FALSE(all.seen.empty());
    EXPECT_EQ(all.seen.back(), 1.0);
    for (std::size_t i = 1; i < all.seen.size(); ++i) ASSERT_LT(all.seen[i - 1], all.seen[i]);
    for (double band : {0.0, 1.0 / 3, 2.0 / 3})
        EXPECT_TRUE(std::any_of(all.seen.begin(), all.seen.end(), [&](double f) { return f > band && f < band + 1.0 / 3; }))
            << "no progress inside the step starting at " << band;

    for (double at : {0.1, 0.5, 0.9}) {
        for (bool plugin : {true, false}) {
            Recorder r;
            r.algo = algo.get();
            r.cancelAt = at;
            algo->setProgressObserver(&r);
            EXPECT_THROW(run(*algo, in, false, plugin), ExceptionCancelation) << at;
            EXPECT_LT(r.seen.back(), 1.0) << at;
        }
    }
    // The same object runs to completion afterwards.
    algo->setProgressObserver(nullptr);
    EXPECT_EQ(firstDifference(*run(*algo, in, false, true), *expected(CompositeMorphology::Gradient, c, in, true)), "");
}

TEST_F(CompositeTest, MissingElementOrImagesAreRuleErrors) {
    MemoryImage in(UInt8, 4, 4), out;
    morphology::Opening open;
    open.inputImage = &in;
    open.outputImage = &out;
    EXPECT_THROW(open.execute(), RuleException);
    open.setStructuringElement(element({2, 1, 1, in.extents()}));
    open.outputImage = nullptr;
    EXPECT_THROW(open.execute(), RuleException);
}

} // namespace
