// The generic box and the plug-in's vector box (several square or cube passes as one separable box)
// against the plain passes of the generic code, bit for bit: every voxel type, sizes around the vector widths and smaller than
// the box, single-plan volumes, in place and not, 1 and 2 threads, images in memory and on disk,
// float data with and without NaN and signed zeros; progress, cancellation checks and memory limits.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <tbb/task_arena.h>

#include "host/Algorithms.h"
#include "host/Cpu.h"
#include "host/DiskImage.h"
#include "host/Settings.h"
#include "host/TemporaryImage.h"
#include "host/generic/Generic.h"
#include "morphology/Box.h"
#include "morphology/Runners.h"
#include "morphology/StructuringElementDispatchers.h"
#include "tests/support.h"

using namespace lyn;
using lyn::test::kHuge;
using lyn::test::makeSquare;

namespace {

const VoxelTypes kAllTypes[] = {UInt8, UInt16, UInt32, UInt64, Int8, Int16, Int32, Int64, Float, Double, Binary, Label};

// Floats: Finite mixes infinities and the finite extremes with one sign of zero (where the border
// value shows); NegativeZeros has only -0.0; Specials adds NaN or +0.0 beside -0.0, where the box
// must step aside.
enum class Data { Finite, NegativeZeros, SignedZeros, NaNs };

void fill(ImageModel& image, std::uint64_t seed, Data data) {
    std::mt19937_64 rng(seed);
    dispatchVoxelType(image.getVoxelType(), [&](auto traits) {
        using T = typename decltype(traits)::type;
        std::vector<T> row(image.getNumOf(Columns));
        const Extents e = image.extents();
        for (std::uint64_t q = 0; q < e[1] * e[2] * e[3] * e[4]; ++q) {
            for (T& v : row) {
                const std::uint64_t r = rng();
                if constexpr (std::is_floating_point_v<T>) {
                    const T specials[] = {std::numeric_limits<T>::infinity(), -std::numeric_limits<T>::infinity(),
                                          std::numeric_limits<T>::lowest(), std::numeric_limits<T>::max(),
                                          data == Data::NegativeZeros ? -T(0) : T(0),
                                          data == Data::NaNs ? std::numeric_limits<T>::quiet_NaN() : T(1),
                                          data == Data::SignedZeros ? -T(0) : T(2)};
                    const unsigned pick = unsigned(r % 24);
                    // Never zero: the zeros above are the only ones.
                    const T value = T(std::int64_t(r >> 20) % 1000 + 1) / T(8);
                    v = pick < 7 ? specials[pick] : (r >> 40) & 1 ? value : -value;
                } else if (decltype(traits)::id == Binary) {
                    v = T(r & 1);
                } else {
                    v = (r & 7) == 0 ? T(r >> 8) : T(std::int64_t(r >> 16) % 23);
                }
            }
            image.writeRaw(row.data(), row.size(), 0, long(q % e[1]), long(q / e[1] % e[2]),
                           long(q / e[1] / e[2] % e[3]), long(q / e[1] / e[2] / e[3]));
        }
    });
}

std::vector<char> bytesOf(const ImageModel& image) {
    const std::size_t rowBytes = image.getNumOf(Columns) * helper::getSizeOf(image.getVoxelType());
    const Extents e = image.extents();
    std::vector<char> bytes(image.getSizeInBytes());
    for (std::uint64_t q = 0; q < e[1] * e[2] * e[3] * e[4]; ++q)
        image.readRaw(bytes.data() + q * rowBytes, e[0], 0, long(q % e[1]), long(q / e[1] % e[2]),
                      long(q / e[1] / e[2] % e[3]), long(q / e[1] / e[2] / e[3]));
    return bytes;
}

void copyInto(const ImageModel& from, ImageModel& to) {
    const std::vector<char> bytes = bytesOf(from);
    const std::size_t rowBytes = from.getNumOf(Columns) * helper::getSizeOf(from.getVoxelType());
    const Extents e = from.extents();
    for (std::uint64_t q = 0; q < e[1] * e[2] * e[3] * e[4]; ++q)
        to.writeRaw(bytes.data() + q * rowBytes, e[0], 0, long(q % e[1]), long(q / e[1] % e[2]),
                    long(q / e[1] / e[2] % e[3]), long(q / e[1] / e[2] / e[3]));
    to.flushWrites();
}

// Counts the box's questions and reports; can answer "cancelled" from the n-th question on.
struct CountingPoll : generic::BoxPoll {
    std::atomic<long> asked{0};
    std::atomic<long> cancelFrom{std::numeric_limits<long>::max()};
    std::atomic<double> highest{0};
    bool cancelled() override { return asked.fetch_add(1) + 1 >= cancelFrom.load(); }
    void progress(double fraction) override {
        double seen = highest.load();
        while (fraction > seen && !highest.compare_exchange_weak(seen, fraction)) {
        }
    }
};

// The plain N passes of the generic code: the reference.
void plainPasses(int dims, bool dilate, unsigned passes, const ImageModel& in, ImageModel& out) {
    globalSettings()->setValue("LYN_GENERIC_BOX", "0");
    auto algo = makeSquare(dims, dilate);
    algo->inputImage = &in;
    algo->outputImage = &out;
    algo->kernelRadius = passes;
    algo->neighborhood = dims == 2 ? 1 : 2;
    algo->setUsePlugin(false);
    algo->execute();
    globalSettings()->unsetValue("LYN_GENERIC_BOX");
}

struct BoxCase {
    int dims;
    Extents extents;
    unsigned passes;
    bool dilate;
    bool inPlace;
    int threads;

    std::string name(VoxelTypes t) const {
        return std::string(voxelTypeName(t)) + (dilate ? " dilate " : " erode ") + std::to_string(dims) + "D x" +
               std::to_string(passes) + " " + std::to_string(extents[0]) + "x" + std::to_string(extents[1]) + "x" +
               std::to_string(extents[2]) + "x" + std::to_string(extents[3]) + (inPlace ? " in place" : "") +
               " threads=" + std::to_string(threads);
    }
};

enum class Impl { Host, Simd };
Impl gImpl = Impl::Host;  // which box the checks below run

// Runs the box on `input` (a copy of it in place) and returns the outcome; `out` holds the result.
generic::BoxOutcome runBox(const BoxCase& c, const ImageModel& input, ImageModel& out, CountingPoll& poll,
                           std::uint64_t budget = kHuge) {
    if (c.inPlace) copyInto(input, out);
    const generic::Stage stage{c.dims == 2 ? generic::Neighbourhood::Square8 : generic::Neighbourhood::TwentySix,
                               c.passes, {}};
    tbb::task_arena arena(c.threads);
    return arena.execute([&] {
        if (gImpl == Impl::Simd)
            return morphology::runBoxSimd(c.inPlace ? out : input, out, stage, c.dilate, budget, poll);
        return generic::runBox(c.inPlace ? out : input, out, stage, c.dilate, budget, poll);
    });
}

// Box against plain passes; `expected` says whether the box must run or step aside (then it must
// leave the output as it was).
void checkInput(const BoxCase& c, const MemoryImage& input, generic::BoxOutcome expected,
                std::uint64_t budget = kHuge) {
    const VoxelTypes t = input.getVoxelType();
    MemoryImage reference(t, c.extents), out(t, c.extents);
    std::memset(out.data(), 0x5a, out.getSizeInBytes());
    const std::vector<char> before = c.inPlace ? bytesOf(input) : bytesOf(out);
    plainPasses(c.dims, c.dilate, c.passes, input, reference);
    CountingPoll poll;
    const generic::BoxOutcome outcome = runBox(c, input, out, poll, budget);
    ASSERT_EQ(outcome, expected) << c.name(t) << " budget " << budget << ": " << generic::boxOutcomeName(outcome);
    if (outcome == generic::BoxOutcome::Done) {
        ASSERT_EQ(bytesOf(out), bytesOf(reference)) << c.name(t);
        EXPECT_EQ(poll.highest.load(), 1.0) << c.name(t);
    } else if (!(gImpl == Impl::Simd && outcome == generic::BoxOutcome::FoldOrderShows && !c.inPlace)) {
        // Only the vector box, out of place, finds the fold order as it reads: it may have written.
        ASSERT_EQ(bytesOf(out), before) << c.name(t) << ": a box that steps aside writes nothing";
    }
}
void check(const BoxCase& c, VoxelTypes t, Data data, generic::BoxOutcome expected, std::uint64_t seed,
           std::uint64_t budget = kHuge) {
    MemoryImage input(t, c.extents);
    fill(input, seed, data);
    checkInput(c, input, expected, budget);
}

// Passes from 2 to beyond every runner's limit (2D 35/37, 3D 77/132), around and beyond the extents.
TEST(BoxTest, EqualsThePlainPassesForEveryTypeSizeAndPassCount) {
    struct Size {
        int dims;
        Extents extents;
    };
    const Size sizes[] = {
        {2, {1, 1, 1, 1, 1}},   {2, {3, 2, 1, 1, 1}},   {2, {15, 17, 1, 1, 1}}, {2, {33, 31, 1, 1, 1}},
        {2, {64, 5, 1, 1, 1}},  {2, {1, 40, 1, 1, 1}},  {2, {17, 6, 3, 1, 1}},  {2, {9, 8, 1, 2, 2}},
        {3, {1, 1, 1, 1, 1}},   {3, {33, 17, 1, 1, 1}}, {3, {17, 9, 5, 1, 1}},  {3, {4, 3, 40, 1, 1}},
        {3, {31, 2, 3, 2, 1}},   {2, {1000, 9, 1, 1, 1}},  // strips of whole cache lines and a tail
    };
    const unsigned passCounts[] = {2, 3, 7, 36, 38, 78, 133};
    std::uint64_t seed = 0;
    for (const Size& s : sizes)
        for (VoxelTypes t : kAllTypes) {
            for (unsigned passes : passCounts) {
                // Every case through both functors; the other axes rotate through the table.
                const bool inPlace = (seed & 1) != 0;
                const int threads = 1 + int(seed / 2 % 2);
                for (bool dilate : {true, false})
                    check(BoxCase{s.dims, s.extents, passes, dilate, inPlace, threads}, t, Data::Finite,
                          generic::BoxOutcome::Done, ++seed);
            }
        }
}

// Floats: the box gives the passes' bytes where the fold order cannot show (finite values, zeros
// of one sign) and steps aside, having written nothing, where it can.
void checkFoldOrderCases(std::uint64_t seed) {
    const std::pair<Data, generic::BoxOutcome> rows[] = {{Data::Finite, generic::BoxOutcome::Done},
                                                         {Data::NegativeZeros, generic::BoxOutcome::Done},
                                                         {Data::SignedZeros, generic::BoxOutcome::FoldOrderShows},
                                                         {Data::NaNs, generic::BoxOutcome::FoldOrderShows}};
    for (const auto& [data, outcome] : rows)
        for (VoxelTypes t : {Float, Double})
            for (int dims : {2, 3})
                for (bool inPlace : {false, true})
                    check(BoxCase{dims, {37, 19, dims == 2 ? 1ul : 4ul, 1, 1}, 5, dims == 2, inPlace, 2}, t, data,
                          outcome, ++seed);
}

TEST(BoxTest, FloatsStepAsideExactlyWhereTheFoldOrderShows) { checkFoldOrderCases(100); }

// A float voxel whose whole box is -inf in a dilation becomes the lowest finite value where the box
// leaves the image (the border joins), and stays -inf inside: the border is applied per axis.
TEST(BoxTest, TheBorderJoinsWhereTheBoxLeavesTheImage) {
    for (int dims : {2, 3}) {
        const Extents e{12, 11, dims == 2 ? 1ul : 10ul, 1, 1};
        MemoryImage in(Float, e), box(Float, e), reference(Float, e);
        std::fill_n(in.dataAs<float>(), in.getNumOfVoxels(), -std::numeric_limits<float>::infinity());
        plainPasses(dims, true, 3, in, reference);
        CountingPoll poll;
        ASSERT_EQ(runBox(BoxCase{dims, e, 3, true, false, 2}, in, box, poll), generic::BoxOutcome::Done);
        EXPECT_EQ(bytesOf(box), bytesOf(reference));
        const float centre = box.dataAs<float>()[box.index(5, 5, dims == 2 ? 0 : 5)];
        const float edge = box.dataAs<float>()[box.index(2, 5, dims == 2 ? 0 : 5)];
        EXPECT_EQ(centre, -std::numeric_limits<float>::infinity());
        EXPECT_EQ(edge, std::numeric_limits<float>::lowest());
    }
}

// Images whose rows are read and written by calls rather than in place: files on disk.
TEST(BoxTest, ImagesOnDiskGiveTheSameBytes) {
    const std::string dir = io::temporaryDirectory();
    std::uint64_t seed = 200;
    for (int dims : {2, 3})
        for (VoxelTypes t : {UInt8, Int16, Float})
            for (bool inPlace : {false, true}) {
                const BoxCase c{dims, {70, 33, dims == 2 ? 2ul : 9ul, 1, 1}, 6, true, inPlace, 2};
                MemoryImage input(t, c.extents), reference(t, c.extents);
                fill(input, ++seed, Data::Finite);
                plainPasses(dims, c.dilate, c.passes, input, reference);
                auto diskIn = DiskImage::createUnnamed(dir, t, c.extents);
                auto diskOut = DiskImage::createUnnamed(dir, t, c.extents);
                copyInto(input, *diskIn);
                CountingPoll poll;
                ASSERT_EQ(runBox(c, *diskIn, *diskOut, poll), generic::BoxOutcome::Done) << c.name(t);
                EXPECT_EQ(bytesOf(*diskOut), bytesOf(reference)) << c.name(t) << " on disk";
            }
}

// Cancellation is asked before every row and strip (more than once per pass's worth of work: a sweep
// costs about one pass), and an answer of yes stops the run at the next question.
TEST(BoxTest, CancellationIsAskedPerRowAndStripAndStopsTheRun) {
    for (int dims : {2, 3}) {
        const BoxCase c{dims, {50, 40, dims == 2 ? 1ul : 30ul, 1, 1}, 20, true, false, 2};
        MemoryImage in(UInt16, c.extents), out(UInt16, c.extents);
        fill(in, 7, Data::Finite);
        CountingPoll poll;
        ASSERT_EQ(runBox(c, in, out, poll), generic::BoxOutcome::Done);
        const long rows = 40 * (dims == 2 ? 1 : 30);
        const long strips = dims == 2 ? 1 : 30 + 40;  // one strip of all 50 columns per plan, then per row
        EXPECT_GE(poll.asked.load(), rows + strips) << dims;
        EXPECT_GE(poll.asked.load(), long(dims)) << "at least one question per sweep";
        EXPECT_GE(poll.asked.load(), long(c.passes)) << "here also at least one per pass the box replaces";

        CountingPoll cancel;
        cancel.cancelFrom = 10;
        EXPECT_THROW(runBox(c, in, out, cancel), ExceptionCancelation);
        EXPECT_LE(cancel.asked.load(), 10 + 2) << "each thread stops at its next question";
    }
}

// The buffers stay strictly below the budget and within 1 MiB per worker or the image's share;
// when they cannot, the box steps aside and the algorithm still gives the passes' bytes.
TEST(BoxTest, MemoryLimitsAndTheAlgorithmPath) {
    const generic::Stage square{generic::Neighbourhood::Square8, 100, {}};
    const Extents big{4096, 4096, 1, 1, 1};
    // Strips narrow to fit the budget, down to one column; below that the box steps aside.
    for (std::uint64_t budget : {kHuge, std::uint64_t(1) << 20, std::uint64_t(100000), std::uint64_t(30000)}) {
        const std::uint64_t bytes = generic::boxWorkingBytes(big, 1, square, 2, budget);
        EXPECT_GT(bytes, 0u) << budget;
        EXPECT_LT(bytes, budget);
        EXPECT_LE(bytes, 2u << 20) << "1 MiB per worker";
    }
    EXPECT_EQ(generic::boxWorkingBytes(big, 1, square, 2, 10000), 0u);
    EXPECT_EQ(generic::boxWorkingBytes(big, 1, generic::Stage{generic::Neighbourhood::Square8, 1, {}}, 2, kHuge), 0u);
    EXPECT_EQ(generic::boxWorkingBytes(big, 1, generic::Stage{generic::Neighbourhood::Cross4, 9, {}}, 2, kHuge), 0u);

    const BoxCase c{2, {40, 30, 1, 1, 1}, 9, false, false, 2};
    MemoryImage in(Int32, c.extents), out(Int32, c.extents), reference(Int32, c.extents), viaAlgo(Int32, c.extents);
    fill(in, 9, Data::Finite);
    CountingPoll poll;
    EXPECT_EQ(runBox(c, in, out, poll, 64), generic::BoxOutcome::OverBudget);
    plainPasses(2, false, 9, in, reference);
    for (std::uint64_t budget : {std::uint64_t(64), kHuge}) {
        auto algo = makeSquare(2, false);
        algo->inputImage = &in;
        algo->outputImage = &viaAlgo;
        algo->kernelRadius = 9;
        algo->setUsePlugin(false);
        algo->setMaximumExtraMemoryUsageInBytes(budget);
        algo->execute();
        EXPECT_EQ(bytesOf(viaAlgo), bytesOf(reference)) << budget;
    }
}

// The fast disk's square stage and the fast ball's cube stage go through the box; the decompositions
// give the same bytes with the box on and off.
TEST(BoxTest, FastDiskAndBallDecompositionsKeepTheirBytes) {
    std::uint64_t seed = 300;
    for (unsigned radius : {4u, 7u, 20u, 30u})
        for (VoxelTypes t : {UInt8, Int32, Double})
            for (bool ball : {false, true}) {
                const Extents e{29, 23, ball ? 11ul : 1ul, 1, 1};
                MemoryImage in(t, e), on(t, e), off(t, e);
                fill(in, ++seed, Data::Finite);
                for (MemoryImage* out : {&on, &off}) {
                    std::unique_ptr<morphology::RadiusModeMorphology> algo;
                    if (ball) algo = std::make_unique<morphology::ErosionBall3d>();
                    else algo = std::make_unique<morphology::DilationDisk2d>();
                    algo->inputImage = &in;
                    algo->outputImage = out;
                    algo->kernelRadius = radius;
                    algo->setUsePlugin(false);
                    if (out == &off) globalSettings()->setValue("LYN_GENERIC_BOX", "0");
                    algo->execute();
                    globalSettings()->unsetValue("LYN_GENERIC_BOX");
                }
                EXPECT_EQ(bytesOf(on), bytesOf(off)) << voxelTypeName(t) << (ball ? " ball " : " disk ") << radius;
            }
}

// The square and cube runners hand many passes of images in memory to the box, and keep their own
// passes where it steps aside (NaN) or is switched off: the same bytes every way.
TEST(BoxTest, RunnersRouteManyPassesToTheBox) {
    if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2: the runners' passes cannot run";
    const morphology::Dilation2dAVX2Runner square;
    const morphology::Erosion3dAVX2Runner cube;
    std::uint64_t seed = 400;
    for (int dims : {2, 3})
        for (VoxelTypes t : {UInt8, Float})
            for (Data data : {Data::Finite, Data::NaNs})
                for (const char* box : {"1", "0"}) {
                    const Extents e{70, 41, dims == 2 ? 1ul : 12ul, 1, 1};
                    MemoryImage in(t, e), out(t, e), reference(t, e);
                    fill(in, ++seed, data);
                    plainPasses(dims, dims == 2, morphology::kBoxFromPasses, in, reference);
                    auto algo = makeSquare(dims, dims == 2);
                    algo->inputImage = &in;
                    algo->outputImage = &out;
                    algo->kernelRadius = morphology::kBoxFromPasses;
                    algo->neighborhood = dims == 2 ? 1 : 2;
                    globalSettings()->setValue("LYN_GENERIC_BOX", box);
                    if (dims == 2) square.run(algo.get());
                    else cube.run(algo.get());
                    globalSettings()->unsetValue("LYN_GENERIC_BOX");
                    EXPECT_EQ(bytesOf(out), bytesOf(reference)) << voxelTypeName(t) << " " << dims << "D box=" << box;
                }
}

// ---------------------------------------------------------------------------------------------
// The plug-in's box. Its routes: bands of a plan through a window of rows (wide rows) or as whole
// arrays (short rows), whole plans in place, rows then strips (a single plan in place, or bands
// that would not fit), and strips along plans for the cube.

struct UseSimd {
    UseSimd() { gImpl = Impl::Simd; }
    ~UseSimd() { gImpl = Impl::Host; }
};

bool simdServes(VoxelTypes t) {
    for (VoxelTypes s : lyn::test::kServed)
        if (s == t) return true;
    return false;
}

TEST(SimdBoxTest, EqualsThePlainPassesForEveryTypeRouteAndPassCount) {
    if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2";
    const UseSimd simd;
    struct Size {
        int dims;
        Extents extents;
        unsigned upTo = 1000;  // passes; more only repeat the clamped reach, slowly
    };
    const Size sizes[] = {
        {2, {1, 1, 1, 1, 1}},    {2, {31, 5, 1, 1, 1}},   {2, {32, 33, 1, 1, 1}},  {2, {33, 7, 1, 1, 1}},
        {2, {65, 40, 1, 1, 1}},  {2, {1, 40, 1, 1, 1}},   {2, {17, 6, 3, 1, 1}},   {2, {9, 8, 1, 2, 2}},
        {2, {600, 21, 1, 1, 1}}, {2, {2100, 9, 1, 1, 1}},  // a window of rows for wide types, then for all
        {3, {1, 1, 1, 1, 1}},    {3, {33, 17, 1, 1, 1}},  {3, {17, 9, 5, 1, 1}},   {3, {4, 3, 40, 1, 1}},
        {3, {31, 2, 3, 2, 1}},   {3, {70, 12, 9, 1, 1}},
        {3, {70, 30, 20, 1, 1}, 7},  // several segments of rows and of plans, rows ending inside a vector
    };
    const unsigned passCounts[] = {2, 3, 4, 7, 36, 78, 133};
    std::uint64_t seed = 1000;
    for (const Size& s : sizes) {
        // Every other size with streaming stores for the output, aligned rows or not.
        if ((&s - sizes) % 2) globalSettings()->setValue("LYN_STREAMING_STORES_MIN_BYTES", "0");
        else globalSettings()->unsetValue("LYN_STREAMING_STORES_MIN_BYTES");
        for (VoxelTypes t : kAllTypes)
            for (unsigned passes : passCounts) {
                if (passes > s.upTo) continue;
                const bool inPlace = (seed & 1) != 0;
                const int threads = 1 + int(seed / 2 % 2);
                for (bool dilate : {true, false})
                    check(BoxCase{s.dims, s.extents, passes, dilate, inPlace, threads}, t, Data::Finite,
                          simdServes(t) ? generic::BoxOutcome::Done : generic::BoxOutcome::NotABox, ++seed);
            }
    }
    globalSettings()->unsetValue("LYN_STREAMING_STORES_MIN_BYTES");
}

// Budgets from ample down to nothing: the route narrows (bands, then rows and strips, then narrower
// strips), the bytes stay the passes', and below every route the box steps aside having written nothing.
TEST(SimdBoxTest, NarrowerBudgetsTakeNarrowerRoutesOrStepAside) {
    if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2";
    const UseSimd simd;
    std::uint64_t seed = 2000;
    for (int dims : {2, 3})
        for (bool inPlace : {false, true}) {
            const BoxCase c{dims, {300, 64, dims == 2 ? 1ul : 6ul, 1, 1}, 5, dims == 3, inPlace, 2};
            const generic::Stage stage{dims == 2 ? Neighbourhood::Square8 : Neighbourhood::TwentySix, 5, {}};
            std::uint64_t last = 0;
            for (std::uint64_t budget : {kHuge, std::uint64_t(1) << 16, std::uint64_t(9000), std::uint64_t(3000),
                                         std::uint64_t(600), std::uint64_t(0)}) {
                const std::uint64_t bytes = morphology::boxSimdWorkingBytes(c.extents, 2, stage, inPlace, 2, budget);
                if (bytes) {
                    EXPECT_LT(bytes, budget);
                }
                if (last && bytes) {
                    EXPECT_LE(bytes, last);
                }
                last = bytes ? bytes : last;
                MemoryImage input(Int16, c.extents), reference(Int16, c.extents), out(Int16, c.extents);
                fill(input, ++seed, Data::Finite);
                plainPasses(dims, c.dilate, c.passes, input, reference);
                std::memset(out.data(), 0x5a, out.getSizeInBytes());
                const std::vector<char> before = inPlace ? bytesOf(input) : bytesOf(out);
                CountingPoll poll;
                const generic::BoxOutcome outcome = runBox(c, input, out, poll, budget);
                const std::string what = c.name(Int16) + " budget " + std::to_string(budget);
                ASSERT_EQ(outcome, bytes ? generic::BoxOutcome::Done : generic::BoxOutcome::OverBudget) << what;
                EXPECT_EQ(bytesOf(out), bytes ? bytesOf(reference) : before) << what;
            }
        }
}

// Cubes of 2 to 7 passes out of place go in tiles along all three axes at once: tiles from whole
// rows down to one vector by one row under narrower budgets, partial tiles at the right and lower
// edges, several cubes of a 4D image, streaming stores on and off, floats stepping aside where the
// fold order shows.
TEST(SimdBoxTest, CubeTilesOfEverySizeGiveThePassesBytes) {
    if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2";
    const UseSimd simd;
    // Rows of whole vectors, rows ending within a vector, a tile of 2 columns after a wide one, and
    // the smallest volume the tiles take.
    const Extents sizes[] = {{100, 37, 11, 1, 1}, {33, 7, 4, 2, 1}, {700, 5, 3, 1, 1}, {64, 9, 5, 1, 1},
                             {2050, 3, 4, 1, 1}, {32, 3, 3, 1, 1}, {8, 7, 7, 1, 1}, {41, 15, 8, 1, 1}};
    std::uint64_t seed = 5000;
    for (const char* streamFrom : {"0", ""}) {
        if (*streamFrom) globalSettings()->setValue("LYN_STREAMING_STORES_MIN_BYTES", streamFrom);
        else globalSettings()->unsetValue("LYN_STREAMING_STORES_MIN_BYTES");
        for (const Extents& e : sizes)
            for (unsigned passes : {2u, 3u, 5u, 6u, 7u})
                for (VoxelTypes t : {UInt8, Int8, Int16, UInt32, Float, Double})
                    for (std::uint64_t budget : {kHuge, std::uint64_t(40000), std::uint64_t(6000), std::uint64_t(2500)}) {
                        const BoxCase c{3, e, passes, seed % 2 == 0, false, 1 + int(seed / 2 % 2)};
                        const bool nan = (t == Float || t == Double) && budget == 6000;
                        const generic::Stage stage{generic::Neighbourhood::TwentySix, passes, {}};
                        if (!morphology::cubeTilesServe(e, helper::getSizeOf(t), stage, false)) continue;
                        const bool room =
                            morphology::boxSimdWorkingBytes(e, helper::getSizeOf(t), stage, false, c.threads, budget) != 0;
                        EXPECT_TRUE(room) << "tiles narrow down to one vector by one row";
                        check(c, t, nan ? Data::NaNs : Data::Finite,
                              !room ? generic::BoxOutcome::OverBudget
                                    : nan ? generic::BoxOutcome::FoldOrderShows : generic::BoxOutcome::Done,
                              ++seed, budget);
                    }
    }
    globalSettings()->unsetValue("LYN_STREAMING_STORES_MIN_BYTES");
}

TEST(SimdBoxTest, FloatsStepAsideExactlyWhereTheFoldOrderShows) {
    if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2";
    const UseSimd simd;
    checkFoldOrderCases(3000);
}

// The float scan reads whole vectors, then a row's last voxels one by one. Each special value alone
// in rows of whole vectors, among finite non-zero values, on every route that scans: the tiles (3
// passes), the bands as they read (8, past the tiles' reach), the read before a box in place. A NaN of either sign and
// any payload, or zeros of both signs, must stop the box; one sign of zero, or infinities, not.
template <class T>
void checkScanFindsEachSpecialAlone() {
    using U = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
    constexpr U sign = U(1) << (8 * sizeof(T) - 1);
    constexpr U infinity = sizeof(T) == 4 ? U(0x7f800000u) : U(0x7ff0000000000000ull);
    auto of = [](U bits) {
        T v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    };
    const T inf = std::numeric_limits<T>::infinity(), nan = std::numeric_limits<T>::quiet_NaN();
    struct Row {
        const char* name;
        T first, second;  // planted at two voxels inside vectors
        bool shows;
    };
    const Row rows[] = {{"least NaN payload", of(infinity + 1), T(1), true},
                        {"negative NaN", -nan, T(1), true},
                        {"negative NaN of the least payload", of(sign | (infinity + 1)), T(1), true},
                        {"zeros of both signs", -T(0), T(0), true},
                        {"-0 only", -T(0), -T(0), false},
                        {"+0 only", T(0), T(0), false},
                        {"infinities", inf, -inf, false},
                        {"finite extremes", std::numeric_limits<T>::max(), std::numeric_limits<T>::lowest(), false}};
    const Extents e{32, 6, 5, 1, 1};  // rows of whole vectors: no voxel left to the scalar tail
    std::mt19937_64 rng(7);
    for (const Row& row : rows)
        for (const auto& [passes, inPlace] : {std::pair{3u, false}, std::pair{8u, false}, std::pair{8u, true}}) {
            MemoryImage input(std::is_same_v<T, float> ? Float : Double, e);
            T* v = input.dataAs<T>();
            for (std::uint64_t i = 0; i < input.getNumOfVoxels(); ++i)
                v[i] = T((std::int64_t(rng() % 2000) - 1000) | 1) / T(8);  // odd: never zero
            v[input.index(9, 1, 2)] = row.first;
            v[input.index(20, 4, 1)] = row.second;
            SCOPED_TRACE(std::string(row.name) + " x" + std::to_string(passes) + (inPlace ? " in place" : ""));
            checkInput(BoxCase{3, e, passes, true, inPlace, 1}, input,
                       row.shows ? generic::BoxOutcome::FoldOrderShows : generic::BoxOutcome::Done);
        }
}

TEST(SimdBoxTest, TheFloatScanFindsEachSpecialAloneInsideAVector) {
    if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2";
    const UseSimd simd;
    checkScanFindsEachSpecialAlone<float>();
    checkScanFindsEachSpecialAlone<double>();
}

// Cancellation is asked before every row a band reads and every line of a strip: at least once per
// sweep (each about a pass's worth of work) on an image smaller than the box, and once per pass the
// box replaces on a larger one; a yes stops the run.
TEST(SimdBoxTest, CancellationIsAskedAtLeastOncePerPassAndStopsTheRun) {
    if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2";
    const UseSimd simd;
    for (int dims : {2, 3})
        for (const Extents& e : {Extents{50, 40, dims == 2 ? 1ul : 30ul, 1, 1}, Extents{3, 1, 1, 1, 1}})
            for (unsigned passes : {4u, 20u}) {
                const BoxCase c{dims, e, passes, true, false, 2};
                MemoryImage in(UInt16, c.extents), out(UInt16, c.extents);
                fill(in, 7, Data::Finite);
                CountingPoll poll;
                ASSERT_EQ(runBox(c, in, out, poll), generic::BoxOutcome::Done);
                EXPECT_GE(poll.asked.load(), e[1] > 1 ? long(passes) : long(dims)) << c.name(UInt16);
                EXPECT_EQ(poll.highest.load(), 1.0) << c.name(UInt16);

                CountingPoll cancel;
                cancel.cancelFrom = 3;
                EXPECT_THROW(runBox(c, in, out, cancel), ExceptionCancelation) << c.name(UInt16);
                EXPECT_LE(cancel.asked.load(), 3 + 2) << "each thread stops at its next question";
            }
}

// Through the runners and the fast disk's and ball's decompositions, from the first pass count the
// plug-in's box serves, with and without room for the decomposition's temporary image, in place and
// not: the same bytes as with every box off.
TEST(SimdBoxTest, RunnersAndDecompositionsKeepTheirBytes) {
    if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2";
    using morphology::AVX2OneTypeMinMaxRunner;
    const AVX2OneTypeMinMaxRunner<morphology::DilationDisk2d, morphology::DilationDisk2dAVX2Dispatcher> disk;
    const AVX2OneTypeMinMaxRunner<morphology::ErosionBall3d, morphology::ErosionBall3dAVX2Dispatcher> ball;
    const morphology::Erosion2dAVX2Runner square;
    const morphology::Dilation3dAVX2Runner cube;
    std::uint64_t seed = 4000;
    // Floats also with NaN, where the box finds the fold order showing and the passes take over.
    const std::pair<VoxelTypes, Data> kinds[] = {
        {UInt8, Data::Finite}, {Int32, Data::Finite}, {Float, Data::Finite}, {Float, Data::NaNs}};
    for (const auto& [t, data] : kinds)
        for (int shape = 0; shape < 4; ++shape)
            for (unsigned radius : {3u, 5u, 9u, 41u})
                for (bool inPlace : {false, true})
                    for (std::uint64_t budget : {kHuge, std::uint64_t(1) << 15}) {
                        const bool flat = shape == 0 || shape == 2;
                        const Extents e{45, 38, flat ? 1ul : 9ul, 1, 1};
                        MemoryImage in(t, e), on(t, e), off(t, e);
                        fill(in, ++seed, data);
                        for (MemoryImage* out : {&on, &off}) {
                            if (inPlace) copyInto(in, *out);
                            const ImageModel* source = inPlace ? out : &in;
                            std::unique_ptr<BaseAlgorithm> owner;
                            auto setUp = [&](auto algo, auto& runner) {
                                algo->inputImage = source;
                                algo->outputImage = out;
                                algo->kernelRadius = radius;
                                algo->setMaximumExtraMemoryUsageInBytes(budget);
                                if (out == &off) globalSettings()->setValue("LYN_GENERIC_BOX", "0");
                                runner.run(algo.get());
                                globalSettings()->unsetValue("LYN_GENERIC_BOX");
                            };
                            if (shape == 0) setUp(std::make_unique<morphology::DilationDisk2d>(), disk);
                            if (shape == 1) setUp(std::make_unique<morphology::ErosionBall3d>(), ball);
                            if (shape == 2) setUp(makeSquare(2, false), square);
                            if (shape == 3) setUp(makeSquare(3, true), cube);
                        }
                        EXPECT_EQ(bytesOf(on), bytesOf(off))
                            << voxelTypeName(t) << " shape " << shape << " radius " << radius
                            << (inPlace ? " in place" : "") << " budget " << budget;
                    }
}

} // namespace
