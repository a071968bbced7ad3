// Plug-in against generic code against a parallel memcpy of the same bytes with the same number of
// threads. Everything runs in one program so that the ratios come from one run on one machine state.
// Names read <group>/<type>/<case>/<implementation>/threads:<t>/real_time.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include <unistd.h>

#include <benchmark/benchmark.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>

#include "host/Algorithm.h"
#include "host/Algorithms.h"
#include "host/CompositeMorphology.h"
#include "host/DiskImage.h"
#include "host/Image.h"
#include "host/Measurement.h"
#include "host/PluginLoader.h"
#include "host/PrivateImplementation.h"
#include "host/Settings.h"
#include "host/Shapes.h"
#include "host/TemporaryImage.h"
#include "host/generic/Generic.h"

namespace {

using lyn::MemoryImage;
using lyn::VoxelTypes;

struct Shape {
    std::uint64_t cols, rows, plans;
};
// The default sizes hold 16 to 64 MiB; on a machine whose L3 holds that, memory-bound figures
// need larger ones: LYN_BENCH_VOLUME (uint8 volumes), LYN_BENCH_CUBE (the other types' volumes)
// and LYN_BENCH_PLANE take COLSxROWSxPLANS, COLSxROWSxPLANS and COLSxROWS.
Shape shapeFromEnv(const char* name, Shape s) {
    if (const char* v = std::getenv(name)) {
        unsigned long long c = 0, r = 0, p = 1;
        const int n = std::sscanf(v, "%llux%llux%llu", &c, &r, &p);
        if (n < 2 || !c || !r || !p || (s.plans == 1 && n == 3) || (s.plans > 1 && n == 2)) {
            std::fprintf(stderr, "%s: expected %s, got '%s'\n", name, s.plans == 1 ? "COLSxROWS" : "COLSxROWSxPLANS", v);
            std::exit(2);
        }
        s = {c, r, p};
    }
    return s;
}
const Shape kVolume = shapeFromEnv("LYN_BENCH_VOLUME", {512, 512, 256});
const Shape kCube = shapeFromEnv("LYN_BENCH_CUBE", {256, 256, 256});
const Shape kPlane = shapeFromEnv("LYN_BENCH_PLANE", {4096, 4096, 1});

// Range: values in [10, 200], so no type's whole range is present and extrema scan everything.
// Early: uint8 in [1, 254] with 0 and 255 as the first two voxels, so a scan may stop at once.
// Specials: floats as Range with one voxel in 1024 NaN or -0.0, so every plan holds some and the
// float kernels keep their fold order everywhere.
enum class Pattern { Range, Early, Specials };
enum class Impl { Plugin, Generic };

const char* implName(Impl impl) { return impl == Impl::Plugin ? "plugin" : "generic"; }

std::uint64_t splitmix(std::uint64_t& state) {
    std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

template <class T>
void fillRange(T* data, std::uint64_t n, std::uint64_t seed, bool specials = false) {
    std::uint64_t state = seed;
    for (std::uint64_t i = 0; i < n; ++i) {
        const std::uint64_t r = splitmix(state);
        if constexpr (std::is_floating_point_v<T>) {
            data[i] = T(10) + T(r % 19001) * T(0.01);
            if (specials && (r >> 32) % 1024 == 0) data[i] = (r >> 42) % 2 ? std::numeric_limits<T>::quiet_NaN() : -T(0);
        } else {
            data[i] = static_cast<T>(10 + r % 191);
        }
    }
}

void fill(MemoryImage& image, Pattern pattern) {
    const std::uint64_t n = image.getNumOfVoxels();
    const std::uint64_t seed = 0x6c796e0000000000ULL + std::uint64_t(image.getVoxelType());
    switch (image.getVoxelType()) {
    case lyn::UInt8:
        if (pattern == Pattern::Early) {
            std::uint64_t state = seed;
            auto* d = image.dataAs<std::uint8_t>();
            for (std::uint64_t i = 0; i < n; ++i) d[i] = static_cast<std::uint8_t>(1 + splitmix(state) % 254);
            d[0] = 0;
            d[1] = 255;
            return;
        }
        fillRange(image.dataAs<std::uint8_t>(), n, seed);
        return;
    case lyn::UInt16: fillRange(image.dataAs<std::uint16_t>(), n, seed); return;
    case lyn::Int16: fillRange(image.dataAs<std::int16_t>(), n, seed); return;
    case lyn::Float: fillRange(image.dataAs<float>(), n, seed, pattern == Pattern::Specials); return;
    case lyn::Double: fillRange(image.dataAs<double>(), n, seed, pattern == Pattern::Specials); return;
    default: std::abort();
    }
}

// One input and one scratch image at a time: registration groups benchmarks by data set, so each
// set is generated once, and memory stays bounded by the largest set (512 MiB float64 volume x 2).
class Pool {
public:
    MemoryImage& input(VoxelTypes type, Shape s, Pattern p) {
        const Key key{type, s.cols, s.rows, s.plans, int(p)};
        if (!m_input || key != m_inputKey) {
            m_input.reset();
            m_input = std::make_unique<MemoryImage>(type, s.cols, s.rows, s.plans);
            fill(*m_input, p);
            m_inputKey = key;
        }
        return *m_input;
    }
    // Pages are touched here so no benchmark pays first-touch faults in its timed loop.
    MemoryImage& scratch(VoxelTypes type, Shape s) {
        const Key key{type, s.cols, s.rows, s.plans, 0};
        if (!m_scratch || key != m_scratchKey) {
            m_scratch.reset();
            m_scratch = std::make_unique<MemoryImage>(type, s.cols, s.rows, s.plans);
            std::memset(m_scratch->data(), 0, m_scratch->getSizeInBytes());
            m_scratchKey = key;
        }
        return *m_scratch;
    }

private:
    using Key = std::tuple<int, std::uint64_t, std::uint64_t, std::uint64_t, int>;
    std::unique_ptr<MemoryImage> m_input, m_scratch;
    Key m_inputKey, m_scratchKey;
};

Pool& pool() {
    static Pool p;
    return p;
}

// CPU that other processes used while a benchmark was timed, in CPUs (0 to 2 here). The machine is
// shared with compiles; a reading well above 0 marks a result taken while a core was taken away.
class ForeignLoad {
public:
    ForeignLoad() : m_busy(busyTicks()), m_self(selfTicks()), m_start(std::chrono::steady_clock::now()) {}
    double cpus() const {
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
        const double ticks = double(busyTicks() - m_busy) - double(selfTicks() - m_self);
        return seconds > 0 ? std::max(0.0, ticks / double(sysconf(_SC_CLK_TCK)) / seconds) : 0.0;
    }
    void report(benchmark::State& st) const { st.counters["others_cpu"] = cpus(); }

private:
    // user + nice + system + irq + softirq of all processors.
    static std::uint64_t busyTicks() {
        std::ifstream f("/proc/stat");
        std::string cpu;
        std::uint64_t v[7] = {};
        f >> cpu;
        for (auto& x : v) f >> x;
        return v[0] + v[1] + v[2] + v[5] + v[6];
    }
    // utime + stime of this process, all threads (fields 14 and 15, counted after the command name).
    static std::uint64_t selfTicks() {
        std::ifstream f("/proc/self/stat");
        std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        const std::size_t paren = text.rfind(')');
        if (paren == std::string::npos) return 0;
        std::istringstream fields(text.substr(paren + 1));
        std::string skip;
        for (int i = 3; i < 14; ++i) fields >> skip;
        std::uint64_t utime = 0, stime = 0;
        fields >> utime >> stime;
        return utime + stime;
    }

    std::uint64_t m_busy, m_self;
    std::chrono::steady_clock::time_point m_start;
};

// The plug-in case must really have run a runner, the generic case must not have.
bool checkRunner(benchmark::State& st, const lyn::BaseAlgorithm& algo, Impl impl) {
    const bool ran = algo.getLastRunner() != nullptr;
    if (impl == Impl::Plugin && !ran) {
        st.SkipWithError("no plug-in runner served the request (plug-in not loaded, or no AVX2?)");
        return false;
    }
    if (impl == Impl::Generic && ran) {
        st.SkipWithError("a runner served a request that asked for the generic code");
        return false;
    }
    st.SetLabel(ran ? lyn::runnerName(algo.getLastRunner()) : std::string("generic"));
    return true;
}

void setBytes(benchmark::State& st, const MemoryImage& image) {
    st.SetBytesProcessed(static_cast<std::int64_t>(st.iterations()) *
                         static_cast<std::int64_t>(image.getSizeInBytes()));
}

// Library errors become a skipped benchmark with the message rather than an aborted run.
template <class F>
void guarded(benchmark::State& st, F&& body) {
    try {
        body();
    } catch (const std::exception& e) {
        st.SkipWithError(e.what());
    }
}

void benchMemcpy(benchmark::State& st, VoxelTypes type, Shape shape) {
    guarded(st, [&] {
        const int threads = static_cast<int>(st.range(0));
        const MemoryImage& src = pool().input(type, shape, Pattern::Range);
        MemoryImage& dst = pool().scratch(type, shape);
        const std::size_t bytes = src.getSizeInBytes();
        // Four equal chunks per thread: a little slack for a busy machine, still one memcpy per chunk.
        const std::size_t chunks = std::size_t(threads) * 4;
        const std::size_t chunk = (bytes + chunks - 1) / chunks;
        const char* s = static_cast<const char*>(src.data());
        char* d = static_cast<char*>(dst.data());
        tbb::task_arena arena(threads);
        arena.initialize();
        auto copy = [&] {
            arena.execute([&] {
                tbb::parallel_for(
                    tbb::blocked_range<std::size_t>(0, chunks, 1),
                    [&](const tbb::blocked_range<std::size_t>& r) {
                        for (std::size_t i = r.begin(); i != r.end(); ++i) {
                            const std::size_t begin = i * chunk;
                            if (begin < bytes) std::memcpy(d + begin, s + begin, std::min(chunk, bytes - begin));
                        }
                    },
                    tbb::simple_partitioner());
            });
        };
        copy();  // wakes the arena's workers before timing
        const ForeignLoad load;
        for (auto _ : st) {
            copy();
            benchmark::ClobberMemory();
        }
        load.report(st);
        st.SetLabel("memcpy");
        setBytes(st, src);
    });
}

void benchExtrema(benchmark::State& st, VoxelTypes type, Pattern pattern, Impl impl) {
    guarded(st, [&] {
        const MemoryImage& image = pool().input(type, kVolume, pattern);
        lyn::analysis::IntensityExtrema a;
        lyn::analysis::IntensityExtremaMsr m;
        a.inputImage = &image;
        a.rangeMode = 0;
        a.result = &m;
        a.setMaxThreads(static_cast<int>(st.range(0)));
        a.setUsePlugin(impl == Impl::Plugin);
        a.execute();
        if (!checkRunner(st, a, impl)) return;
        const ForeignLoad load;
        for (auto _ : st) a.execute();
        load.report(st);
        const double lo = pattern == Pattern::Early ? 0 : 10, hi = pattern == Pattern::Early ? 255 : 200;
        if (m.minimum().at(0) != lo || m.maximum().at(0) != hi) st.SkipWithError("wrong extrema");
        setBytes(st, image);
    });
}

std::unique_ptr<lyn::morphology::SquareMorphology> makeMorph(bool dilate, int dims) {
    using namespace lyn::morphology;
    if (dims == 2) {
        if (dilate) return std::make_unique<Dilation2d>();
        return std::make_unique<Erosion2d>();
    }
    if (dilate) return std::make_unique<Dilation3d>();
    return std::make_unique<Erosion3d>();
}

struct MorphCase {
    VoxelTypes type;
    Shape shape;
    int dims;
    bool dilate;
    int neighborhood;
    unsigned passes;
    Impl impl;
    Pattern pattern = Pattern::Range;
    bool plainPasses = false;  // generic code without the box: every pass one after the other
};

void benchMorph(benchmark::State& st, MorphCase c, bool warmUp) {
    // The setting is read at each run; it is restored however the benchmark ends.
    struct Plain {
        bool on;
        explicit Plain(bool p) : on(p) {
            if (on) lyn::globalSettings()->setValue("LYN_GENERIC_BOX", "0");
        }
        ~Plain() {
            if (on) lyn::globalSettings()->unsetValue("LYN_GENERIC_BOX");
        }
    } plain(c.plainPasses);
    guarded(st, [&] {
        const MemoryImage& in = pool().input(c.type, c.shape, c.pattern);
        MemoryImage& out = pool().scratch(c.type, c.shape);
        auto d = makeMorph(c.dilate, c.dims);
        d->inputImage = &in;
        d->outputImage = &out;
        d->kernelRadius = c.passes;
        d->neighborhood = c.neighborhood;
        d->setMaxThreads(static_cast<int>(st.range(0)));
        d->setUsePlugin(c.impl == Impl::Plugin);
        // The slow generic 3D case skips the warm-up and is checked after its single iteration.
        if (warmUp) {
            d->execute();
            if (!checkRunner(st, *d, c.impl)) return;
        }
        const ForeignLoad load;
        for (auto _ : st) d->execute();
        load.report(st);
        if (!warmUp && !checkRunner(st, *d, c.impl)) return;
        setBytes(st, in);
    });
}

// The same run with input and output in files without a name in $TMPDIR (else /tmp), which the
// page cache holds after the first run: what positioned reads and writes cost against memory.
void benchMorphOnDisk(benchmark::State& st, MorphCase c) {
    guarded(st, [&] {
        const MemoryImage& in = pool().input(c.type, c.shape, c.pattern);
        const std::string dir = lyn::io::temporaryDirectory();
        auto diskIn = lyn::DiskImage::createUnnamed(dir, c.type, in.extents());
        auto diskOut = lyn::DiskImage::createUnnamed(dir, c.type, in.extents());
        const std::uint64_t rowBytes = in.getNumOf(lyn::Columns) * lyn::helper::getSizeOf(c.type);
        for (std::uint64_t z = 0; z < c.shape.plans; ++z)
            for (std::uint64_t y = 0; y < c.shape.rows; ++y)
                diskIn->writeRaw(static_cast<const char*>(in.data()) + (z * c.shape.rows + y) * rowBytes, c.shape.cols, 0,
                                 long(y), long(z), 0, 0);
        auto d = makeMorph(c.dilate, c.dims);
        d->inputImage = diskIn.get();
        d->outputImage = diskOut.get();
        d->kernelRadius = c.passes;
        d->neighborhood = c.neighborhood;
        d->setMaxThreads(static_cast<int>(st.range(0)));
        d->setUsePlugin(c.impl == Impl::Plugin);
        d->execute();
        if (!checkRunner(st, *d, c.impl)) return;
        const ForeignLoad load;
        for (auto _ : st) d->execute();
        load.report(st);
        setBytes(st, in);
    });
}

struct TypeInfo {
    VoxelTypes type;
    const char* name;
};
constexpr TypeInfo kTypes[] = {{lyn::UInt8, "uint8"}, {lyn::UInt16, "uint16"}, {lyn::Float, "float32"},
                               {lyn::Double, "float64"}};

template <class F>
benchmark::internal::Benchmark* reg(const std::string& name, F&& fn) {
    return benchmark::RegisterBenchmark(name.c_str(), std::forward<F>(fn))
        ->ArgName("threads")
        ->Arg(1)
        ->Arg(2)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

void registerExtrema() {
    for (const TypeInfo& t : kTypes) {
        const std::string base = std::string("extrema/") + t.name + "/range/";
        const VoxelTypes type = t.type;
        reg(base + "memcpy", [type](benchmark::State& st) { benchMemcpy(st, type, kVolume); });
        for (Impl impl : {Impl::Plugin, Impl::Generic})
            reg(base + implName(impl),
                [type, impl](benchmark::State& st) { benchExtrema(st, type, Pattern::Range, impl); });
    }
    for (Impl impl : {Impl::Plugin, Impl::Generic})
        reg(std::string("extrema/uint8/early/") + implName(impl),
            [impl](benchmark::State& st) { benchExtrema(st, lyn::UInt8, Pattern::Early, impl); });
}

void registerMorph2d() {
    struct Nb {
        int value;
        const char* name;
    };
    // int16 as well: OpenCV serves it, and the comparison with it covers every type it serves.
    const TypeInfo types[] = {kTypes[0], kTypes[1], {lyn::Int16, "int16"}, kTypes[2], kTypes[3]};
    for (const TypeInfo& t : types) {
        const std::string base = std::string("morph2d/") + t.name + "/";
        const VoxelTypes type = t.type;
        reg(base + "copy/memcpy", [type](benchmark::State& st) { benchMemcpy(st, type, kPlane); });
        for (Nb nb : {Nb{1, "square"}, Nb{0, "cross"}}) {
            for (unsigned passes : {1u, 5u}) {
                MorphCase c{type, kPlane, 2, true, nb.value, passes, Impl::Plugin};
                const std::string name = base + "dilate-" + nb.name + "-x" + std::to_string(passes) + "/";
                reg(name + "plugin", [c](benchmark::State& st) { benchMorph(st, c, true); });
                if (passes == 1) {
                    MorphCase g = c;
                    g.impl = Impl::Generic;
                    reg(name + "generic", [g](benchmark::State& st) { benchMorph(st, g, true); });
                }
            }
            // Erosion shares the dilation's code with the other functor; one pass checks it does not lag.
            MorphCase e{type, kPlane, 2, false, nb.value, 1, Impl::Plugin};
            reg(base + "erode-" + nb.name + "-x1/plugin", [e](benchmark::State& st) { benchMorph(st, e, true); });
        }
    }
}

void registerMorph3d() {
    const TypeInfo types[] = {{lyn::UInt8, "uint8"}, {lyn::Float, "float32"}, {lyn::Double, "float64"}};
    for (const TypeInfo& t : types) {
        const Shape shape = t.type == lyn::UInt8 ? kVolume : kCube;
        const std::string base = std::string("morph3d/") + t.name + "/";
        const VoxelTypes type = t.type;
        reg(base + "copy/memcpy", [type, shape](benchmark::State& st) { benchMemcpy(st, type, shape); });
        for (int nb : {0, 1, 2}) {
            const std::string conn = nb == 0 ? "6" : nb == 1 ? "18" : "26";
            for (unsigned passes : {1u, 3u}) {
                MorphCase c{type, shape, 3, true, nb, passes, Impl::Plugin};
                const std::string name = base + "dilate-" + conn + "-x" + std::to_string(passes) + "/";
                reg(name + "plugin", [c](benchmark::State& st) { benchMorph(st, c, true); });
                if (passes == 1 && nb == 2 && type == lyn::UInt8) {
                    MorphCase g = c;
                    g.impl = Impl::Generic;
                    // Several seconds per run: one iteration per repetition is enough.
                    reg(name + "generic", [g](benchmark::State& st) { benchMorph(st, g, false); })->Iterations(1);
                }
            }
            MorphCase e{type, shape, 3, false, nb, 1, Impl::Plugin};
            reg(base + "erode-" + conn + "-x1/plugin", [e](benchmark::State& st) { benchMorph(st, e, true); });
        }
    }
    MorphCase onDisk{lyn::UInt8, kVolume, 3, true, 2, 1, Impl::Plugin};
    reg("morph3d/uint8/dilate-26-x1/plugin-on-disk", [onDisk](benchmark::State& st) { benchMorphOnDisk(st, onDisk); });
    // Floats holding NaN and -0.0 everywhere: the 18- and 26-connected kernels in fold order.
    for (const TypeInfo& t : {TypeInfo{lyn::Float, "float32"}, TypeInfo{lyn::Double, "float64"}})
        for (int nb : {1, 2}) {
            MorphCase c{t.type, kCube, 3, true, nb, 1, Impl::Plugin, Pattern::Specials};
            reg(std::string("morph3d/") + t.name + "/dilate-" + (nb == 1 ? "18" : "26") + "-x1-specials/plugin",
                [c](benchmark::State& st) { benchMorph(st, c, true); });
        }
}

// Many square or cube passes in the host beside one plug-in pass (registered with the morph2d and
// morph3d groups): the generic box, the generic code pass after pass, and the plug-in's passes
// within its limits.
void registerBox() {
    for (const TypeInfo& t : {TypeInfo{lyn::UInt8, "uint8"}, TypeInfo{lyn::Float, "float32"}}) {
        const std::string name = std::string("morph2d/") + t.name + "/dilate-square-x100/";
        const MorphCase c{t.type, kPlane, 2, true, 1, 100, Impl::Generic};
        reg(name + "generic", [c](benchmark::State& st) { benchMorph(st, c, true); });
        if (t.type == lyn::UInt8) {
            MorphCase p = c;
            p.plainPasses = true;
            reg(name + "generic-passes", [p](benchmark::State& st) { benchMorph(st, p, false); })->Iterations(1);
        }
    }
    for (unsigned passes : {3u, 30u}) {
        const std::string name = "morph3d/uint8/dilate-26-x" + std::to_string(passes) + "/";
        const MorphCase c{lyn::UInt8, kVolume, 3, true, 2, passes, Impl::Generic};
        reg(name + "generic", [c](benchmark::State& st) { benchMorph(st, c, true); });
        if (passes == 30) {
            MorphCase p = c;
            p.impl = Impl::Plugin;
            reg(name + "plugin", [p](benchmark::State& st) { benchMorph(st, p, true); });
        }
    }
    const MorphCase wide{lyn::Float, kCube, 3, true, 2, 30, Impl::Plugin};
    reg("morph3d/float32/dilate-26-x30/plugin", [wide](benchmark::State& st) { benchMorph(st, wide, true); });
    // Reach 4 to 7: the tiles' wider reaches.
    for (unsigned passes : {4u, 5u, 7u})
        for (const auto& [type, name, shape] :
             {std::tuple{lyn::UInt8, "uint8", kVolume}, std::tuple{lyn::Float, "float32", kCube}}) {
            const MorphCase c{type, shape, 3, true, 2, passes, Impl::Plugin};
            reg(std::string("morph3d/") + name + "/dilate-26-x" + std::to_string(passes) + "/plugin",
                [c](benchmark::State& st) { benchMorph(st, c, true); });
        }
}

// Disk, ball and line structuring elements: the fast decompositions (mode 0), the exact offset
// lists (mode 1), lines and oriented disks.
enum class Se { Disk2d, Ball3d, Disk3d, Line2d, Line3d };

struct ShapeCase {
    VoxelTypes type;
    Shape shape;
    Se se;
    int mode;
    unsigned size;
    double angle1, angle2;
    Impl impl;
};

std::unique_ptr<lyn::BaseAlgorithm> makeShape(const ShapeCase& c, const MemoryImage& in, MemoryImage& out) {
    using namespace lyn::morphology;
    std::unique_ptr<lyn::BaseAlgorithm> algo;
    switch (c.se) {
    case Se::Disk2d: algo = std::make_unique<DilationDisk2d>(); break;
    case Se::Ball3d: algo = std::make_unique<DilationBall3d>(); break;
    case Se::Disk3d: algo = std::make_unique<DilationDisk3d>(); break;
    case Se::Line2d: algo = std::make_unique<DilationLine2d>(); break;
    case Se::Line3d: algo = std::make_unique<DilationLine3d>(); break;
    }
    if (auto* a = dynamic_cast<RadiusModeMorphology*>(algo.get())) {
        a->inputImage = &in;
        a->outputImage = &out;
        a->kernelRadius = c.size;
        a->mode = c.mode;
    } else if (auto* l = dynamic_cast<LineMorphology2d*>(algo.get())) {
        l->inputImage = &in;
        l->outputImage = &out;
        l->angle = c.angle1;
        l->length = c.size;
    } else if (auto* o = dynamic_cast<OrientedMorphology3d*>(algo.get())) {
        o->inputImage = &in;
        o->outputImage = &out;
        o->angle1 = c.angle1;
        o->angle2 = c.angle2;
        o->size = c.size;
    }
    return algo;
}

void benchShape(benchmark::State& st, ShapeCase c, bool warmUp) {
    guarded(st, [&] {
        const MemoryImage& in = pool().input(c.type, c.shape, Pattern::Range);
        MemoryImage& out = pool().scratch(c.type, c.shape);
        auto d = makeShape(c, in, out);
        d->setMaxThreads(static_cast<int>(st.range(0)));
        d->setUsePlugin(c.impl == Impl::Plugin);
        if (warmUp) {
            d->execute();
            if (!checkRunner(st, *d, c.impl)) return;
        }
        const ForeignLoad load;
        for (auto _ : st) d->execute();
        load.report(st);
        if (!warmUp && !checkRunner(st, *d, c.impl)) return;
        setBytes(st, in);
    });
}

void registerShapes() {
    const auto add = [](const std::string& name, ShapeCase c) {
        // The generic code takes seconds here: one iteration, unwarmed, per repetition.
        if (c.impl == Impl::Generic)
            reg(name + "/generic", [c](benchmark::State& st) { benchShape(st, c, false); })->Iterations(1);
        else
            reg(name + "/plugin", [c](benchmark::State& st) { benchShape(st, c, true); });
    };
    for (const TypeInfo& t : {TypeInfo{lyn::UInt8, "uint8"}, TypeInfo{lyn::Float, "float32"}}) {
        const std::string base = std::string("shapes2d/") + t.name + "/";
        const VoxelTypes type = t.type;
        reg(base + "copy/memcpy", [type](benchmark::State& st) { benchMemcpy(st, type, kPlane); });
        for (unsigned r : {3u, 10u}) {
            add(base + "disk-r" + std::to_string(r) + "-fast", {type, kPlane, Se::Disk2d, 0, r, 0, 0, Impl::Plugin});
            add(base + "disk-r" + std::to_string(r) + "-exact", {type, kPlane, Se::Disk2d, 1, r, 0, 0, Impl::Plugin});
        }
        if (type == lyn::UInt8) {
            add(base + "disk-r10-exact", {type, kPlane, Se::Disk2d, 1, 10, 0, 0, Impl::Generic});
            for (double angle : {0.0, 30.0, 90.0})
                add(base + "line-l21-a" + std::to_string(int(angle)),
                    {type, kPlane, Se::Line2d, 1, 21, angle, 0, Impl::Plugin});
        }
    }
    const std::string base = "shapes3d/uint8/";
    reg(base + "copy/memcpy", [](benchmark::State& st) { benchMemcpy(st, lyn::UInt8, kVolume); });
    for (unsigned r : {3u, 5u}) {
        add(base + "ball-r" + std::to_string(r) + "-fast", {lyn::UInt8, kVolume, Se::Ball3d, 0, r, 0, 0, Impl::Plugin});
        add(base + "ball-r" + std::to_string(r) + "-exact", {lyn::UInt8, kVolume, Se::Ball3d, 1, r, 0, 0, Impl::Plugin});
    }
    add(base + "line3d-l15-a30-e45", {lyn::UInt8, kVolume, Se::Line3d, 1, 15, 30, 45, Impl::Plugin});
    add(base + "disk3d-r5-a30-e45", {lyn::UInt8, kVolume, Se::Disk3d, 1, 5, 30, 45, Impl::Plugin});
}

// Opening, closing, gradient and top-hats: the host's composite algorithm against the same stages
// run as separate calls on the same images (the second stage in place, as the composite runs it;
// the gradient's intermediate image allocated once, where the composite allocates its own per run).
using Composite = lyn::morphology::CompositeMorphology;

struct CompositeCase {
    VoxelTypes type;
    Shape shape;
    const char* shapeName;
    lyn::shapes::ShapeParams params;
    Composite::Operation op;
    bool composite;  // false: the stages as separate calls
};

// Progress and cancellation for a call of the host's subtraction made outside any algorithm.
class Standalone : public lyn::algorithms::AbstractPrivateImplementation {
public:
    Standalone() : AbstractPrivateImplementation(nullptr) {}
    void run() override {}
};

void benchComposite(benchmark::State& st, CompositeCase c) {
    guarded(st, [&] {
        using Stage = std::unique_ptr<lyn::morphology::StructuringElementMorphology>;
        const int threads = static_cast<int>(st.range(0));
        const MemoryImage& in = pool().input(c.type, c.shape, Pattern::Range);
        MemoryImage& out = pool().scratch(c.type, c.shape);
        const lyn::shapes::ShapeInfo& info = lyn::shapes::findShape(c.shapeName);
        std::unique_ptr<Composite> composite;
        Stage dilation, erosion;
        std::unique_ptr<MemoryImage> tmp;
        Standalone step;
        tbb::task_arena arena(threads);
        std::function<void()> run;
        if (c.composite) {
            composite = Composite::create(c.op);
            composite->setStructuringElement(lyn::morphology::shapeElement(info, c.params));
            composite->setImages(&in, &out);
            composite->setMaxThreads(threads);
            run = [&] { composite->execute(); };
        } else {
            dilation = lyn::shapes::makeAlgorithm(info, c.params, true);
            erosion = lyn::shapes::makeAlgorithm(info, c.params, false);
            dilation->setMaxThreads(threads);
            erosion->setMaxThreads(threads);
            // Both shapes here are centrally symmetric: the mirrored second stage is the same algorithm.
            const auto stage = [](Stage& algo, const MemoryImage* source, MemoryImage* target) {
                algo->setImages(source, target);
                algo->execute();
            };
            const auto subtract = [&](const MemoryImage& a, const MemoryImage& b) {
                arena.execute([&] { lyn::generic::subtract(a, b, out, step); });
            };
            switch (c.op) {
            case Composite::Open:
                run = [&] {
                    stage(erosion, &in, &out);
                    stage(dilation, &out, &out);
                };
                break;
            case Composite::Close:
                run = [&] {
                    stage(dilation, &in, &out);
                    stage(erosion, &out, &out);
                };
                break;
            case Composite::Gradient:
                tmp = std::make_unique<MemoryImage>(c.type, c.shape.cols, c.shape.rows, c.shape.plans);
                std::memset(tmp->data(), 0, tmp->getSizeInBytes());
                run = [&] {
                    stage(erosion, &in, tmp.get());
                    stage(dilation, &in, &out);
                    subtract(out, *tmp);
                };
                break;
            case Composite::TopHat:
                run = [&] {
                    stage(erosion, &in, &out);
                    stage(dilation, &out, &out);
                    subtract(in, out);
                };
                break;
            case Composite::BlackHat:
                run = [&] {
                    stage(dilation, &in, &out);
                    stage(erosion, &out, &out);
                    subtract(out, in);
                };
                break;
            }
        }
        run();
        // Every morphology stage must have been served by the plug-in, in both variants.
        const std::vector<const lyn::Runnable*> runners =
            composite ? composite->getStageRunners()
                      : std::vector<const lyn::Runnable*>{dilation->getLastRunner(), erosion->getLastRunner()};
        if (std::find(runners.begin(), runners.end(), nullptr) != runners.end()) {
            st.SkipWithError("a stage ran the generic code (plug-in not loaded, or no AVX2?)");
            return;
        }
        st.SetLabel(lyn::runnerName(runners.front()));
        const ForeignLoad load;
        for (auto _ : st) run();
        load.report(st);
        setBytes(st, in);
    });
}

void registerComposites() {
    const char* opNames[] = {"open", "close", "gradient", "tophat", "blackhat"};
    const Composite::Operation ops[] = {Composite::Open, Composite::Close, Composite::Gradient, Composite::TopHat,
                                        Composite::BlackHat};
    lyn::shapes::ShapeParams radius1, radius3, radius3exact;
    radius1.radius = 1;
    radius3.radius = 3;
    radius3exact.radius = 3;
    radius3exact.exact = true;
    struct Set {
        std::string name;
        VoxelTypes type;
        Shape shape;
        const char* shapeName;
        lyn::shapes::ShapeParams params;
        bool allOps;
    };
    const Set sets[] = {
        {"composite2d/uint8/", lyn::UInt8, kPlane, "square", radius1, true},
        {"composite2d/float32/", lyn::Float, kPlane, "square", radius1, true},
        {"composite3d/uint8/", lyn::UInt8, kVolume, "ball", radius3, true},
        {"composite3d/uint8/", lyn::UInt8, kVolume, "ball", radius3exact, false},
    };
    for (const Set& set : sets) {
        const std::string shape = set.shapeName + std::string("-r") + std::to_string(*set.params.radius) +
                                  (set.shapeName == std::string("ball") ? (set.params.exact ? "-exact" : "-fast") : "");
        for (std::size_t i = 0; i < (set.allOps ? std::size(ops) : 1); ++i)
            for (bool composite : {true, false}) {
                CompositeCase c{set.type, set.shape, set.shapeName, set.params, ops[i], composite};
                auto* b = reg(set.name + opNames[i] + "-" + shape + "/" + (composite ? "composite" : "stages"),
                              [c](benchmark::State& st) { benchComposite(st, c); });
                if (set.params.exact) b->Iterations(2);  // about a second per run
            }
    }
}

// Registered during static initialisation, after liblyn's own statics: BENCHMARK_MAIN then parses
// the command line and runs the registered benchmarks. The plug-in is loaded here once, so its
// path is in the output's context and no benchmark pays for the load.
[[maybe_unused]] const bool kRegistered = [] {
    lyn::Plugin::ensureStarted();
    benchmark::AddCustomContext("lyn_plugin", lyn::Plugin::isLoaded()
                                                  ? lyn::Plugin::loadedPath()
                                                  : "not loaded: " + lyn::Plugin::lastError());
    const char* grain = std::getenv("LYN_GRAIN_SIZES");
    benchmark::AddCustomContext("lyn_grain_sizes", grain && *grain ? grain : "default");
    registerExtrema();
    registerMorph2d();
    registerMorph3d();
    registerBox();
    registerShapes();
    registerComposites();
    return true;
}();

} // namespace

BENCHMARK_MAIN();
