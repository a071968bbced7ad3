// Access and filter layers, white box: blocks, aligned storage, row caches, rows read in place,
// output-row writing, and the quantification driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "Core/private/Access/Caches.h"
#include "Core/private/Access/DirectRows.h"
#include "Core/private/Access/Iterators.h"
#include "Core/private/Filters/QuantificationFilter.h"
#include "host/Algorithms.h"
#include "simd/AlignedAllocator.h"

using namespace lyn;

namespace {

// ---------------------------------------------------------------------------------------------
TEST(BlockTest, SplittingFollowsTheGrainRules) {
    access::Block3d volume(0, 10, 1, 0, 100, 1, 0, 100, 1, 0, 0);
    access::Block3d upper(volume, tbb::split());
    EXPECT_EQ(volume.rowsBegin(), 0);
    EXPECT_EQ(volume.rowsEnd(), 50);
    EXPECT_EQ(upper.rowsBegin(), 50);
    EXPECT_EQ(upper.rowsEnd(), 100);
    EXPECT_EQ(upper.getNbPlans(), 10u);

    access::Block2d odd(0, 7, 1, 0, 1, 1, 3, 0, 0);
    access::Block2d oddUpper(odd, tbb::split());
    EXPECT_EQ(odd.rowsEnd(), 3);
    EXPECT_EQ(oddUpper.rowsBegin(), 3);
    EXPECT_EQ(oddUpper.rowsEnd(), 7);
    EXPECT_EQ(oddUpper.plansBegin(), 3);
    EXPECT_EQ(oddUpper.plansEnd(), 4);
    EXPECT_EQ(oddUpper.getNbPlans(), 1u);


    EXPECT_FALSE(access::Block3d(0, 4, 4, 0, 5, 5, 0, 6, 6, 0, 0).is_divisible());
    EXPECT_TRUE(access::Block3d(0, 4, 4, 0, 6, 5, 0, 6, 6, 0, 0).is_divisible());
    EXPECT_EQ(access::Block3d(0, 4, 4, 0, 6, 5, 0, 6, 6, 0, 0).getNumOfVoxels(), 144u);

    access::OverlapBorder o{AlgoBorderInfluence(2, 2, 2, 2, 2, 2, 0, 0, 0, 0)};
    EXPECT_EQ(o.rowsBegin() + o.rowsEnd() + o.colsBegin() + o.colsEnd() + o.plansBegin() + o.plansEnd(), 12);
    access::OverlapBorder a{AlgoBorderInfluence(1, 2, 3, 4, 5, 6, 0, 0, 0, 0)};
    // The block after this one reads back towards lower coordinates by the lower-side influence.
    EXPECT_EQ(a.colsEnd(), 1);
    EXPECT_EQ(a.colsBegin(), 2);
    EXPECT_EQ(a.rowsEnd(), 3);
    EXPECT_EQ(a.rowsBegin(), 4);
    EXPECT_EQ(a.plansEnd(), 5);
    EXPECT_EQ(a.plansBegin(), 6);
}

// Split as TBB does, down to indivisible blocks: the leaves cover every voxel once, none is empty,
// none is divisible, and each split takes the dimension with the most grains to spare.
template <class Block>
void splitDown(Block& b, std::vector<Block>& leaves) {
    if (!b.is_divisible()) {
        leaves.push_back(b);
        return;
    }
    Block upper(b, tbb::split());
    EXPECT_FALSE(b.empty());
    EXPECT_FALSE(upper.empty());
    splitDown(b, leaves);
    splitDown(upper, leaves);
}

TEST(BlockTest, SplittingPartitionsTheRegionIntoIndivisibleBlocks) {
    std::mt19937 rng(7);
    for (int round = 0; round < 40; ++round) {
        const long np = 1 + long(rng() % 9), nr = 1 + long(rng() % 40), nc = 1 + long(rng() % 70);
        const unsigned long gp = 1 + rng() % 3, gr = 1 + rng() % 6, gc = 1 + rng() % 17;
        std::vector<access::Block3d> leaves;
        access::Block3d whole(0, np, gp, 0, nr, gr, 0, nc, gc, 0, 0);
        splitDown(whole, leaves);
        std::vector<int> covered(std::size_t(np * nr * nc), 0);
        for (const auto& b : leaves) {
            EXPECT_FALSE(b.is_divisible());
            for (long z = b.plansBegin(); z < b.plansEnd(); ++z)
                for (long y = b.rowsBegin(); y < b.rowsEnd(); ++y)
                    for (long x = b.colsBegin(); x < b.colsEnd(); ++x) ++covered[std::size_t((z * nr + y) * nc + x)];
        }
        for (int c : covered) ASSERT_EQ(c, 1) << "round " << round;

        std::vector<access::Block2d> flat;
        access::Block2d plane(0, nr, gr, 0, nc, gc, 3, 0, 0);
        splitDown(plane, flat);
        std::uint64_t voxels = 0;
        for (const auto& b : flat) {
            EXPECT_EQ(b.plansBegin(), 3);
            EXPECT_EQ(b.getNbPlans(), 1u);
            voxels += b.getNbRows() * b.getNbCols();
        }
        EXPECT_EQ(voxels, std::uint64_t(nr * nc));
    }
    // The dimension with more grains to spare goes first.
    access::Block2d wide(0, 4, 1, 0, 40, 2, 0, 0, 0);
    access::Block2d wideUpper(wide, tbb::split());
    EXPECT_EQ(wideUpper.getNbRows(), 4u);
    EXPECT_EQ(wideUpper.getNbCols(), 20u);
}

// ---------------------------------------------------------------------------------------------
using Alloc = SimdVec::AlignedAllocator<int, 32>;
using IntView = access::View<int, Alloc>;

TEST(AlignedAllocatorTest, BlocksAreAlignedWithAWholeSpareVector) {
    SimdVec::AlignedAllocator<double, 32> alloc;
    for (std::size_t n : {0u, 1u, 3u, 4u, 17u}) {
        double* p = alloc.allocate(n);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 32, 0u);
        void* raw = reinterpret_cast<void**>(p)[-1];
        const auto gap = reinterpret_cast<char*>(p) - static_cast<char*>(raw);
        EXPECT_GE(gap, 1);
        EXPECT_LE(gap, 32);
        alloc.deallocate(p, n);
    }
    EXPECT_THROW(alloc.allocate(std::numeric_limits<std::size_t>::max() / 4), std::bad_alloc);
}

TEST(CacheTest, FetchesApplyTheBorderAndReuseSlots) {
    MemoryImage image(Int32, 6, 5, 3);
    for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i) image.dataAs<int>()[i] = int(i) + 1;
    auto view = IntView::New(static_cast<const ImageModel*>(&image), access::FixedBorderCondition<int>::New(-7));
    auto cache = view->createRowCacheRead(2);
    access::Block3d block(0, 3, 1, 0, 5, 1, 0, 6, 1, 0, 0);
    const auto& above = cache->fetchRowInBlock(0, 8, block, -1, -1, 0, 0, 0);
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(above.data()[i], -7);
    const auto& row1 = cache->fetchRowInBlock(1, 8, block, -1, 1, 2, 0, 0);
    EXPECT_EQ(row1.data()[0], -7);
    EXPECT_EQ(row1.data()[1], int(image.index(0, 1, 2)) + 1);
    EXPECT_EQ(row1.data()[7], -7);
    const int* address = row1.data();
    const auto& shorter = cache->fetchRowInBlock(1, 3, block, 2, 4, 1, 0, 0);
    EXPECT_EQ(&shorter, &row1);
    EXPECT_EQ(shorter.data(), address);
    EXPECT_EQ(shorter.size(), 3u);
    EXPECT_EQ(shorter.data()[0], int(image.index(2, 4, 1)) + 1);

    auto plans = view->createPlanCacheRead(1);
    const auto& plan = plans->fetchPlanInBlock(0, 8, 7, block, -1, -1, 1, 0, 0);
    EXPECT_EQ(plan.getNbRowsInUse(), 7u);
    EXPECT_EQ(plan.row(3).data()[3], int(image.index(2, 2, 1)) + 1);
    const auto& none = plans->fetchPlanInBlock(0, 8, 0, block, -1, -1, 1, 0, 0);
    EXPECT_EQ(none.getNbRowsInUse(), 0u);
    EXPECT_EQ(none.row(3).data()[3], int(image.index(2, 2, 1)) + 1);  // rows kept, only the count changed
}

// An image that refuses every write.
class RefusingImage : public MemoryImage {
public:
    using MemoryImage::MemoryImage;
    bool writeRaw(const void*, std::uint64_t, long, long, long, long, long) override { return false; }
    bool getMemoryLayout(MemoryLayout&) const override { return false; }
};

// Rows read in place: the voxels beside a block come from the image inside it and from the border
// value at the image's edges; rows outside the image read as the border; anything but a fixed
// border, or a block narrower than asked, is refused (the kernels then copy rows: PaddedRows).
TEST(DirectRowsTest, EdgesComeFromTheImageOrTheBorder) {
    using View = access::View<std::int16_t, SimdVec::AlignedAllocator<std::int16_t, 32>>;
    MemoryImage image(Int16, 10, 4, 3);
    auto* d = image.dataAs<std::int16_t>();
    for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i) d[i] = std::int16_t(i);
    auto view = View::New(static_cast<const ImageModel*>(&image), access::FixedBorderCondition<std::int16_t>::New(-7));
    access::DirectRows<View> rows;

    const access::Block3d inner(1, 2, 1, 1, 3, 1, 2, 7, 1, 0, 0);  // plan 1, rows 1-2, columns 2-6
    ASSERT_TRUE(rows.init(*view, inner, 5));
    auto r = rows.row(0, 1);
    EXPECT_EQ(r.p, d + image.index(2, 2, 1));
    EXPECT_EQ(r.left, d[image.index(1, 2, 1)]);
    EXPECT_EQ(r.right, d[image.index(7, 2, 1)]);
    for (const auto& outside : {rows.row(0, -2), rows.row(2, 0), rows.row(-2, 0)}) {
        EXPECT_EQ(outside.left, -7);
        EXPECT_EQ(outside.right, -7);
        for (int k = 0; k < 5; ++k) EXPECT_EQ(outside.p[k], -7) << k;
    }

    const access::Block3d whole(0, 3, 1, 0, 4, 1, 0, 10, 1, 0, 0);
    ASSERT_TRUE(rows.init(*view, whole, 10));
    r = rows.row(2, 3);
    EXPECT_EQ(r.left, -7);
    EXPECT_EQ(r.right, -7);
    EXPECT_EQ(r.p[9], d[image.index(9, 3, 2)]);
    EXPECT_FALSE(rows.init(*view, whole, 11));
    auto continued = View::New(static_cast<const ImageModel*>(&image), access::ContinueBorderCondition<std::int16_t>::New());
    EXPECT_FALSE(rows.init(*continued, whole, 1));
}

// The two ways kernels get a row hand them the same voxels: a row read in place with its two edge
// voxels equals the copy PaddedRows makes (a band of plans, or a ring of rows in 2D), for blocks
// anywhere in the image, rows one outside the block and plans up to two outside it (the band
// rolling on), in every sequence and spectral series.
TEST(DirectRowsTest, RowsReadInPlaceEqualTheCopies) {
    using View = access::View<float, SimdVec::AlignedAllocator<float, 32>>;
    MemoryImage image(Float, 23, 7, 5, 2, 2);
    std::mt19937 rng(3);
    for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i) image.dataAs<float>()[i] = float(rng() % 1000);
    auto view = View::New(static_cast<const ImageModel*>(&image), access::FixedBorderCondition<float>::New(-1.5f));
    auto plans = view->createPlanCacheRead(3);
    auto rowCache = view->createRowCacheRead(3);
    for (int round = 0; round < 60; ++round) {
        const long c0 = long(rng() % 20), c1 = std::min(c0 + 1 + long(rng() % 23), 23L);
        const long r0 = long(rng() % 7), r1 = std::min(r0 + 1 + long(rng() % 3), 7L);
        const long p0 = long(rng() % 5), p1 = std::min(p0 + 1 + long(rng() % 2), 5L);
        const long s = long(rng() % 2), l = long(rng() % 2);
        const access::Block3d block(p0, p1, 1, r0, r1, 1, c0, c1, 1, s, l);
        access::DirectRows<View> direct;
        ASSERT_TRUE(direct.init(*view, block, 1));
        const long n = c1 - c0;
        auto compare = [&](const auto& padded, long dz, long dy) {
            const access::EdgedRow<float> a = direct.row(dz, dy), b = padded.row(dz, dy);
            ASSERT_EQ(a.left, b.left) << round << " " << dz << " " << dy;
            ASSERT_EQ(a.right, b.right) << round << " " << dz << " " << dy;
            for (long x = 0; x < n; ++x) ASSERT_EQ(a.p[x], b.p[x]) << round << " x=" << x;
        };
        access::PaddedRows<View, 3> band;
        band.init(*plans, block);
        for (long dz = -1; dz <= p1 - p0 + 1; ++dz)
            for (long dy = -1; dy <= r1 - r0; ++dy) compare(band, dz, dy);
        // A 2D block's rows, asked for as kernels do: the row above, at and below each row.
        access::PaddedRows<View, 1> ring;
        ring.init(*rowCache, block);
        for (long y = 0; y < r1 - r0; ++y)
            for (long dy = -1; dy <= 1; ++dy) compare(ring, 0, y + dy);
    }
}

TEST(IteratorTest, OperandsFollowTheFoldOrderTables) {
    using View = access::View<std::int32_t, SimdVec::AlignedAllocator<std::int32_t, 32>>;
    MemoryImage image(Int32, 11, 6, 5);
    for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i) image.dataAs<std::int32_t>()[i] = std::int32_t(i * 7 + 1);
    auto view = View::New(static_cast<const ImageModel*>(&image), access::FixedBorderCondition<std::int32_t>::New(-3));
    auto cache = view->createPlanCacheRead(3);
    const access::Block3d block(1, 4, 1, 1, 5, 1, 2, 9, 1, 0, 0);
    const long n = 7, m = 4, p = 3;
    auto check = [&](auto& it, int count, auto offsetOf) {
        access::PaddedRows<View, 3> rows;
        rows.init(*cache, block);
        it.init(block);
        for (long z = 0; z < p; ++z) {
            for (long y = 0; y < m; ++y) {
                for (int k = 0; k < count; ++k) {
                    const std::array<int, 3> o = offsetOf(k);  // plan, row, column
                    const auto r = rows.row(z + o[0], y + o[1]);
                    for (long x = 0; x < n; ++x) {
                        const std::int32_t expected = x + o[2] < 0 ? r.left : x + o[2] >= n ? r.right : r.p[x + o[2]];
                        ASSERT_EQ(it.ptr(k)[x], expected) << "operand " << k << " z=" << z << " y=" << y << " x=" << x;
                    }
                }
                if (y + 1 < m) it.nextRow();
            }
            if (z + 1 < p) it.nextPlan();
        }
    };
    access::IteratorNeighborhood3D_6<View, 8> six(view, access::NoDataType{});
    check(six, 7, [](int k) { return std::array<int, 3>{kOffsets6[k][0], kOffsets6[k][1], kOffsets6[k][2]}; });
    access::IteratorNeighborhood3D_18<View, 8> eighteen(view, access::NoDataType{});
    check(eighteen, 19, [](int k) { return std::array<int, 3>{kOffsets18[k][0], kOffsets18[k][1], kOffsets18[k][2]}; });

    // One plan of the same block as a 2D block: up, left, centre, right, down.
    const access::Block2d plane(1, 5, 1, 2, 9, 1, 2, 0, 0);  // rows 1-4, columns 2-8, plan 2
    access::IteratorNeighborhood2D_4<View, 8> cross(view, access::NoDataType{});
    auto rowCache = view->createRowCacheRead(3);
    access::PaddedRows<View, 1> rows;
    rows.init(*rowCache, plane);
    cross.init(plane);
    const int cross4[5][2] = {{-1, 0}, {0, -1}, {0, 0}, {0, 1}, {1, 0}};  // row, column
    for (long y = 0; y < m; ++y) {
        for (int k = 0; k < 5; ++k) {
            const auto r = rows.row(0, y + cross4[k][0]);
            for (long x = 0; x < n; ++x) {
                const long c = x + cross4[k][1];
                ASSERT_EQ(cross.ptr(k)[x], c < 0 ? r.left : c >= n ? r.right : r.p[c]) << "operand " << k << " y=" << y;
            }
        }
        if (y + 1 < m) cross.nextRow();
    }
}

TEST(OutputRowTest, CoreRulesDecideWhatIsWrittenAtOnce) {
    MemoryImage image(Int32, 40, 40);
    auto view = IntView::New(&image, access::FixedBorderCondition<int>::New(0));
    auto cache = view->createRowCacheReadWrite(1);
    access::Block2d block(10, 20, 1, 10, 20, 1, 0, 0, 0);
    const access::OverlapBorder overlap(1, 1, 1, 1, 0, 0);
    for (long y = 0; y < 10; ++y) {
        auto& row = cache->getRowInBlock(0, 10, block, 0, y, 0, 0, 0);
        for (int x = 0; x < 10; ++x) row.data()[x] = 1000 + int(y) * 10 + x;
        row.writeRow(block, overlap);
    }
    const int* d = image.dataAs<int>();
    for (long y = 10; y < 20; ++y)
        for (long x = 10; x < 20; ++x) {
            const bool core = y >= 11 && y <= 18 && x >= 11 && x <= 18;
            EXPECT_EQ(d[image.index(x, y)], core ? 1000 + int(y - 10) * 10 + int(x - 10) : 0) << x << "," << y;
        }
    view->writeAllTemporizedRows();
    for (long y = 10; y < 20; ++y)
        for (long x = 10; x < 20; ++x) EXPECT_EQ(d[image.index(x, y)], 1000 + int(y - 10) * 10 + int(x - 10));

    // Margins: a row above the image is dropped; a row from column -1 writes its elements 1..cols.
    access::Block2d corner(0, 5, 1, 0, 40, 1, 0, 0, 0);
    auto& margin = cache->getRowInBlock(0, 42, corner, -1, -1, 0, 0, 0);
    EXPECT_NO_THROW(margin.writeRow(corner));
    auto& wide = cache->getRowInBlock(0, 42, corner, -1, 3, 0, 0, 0);
    for (int x = 0; x < 42; ++x) wide.data()[x] = x;
    wide.writeRow(corner, overlap);  // touching the left, top and right edges: all core
    EXPECT_EQ(view->countTemporizedPieces(), 0u);
    for (long x = 0; x < 40; ++x) EXPECT_EQ(d[image.index(x, 3)], int(x) + 1);
    // writeRow(Block) counts the row just past the block as core.
    auto& past = cache->getRowInBlock(0, 40, corner, 0, 5, 0, 0, 0);
    past.writeRow(corner);
    EXPECT_EQ(view->countTemporizedPieces(), 0u);

    RefusingImage refusing(Int32, 4, 4);
    auto bad = IntView::New(static_cast<ImageModel*>(&refusing), access::FixedBorderCondition<int>::New(0));
    auto badCache = bad->createRowCacheReadWrite(1);
    access::Block2d small(0, 4, 1, 0, 4, 1, 0, 0, 0);
    try {
        badCache->getRowInBlock(0, 4, small, 0, 1, 0, 0, 0).writeRow(small);
        ADD_FAILURE() << "no exception";
    } catch (const UnexpectedError& e) {
        EXPECT_EQ(e.getInfo().message, "Error in writeRowAt implementation, return value is false");
        EXPECT_EQ(e.getInfo().file, "Core/private/Access/Rows.impl");
        EXPECT_EQ(e.getInfo().line, 550);
    }
}

// ---------------------------------------------------------------------------------------------
// A counting kernel for the quantification driver: sums voxels (a reduction that is not
// idempotent, so a block counted twice shows) and can cancel its filter.
struct CountingKernel {
    static std::atomic<int>* cancelAfter;
    std::uint64_t voxels = 0;
    std::uint64_t blocks = 0;
    template <class Filter>
    void run(const access::Block3d& block, Filter& filter) {
        voxels += block.getNumOfVoxels();
        ++blocks;
        if (cancelAfter && cancelAfter->fetch_sub(1) == 1) filter.cancelExecution();
    }
    void join(const CountingKernel& rhs) {
        voxels += rhs.voxels;
        blocks += rhs.blocks;
    }
};

std::atomic<int>* CountingKernel::cancelAfter = nullptr;

TEST(QuantificationFilterTest, ProgressCancellationAndJoins) {
    using Filter = ImageToQuantificationFilter3d<int, SimdVec::arch_256_tag, CountingKernel>;
    analysis::IntensityExtrema owner;
    owner.setGrainSizes({1, 2, 1000});
    MemoryImage image(Int32, 9, 16, 6, 2, 1);
    {
        Filter filter(&owner);
        filter.setProcessingRegion(access::Region(0, 16, 0, 9, 0, 6, 0, 2, 0, 1));
        filter.run();
        EXPECT_EQ(filter.getKernel().voxels, image.getNumOfVoxels());
        EXPECT_EQ(filter.getProgress(), image.getNumOfVoxels());
        EXPECT_GT(filter.getKernel().blocks, 2u);
    }
    {
        owner.setGrainSizes({100, 100, 1000});
        Filter filter(&owner);
        filter.setProcessingRegion(access::Region(0, 16, 0, 9, 0, 6, 0, 1, 0, 1));
        filter.run();
        EXPECT_EQ(filter.getKernel().blocks, 1u);  // one block, no join
    }
    {
        owner.setGrainSizes({1, 1, 1000});
        std::atomic<int> countdown{5};
        CountingKernel::cancelAfter = &countdown;
        Filter filter(&owner);
        filter.setProcessingRegion(access::Region(0, 16, 0, 9, 0, 6, 0, 2, 0, 1));
        EXPECT_THROW(filter.run(), ExceptionCancelation);
        CountingKernel::cancelAfter = nullptr;
        EXPECT_LT(filter.getProgress(), image.getNumOfVoxels());
        EXPECT_EQ(filter.getProgress() % 9, 0u);  // whole blocks of one row each
    }
}

} // namespace
