#include "tools/Commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits>
#include <random>
#include <sstream>

#include "host/Algorithms.h"
#include "host/Cpu.h"
#include "host/PluginLoader.h"
#include "host/Settings.h"
#include "tools/Npy.h"
#include "tools/Progress.h"
#include "tools/Tiff.h"

namespace lyn {
namespace tool {

namespace {

bool fileExists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void applyCommon(BaseAlgorithm& algo, const CommonOptions& c) {
    if (c.onDisk) throw UsageError("--on-disk: images on disk are not available in this build of lyn");
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

bool isTiff(const std::string& path) { return endsWith(path, ".tif") || endsWith(path, ".tiff"); }

std::unique_ptr<MemoryImage> loadInput(const std::string& path, int& axes) {
    if (isTiff(path)) {
        auto image = io::readTiff(path);
        axes = image->getNumOf(Plans) > 1 ? 3 : 2;
        return image;
    }
    if (!endsWith(path, ".npy")) throw UsageError(path + ": unsupported input format (use .npy, .tif or .tiff)");
    return io::readNpy(path, &axes);
}

void checkOutput(const std::string& path, const CommonOptions& c) {
    if (!endsWith(path, ".npy") && !isTiff(path))
        throw UsageError(path + ": unsupported output format (use .npy, .tif or .tiff)");
    if (fileExists(path) && !c.force) throw UsageError(path + " exists (use --force to overwrite it)");
}

void saveOutput(const std::string& path, const ImageModel& image, int axes) {
    if (isTiff(path)) io::writeTiff(path, image);
    else io::writeNpy(path, image, axes);
}

// Runs the algorithm with a progress bar, Ctrl-C cancelling it.
void runWithProgress(BaseAlgorithm& algo, const std::string& label, const CommonOptions& c) {
    ProgressBar bar(label, !c.quiet);
    algo.setProgressObserver(&bar);
    {
        CancelOnSignal guard(algo);
        try {
            algo.execute();
        } catch (...) {
            bar.finish();
            algo.setProgressObserver(nullptr);
            throw;
        }
    }
    bar.finish();
    algo.setProgressObserver(nullptr);
    if (CancelOnSignal::signalled()) throw ExceptionCancelation();
}

std::string formatValue(double v, bool integral) {
    if (std::isinf(v)) return v > 0 ? "Infinity" : "-Infinity";
    char buf[64];
    if (integral && std::fabs(v) < 1e18) std::snprintf(buf, sizeof buf, "%.0f", v);
    else std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
}

bool isIntegralType(VoxelTypes t) { return t != Float && t != Double; }

} // namespace

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
    auto image = loadInput(input, axes);
    analysis::IntensityExtremaMsr msr;
    algo.inputImage = image.get();
    algo.rangeMode = mode;
    algo.result = &msr;
    runWithProgress(algo, "extrema", common);

    const auto& shape = msr.minimum().shape();
    const bool integral = isIntegralType(image->getVoxelType());
    if (json) {
        std::ostringstream out;
        out << "{\"shape\": [" << shape[0] << ", " << shape[1] << ", " << shape[2] << "], \"min\": [";
        const auto& mn = msr.minimum().values();
        const auto& mx = msr.maximum().values();
        for (std::size_t i = 0; i < mn.size(); ++i) out << (i ? ", " : "") << formatValue(mn[i], integral);
        out << "], \"max\": [";
        for (std::size_t i = 0; i < mx.size(); ++i) out << (i ? ", " : "") << formatValue(mx[i], integral);
        out << "]}\n";
        std::fputs(out.str().c_str(), stdout);
        return 0;
    }
    std::printf("%s: %s\n", input.c_str(), image->describe().c_str());
    if (mode == 0) {
        std::printf("min %s\nmax %s\n", formatValue(msr.minimum().at(0), integral).c_str(),
                    formatValue(msr.maximum().at(0), integral).c_str());
        return 0;
    }
    std::printf("%6s %6s %6s %24s %24s\n", "plan", "axis3", "axis4", "min", "max");
    for (std::uint64_t c = 0; c < shape[2]; ++c)
        for (std::uint64_t b = 0; b < shape[1]; ++b)
            for (std::uint64_t a = 0; a < shape[0]; ++a) {
                auto idx = [](bool split, std::uint64_t i) { return split ? std::to_string(i) : std::string("*"); };
                std::printf("%6s %6s %6s %24s %24s\n", idx(mode & 1, a).c_str(), idx(mode & 4, b).c_str(),
                            idx(mode & 2, c).c_str(), formatValue(msr.minimum().at(a, b, c), integral).c_str(),
                            formatValue(msr.maximum().at(a, b, c), integral).c_str());
            }
    return 0;
}

int runMorphology(bool dilate, const std::string& input, const std::string& output, const ShapeOptions& s,
                  const CommonOptions& common) {
    const std::string& shape = s.shape;
    const bool known = shape == "square" || shape == "cube" || shape == "disk" || shape == "ball" || shape == "line" ||
                       shape == "disk3d" || shape == "line3d";
    if (!known) throw UsageError("--shape: unknown shape '" + shape + "' (square, cube, disk, ball, line, disk3d, line3d)");
    const bool usesRadius = shape != "line" && shape != "line3d";
    const bool usesLength = !usesRadius;
    if (s.radius >= 0 && !usesRadius) throw UsageError("--radius does not apply to --shape " + shape);
    if (s.length >= 0 && !usesLength) throw UsageError("--length does not apply to --shape " + shape);
    if (s.connectivity >= 0 && shape != "square" && shape != "cube")
        throw UsageError("--connectivity does not apply to --shape " + shape);
    if (s.angleGiven && shape != "line") throw UsageError("--angle does not apply to --shape " + shape);
    if (!s.angles.empty() && shape != "disk3d" && shape != "line3d")
        throw UsageError("--angles does not apply to --shape " + shape);
    if (s.exact && shape != "disk" && shape != "ball") throw UsageError("--exact does not apply to --shape " + shape);
    if (usesLength && s.length < 0) throw UsageError("--length is required with --shape " + shape);
    if (usesLength && s.length < 1) throw UsageError("--length must be at least 1");
    if ((shape == "disk" || shape == "ball" || shape == "disk3d") && s.radius < 0)
        throw UsageError("--radius is required with --shape " + shape);
    if (s.radius > std::numeric_limits<unsigned int>::max()) throw UsageError("--radius is too large");
    if (shape != "square" && shape != "cube")
        throw UsageError("--shape " + shape + " is not available in this build of lyn (square and cube are)");

    checkOutput(output, common);
    const unsigned radius = s.radius < 0 ? 1u : static_cast<unsigned>(s.radius);
    int neighbourhood = 0;
    std::unique_ptr<morphology::SquareMorphology> algo;
    if (shape == "square") {
        const long long c = s.connectivity < 0 ? 8 : s.connectivity;
        if (c != 8 && c != 4) throw UsageError("--connectivity must be 8 or 4 with --shape square");
        neighbourhood = c == 4 ? 0 : 1;
        if (dilate) algo = std::make_unique<morphology::Dilation2d>();
        else algo = std::make_unique<morphology::Erosion2d>();
    } else {
        const long long c = s.connectivity < 0 ? 26 : s.connectivity;
        if (c != 26 && c != 18 && c != 6) throw UsageError("--connectivity must be 26, 18 or 6 with --shape cube");
        neighbourhood = c == 6 ? 0 : c == 18 ? 1 : 2;
        if (dilate) algo = std::make_unique<morphology::Dilation3d>();
        else algo = std::make_unique<morphology::Erosion3d>();
    }
    applyCommon(*algo, common);
    int axes = 0;
    auto in = loadInput(input, axes);
    const bool is2d = in->getNumOf(Plans) == 1;
    if (shape == "square" && !is2d)
        throw UsageError("--shape square needs a 2D image; " + input + " has " + std::to_string(in->getNumOf(Plans)) +
                         " plans (use --shape cube)");
    if (shape == "cube" && is2d) throw UsageError("--shape cube needs a 3D volume; " + input + " is 2D (use --shape square)");

    if (radius == 0) {
        // Zero passes leave an output untouched, so the copy is the tool's.
        saveOutput(output, *in, axes);
        return 0;
    }
    MemoryImage out;
    algo->inputImage = in.get();
    algo->outputImage = &out;
    algo->kernelRadius = radius;
    algo->neighborhood = neighbourhood;
    runWithProgress(*algo, dilate ? "dilate" : "erode", common);
    saveOutput(output, out, axes);
    return 0;
}

int runDemo(const std::string& outDir, long long size, const CommonOptions& common) {
    const std::uint64_t n = size > 0 ? static_cast<std::uint64_t>(size) : 256;
    if (::mkdir(outDir.c_str(), 0755) != 0 && errno != EEXIST)
        throw UsageError("--out: cannot create " + outDir + ": " + std::strerror(errno));
    // A synthetic "CT" volume: bright spheres on a noisy background, the same on every run.
    MemoryImage volume(UInt8, n, n, n);
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
    const std::string in = outDir + "/volume.npy";
    io::writeNpy(in, volume, 3);
    std::printf("demo volume: %s (%s)\n", in.c_str(), volume.describe().c_str());

    CommonOptions c = common;
    c.force = true;
    c.quiet = true;
    auto timed = [](const char* what, auto&& fn) {
        auto t0 = std::chrono::steady_clock::now();
        int rc = fn();
        double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
        std::printf("%-44s %9.1f ms\n", what, ms);
        return rc;
    };
    timed("extrema", [&] { return runExtrema(in, {}, false, c); });
    ShapeOptions cube;
    cube.shape = "cube";
    cube.radius = 2;
    timed("dilate --shape cube --radius 2 (26-connected)",
          [&] { return runMorphology(true, in, outDir + "/dilated.npy", cube, c); });
    cube.connectivity = 6;
    timed("erode --shape cube --radius 2 --connectivity 6",
          [&] { return runMorphology(false, in, outDir + "/eroded.npy", cube, c); });
    std::printf("outputs written to %s/\n", outDir.c_str());
    return 0;
}

} // namespace tool
} // namespace lyn
