// Images on disk: the file image itself, temporary images on disk and where the recursive filter
// puts its temporary image, and square/cube morphology with disk-backed inputs and outputs against
// the same runs in memory, bit for bit, through the plug-in and the generic code.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <tbb/parallel_for.h>

#include "Core/private/Filters/RecursiveImageFilters.h"
#include "host/Algorithms.h"
#include "host/Cpu.h"
#include "host/DiskImage.h"
#include "host/PluginLoader.h"
#include "host/Settings.h"
#include "host/TemporaryImage.h"
#include "host/View.h"
#include "simd/AlignedAllocator.h"
#include "tests/support.h"

using namespace lyn;
using namespace lyn::test;

namespace {


// A fresh directory, removed with whatever it holds at the end of the test.
class ScratchDir {
public:
    ScratchDir() {
        char name[] = "/tmp/lyn-disk-test-XXXXXX";
        if (!::mkdtemp(name)) throw std::runtime_error("mkdtemp");
        m_path = name;
    }
    ~ScratchDir() {
        for (const std::string& e : entries()) ::unlink((m_path + "/" + e).c_str());
        ::rmdir(m_path.c_str());
    }
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    std::vector<std::string> entries() const {
        std::vector<std::string> out;
        if (DIR* d = ::opendir(m_path.c_str())) {
            while (dirent* e = ::readdir(d))
                if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..")) out.push_back(e->d_name);
            ::closedir(d);
        }
        return out;
    }

private:
    std::string m_path;
};

// Open descriptors of this process whose target lies in `dir` (an unnamed file shows as "dir/#N").
int openFilesIn(const std::string& dir) {
    int n = 0;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        while (dirent* e = ::readdir(d)) {
            char target[4096];
            const ssize_t len = ::readlinkat(::dirfd(d), e->d_name, target, sizeof target - 1);
            if (len <= 0) continue;
            target[len] = 0;
            if (std::strncmp(target, dir.c_str(), dir.size()) == 0 && target[dir.size()] == '/') ++n;
        }
        ::closedir(d);
    }
    return n;
}

class SettingGuard {
public:
    SettingGuard(const char* key, const std::string& value) : m_key(key) { globalSettings()->setValue(key, value); }
    ~SettingGuard() { globalSettings()->unsetValue(m_key); }

private:
    const char* m_key;
};

std::unique_ptr<DiskImage> toDisk(const MemoryImage& image, const std::string& path) {
    auto disk = DiskImage::createNpy(path, image.getVoxelType(), image.extents(), image.getNumOf(Plans) > 1 ? 3 : 2);
    const Extents e = image.extents();
    const std::size_t rowBytes = e[0] * helper::getSizeOf(image.getVoxelType());
    for (std::uint64_t l = 0; l < e[4]; ++l)
        for (std::uint64_t s = 0; s < e[3]; ++s)
            for (std::uint64_t p = 0; p < e[2]; ++p)
                for (std::uint64_t r = 0; r < e[1]; ++r)
                    EXPECT_TRUE(disk->writeRaw(static_cast<const char*>(image.data()) + image.index(0, r, p, s, l) * (rowBytes / e[0]),
                                               e[0], 0, long(r), long(p), long(s), long(l)));
    return disk;
}

std::unique_ptr<MemoryImage> toMemory(const ImageModel& image) {
    auto out = std::make_unique<MemoryImage>(image.getVoxelType(), image.extents());
    const Extents e = image.extents();
    const std::size_t size = helper::getSizeOf(image.getVoxelType());
    for (std::uint64_t l = 0; l < e[4]; ++l)
        for (std::uint64_t s = 0; s < e[3]; ++s)
            for (std::uint64_t p = 0; p < e[2]; ++p)
                for (std::uint64_t r = 0; r < e[1]; ++r)
                    image.readRaw(static_cast<char*>(out->data()) + out->index(0, r, p, s, l) * size, e[0], 0, long(r), long(p),
                                  long(s), long(l));
    return out;
}


std::string fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// ---------------------------------------------------------------------------------------------
TEST(DiskImageTest, NpyFileRoundTripsAndConcurrentRowsLandInPlace) {
    ScratchDir dir;
    for (VoxelTypes t : {UInt8, Int16, Float, Double, UInt64}) {
        MemoryImage image(t, 37, 29, 5, 2, 1);
        fill(image, t);
        const std::string path = dir.file(std::string(voxelTypeName(t)) + ".npy");
        {
            auto disk = DiskImage::createNpy(path, t, image.extents(), 4);
            EXPECT_EQ(disk->getStorageType(), 1);
            // Rows from many threads at once, each written whole.
            const std::size_t size = helper::getSizeOf(t);
            tbb::parallel_for(0L, 2L * 5 * 29, [&](long i) {
                const long r = i % 29, p = i / 29 % 5, s = i / 29 / 5;
                ASSERT_TRUE(disk->writeRaw(static_cast<const char*>(image.data()) + image.index(0, r, p, s) * size, 37, 0, r, p,
                                           s, 0));
            });
            disk->sync();
        }
        // The bytes NumPy would write: the header, then the voxels in C order.
        const std::string bytes = fileBytes(path);
        const std::string header = npyHeader(t, image.extents(), 4);
        EXPECT_EQ(header.size() % 64, 0u);
        EXPECT_NE(header.find("'shape': (2, 5, 29, 37), }"), std::string::npos) << header;
        ASSERT_EQ(bytes.size(), header.size() + image.getSizeInBytes());
        EXPECT_EQ(bytes.compare(0, header.size(), header), 0);
        EXPECT_EQ(std::memcmp(bytes.data() + header.size(), image.data(), image.getSizeInBytes()), 0);

        DiskImage::FileLayout layout;
        layout.type = t;
        layout.extents = image.extents();
        layout.dataOffset = header.size();
        auto reopened = DiskImage::open(path, layout, false);
        EXPECT_TRUE(sameBits(*toMemory(*reopened), image)) << voxelTypeName(t);
        // Rows read from many threads, in pieces, against the memory image.
        tbb::parallel_for(0L, 5L * 29, [&](long i) {
            std::vector<char> got(37 * helper::getSizeOf(t)), want(got.size());
            const long r = i % 29, p = i / 29, c = i % 7;
            reopened->readRaw(got.data(), std::uint64_t(37 - c), c, r, p, 1, 0);
            image.readRaw(want.data(), std::uint64_t(37 - c), c, r, p, 1, 0);
            ASSERT_EQ(std::memcmp(got.data(), want.data(), (37 - c) * helper::getSizeOf(t)), 0);
        });
        // Read-only, and writes outside the image, are refused.
        EXPECT_FALSE(reopened->writeRaw(image.data(), 1, 0, 0, 0, 0, 0));
        auto writable = DiskImage::open(path, layout, true);
        EXPECT_FALSE(writable->writeRaw(image.data(), 2, 36, 0, 0, 0, 0));
        EXPECT_FALSE(writable->writeRaw(image.data(), 1, 0, 29, 0, 0, 0));
        EXPECT_FALSE(writable->writeRaw(image.data(), 1, 0, 0, 0, 2, 0));
    }
}

TEST(DiskImageTest, BigEndianFilesReadAndWriteInTheirOwnOrder) {
    ScratchDir dir;
    const std::string path = dir.file("be.raw");
    const std::uint16_t be[6] = {0x0100, 0x0200, 0x0300, 0x0400, 0x0500, 0x0600};  // 1..6 stored big-endian
    {
        std::ofstream out(path, std::ios::binary);
        out.write("pad!", 4);
        out.write(reinterpret_cast<const char*>(be), sizeof be);
    }
    DiskImage::FileLayout layout;
    layout.type = UInt16;
    layout.extents = {3, 2, 1, 1, 1};
    layout.dataOffset = 4;
    layout.bigEndian = true;
    auto image = DiskImage::open(path, layout, true);
    std::uint16_t row[3];
    image->readRaw(row, 3, 0, 1, 0, 0, 0);
    EXPECT_EQ(row[0], 4);
    EXPECT_EQ(row[2], 6);
    const std::uint16_t seven = 7;
    ASSERT_TRUE(image->writeRaw(&seven, 1, 1, 0, 0, 0, 0));
    image->flushWrites();  // held back until then
    EXPECT_EQ(fileBytes(path).substr(6, 2), std::string("\x00\x07", 2));
    image->readRaw(row, 3, 0, 0, 0, 0, 0);
    EXPECT_EQ(row[1], 7);
}

// A plan's rows fetched at once (vectored reads on disk) give what fetching them one by one gives,
// whatever the window: rows and columns beyond the edges, more rows than one call takes, parts of
// rows, a byte-swapped file, a sub-box, and both border conditions.
TEST(DiskImageTest, ManyRowsAtOnceReadAsOneByOne) {
    using View = access::View<std::int16_t, SimdVec::AlignedAllocator<std::int16_t, 32>>;
    ScratchDir dir;
    MemoryImage image(Int16, 37, 300, 3);
    fill(image, 7);
    auto disk = toDisk(image, dir.file("rows.npy"));
    disk->flushWrites();
    // The same voxels big-endian, behind an 8-byte header.
    {
        std::vector<char> swapped(static_cast<const char*>(image.data()),
                                  static_cast<const char*>(image.data()) + image.getSizeInBytes());
        for (std::size_t i = 0; i < swapped.size(); i += 2) std::swap(swapped[i], swapped[i + 1]);
        std::ofstream out(dir.file("rows.be"), std::ios::binary);
        out.write("header!!", 8);
        out.write(swapped.data(), std::streamsize(swapped.size()));
    }
    DiskImage::FileLayout layout;
    layout.type = Int16;
    layout.extents = image.extents();
    layout.dataOffset = 8;
    layout.bigEndian = true;
    auto bigEndian = DiskImage::open(dir.file("rows.be"), layout, false);
    const ImageModelSizeProxy sub(disk.get(), 2, 33, 5, 290, 1, 2, 0, 1, 0, 1);
    const std::pair<const ImageModel*, const char*> sources[] = {
        {&image, "memory"}, {disk.get(), "disk"}, {bigEndian.get(), "big-endian"}, {&sub, "sub-box"}};
    for (const auto& [source, name] : sources)
        for (bool fixed : {true, false}) {
            std::shared_ptr<access::BorderCondition<std::int16_t>> border;
            if (fixed) border = access::FixedBorderCondition<std::int16_t>::New(-7);
            else border = access::ContinueBorderCondition<std::int16_t>::New();
            auto view = View::New(source, border);
            for (long col : {-1L, 0L, 3L})
                for (long n : {5L, 34L, 39L})
                    for (long row : {-2L, 0L, 10L, 289L})
                        for (long rows : {1L, 3L, 300L, 420L})
                            for (long plan : {-1L, 0L, 2L}) {
                                std::vector<std::vector<std::int16_t>> got(std::size_t(rows), std::vector<std::int16_t>(std::size_t(n), 1));
                                std::vector<std::int16_t*> at;
                                for (auto& r : got) at.push_back(r.data());
                                view->readRows(at.data(), n, col, row, rows, plan, 0, 0);
                                std::vector<std::int16_t> want(static_cast<std::size_t>(n));
                                for (long i = 0; i < rows; ++i) {
                                    view->readRow(want.data(), want.data() + n, col, row + i, plan, 0, 0);
                                    ASSERT_EQ(got[std::size_t(i)], want)
                                        << name << (fixed ? " fixed" : " continue") << " col " << col << " n " << n
                                        << " row " << row << " + " << i << " of " << rows << " plan " << plan;
                                }
                            }
        }
}

// Rows computed where rowToWrite says land as copied rows do, also when something flushed the
// held-back writes in between (the row then moves), when rows do not follow one another, and when
// a row would not fit the buffer; byte-swapped files and rows outside the image get no place.
TEST(DiskImageTest, RowsComputedInTheHeldBackWritesLandAsCopiedOnes) {
    ScratchDir dir;
    const long cols = 1000, rows = 300;  // 300 rows of 4000 bytes: more than one buffer's worth
    MemoryImage want(Int32, cols, rows, 2);
    fill(want, 11);
    auto disk = DiskImage::createNpy(dir.file("staged.npy"), Int32, want.extents(), 3);
    auto rowOf = [&](long r, long p) { return want.dataAs<std::int32_t>() + (p * rows + r) * cols; };
    std::vector<std::int32_t> scratch(cols);
    // Plan 0 in order, plan 1 backwards (no row follows the last); every fifth row read back
    // before it is handed over, which flushes what is held.
    for (long p = 0; p < 2; ++p)
        for (long i = 0; i < rows; ++i) {
            const long r = p == 0 ? i : rows - 1 - i;
            auto* place = static_cast<std::int32_t*>(disk->rowToWrite(cols, 0, r, p, 0, 0));
            ASSERT_NE(place, nullptr);
            std::memcpy(place, rowOf(r, p), cols * sizeof(std::int32_t));
            if (i % 5 == 4) disk->readRaw(scratch.data(), cols, 0, 0, 0, 0, 0);
            ASSERT_TRUE(disk->writeRaw(place, cols, 0, r, p, 0, 0));
        }
    disk->flushWrites();
    EXPECT_TRUE(sameBits(*toMemory(*disk), want));
    EXPECT_EQ(disk->rowToWrite(cols, 1, 0, 0, 0, 0), nullptr);  // past the row's end
    EXPECT_EQ(disk->rowToWrite(1, 0, rows, 0, 0, 0), nullptr);
    DiskImage::FileLayout layout;
    layout.type = Int32;
    layout.extents = want.extents();
    layout.dataOffset = 0;
    layout.bigEndian = true;
    EXPECT_EQ(DiskImage::open(dir.file("staged.npy"), layout, true)->rowToWrite(1, 0, 0, 0, 0, 0), nullptr);
    layout.bigEndian = false;
    EXPECT_EQ(DiskImage::open(dir.file("staged.npy"), layout, false)->rowToWrite(1, 0, 0, 0, 0, 0), nullptr);
}

TEST(DiskImageTest, FailuresNameTheFile) {
    ScratchDir dir;
    DiskImage::FileLayout layout;
    layout.type = Float;
    layout.extents = {10, 10, 1, 1, 1};
    auto expectRuntime = [](auto&& f, const std::string& part) {
        try {
            f();
            ADD_FAILURE() << "no error for " << part;
        } catch (const RuntimeError& e) {
            EXPECT_NE(std::string(e.what()).find(part), std::string::npos) << e.what();
        }
    };
    expectRuntime([&] { DiskImage::open(dir.file("missing.npy"), layout, false); }, "missing.npy: cannot open");
    { std::ofstream(dir.file("short.raw")) << "0123456789"; }
    expectRuntime([&] { DiskImage::open(dir.file("short.raw"), layout, false); }, "short.raw: the file is shorter");
    DiskImage::createNpy(dir.file("a.npy"), UInt8, {4, 4, 1, 1, 1}, 2);
    expectRuntime([&] { DiskImage::createNpy(dir.file("a.npy"), UInt8, {4, 4, 1, 1, 1}, 2); }, "a.npy: cannot create");
    expectRuntime([&] { DiskImage::createUnnamed(dir.file("nowhere"), UInt8, {4, 4, 1, 1, 1}); }, "nowhere");
    // An image on disk keeps its type and extents.
    auto image = DiskImage::createUnnamed(dir.path(), UInt8, {4, 4, 1, 1, 1});
    MemoryImage other(UInt16, 4, 4);
    EXPECT_THROW(image->enforceSameCharacteristics(&other, ImageModel::SameAll), RuleException);
    EXPECT_NO_THROW(image->enforceSameCharacteristics(&other, ImageModel::SameSize));
}

TEST(TemporaryImageTest, OnDiskIsAnUnnamedFileInTheTemporaryDirectory) {
    ScratchDir dir;
    SettingGuard tmp("LYN_TMPDIR", dir.path());
    EXPECT_EQ(io::temporaryDirectory(), dir.path());
    {
        auto temp = io::TemporaryImage::New(io::TemporaryImage::OnDisk);
        ASSERT_TRUE(temp->reserve(Int32, 100, 50, 3, 1, 1)) << temp->getFailure();
        EXPECT_EQ(temp->getImageModel()->getStorageType(), 1);
        EXPECT_EQ(temp->getImageModel()->describe(), "100 x 50 x 3 int32");
        EXPECT_EQ(openFilesIn(dir.path()), 1);
        EXPECT_TRUE(dir.entries().empty());  // no name, from the start
        const std::int32_t row[100] = {1, 2, 3};
        ASSERT_TRUE(temp->getImageModel()->writeRaw(row, 100, 0, 49, 2, 0, 0));
        std::int32_t back[100];
        temp->getImageModel()->readRaw(back, 100, 0, 49, 2, 0, 0);
        EXPECT_EQ(std::memcmp(row, back, sizeof row), 0);
    }
    EXPECT_EQ(openFilesIn(dir.path()), 0);
    // A directory that does not exist: the reservation fails and says why.
    SettingGuard missing("LYN_TMPDIR", dir.file("missing"));
    auto temp = io::TemporaryImage::New(io::TemporaryImage::OnDisk);
    EXPECT_FALSE(temp->reserve(UInt8, 8, 8, 1, 1, 1));
    EXPECT_NE(temp->getFailure().find("missing"), std::string::npos) << temp->getFailure();
}

// ---------------------------------------------------------------------------------------------
// Where the recursive filter puts its temporary image.
struct FakeFilter {
    using OutView = access::View<std::uint16_t, SimdVec::AlignedAllocator<std::uint16_t, 32>>;
    const BaseAlgorithm* owner;
    std::shared_ptr<OutView> view;
    unsigned long passes;
    const BaseAlgorithm* getPublicInterface() const { return owner; }
    const std::shared_ptr<OutView>& outputView() const { return view; }
    unsigned long iterations() const { return passes; }
};

TEST(TemporaryImageChoiceTest, EveryBranch) {
    ScratchDir dir;
    SettingGuard tmp("LYN_TMPDIR", dir.path());
    MemoryImage memIn(UInt16, 10, 10, 4), memOut(UInt16, 10, 10, 4);
    auto diskOut = DiskImage::createUnnamed(dir.path(), UInt16, memIn.extents());
    const std::uint64_t bytes = memIn.getSizeInBytes();
    const Extents extents = memIn.extents();

    morphology::Dilation3d algo;
    algo.inputImage = &memIn;
    algo.outputImage = &memOut;
    auto border = access::FixedBorderCondition<std::uint16_t>::New(0);
    FakeFilter filter{&algo, FakeFilter::OutView::New(static_cast<ImageModel*>(&memOut), border), 2};
    auto choose = [&] { return details::chooseTemporaryImage(filter, memIn.getNumOfVoxels(), 2, extents); };
    auto where = [&] {
        auto temp = choose();
        if (!temp) return 0;
        EXPECT_EQ(temp->getImageModel()->extents(), extents);
        return int(temp->getLocationMode());
    };

    // In memory: more than one pass and a region strictly below the budget.
    algo.setMaximumExtraMemoryUsageInBytes(bytes + 1);
    EXPECT_EQ(where(), io::TemporaryImage::InMemory);
    algo.setMaximumExtraMemoryUsageInBytes(bytes);
    EXPECT_EQ(where(), 0);
    algo.setMaximumExtraMemoryUsageInBytes(kHuge);
    filter.passes = 1;
    EXPECT_EQ(where(), 0);
    filter.passes = 0;
    EXPECT_EQ(where(), 0);
    filter.owner = nullptr;
    filter.passes = 2;
    EXPECT_EQ(where(), 0);
    filter.owner = &algo;

    // Any image on disk, whatever the budget or pass count: the setting decides.
    for (int which = 0; which < 2; ++which) {
        algo.inputImage = which == 0 ? static_cast<const ImageModel*>(diskOut.get()) : &memIn;
        algo.outputImage = which == 1 ? static_cast<ImageModel*>(diskOut.get()) : &memOut;
        EXPECT_TRUE(algo.hasPropertyImageOnDisk());
        for (unsigned long passes : {1ul, 2ul}) {
            filter.passes = passes;
            algo.setMaximumExtraMemoryUsageInBytes(passes == 1 ? 0 : kHuge);
            EXPECT_EQ(where(), io::TemporaryImage::OnDisk);
            {
                SettingGuard off("LYN_RECURSIVITY_TMP_DISK_IMAGE", "false");
                EXPECT_EQ(where(), 0);
            }
            SettingGuard on("LYN_RECURSIVITY_TMP_DISK_IMAGE", "yes");
            EXPECT_EQ(where(), io::TemporaryImage::OnDisk);
        }
    }
    EXPECT_TRUE(dir.entries().empty());

    // Failures: the two rule exceptions, with their fixed source positions.
    auto expectRule = [&](const char* message, int line) {
        try {
            choose();
            ADD_FAILURE() << "no exception for " << message;
        } catch (const RuleException& e) {
            const auto info = e.getInfo();
            EXPECT_EQ(info.message, message);
            EXPECT_EQ(info.file, "Core/private/Filters/RecursiveImageFilters.impl");
            EXPECT_EQ(info.line, line);
        }
    };
    {
        SettingGuard missing("LYN_TMPDIR", dir.file("missing"));
        expectRule("The temporary disk image cannot be allocated.", 175);
    }
    algo.inputImage = &memIn;
    algo.outputImage = &memOut;
    algo.setMaximumExtraMemoryUsageInBytes(kHuge);
    filter.passes = 2;
    // Extents whose voxel count overflows: no allocator is even asked.
    const Extents impossible{std::uint64_t(1) << 32, std::uint64_t(1) << 32, std::uint64_t(1) << 32, 1, 1};
    try {
        details::chooseTemporaryImage(filter, 1, 2, impossible);
        ADD_FAILURE() << "no exception for the in-memory temporary image";
    } catch (const RuleException& e) {
        EXPECT_EQ(e.getInfo().message, "The temporary in memory image cannot be allocated.");
        EXPECT_EQ(e.getInfo().line, 195);
    }
}

// ---------------------------------------------------------------------------------------------
// Square and cube morphology with images on disk against the same run in memory.
class DiskMorphologyTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (devices::Cpu::getDevice().getAVXLevel() >= 2) {
            ASSERT_TRUE(Plugin::load(Plugin::defaultPath())) << Plugin::lastError();
        }
    }
    ScratchDir m_dir;
};


struct DiskCase {
    int dims;
    bool dilate;
    int neighbourhood;
    unsigned passes;
    Extents extents;
};

enum class Where { Memory, DiskInput, DiskOutput, DiskBoth, DiskInPlace };

std::unique_ptr<MemoryImage> runCase(const DiskCase& c, const MemoryImage& input, Where where, bool plugin, const ScratchDir& dir,
                    int* runnerUsed = nullptr) {
    auto algo = makeSquare(c.dims, c.dilate);
    algo->kernelRadius = c.passes;
    algo->neighborhood = c.neighbourhood;
    algo->setUsePlugin(plugin);
    algo->setMaxThreads(2);
    // Small blocks: many of them, and rows written back at their overlaps.
    algo->setGrainSizes({1, 4, kHuge});
    static int serial = 0;
    const std::string name = dir.file("image" + std::to_string(++serial) + ".npy");
    std::unique_ptr<DiskImage> diskIn, diskOut;
    auto memOut = std::make_unique<MemoryImage>(input.getVoxelType(), input.extents());
    std::memset(memOut->data(), 0x5a, input.getSizeInBytes());
    if (where == Where::DiskInput || where == Where::DiskBoth) diskIn = toDisk(input, name + ".in");
    if (where == Where::DiskOutput || where == Where::DiskBoth || where == Where::DiskInPlace) diskOut = toDisk(input, name);
    algo->inputImage = where == Where::DiskInPlace ? static_cast<const ImageModel*>(diskOut.get())
                       : diskIn                   ? static_cast<const ImageModel*>(diskIn.get())
                                                  : &input;
    algo->outputImage = diskOut ? static_cast<ImageModel*>(diskOut.get()) : memOut.get();
    algo->execute();
    if (runnerUsed) *runnerUsed = algo->getLastRunner() != nullptr;
    if (diskIn) {
        EXPECT_TRUE(sameBits(*toMemory(*diskIn), input)) << "the input file changed";
    }
    return diskOut ? toMemory(*diskOut) : std::move(memOut);
}

TEST_F(DiskMorphologyTest, DiskImagesGiveTheBitsOfMemoryImages) {
    const bool avx2 = devices::Cpu::getDevice().getAVXLevel() >= 2;
    const DiskCase cases[] = {
        {2, true, 1, 1, {45, 23, 1, 1, 1}},  {2, false, 0, 3, {33, 17, 2, 1, 1}}, {2, true, 1, 2, {70, 9, 1, 1, 1}},
        {3, true, 2, 1, {35, 13, 9, 1, 1}},  {3, false, 1, 2, {33, 12, 7, 1, 1}}, {3, true, 0, 3, {40, 10, 6, 2, 1}},
        {3, false, 2, 4, {17, 21, 8, 1, 1}},
    };
    const VoxelTypes types[] = {UInt8, Int16, Float, Double};
    std::uint64_t seed = 1;
    for (const DiskCase& c : cases)
        for (VoxelTypes t : types) {
            MemoryImage input(t, c.extents);
            fill(input, ++seed);
            const auto reference = runCase(c, input, Where::Memory, false, m_dir);
            for (bool tmpOnDisk : {true, false}) {
                SettingGuard setting("LYN_RECURSIVITY_TMP_DISK_IMAGE", tmpOnDisk ? "true" : "false");
                SettingGuard tmp("LYN_TMPDIR", m_dir.path());
                for (Where w : {Where::DiskInput, Where::DiskOutput, Where::DiskBoth, Where::DiskInPlace})
                    for (bool plugin : {true, false}) {
                        if (plugin && !avx2) continue;
                        int used = 0;
                        const auto got = runCase(c, input, w, plugin, m_dir, &used);
                        const std::string what = std::string(voxelTypeName(t)) + " " + std::to_string(c.dims) + "D n=" +
                                                 std::to_string(c.neighbourhood) + " passes=" + std::to_string(c.passes) +
                                                 " where=" + std::to_string(int(w)) + " plugin=" + std::to_string(plugin) +
                                                 " tmpOnDisk=" + std::to_string(tmpOnDisk);
                        EXPECT_EQ(used, int(plugin)) << what;
                        ASSERT_TRUE(sameBits(*got, *reference)) << what;
                    }
            }
        }
    // Beyond the radius limits of images in memory, an image on disk is still served by the plug-in.
    if (avx2) {
        DiskCase big{2, true, 0, 47, {30, 20, 1, 1, 1}};
        MemoryImage input(UInt8, big.extents);
        fill(input, 99);
        int used = 0;
        runCase(big, input, Where::Memory, true, m_dir, &used);
        EXPECT_EQ(used, 0);
        const auto got = runCase(big, input, Where::DiskBoth, true, m_dir, &used);
        EXPECT_EQ(used, 1);
        EXPECT_TRUE(sameBits(*got, *runCase(big, input, Where::Memory, false, m_dir)));
    }
}

// Counts progress and cancels once it passes a fraction.
class CancelAt : public ProgressObserver {
public:
    CancelAt(BaseAlgorithm* algo, double at) : m_algo(algo), m_at(at) {}
    void onProgress(double fraction) override {
        if (fraction >= m_at) m_algo->cancelExecution();
    }

private:
    BaseAlgorithm* m_algo;
    double m_at;
};

TEST_F(DiskMorphologyTest, CancellationAndFailuresLeaveNoTemporaryFile) {
    ScratchDir tmp;
    SettingGuard tmpdir("LYN_TMPDIR", tmp.path());
    MemoryImage input(UInt16, 64, 48, 24);
    fill(input, 7);
    auto diskIn = toDisk(input, m_dir.file("in.npy"));
    for (bool plugin : {true, false}) {
        MemoryImage out;
        morphology::Dilation3d algo;
        algo.inputImage = diskIn.get();
        algo.outputImage = &out;
        algo.kernelRadius = 6;
        algo.setUsePlugin(plugin);
        algo.setGrainSizes({1, 8, kHuge});
        CancelAt cancel(&algo, 0.4);
        algo.setProgressObserver(&cancel);
        EXPECT_THROW(algo.execute(), ExceptionCancelation);
        EXPECT_EQ(openFilesIn(tmp.path()), 0);
        EXPECT_TRUE(tmp.entries().empty());
    }

    // The file size limit reached while reserving the temporary image: the rule exception, the
    // input file intact, nothing left behind.
    const std::string before = fileBytes(m_dir.file("in.npy"));
    struct rlimit saved {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    struct sigaction ignore {}, old {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGXFSZ, &ignore, &old);
    struct rlimit small = saved;
    small.rlim_cur = 64 << 10;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    MemoryImage out;
    morphology::Dilation3d algo;
    algo.inputImage = diskIn.get();
    algo.outputImage = &out;
    algo.kernelRadius = 2;
    try {
        algo.execute();
        ADD_FAILURE() << "the temporary image fitted under the file size limit";
    } catch (const RuleException& e) {
        EXPECT_EQ(e.getInfo().message, "The temporary disk image cannot be allocated.");
    }
    ::setrlimit(RLIMIT_FSIZE, &saved);
    ::sigaction(SIGXFSZ, &old, nullptr);
    EXPECT_EQ(fileBytes(m_dir.file("in.npy")), before);
    EXPECT_EQ(openFilesIn(tmp.path()), 0);
    EXPECT_TRUE(tmp.entries().empty());
}

} // namespace
