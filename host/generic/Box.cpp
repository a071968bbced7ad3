// Several square or cube passes as one separable box (host/generic/Generic.h). N passes of a 3x3
// (3x3x3) extremum give, at each voxel, the extremum of the image over the box of side 2N + 1
// around it, joined by the border value exactly when that box leaves the image: one pass adds the
// border where its 3x3 window leaves the image, and a voxel's box of reach N leaves it exactly when
// some voxel within reach N - 1 has a window that does. So each axis in turn takes the extremum of
// 2N + 1 neighbours of a line padded by N border values at each end; a reach longer than the line
// gives what the line's length gives (the whole line and the border), so it is clamped to it.
// Without NaN, and without zeros of both signs, the extremum of a set does not depend on the order
// in which it is folded, so these sweeps give the passes' bytes.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "host/Exceptions.h"
#include "host/Settings.h"
#include "host/generic/Fold.h"
#include "host/generic/Generic.h"

namespace lyn {
namespace generic {

BoxPoll::~BoxPoll() = default;

const char* boxOutcomeName(BoxOutcome outcome) {
    switch (outcome) {
    case BoxOutcome::Done: return "done";
    case BoxOutcome::NotABox: return "not a box";
    case BoxOutcome::FoldOrderShows: return "fold order shows (NaN, or zeros of both signs)";
    case BoxOutcome::OverBudget: return "over the memory limits";
    }
    return "?";
}

bool isBoxStage(const Stage& stage) {
    return (stage.neighbourhood == Neighbourhood::Square8 || stage.neighbourhood == Neighbourhood::TwentySix) &&
           stage.passes >= 2;
}

bool boxEnabled() { return globalSettings()->getValueAsBool("LYN_GENERIC_BOX", true); }

namespace {

// Buffers per worker that stay in a core's cache; a worker may take more when the image is larger.
constexpr std::uint64_t kWorkerBytes = std::uint64_t(1) << 20;

// Extents, reach per axis (columns, rows, plans) clamped to the extent, and strip widths in columns.
struct Geometry {
    long n[5] = {0, 0, 0, 0, 0};
    long r[3] = {0, 0, 0};
    int axes = 2;
    long stripWidth[3] = {0, 0, 0};  // along rows (1) and plans (2)
    std::uint64_t bytesPerWorker = 0;
};

// Elements a worker holds for one row: the padded row and its doubling copy.
std::uint64_t rowElements(const Geometry& g) { return 2 * std::uint64_t(g.n[0] + 2 * g.r[0]); }
// Elements a worker holds per column of a strip along `axis`: two segments of 2r + 1 rows, a
// running fold and an output row.
std::uint64_t stripElementsPerColumn(const Geometry& g, int axis) { return 2 * std::uint64_t(2 * g.r[axis] + 1) + 2; }

// Fills the reaches and strip widths; false when the buffers cannot fit the limits.
bool plan(Geometry& g, const Extents& e, std::size_t elementSize, const Stage& stage, int threads,
          std::uint64_t budget) {
    for (int a = 0; a < 5; ++a) g.n[a] = long(e[a]);
    g.axes = stage.neighbourhood == Neighbourhood::TwentySix ? 3 : 2;
    for (int a = 0; a < g.axes; ++a) g.r[a] = std::min<long>(long(stage.passes), g.n[a]);
    const std::uint64_t workers = std::uint64_t(std::max(1, threads));
    std::uint64_t image = elementSize;
    for (int a = 0; a < 5; ++a) image *= e[a];
    if (budget == 0) return false;
    // The limit per worker; strips aim at the cache-sized target within it.
    const std::uint64_t cap = std::min(std::max(kWorkerBytes, image / workers), (budget - 1) / workers);
    const std::uint64_t target = std::min(cap, kWorkerBytes);
    const std::uint64_t rowBytes = rowElements(g) * elementSize;
    if (rowBytes > cap) return false;
    g.bytesPerWorker = rowBytes;
    // Whole cache lines of columns per strip when the strip is that wide.
    const long line = std::max<long>(1, long(64 / elementSize));
    for (int a = 1; a < g.axes; ++a) {
        const std::uint64_t perColumn = stripElementsPerColumn(g, a) * elementSize;
        // Enough strips for the workers to share when the other axes give too few lines.
        const long across = (a == 1 ? g.n[2] : g.n[1]) * g.n[3] * g.n[4];
        const long wanted = std::max<long>(1, (4 * long(workers) + across - 1) / std::max(across, 1L));
        long w = long(std::min<std::uint64_t>(std::uint64_t(g.n[0]), target / perColumn));
        w = std::min(w, (g.n[0] + wanted - 1) / wanted);
        if (w < g.n[0] && w >= line) w -= w % line;
        w = std::max(w, 1L);
        if (perColumn * std::uint64_t(w) > cap) return false;
        g.stripWidth[a] = w;
        g.bytesPerWorker = std::max(g.bytesPerWorker, perColumn * std::uint64_t(w));
    }
    return true;
}

// `out[x] = fold(a[x], b[x])` and `acc[x] = fold(acc[x], next[x])`: the loops the compiler vectorises.
template <bool D, class T>
inline void foldInto(T* __restrict out, const T* __restrict a, const T* __restrict b, long count) {
    for (long x = 0; x < count; ++x) out[x] = f<D>(a[x], b[x]);
}
template <bool D, class T>
inline void foldInto(T* __restrict acc, const T* __restrict next, long count) {
    for (long x = 0; x < count; ++x) acc[x] = f<D>(acc[x], next[x]);
}

// Rows of one image: addressed in place when it lives in memory, else read and written by its calls.
template <class T>
class Rows {
public:
    explicit Rows(const ImageModel& image) : m_image(&image) { m_direct = image.getMemoryLayout(m_layout); }
    bool direct() const { return m_direct; }
    // c: row, plan, sequence, spectral.
    T* at(long x, const long* c) const {
        return reinterpret_cast<T*>(m_layout.base + x * m_layout.strides[0] + c[0] * m_layout.strides[1] +
                                    c[1] * m_layout.strides[2] + c[2] * m_layout.strides[3] +
                                    c[3] * m_layout.strides[4]);
    }
    // `count` voxels from column x, in place or copied to `buffer`.
    const T* read(long x, long count, const long* c, T* buffer) const {
        if (m_direct) return at(x, c);
        m_image->readRaw(buffer, std::uint64_t(count), x, c[0], c[1], c[2], c[3]);
        return buffer;
    }
    // Where to compute `count` voxels from column x: in place, or `buffer`, then written by put.
    T* target(long x, const long* c, T* buffer) const { return m_direct ? at(x, c) : buffer; }
    void put(const T* data, long x, long count, const long* c) const {
        // Writable: the output's rows come from the non-const image runBox was given.
        if (!m_direct) const_cast<ImageModel*>(m_image)->writeRaw(data, std::uint64_t(count), x, c[0], c[1], c[2], c[3]);
    }

private:
    const ImageModel* m_image;
    MemoryLayout m_layout;
    bool m_direct = false;
};

template <class T>
struct Scratch {
    std::vector<T> a, b, g, h, out;
};

// One row: the extremum over 2r + 1 neighbours by doubling. After the steps of reach 1, 2, 4, ...,
// p, a[i] folds the p voxels from i on (p the largest power of two not above 2r + 1), and two such
// runs overlapping cover the window.
template <bool D, class T>
void sweepRow(const Rows<T>& src, const Rows<T>& dst, long n, long r, const long* c, T border, Scratch<T>& s) {
    const long k = 2 * r + 1, length = n + 2 * r;
    s.a.resize(std::size_t(length));
    s.b.resize(std::size_t(length));
    T* a = s.a.data();
    T* b = s.b.data();
    // The first step (reach 1) straight from the row, which is not copied: a[i] folds E[i] and
    // E[i + 1], E the row padded by r border values at each end (r >= 1).
    const T* row = src.read(0, n, c, b);
    std::fill_n(a, r - 1, border);
    a[r - 1] = f<D>(border, row[0]);
    foldInto<D>(a + r, row, row + 1, n - 1);
    a[r + n - 1] = f<D>(row[n - 1], border);
    std::fill_n(a + r + n, r - 1, border);
    long p = 2, valid = length - 1;
    for (; 2 * p <= k; p *= 2) {
        foldInto<D>(b, a, a + p, valid - p);
        valid -= p;
        std::swap(a, b);
    }
    T* out = dst.target(0, c, b);
    foldInto<D>(out, a, a + (k - p), n);
    dst.put(out, 0, n, c);
}

// A strip of w columns along `axis` (1: rows, 2: plans), van Herk/Gil-Werman: the padded line is cut
// into segments of k = 2r + 1. The window starting at i, in segment b, is h[i] (the fold from i to
// the end of segment b) folded with the fold from the start of segment b + 1 to i + 2r, which grows
// by one row as i does. So the rows of segment b + 1 are read (copied) as the outputs of segment b
// are written, then folded backward in place to become the next h: three folds per voxel and two
// segments of buffer. In place, row i is written once the rows up to i + r are read, and every row
// read after it lies beyond i + r: nothing is overwritten before it is read.
template <bool D, class T>
void sweepStrip(const Rows<T>& src, const Rows<T>& dst, int axis, long n, long r, long x0, long w, long* c, T border,
                Scratch<T>& s) {
    const long k = 2 * r + 1, length = n + 2 * r;
    s.g.resize(std::size_t(k * w));
    s.h.resize(std::size_t(k * w));
    s.a.resize(std::size_t(w));
    s.out.resize(std::size_t(w));
    T* ahead = s.g.data();  // the next segment's rows as read
    T* h = s.h.data();      // the current segment's backward folds
    T* run = s.a.data();    // the fold of the next segment so far
    auto load = [&](long j, T* to) {
        if (j < r || j >= n + r) {
            std::fill_n(to, w, border);
            return;
        }
        c[axis - 1] = j - r;
        const T* row = src.read(x0, w, c, to);
        if (row != to) std::copy_n(row, w, to);
    };
    auto backward = [&](T* rows, long count) {
        for (long j = count - 2; j >= 0; --j) foldInto<D>(rows + j * w, rows + (j + 1) * w, w);
    };
    auto emit = [&](long i, const T* a, const T* b) {
        c[axis - 1] = i;
        T* out = dst.target(x0, c, s.out.data());
        if (b) foldInto<D>(out, a, b, w);
        else std::copy_n(a, w, out);
        dst.put(out, x0, w, c);
    };
    const long first = std::min(k, length);
    for (long j = 0; j < first; ++j) load(j, ahead + j * w);
    backward(ahead, first);
    std::swap(ahead, h);
    for (long start = 0; start < n; start += k) {
        const long next = start + k;
        emit(start, h, nullptr);  // the window is the whole segment
        long loaded = 0;
        for (long t = 1; t < k && start + t < n; ++t, ++loaded) {
            T* row = ahead + (t - 1) * w;
            load(next + t - 1, row);
            if (t == 1) std::copy_n(row, w, run);
            else foldInto<D>(run, row, w);
            emit(start + t, h + t * w, run);
        }
        if (next >= n) break;
        const long end = std::min(next + k, length);
        for (long j = next + loaded; j < end; ++j) load(j, ahead + (j - next) * w);
        backward(ahead, end - next);
        std::swap(ahead, h);
    }
}

// Whether a float image holds a NaN, or zeros of both signs: one parallel scan of its bits.
template <class T>
bool foldOrderShows(const ImageModel& image, const Geometry& g, BoxPoll& poll) {
    if constexpr (!std::is_floating_point_v<T>) {
        return false;
    } else {
        using U = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
        constexpr U sign = U(1) << (8 * sizeof(T) - 1);
        constexpr U infinity = sizeof(T) == 4 ? U(0x7f800000u) : U(0x7ff0000000000000ull);
        const Rows<T> rows(image);
        const long count = g.n[1] * g.n[2] * g.n[3] * g.n[4];
        std::atomic<bool> nan{false}, negative{false}, positive{false};
        tbb::enumerable_thread_specific<std::vector<T>> buffers;
        tbb::parallel_for(tbb::blocked_range<long>(0, count), [&](const tbb::blocked_range<long>& range) {
            std::vector<T>& buffer = buffers.local();
            buffer.resize(std::size_t(g.n[0]));
            for (long q = range.begin(); q != range.end(); ++q) {
                if (poll.cancelled()) throw ExceptionCancelation();
                if (nan.load(std::memory_order_relaxed) ||
                    (negative.load(std::memory_order_relaxed) && positive.load(std::memory_order_relaxed)))
                    return;
                const long c[4] = {q % g.n[1], q / g.n[1] % g.n[2], q / g.n[1] / g.n[2] % g.n[3],
                                   q / g.n[1] / g.n[2] / g.n[3]};
                const T* row = rows.read(0, g.n[0], c, buffer.data());
                unsigned char isNan = 0, isNegative = 0, isPositive = 0;
                for (long x = 0; x < g.n[0]; ++x) {
                    U u;
                    std::memcpy(&u, row + x, sizeof u);
                    isNan |= (u & ~sign) > infinity;
                    isNegative |= u == sign;
                    isPositive |= u == 0;
                }
                if (isNan) nan = true;
                if (isNegative) negative = true;
                if (isPositive) positive = true;
            }
        });
        return nan || (negative && positive);
    }
}

template <bool D, class Traits>
BoxOutcome runBoxTyped(const ImageModel& source, ImageModel& output, const Stage& stage, std::uint64_t budget,
                       BoxPoll& poll) {
    using T = typename Traits::type;
    Geometry g;
    if (!plan(g, output.extents(), sizeof(T), stage, tbb::this_task_arena::max_concurrency(), budget))
        return BoxOutcome::OverBudget;
    const long voxels = g.n[0] * g.n[1] * g.n[2] * g.n[3] * g.n[4];
    if (voxels == 0) return BoxOutcome::Done;
    if (foldOrderShows<T>(source, g, poll)) return BoxOutcome::FoldOrderShows;

    const T border = D ? Traits::lowest() : Traits::highest();
    const Rows<T> in(source), out(output);
    tbb::enumerable_thread_specific<Scratch<T>> scratch;
    const double total = double(voxels) * g.axes;
    std::atomic<long> done{0};
    // Each line or strip is one task: cancellation is asked before it, progress told after it.
    auto sweep = [&](long tasks, auto&& task) {
        tbb::parallel_for(tbb::blocked_range<long>(0, tasks), [&](const tbb::blocked_range<long>& range) {
            Scratch<T>& s = scratch.local();
            for (long q = range.begin(); q != range.end(); ++q) {
                if (poll.cancelled()) throw ExceptionCancelation();
                const long finished = task(q, s);
                poll.progress(double(done.fetch_add(finished) + finished) / total);
            }
        });
        // What one sweep wrote must be visible to the next one's reads, and to the next stage's.
        output.flushWrites();
    };

    // Rows: the first sweep reads the source, every later one reads and writes the output.
    sweep(g.n[1] * g.n[2] * g.n[3] * g.n[4], [&](long q, Scratch<T>& s) {
        const long c[4] = {q % g.n[1], q / g.n[1] % g.n[2], q / g.n[1] / g.n[2] % g.n[3], q / g.n[1] / g.n[2] / g.n[3]};
        sweepRow<D>(in, out, g.n[0], g.r[0], c, border, s);
        return g.n[0];
    });
    // Columns, then plans, in strips: c holds the coordinates the strip does not run along.
    for (int axis = 1; axis < g.axes; ++axis) {
        const long w = g.stripWidth[axis], strips = (g.n[0] + w - 1) / w;
        const long across = axis == 1 ? g.n[2] : g.n[1];
        sweep(strips * across * g.n[3] * g.n[4], [&](long q, Scratch<T>& s) {
            const long x0 = q % strips * w, width = std::min(w, g.n[0] - x0);
            long rest = q / strips, c[4] = {0, 0, 0, 0};
            c[axis == 1 ? 1 : 0] = rest % across;
            rest /= across;
            c[2] = rest % g.n[3];
            c[3] = rest / g.n[3];
            sweepStrip<D>(out, out, axis, g.n[axis], g.r[axis], x0, width, c, border, s);
            return width * g.n[axis];
        });
    }
    return BoxOutcome::Done;
}

} // namespace

std::uint64_t boxWorkingBytes(const Extents& extents, std::size_t elementSize, const Stage& stage, int threads,
                              std::uint64_t memoryBudget) {
    Geometry g;
    if (!isBoxStage(stage) || !plan(g, extents, elementSize, stage, threads, memoryBudget)) return 0;
    return g.bytesPerWorker * std::uint64_t(std::max(1, threads));
}

BoxOutcome runBox(const ImageModel& source, ImageModel& output, const Stage& stage, bool dilate,
                  std::uint64_t memoryBudget, BoxPoll& poll) {
    if (!isBoxStage(stage)) return BoxOutcome::NotABox;
    return dispatchVoxelType(output.getVoxelType(), [&](auto traits) {
        if (dilate) return runBoxTyped<true, decltype(traits)>(source, output, stage, memoryBudget, poll);
        return runBoxTyped<false, decltype(traits)>(source, output, stage, memoryBudget, poll);
    });
}

} // namespace generic
} // namespace lyn
