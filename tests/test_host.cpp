// Host framework: border reads, deferred writes, settings, images, progress and cancellation.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

#include <tbb/parallel_for.h>

#include "host/Algorithms.h"
#include "host/Cpu.h"
#include "host/PrivateImplementation.h"
#include "host/Settings.h"
#include "host/TemporaryImage.h"
#include "host/View.h"

using namespace lyn;

namespace {

template <class T>
using HostView = access::View<T, std::allocator<T>>;

// Value stored at a voxel: distinct per position, representable in every type.
long long voxelValue(long c, long r, long p, long s, long l) { return (((l * 2 + s) * 3 + p) * 4 + r) * 5 + c; }

template <class T>
std::unique_ptr<MemoryImage> numbered(VoxelTypes id) {
    auto image = std::make_unique<MemoryImage>(id, 5, 4, 3, 2, 2);
    T* d = image->template dataAs<T>();
    for (long l = 0; l < 2; ++l)
        for (long s = 0; s < 2; ++s)
            for (long p = 0; p < 3; ++p)
                for (long r = 0; r < 4; ++r)
                    for (long c = 0; c < 5; ++c) d[image->index(c, r, p, s, l)] = static_cast<T>(voxelValue(c, r, p, s, l) % 100);
    return image;
}

template <class Traits>
class BorderReadTest : public ::testing::Test {};
using AllTraits = ::testing::Types<VoxelTraits<UInt8>, VoxelTraits<UInt16>, VoxelTraits<UInt32>, VoxelTraits<UInt64>,
                                   VoxelTraits<Int8>, VoxelTraits<Int16>, VoxelTraits<Int32>, VoxelTraits<Int64>,
                                   VoxelTraits<Float>, VoxelTraits<Double>, VoxelTraits<Binary>, VoxelTraits<Label>>;
TYPED_TEST_SUITE(BorderReadTest, AllTraits);

// Every row start from outside to outside in each of the five axes, against a per-voxel reference.
TYPED_TEST(BorderReadTest, FixedAndContinueFillEveryPosition) {
    using T = typename TypeParam::type;
    auto image = numbered<T>(TypeParam::id);
    const long ext[5] = {5, 4, 3, 2, 2};
    const T border = TypeParam::highest();
    auto fixed = HostView<T>::New(static_cast<const ImageModel*>(image.get()), access::FixedBorderCondition<T>::New(border));
    auto cont = HostView<T>::New(static_cast<const ImageModel*>(image.get()), access::ContinueBorderCondition<T>::New());
    const T* d = image->template dataAs<T>();
    auto clampTo = [](long v, long n) { return std::min(std::max(v, 0L), n - 1); };
    std::vector<T> row(12);
    for (long l = -2; l <= 3; ++l)
        for (long s = -1; s <= 2; ++s)
            for (long p = -2; p <= 4; ++p)
                for (long r = -2; r <= 5; ++r)
                    for (long c0 = -14; c0 <= 7; c0 += 3)
                        for (long len : {1L, 3L, 12L}) {
                            fixed->readRow(row.data(), row.data() + len, c0, r, p, s, l);
                            for (long i = 0; i < len; ++i) {
                                long c = c0 + i;
                                bool inside = c >= 0 && c < ext[0] && r >= 0 && r < ext[1] && p >= 0 && p < ext[2] &&
                                              s >= 0 && s < ext[3] && l >= 0 && l < ext[4];
                                T expect = inside ? d[image->index(c, r, p, s, l)] : border;
                                ASSERT_EQ(row[i], expect) << c << "," << r << "," << p << "," << s << "," << l;
                            }
                            cont->readRow(row.data(), row.data() + len, c0, r, p, s, l);
                            for (long i = 0; i < len; ++i) {
                                T expect = d[image->index(clampTo(c0 + i, 5), clampTo(r, 4), clampTo(p, 3),
                                                          clampTo(s, 2), clampTo(l, 2))];
                                ASSERT_EQ(row[i], expect) << c0 + i << "," << r << "," << p << "," << s << "," << l;
                            }
                        }
}

// Row pieces kept from many threads at once are all written, clipped to the image.
TEST(ViewTest, ConcurrentTemporizedWritesAreAllApplied) {
    struct Row {
        std::vector<int> values;
        long col, row;
        const int* data() const { return values.data(); }
        unsigned long size() const { return values.size(); }
        long getColumn() const { return col; }
        long getRow() const { return row; }
        long getPlan() const { return 0; }
        long getSequence() const { return 0; }
        long getSpectral() const { return 0; }
    };
    const long cols = 97, rows = 400;
    MemoryImage image(Int32, cols, rows);
    auto view = HostView<int>::New(&image, access::FixedBorderCondition<int>::New(-1));
    tbb::parallel_for(0L, rows, [&](long r) {
        // One row from column -2 with two margin values, kept in three pieces.
        Row row{std::vector<int>(cols + 4), -2, r};
        for (long c = 0; c < cols + 4; ++c) row.values[c] = static_cast<int>(r * 1000 + c - 2);
        view->temporizeRowWriting(row, 3, 0);
        view->temporizeRowWriting(row, 40, 3);
        view->temporizeRowWriting(row, cols + 4 - 43, 43);
    });
    EXPECT_EQ(view->countTemporizedPieces(), static_cast<std::size_t>(3 * rows));
    EXPECT_EQ(image.dataAs<int>()[0], 0);  // nothing written before the flush
    view->writeAllTemporizedRows();
    EXPECT_EQ(view->countTemporizedPieces(), 0u);
    for (long r = 0; r < rows; ++r)
        for (long c = 0; c < cols; ++c) ASSERT_EQ(image.dataAs<int>()[image.index(c, r)], r * 1000 + c);
}

TEST(ViewTest, RejectsMismatchedElementSize) {
    MemoryImage image(UInt16, 4, 4);
    EXPECT_THROW(HostView<float>::New(&image, access::FixedBorderCondition<float>::New(0)), RuleException);
}

TEST(ImageTest, StorageIsAlignedAndReshapedOnDemand) {
    MemoryImage a(Float, 3, 5, 7);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(a.data()) % 32, 0u);
    MemoryImage b;
    b.enforceSameCharacteristics(&a, ImageModel::SameAll);
    EXPECT_EQ(b.extents(), a.extents());
    EXPECT_EQ(b.getVoxelType(), Float);
    EXPECT_EQ(b.describe(), "3 x 5 x 7 float32");
    ImageModelSizeProxy proxy(&a, 1, 2, 0, 5, 3, 1, 0, 1, 0, 1);
    EXPECT_EQ(proxy.getNumOf(Columns), 2u);
    EXPECT_EQ(proxy.getNumOf(Plans), 1u);
    EXPECT_THROW(ImageModelSizeProxy(&a, 2, 2, 0, 5, 0, 7, 0, 1, 0, 1), RuleException);
}

TEST(SettingsTest, ParsesBooleansAndByteCounts) {
    Settings s;
    struct {
        const char* text;
        bool value;
    } bools[] = {{"1", true}, {"TRUE", true}, {"yes", true}, {"On", true}, {"0", false}, {"false", false}, {"no", false}, {"off", false}};
    for (auto& b : bools) {
        s.setValue("LYN_TEST_BOOL", b.text);
        EXPECT_EQ(s.getValueAsBool("LYN_TEST_BOOL", !b.value), b.value) << b.text;
    }
    s.setValue("LYN_TEST_BOOL", "maybe");
    EXPECT_THROW(s.getValueAsBool("LYN_TEST_BOOL", true), RuleException);
    EXPECT_TRUE(s.getValueAsBool("LYN_TEST_ABSENT_KEY", true));
    EXPECT_EQ(parseByteCount("512", "x"), 512u);
    EXPECT_EQ(parseByteCount("64K", "x"), 65536u);
    EXPECT_EQ(parseByteCount("1.5G", "x"), 1610612736u);
    EXPECT_EQ(parseByteCount("2MiB", "x"), 2097152u);
    EXPECT_THROW(parseByteCount("-1", "x"), RuleException);
    EXPECT_THROW(parseByteCount("12Q", "x"), RuleException);
}

TEST(CpuTest, OverrideReplacesDetectedLevel) {
    const auto& cpu = devices::Cpu::getDevice();
    devices::Cpu::overrideAVXLevel(1);
    EXPECT_EQ(cpu.getAVXLevel(), 1);
    EXPECT_TRUE(cpu.hasAVX());
    devices::Cpu::overrideAVXLevel(0);
    EXPECT_FALSE(cpu.hasAVX());
    devices::Cpu::overrideAVXLevel(-1);
    EXPECT_EQ(cpu.getAVXLevel(), cpu.detectedAVXLevel());
}

TEST(ExceptionTest, WhatNamesMessageAndSource) {
    try {
        raise<RuleException>("The temporary in memory image cannot be allocated.",
                             "Core/private/Filters/RecursiveImageFilters.impl", 195);
    } catch (const Exception& e) {
        EXPECT_STREQ(e.what(),
                     "The temporary in memory image cannot be allocated. [Core/private/Filters/RecursiveImageFilters.impl:195]");
        EXPECT_EQ(e.getInfo().line, 195);
        EXPECT_STREQ(e.kind(), "RuleException");
    }
    EXPECT_STREQ(ExceptionCancelation().getInfo().message.c_str(), "");
}

TEST(AlgorithmTest, MissingImagesAreRefused) {
    morphology::Dilation2d missing;
    EXPECT_THROW(missing.execute(), RuleException);
}

TEST(AlgorithmTest, PropertiesFollowTheDeclaredOrder) {
    morphology::Erosion3d e;
    std::vector<std::string> names;
    for (auto* p : e.getProperties()) names.push_back(p->getName());
    EXPECT_EQ(names, (std::vector<std::string>{"InputImage", "KernelRadius", "Neighborhood", "OutputImage"}));
    morphology::DilationLine3d l;
    names.clear();
    for (auto* p : l.getProperties()) names.push_back(p->getName());
    EXPECT_EQ(names, (std::vector<std::string>{"InputImage", "Angle1", "Angle2", "Size", "OutputImage"}));
}

// Workers report at once; the observer, which is not thread-safe, must see one call at a time, rising.
TEST(AlgorithmTest, ProgressReachesTheObserverOneCallAtATimeRising) {
    struct Checker : ProgressObserver {
        std::atomic<int> inside{0};
        bool overlapped = false;
        std::vector<double> seen;
        void onProgress(double f) override {
            if (inside.fetch_add(1) != 0) overlapped = true;
            seen.push_back(f);
            std::this_thread::yield();
            inside.fetch_sub(1);
        }
    } checker;
    analysis::IntensityExtrema algo;
    algo.setProgressObserver(&checker);
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t)
        workers.emplace_back([&algo, t] {
            for (int i = t; i <= 1000; i += 4) algo.reportProgress(i / 1000.0);
        });
    for (auto& w : workers) w.join();
    EXPECT_FALSE(checker.overlapped);
    ASSERT_FALSE(checker.seen.empty());
    EXPECT_TRUE(std::is_sorted(checker.seen.begin(), checker.seen.end()));
    EXPECT_EQ(std::adjacent_find(checker.seen.begin(), checker.seen.end()), checker.seen.end());
    EXPECT_EQ(checker.seen.back(), 1.0);
}

// Child runs fill their parent's current step; cancellation on the public algorithm reaches them.
TEST(PrivateImplementationTest, ChildProgressAndCancellationFollowTheParent) {
    struct Recorder : ProgressObserver {
        std::vector<double> seen;
        void onProgress(double f) override { seen.push_back(f); }
    } recorder;
    analysis::IntensityExtrema pub;
    pub.setProgressObserver(&recorder);
    struct Child : BaseTbbAlgorithm {
        Child() : BaseTbbAlgorithm(nullptr) {}
        void run() override {
            setMaxProgress(100);
            addProgress(50);
            addProgress(50);
        }
    };
    struct Parent : algorithms::AbstractPrivateImplementation {
        using AbstractPrivateImplementation::AbstractPrivateImplementation;
        void run() override {
            m_nbSteps = 2;
            Child a, b;
            runChildAlgo(&a);
            runChildAlgo(&b);
        }
    } parent(&pub);
    parent.run();
    EXPECT_EQ(recorder.seen, (std::vector<double>{0.25, 0.5, 0.75, 1.0}));
    Child orphan;
    EXPECT_FALSE(orphan.isCancelled());
    pub.cancelExecution();
    struct Probe : algorithms::AbstractPrivateImplementation {
        using AbstractPrivateImplementation::AbstractPrivateImplementation;
        bool sawCancel = false;
        void run() override {
            Child c;
            struct Check : algorithms::AbstractPrivateImplementation {
                bool* flag;
                explicit Check(bool* f) : AbstractPrivateImplementation(nullptr), flag(f) {}
                void run() override { *flag = isCancelled(); }
            } check(&sawCancel);
            runChildAlgo(&check);
        }
    } probe(&pub);
    probe.run();
    EXPECT_TRUE(probe.sawCancel);
}

// A scratch image keeps its buffer for any shape that fits it, and the buffer of a finished
// temporary image serves the next temporary image.
TEST(TemporaryImageTest, BuffersAreReusedWhileTheyFit) {
    MemoryImage a;
    a.allocate(Float, {64, 64, 1, 1, 1}, false);
    void* first = a.data();
    a.allocate(UInt16, {100, 50, 1, 1, 1}, false);
    EXPECT_EQ(a.data(), first);
    EXPECT_EQ(a.describe(), "100 x 50 uint16");
    a.allocate(UInt16, {100, 50, 1, 1, 1});  // zero-filled: a fresh buffer
    EXPECT_EQ(a.dataAs<std::uint16_t>()[4999], 0u);

    void* kept = nullptr;
    {
        auto t = io::TemporaryImage::New(io::TemporaryImage::InMemory);
        ASSERT_TRUE(t->reserve(Int32, 32, 32, 4, 1, 1));
        kept = static_cast<MemoryImage*>(t->getImageModel())->data();
    }
    auto t = io::TemporaryImage::New(io::TemporaryImage::InMemory);
    ASSERT_TRUE(t->reserve(Float, 32, 32, 3, 1, 1));
    EXPECT_EQ(static_cast<MemoryImage*>(t->getImageModel())->data(), kept);
    EXPECT_EQ(t->getImageModel()->describe(), "32 x 32 x 3 float32");
}

TEST(TemporaryImageTest, InMemoryReservesAndHandleCounts) {
    auto temp = io::TemporaryImage::New(io::TemporaryImage::InMemory);
    ASSERT_TRUE(temp->reserve(Double, 8, 4, 2, 1, 1));
    EXPECT_EQ(temp->getImageModel()->getNumOfVoxels(), 64u);
    EXPECT_FALSE(temp->reserve(UInt8, 1UL << 62, 1UL << 62, 1, 1, 1));
    RefImpl<io::TemporaryImage> empty;
    EXPECT_THROW(empty->getImageModel(), UnexpectedError);
}

} // namespace
