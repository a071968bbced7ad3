#include "tools/Commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <iostream>
#include <limits>
#include <optional>
#include <random>
#include <sstream>

#include "host/Algorithms.h"
#include "host/CompositeMorphology.h"
#include "host/Cpu.h"
#include "host/PluginLoader.h"
#include "host/Shapes.h"
#include "host/Settings.h"
#include "tools/Npy.h"
#include "tools/OnDisk.h"
#include "tools/Output.h"
#include "tools/Png.h"
#include "tools/Progress.h"
#include "tools/Signals.h"
#include "tools/Tiff.h"

namespace lyn {
namespace tool {

namespace {

void applyCommon(BaseAlgorithm& algo, const CommonOptions& c) {
    if (!c.tmpdir.empty()) {
        struct stat st {};
        if (::stat(c.tmpdir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            throw UsageError("--tmpdir: " + c.tmpdir + " is not a directory");
        globalSettings()->setValue("LYN_TMPDIR", c.tmpdir);
    }
    if (c.threads > 0) algo.setMaxThreads(c.threads);
    if (c.generic) {
        algo.setUsePlugin(false);
        Plugin::setEnabled(false);
    }
    if (!c.memoryBudget.empty()) {
        try {
            algo.setMaximumExtraMemoryUsageInBytes(parseByteCount(c.memoryBudget, "--memory-budget"));
        } catch (const Exception& e) {
            throw UsageError(e.getInfo().message);
        }
    }
}

bool fileExists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

bool isTiff(const std::string& path) {
    io::Format f;
    return io::formatOf(path, f) && f == io::Format::Tiff;
}

bool isNpy(const std::string& path) {
    io::Format f;
    return io::formatOf(path, f) && f == io::Format::Npy;
}

// `held` is how many images of the input's size the command keeps in memory (input, output).
std::unique_ptr<ImageModel> loadInput(const std::string& path, int& axes, const CommonOptions& c, int held) {
    io::Format format;
    if (!io::formatOf(path, format)) {
        io::requireRegularFile(path);
        throw UsageError(path + ": unsupported input format (use .npy, .tif or .tiff)");
    }
    if (c.onDisk) {
        if (isTiff(path))
            throw UsageError(path + ": --on-disk works on .npy files only; convert the TIFF file to .npy first "
                                    "(for example numpy.save with tifffile.imread)");
        if (!isNpy(path)) throw UsageError(path + ": unsupported input format (use .npy with --on-disk)");
        return openNpyOnDisk(path, axes);
    }
    if (isNpy(path)) {
        const io::NpyHeader h = io::readNpyHeader(path);
        std::uint64_t bytes = helper::getSizeOf(h.type);
        for (auto e : h.extents) bytes *= e;
        checkFitsInMemory(path, bytes * std::uint64_t(held));
    }
    if (isTiff(path)) {
        auto image = io::readTiff(path);
        axes = image->getNumOf(Plans) > 1 ? 3 : 2;
        return image;
    }
    return io::readNpy(path, &axes);
}

void checkOutput(const std::string& path, const CommonOptions& c) {
    if (c.onDisk && isTiff(path))
        throw UsageError(path + ": --on-disk writes .npy files only; name the output .npy");
    if (!isNpy(path) && !isTiff(path))
        throw UsageError(path + ": unsupported output format (use .npy, .tif or .tiff)");
    if (fileExists(path) && !c.force) throw UsageError(path + " exists (use --force to overwrite it)");
}

// What the output format cannot hold, found before computing.
void checkOutputFits(const io::OutputFile& out, const ImageModel& image) {
    if (out.format() == io::Format::Tiff && (image.getNumOf(Sequence) != 1 || image.getNumOf(Spectral) != 1))
        throw io::OutputError(out.path() + ": TIFF holds 2D images and 3D volumes; use .npy for more axes");
}

void saveOutput(io::OutputFile& out, const ImageModel& image, int axes) {
    if (out.format() == io::Format::Tiff) io::writeTiff(out, image);
    else io::writeNpy(out, image, axes);
}

// Runs the algorithm with a progress bar, Ctrl-C cancelling it.
void runWithProgress(BaseAlgorithm& algo, const std::string& label, const CommonOptions& c) {
    ProgressBar bar(label, !c.quiet);
    algo.setProgressObserver(&bar);
    {
        CancelOnSignal guard(algo);
        try {
            io::testPause("compute");
            algo.execute();
        } catch (...) {
            bar.finish();
            algo.setProgressObserver(nullptr);
            throw;
        }
    }
    bar.finish();
    algo.setProgressObserver(nullptr);
    if (signalled()) throw ExceptionCancelation();
}

// Strict JSON (RFC 8259) has no infinities and no NaN: an infinity is the string "Infinity" or
// "-Infinity" (what JavaScript's Number() and Python's float() read back), no value is null.
std::string jsonValue(const analysis::ExactValue& v) {
    if (!v.hasValue()) return "null";
    const std::string s = v.toString();
    if (s == "inf") return "\"Infinity\"";
    if (s == "-inf") return "\"-Infinity\"";
    return s;
}

// "DEG1,DEG2": two decimal numbers, nothing else.
std::array<double, 2> parseAngles(const std::string& text) {
    std::array<double, 2> angles{};
    const std::string::size_type comma = text.find(',');
    const std::string parts[2] = {text.substr(0, comma), comma == std::string::npos ? "" : text.substr(comma + 1)};
    for (int i = 0; i < 2; ++i) {
        const char* begin = parts[i].c_str();
        char* end = nullptr;
        errno = 0;
        angles[i] = std::strtod(begin, &end);
        const bool blank = parts[i].empty() || std::isspace(static_cast<unsigned char>(parts[i][0]));
        if (comma == std::string::npos || blank || *end != '\0' || errno == ERANGE || !std::isfinite(angles[i]))
            throw UsageError("--angles: expected two angles in degrees as DEG1,DEG2, not '" + text + "'");
    }
    return angles;
}

shapes::ShapeParams shapeParams(const ShapeOptions& s) {
    shapes::ShapeParams p;
    if (s.radius >= 0) p.radius = static_cast<unsigned long long>(s.radius);
    if (s.connectivity >= 0) p.connectivity = static_cast<int>(std::min<long long>(s.connectivity, 1 << 20));
    p.exact = s.exact;
    if (s.length >= 0) p.length = static_cast<unsigned long long>(s.length);
    if (s.angleGiven) p.angle = s.angle;
    if (s.anglesGiven) p.angles = parseAngles(s.angles);
    return p;
}

morphology::CompositeMorphology::Operation compositeOf(MorphologyOp op) {
    using C = morphology::CompositeMorphology;
    switch (op) {
    case MorphologyOp::Open: return C::Open;
    case MorphologyOp::Close: return C::Close;
    case MorphologyOp::Gradient: return C::Gradient;
    case MorphologyOp::TopHat: return C::TopHat;
    default: return C::BlackHat;
    }
}

} // namespace

const char* morphologyCommand(MorphologyOp op) {
    switch (op) {
    case MorphologyOp::Dilate: return "dilate";
    case MorphologyOp::Erode: return "erode";
    case MorphologyOp::Open: return "open";
    case MorphologyOp::Close: return "close";
    case MorphologyOp::Gradient: return "gradient";
    case MorphologyOp::TopHat: return "tophat";
    case MorphologyOp::BlackHat: return "blackhat";
    }
    return "?";
}

int runInfo() {
    Plugin::ensureStarted();
    const devices::Cpu& cpu = devices::Cpu::getDevice();
    std::printf("lyn 0.1.0\n");
    std::printf("processor: %s\n", cpu.brand().empty() ? "(unknown)" : cpu.brand().c_str());
    std::printf("  features: %s\n", cpu.features().c_str());
    std::printf("  AVX level: %d (detected %d)%s\n", cpu.getAVXLevel(), cpu.detectedAVXLevel(),
                cpu.getAVXLevel() != cpu.detectedAVXLevel() ? ", overridden by LYN_CPU_AVX_LEVEL" : "");
    if (!Plugin::isEnabled()) std::printf("plug-in: disabled (LYN_NO_PLUGIN)\n");
    else if (Plugin::isLoaded()) std::printf("plug-in: loaded from %s\n", Plugin::loadedPath().c_str());
    else std::printf("plug-in: not loaded (%s)\n", Plugin::lastError().c_str());
    std::printf("runners:\n");
    for (const char* name : algorithmClassNames()) {
        AlgoInfo* info = AlgoRegistry::getClassInfo(name);
        std::string runners;
        if (info)
            for (Runnable* r : info->getRunners()) runners += (runners.empty() ? "" : ", ") + runnerName(r);
        std::printf("  %-34s %s\n", name, runners.empty() ? "(none: host generic code)" : runners.c_str());
    }
    std::printf("shapes (--shape):\n%s", shapes::describeShapes().c_str());
    return 0;
}

int runExtrema(const std::string& input, const std::vector<std::string>& per, bool json, const CommonOptions& common) {
    int mode = 0;
    for (const std::string& axis : per) {
        if (axis == "plan") mode |= 1;
        else if (axis == "axis3") mode |= 4;
        else if (axis == "axis4") mode |= 2;
        else throw UsageError("--per: unknown axis '" + axis + "' (use plan, axis3, axis4)");
    }
    analysis::IntensityExtrema algo;
    applyCommon(algo, common);
    int axes = 0;
    auto image = loadInput(input, axes, common, 1);
    analysis::IntensityExtremaMsr msr;
    algo.inputImage = image.get();
    algo.rangeMode = mode;
    algo.result = &msr;
    runWithProgress(algo, "extrema", common);

    const auto& shape = msr.minimum().shape();
    const auto& mn = msr.exactMinimum();
    const auto& mx = msr.exactMaximum();
    auto at = [&](const std::vector<analysis::ExactValue>& v, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
        return v[a + b * msr.minimum().stride1() + c * msr.minimum().stride2()].toString();
    };
    if (json) {
        std::ostringstream out;
        out << "{\"shape\": [" << shape[0] << ", " << shape[1] << ", " << shape[2] << "], \"min\": [";
        for (std::size_t i = 0; i < mn.size(); ++i) out << (i ? ", " : "") << jsonValue(mn[i]);
        out << "], \"max\": [";
        for (std::size_t i = 0; i < mx.size(); ++i) out << (i ? ", " : "") << jsonValue(mx[i]);
        out << "]}\n";
        std::fputs(out.str().c_str(), stdout);
        return 0;
    }
    std::printf("%s: %s\n", input.c_str(), image->describe().c_str());
    if (mode == 0) {
        std::printf("min %s\nmax %s\n", at(mn, 0, 0, 0).c_str(), at(mx, 0, 0, 0).c_str());
        if (!mn[0].hasValue()) std::printf("(no values: the image is empty or all NaN)\n");
        return 0;
    }
    std::printf("%6s %6s %6s %24s %24s\n", "plan", "axis3", "axis4", "min", "max");
    for (std::uint64_t c = 0; c < shape[2]; ++c)
        for (std::uint64_t b = 0; b < shape[1]; ++b)
            for (std::uint64_t a = 0; a < shape[0]; ++a) {
                using Extrema = analysis::IntensityExtrema;
                auto idx = [](bool split, std::uint64_t i) { return split ? std::to_string(i) : std::string("*"); };
                std::printf("%6s %6s %6s %24s %24s\n", idx(mode & Extrema::PerPlan, a).c_str(), idx(mode & Extrema::PerSequence, b).c_str(),
                            idx(mode & Extrema::PerSpectral, c).c_str(), at(mn, a, b, c).c_str(), at(mx, a, b, c).c_str());
            }
    return 0;
}

int runMorphology(MorphologyOp op, const std::string& input, const std::string& output, const ShapeOptions& s,
                  const CommonOptions& common) {
    const shapes::ShapeParams params = shapeParams(s);
    const shapes::ShapeInfo* shape = nullptr;
    try {
        shape = &shapes::findShape(s.shape);
        shapes::validate(*shape, params);
    } catch (const shapes::ShapeError& e) {
        throw UsageError("--" + e.option() + ": " + e.what());
    }
    checkOutput(output, common);
    io::OutputFile out(output, common.force);
    const bool single = op == MorphologyOp::Dilate || op == MorphologyOp::Erode;
    std::unique_ptr<morphology::StructuringElementMorphology> stage;
    std::unique_ptr<morphology::CompositeMorphology> composite;
    if (single) {
        stage = shapes::makeAlgorithm(*shape, params, op == MorphologyOp::Dilate);
    } else {
        composite = morphology::CompositeMorphology::create(compositeOf(op));
        composite->setStructuringElement(morphology::shapeElement(*shape, params));
    }
    BaseAlgorithm& algo = single ? static_cast<BaseAlgorithm&>(*stage) : *composite;
    applyCommon(algo, common);
    int axes = 0;
    auto in = loadInput(input, axes, common, 2);
    if (in->getNumOfVoxels() == 0) throw UsageError(input + " is empty (an axis of length 0): nothing to compute");
    checkOutputFits(out, *in);
    // Any shape works on any image: a 2D image is a volume of one plan, and the 2D algorithms apply
    // to a volume plan by plan. The composites copy for an identity shape themselves.
    MemoryImage memoryOut;
    std::unique_ptr<DiskOutput> diskOut;
    if (common.onDisk) diskOut = std::make_unique<DiskOutput>(output, in->getVoxelType(), in->extents(), axes);
    if (single && shapes::isIdentity(*shape, params)) {
        // The algorithms leave an output untouched then, so the copy is the tool's.
        if (!diskOut) {
            io::testPause("copy");
            saveOutput(out, *in, axes);
            return 0;
        }
        copyRows(*in, diskOut->image());
    } else {
        ImageModel* target = diskOut ? static_cast<ImageModel*>(&diskOut->image()) : &memoryOut;
        if (single) stage->setImages(in.get(), target);
        else composite->setImages(in.get(), target);
        runWithProgress(algo, morphologyCommand(op), common);
    }
    if (diskOut) diskOut->commit();
    else saveOutput(out, memoryOut, axes);
    return 0;
}

namespace {

double millisecondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// Compute time of an algorithm, the better of two runs (the first also warms caches and threads).
double bestOfTwo(BaseAlgorithm& algo) {
    double best = 0;
    for (int i = 0; i < 2; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        algo.execute();
        const double ms = millisecondsSince(t0);
        best = i == 0 ? ms : std::min(best, ms);
    }
    return best;
}

// A synthetic "CT" volume: bright spheres on a noisy background, the same on every run.
std::unique_ptr<MemoryImage> demoVolume(std::uint64_t n) {
    auto image = std::make_unique<MemoryImage>(UInt8, n, n, n);
    MemoryImage& volume = *image;
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> noise(0, 40);
    auto* v = volume.dataAs<std::uint8_t>();
    for (std::uint64_t i = 0; i < volume.getNumOfVoxels(); ++i) v[i] = static_cast<std::uint8_t>(20 + noise(rng));
    std::uniform_real_distribution<double> pos(0.1, 0.9), rad(0.03, 0.12);
    for (int k = 0; k < 24; ++k) {
        double cx = pos(rng) * n, cy = pos(rng) * n, cz = pos(rng) * n, r = rad(rng) * n;
        for (std::uint64_t z = 0; z < n; ++z)
            for (std::uint64_t y = 0; y < n; ++y)
                for (std::uint64_t x = 0; x < n; ++x) {
                    double d = std::hypot(x - cx, y - cy, z - cz);
                    if (d < r) v[volume.index(x, y, z)] = static_cast<std::uint8_t>(150 + 100 * (1 - d / r));
                }
    }
    return image;
}

// Tiles of one plan each, `columns` to a row, parted by white lines.
struct Montage {
    Montage(std::uint32_t tileSize, std::uint32_t perRow) : tile(tileSize), columns(perRow) {}
    std::uint32_t tile, columns, gap = 4;
    std::vector<std::vector<std::uint8_t>> tiles;
    void add(const MemoryImage& image, std::uint64_t plan) {
        const auto* v = image.dataAs<std::uint8_t>() + image.index(0, 0, static_cast<long>(plan));
        tiles.emplace_back(v, v + std::size_t(tile) * tile);
    }
    void write(const std::string& path) const {
        const std::uint32_t rows = static_cast<std::uint32_t>((tiles.size() + columns - 1) / columns);
        const std::uint32_t w = columns * tile + (columns - 1) * gap, h = rows * tile + (rows - 1) * gap;
        std::vector<std::uint8_t> pixels(std::size_t(w) * h, 255);
        for (std::size_t t = 0; t < tiles.size(); ++t) {
            const std::size_t x0 = (t % columns) * (tile + gap), y0 = (t / columns) * (tile + gap);
            for (std::uint32_t y = 0; y < tile; ++y)
                std::copy_n(tiles[t].data() + std::size_t(y) * tile, tile, pixels.data() + (y0 + y) * w + x0);
        }
        io::writePngGray8(path, w, h, pixels);
    }
};

} // namespace

int runDemo(const std::string& outDir, long long size, const CommonOptions& common) {
    // A 1024³ volume is 1 GiB, and the tour keeps several of them.
    if (size > 1024) throw UsageError("--size: at most 1024, not " + std::to_string(size));
    const std::uint64_t n = size > 0 ? static_cast<std::uint64_t>(size) : 256;
    struct stat st {};
    if (::stat(outDir.c_str(), &st) == 0 && !S_ISDIR(st.st_mode))
        throw UsageError("--out: " + outDir + " exists and is not a directory");
    if (::mkdir(outDir.c_str(), 0755) != 0 && errno != EEXIST)
        throw UsageError("--out: cannot create " + outDir + ": " + std::strerror(errno));
    if (::access(outDir.c_str(), W_OK) != 0) throw UsageError("--out: cannot write into " + outDir);

    const auto image = demoVolume(n);
    const MemoryImage& volume = *image;
    std::printf("demo volume: %s, synthetic spheres on noise\n", volume.describe().c_str());
    std::printf("compute times, best of two runs, files apart; \"generic\" is the host's portable code alone\n");
    std::printf("%-46s %10s %10s %9s  %s\n", "operation", "compute", "generic", "speed-up", "served by");
    auto row = [](const std::string& what, double ms, double genericMs, const char* servedBy, bool same) {
        std::printf("%-46s %7.1f ms %7.1f ms %8.1fx  %s%s\n", what.c_str(), ms, genericMs, genericMs / ms, servedBy,
                    same ? "" : "  RESULTS DIFFER");
    };
    auto served = [](const BaseAlgorithm& a) { return a.getLastRunner() ? "plug-in" : "host generic code"; };
    CommonOptions c = common;
    c.quiet = true;
    bool allSame = true;

    {
        analysis::IntensityExtrema fast, slow;
        analysis::IntensityExtremaMsr a, b;
        applyCommon(fast, c);
        applyCommon(slow, c);
        slow.setUsePlugin(false);
        fast.inputImage = &volume;
        slow.inputImage = &volume;
        fast.result = &a;
        slow.result = &b;
        const double ms = bestOfTwo(fast), genericMs = bestOfTwo(slow);
        const bool same = a.minimum().at(0) == b.minimum().at(0) && a.maximum().at(0) == b.maximum().at(0);
        allSame = allSame && same;
        row("extrema (min " + std::to_string(long(a.minimum().at(0))) + ", max " +
                std::to_string(long(a.maximum().at(0))) + ")",
            ms, genericMs, served(fast), same);
    }

    struct Step {
        const char* label;
        bool dilate;
        const char* shape;
        shapes::ShapeParams params;
        const char* file;  // written when not null
    };
    auto params = [](std::optional<unsigned long long> radius, std::optional<int> connectivity, bool exact,
                     std::optional<unsigned long long> length, std::optional<double> angle,
                     std::optional<std::array<double, 2>> angles) {
        shapes::ShapeParams p;
        p.radius = radius;
        p.connectivity = connectivity;
        p.exact = exact;
        p.length = length;
        p.angle = angle;
        p.angles = angles;
        return p;
    };
    const std::nullopt_t none = std::nullopt;
    const std::vector<Step> steps = {
        {"dilate cube r 2 (26-connected)", true, "cube", params(2, none, false, none, none, none), "dilated.npy"},
        {"erode cube r 2 (6-connected)", false, "cube", params(2, 6, false, none, none, none), "eroded.npy"},
        {"dilate ball r 4 (6/18/26 passes)", true, "ball", params(4, none, false, none, none, none), nullptr},
        {"dilate ball r 3 --exact (123 offsets)", true, "ball", params(3, none, true, none, none, none), nullptr},
        {"erode disk r 5, slice by slice", false, "disk", params(5, none, false, none, none, none), nullptr},
        {"erode disk r 5 --exact, slice by slice", false, "disk", params(5, none, true, none, none, none), nullptr},
        {"dilate line L 15 at 30 degrees, slice by slice", true, "line", params(none, none, false, 15, 30.0, none),
         nullptr},
        {"dilate line3d L 9, angles 30,45", true, "line3d",
         params(none, none, false, 9, none, std::array<double, 2>{30, 45}), nullptr},
        {"erode disk3d r 3, angles 0,45", false, "disk3d",
         params(3, none, false, none, none, std::array<double, 2>{0, 45}), nullptr},
    };
    Montage montage(static_cast<std::uint32_t>(n), 5);
    montage.add(volume, n / 2);
    std::vector<std::pair<std::string, std::unique_ptr<MemoryImage>>> outputs;
    for (const Step& step : steps) {
        const shapes::ShapeInfo& shape = shapes::findShape(step.shape);
        auto fast = shapes::makeAlgorithm(shape, step.params, step.dilate);
        auto slow = shapes::makeAlgorithm(shape, step.params, step.dilate);
        applyCommon(*fast, c);
        applyCommon(*slow, c);
        slow->setUsePlugin(false);
        auto result = std::make_unique<MemoryImage>();
        MemoryImage& out = *result;
        MemoryImage reference;
        fast->setImages(&volume, &out);
        slow->setImages(&volume, &reference);
        const double ms = bestOfTwo(*fast), genericMs = bestOfTwo(*slow);
        const bool same = std::memcmp(out.dataAs<std::uint8_t>(), reference.dataAs<std::uint8_t>(),
                                      out.getSizeInBytes()) == 0;
        allSame = allSame && same;
        row(step.label, ms, genericMs, served(*fast), same);
        montage.add(out, n / 2);
        if (step.file) outputs.emplace_back(outDir + "/" + step.file, std::move(result));
    }

    const auto t0 = std::chrono::steady_clock::now();
    const std::string in = outDir + "/volume.npy", picture = outDir + "/montage.png";
    io::writeNpy(in, volume, 3);
    for (const auto& [path, result] : outputs) io::writeNpy(path, *result, 3);
    montage.write(picture);
    std::printf("files: %s and %zu results written in %.1f ms\n", in.c_str(), outputs.size(), millisecondsSince(t0));
    std::printf("montage of plan %llu: %s (the input, then each operation above in order, %u to a row)\n",
                static_cast<unsigned long long>(n / 2), picture.c_str(), montage.columns);
    if (!allSame) {
        std::fprintf(stderr, "lyn: demo: the plug-in and the generic code gave different results\n");
        return 1;
    }
    return 0;
}

} // namespace tool
} // namespace lyn
