// Kernel layer, white box. General offset lists (the structuring elements of disks, balls and
// lines): the iterators' reach and the generic-offset kernels against a plain scalar fold in list
// order.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "Core/private/Access/Iterators.h"
#include "Core/private/Filters/RecursiveImageFilters.h"
#include "host/Algorithms.h"
#include "host/Cpu.h"
#include "morphology/Neighborhood2dToValueSimd.h"
#include "morphology/Neighborhood3dToValueSimd.h"

using namespace lyn;

namespace {

using FloatView = access::View<float, SimdVec::AlignedAllocator<float, 32>>;

TEST(OffsetIteratorTest, ReachAndInfluenceFollowTheOffsets) {
    MemoryImage image(Float, 10, 6);
    auto view = FloatView::New(static_cast<const ImageModel*>(&image), access::FixedBorderCondition<float>::New(0));
    access::IteratorNeighborhood2D_Gen<FloatView, 8> it(view, {{-2, 0}, {1, 3}});
    const AlgoBorderInfluence influence = it.getBorderInfluence();
    const std::uint64_t expected[10] = {2, 1, 0, 3, 0, 0, 0, 0, 0, 0};
    for (int d = 0; d < 10; ++d) EXPECT_EQ(influence.getNumOfVoxels(DirectionTypes(d)), expected[d]) << d;
    for (std::uint64_t i = 0; i < image.getNumOfVoxels(); ++i) image.dataAs<float>()[i] = float(i);
    it.init(access::Block2d(1, 4, 1, 2, 9, 1, 0, 0, 0));
    // Operand k points at block column 0 of its row: (2 - 2, 1) and (2 + 1, 1 + 3).
    EXPECT_EQ(*it.ptr(0), float(image.index(0, 1)));
    EXPECT_EQ(*it.ptr(1), float(image.index(3, 4)));
    it.nextRow();
    EXPECT_EQ(*it.ptr(1), float(image.index(3, 5)));

    access::IteratorNeighborhood2D_Gen<FloatView, 8> centre(view, {{0, 0}});
    const AlgoBorderInfluence none = centre.getBorderInfluence();
    for (int d = 0; d < 10; ++d) EXPECT_EQ(none.getNumOfVoxels(DirectionTypes(d)), 0u);
}

// Scalar reference: fold in list order with the accumulator first (ties and NaN: the later wins).
float foldAt(const MemoryImage& in, const std::vector<kernel::Offset3D>& offsets, long x, long y, long z, bool dilate,
             float border) {
    const Extents e = in.extents();
    float acc = 0;
    for (std::size_t k = 0; k < offsets.size(); ++k) {
        const long xx = x + offsets[k].x, yy = y + offsets[k].y, zz = z + offsets[k].z;
        const bool inside = xx >= 0 && yy >= 0 && zz >= 0 && xx < long(e[0]) && yy < long(e[1]) && zz < long(e[2]);
        const float v = inside ? in.dataAs<float>()[in.index(xx, yy, zz)] : border;
        acc = k == 0 ? v : dilate ? (acc > v ? acc : v) : (acc < v ? acc : v);
    }
    return acc;
}

template <class Filter, class Op>
void runPasses(BaseAlgorithm* owner, const MemoryImage& in, MemoryImage& out, Op op, unsigned passes, float border) {
    Filter filter(owner, std::move(op));
    filter.setInput(&in, access::FixedBorderCondition<float>::New(border));
    filter.setOutput(&out, access::FixedBorderCondition<float>::New(border));
    filter.setIterations(passes);
    filter.run();
}

TEST(OffsetKernelTest, GeneralOffsetsMatchAScalarFoldInListOrder) {
    if (devices::Cpu::getDevice().getAVXLevel() < 2) GTEST_SKIP() << "no AVX2";
    using Arch = SimdVec::arch_256_tag;
    using Dil2 = morphology::Neighborhood2dToValueSimd<morphology::details::DilationFunctor, access::Neighborhood2D_GenTag,
                                                       std::vector<kernel::Offset2D>>;
    using Ero3 = morphology::Neighborhood3dToValueSimd<morphology::details::ErosionFunctor, access::Neighborhood3D_GenTag,
                                                       std::vector<kernel::Offset3D>>;
    const std::vector<kernel::Offset2D> line = {{-2, 0}, {1, 3}, {0, 0}, {0, -1}, {3, -2}};
    const std::vector<kernel::Offset3D> blob = {{0, 0, -2}, {-1, 1, 0}, {0, 0, 0}, {2, -1, 1}, {0, 0, 1}};
    std::mt19937 rng(3);
    std::normal_distribution<float> value(0, 10);
    analysis::IntensityExtrema owner;  // carries the grain sizes, threads and memory budget
    for (bool inPlace : {false, true})
        for (unsigned passes : {1u, 3u})
            for (std::uint64_t budget : {std::uint64_t(0), std::uint64_t(1) << 40}) {
                owner.setGrainSizes({1, 2, 5});
                owner.setMaximumExtraMemoryUsageInBytes(budget);
                for (int dims : {2, 3}) {
                    const Extents e = dims == 2 ? Extents{29, 17, 1, 1, 1} : Extents{13, 9, 7, 1, 1};
                    MemoryImage in(Float, e);
                    for (std::uint64_t i = 0; i < in.getNumOfVoxels(); ++i)
                        in.dataAs<float>()[i] = i % 17 == 0 ? std::numeric_limits<float>::quiet_NaN() : value(rng);
                    // Reference: the passes one after the other, each from a full copy.
                    MemoryImage expected(Float, e), previous(Float, e);
                    std::memcpy(previous.data(), in.data(), in.getSizeInBytes());
                    std::vector<kernel::Offset3D> offsets = blob;
                    if (dims == 2) {
                        offsets.clear();
                        for (auto o : line) offsets.push_back({o.x, o.y, 0});
                    }
                    const bool dilate = dims == 2;
                    const float border = dilate ? std::numeric_limits<float>::lowest() : std::numeric_limits<float>::max();
                    for (unsigned p = 0; p < passes; ++p) {
                        for (long z = 0; z < long(e[2]); ++z)
                            for (long y = 0; y < long(e[1]); ++y)
                                for (long x = 0; x < long(e[0]); ++x)
                                    expected.dataAs<float>()[expected.index(x, y, z)] =
                                        foldAt(previous, offsets, x, y, z, dilate, border);
                        std::memcpy(previous.data(), expected.data(), expected.getSizeInBytes());
                    }
                    MemoryImage out(Float, e);
                    const MemoryImage* source = &in;
                    if (inPlace) {
                        std::memcpy(out.data(), in.data(), in.getSizeInBytes());
                        source = &out;
                    }
                    if (dims == 2)
                        runPasses<RecursiveImageFilter2d<float, float, Arch, Dil2>>(&owner, *source, out, Dil2(line), passes,
                                                                                 border);
                    else
                        runPasses<RecursiveImageFilter3d<float, float, Arch, Ero3>>(&owner, *source, out, Ero3(blob), passes,
                                                                                 border);
                    ASSERT_EQ(std::memcmp(out.data(), expected.data(), out.getSizeInBytes()), 0)
                        << dims << "D in-place=" << inPlace << " passes=" << passes << " budget=" << budget;
                }
            }
}

} // namespace
