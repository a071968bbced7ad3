// The box of several square (cube) passes in vector code. N passes give, at each voxel, the
// extremum over the box of side 2N + 1 clipped to the image, with the border value joining where
// the box leaves it (host/generic/Box.cpp says why), so each axis in turn takes the extremum of
// 2N + 1 neighbours of its lines padded by N border values, the reach clamped to the line's length.
//
// Along rows: the padded row in the worker's cache (its first step read straight from the row),
// folded with itself shifted by 1, 2, 4, ... (p the largest power of two not above 2N + 1); two
// such runs overlapping cover the window. Where short rows meet a reach of 4 or more along y, the
// doubling runs in registers as each row is read (rowInRegisters).
// Along columns and plans: windows of up to 7 lines by doubling (a Window); from 8, van
// Herk/Gil-Werman segments (three folds a line, whatever the window). Strips, and the bands of
// short rows, hold one segment (Segment): each output line leaves as the last line of its window
// arrives; the Window of wide rows holds two.
//
// A plan's rows go through both of its axes in one sweep (a band). Wide rows are boxed along x one
// by one into a Window of rows, and each output row leaves it whole. Short rows go a band at a time
// as whole arrays (the x steps over a chunk of rows at once, in L1, where a call per short row
// would cost more than its folds, then the y steps); from a reach of 4 along y, each is boxed along
// x in registers and along y by segments as it is read. Plans, or bands of a plan, run in
// parallel; a band cut from a plan boxes the rows of its edges again. The plans of a cube then go
// through a second sweep, along plans, in strips of columns. In place, a band is a whole plan (a
// band writes a row only after reading every row within reach below it, and no other band reads
// it); a single plan in place goes as rows and then strips along columns.
//
// A cube of reach 2 to 7 (2 or 3 for 8-byte voxels), out of place, takes no sweeps: tiles of a
// plan's rows walk along the plans, boxed along all three axes at once (cubeTiles), so that only
// the output is written, with streaming stores where it is large.
#include "morphology/Box.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <type_traits>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "host/Exceptions.h"
#include "host/generic/Fold.h"
#include "simd/AlignedAllocator.h"
#include "simd/SimdVec.h"
#include "simd/Streaming.h"

namespace lyn {
namespace morphology {
namespace {

constexpr std::uint64_t kWorkerBytes = std::uint64_t(1) << 20;
// A band's buffers, and the window of a strip along columns or plans, aim at sizes that stay in L2.
constexpr std::uint64_t kBandBytes = std::uint64_t(768) << 10;
constexpr std::uint64_t kStripBytes = std::uint64_t(256) << 10;
// By segments, narrower: a strip's lines, a plan apart, are read and written once each as they
// pass, and wider ones measured slower.
constexpr std::uint64_t kSegmentStripBytes = std::uint64_t(96) << 10;
constexpr std::uint64_t kRingRowBytes = 2048;
constexpr long kLinesAhead = 2;
// A band's rows go through their steps along x a chunk of rows at a time, small enough for L1.
constexpr std::uint64_t kChunkBytes = std::uint64_t(16) << 10;

long log2Floor(long k) {
    long l = 0;
    while ((2L << l) <= k) ++l;
    return l;
}
// The rows of a flat band: the padded row rounded up to whole cache lines, so that every row, and
// every chunk of rows, starts aligned.
long flatPitch(long n, long r, std::size_t size) {
    const long line = long(64 / size);
    return (n + 2 * r + line - 1) / line * line;
}
// Whether a window of reach r goes by segments (van Herk/Gil-Werman) rather than by doubling, which
// folds log2(2r + 1) + 1 times a line against three, and the lines a Window holds.
bool bySegments(long r) { return log2Floor(2 * r + 1) > 2; }
long windowLines(long r) { return bySegments(r) ? 2 * (2 * r + 1) + 1 : 2 * r + 1 + log2Floor(2 * r + 1); }
// The lines a strip's sweep holds: by segments, a segment and the running forward fold (Segment);
// else a Window.
long stripLines(long r) { return bySegments(r) ? 2 * r + 2 : windowLines(r); }
// The folds rowInRegisters keeps of a row of n voxels boxed with reach r: the row's vectors,
// ceil(r / N) before it (the windows start r before their voxel, and end before the next vector as
// p > r), and as many after it as its steps by whole vectors reach.
long rowFoldsLength(long n, long r, std::size_t size) {
    const long lanes = long(32 / size), p = 1L << log2Floor(2 * r + 1);
    const long before = (r + lanes - 1) / lanes, vectors = (n + lanes - 1) / lanes;
    return (before + vectors + std::max(0L, p - lanes) / lanes) * lanes;
}

// A tile of a short-reach cube: at most this many bytes of a row (a whole row of most volumes, so
// that each plan's part of a tile is one run of memory) by this many rows.
constexpr long kTileRowBytes = 2048;
constexpr long kTileRows = 32;
// The tiles' buffers: four rows folded along y, a row of border values and, from reach 4, a row of
// folds of 8 along x, each with a vector beside it at both ends; and a ring of 2r + 4 tiles boxed
// along y and x.
long tileLines(long r) { return r >= 4 ? 6 : 5; }
std::uint64_t tileBytes(long w, long h, long r, std::size_t size) {
    return std::uint64_t(tileLines(r) * (w + 2 * long(32 / size)) + (2 * r + 4) * h * w) * size;
}

struct Plan {
    long n[5] = {0, 0, 0, 0, 0};
    long r[3] = {0, 0, 0};
    int axes = 2;
    bool fused = false;      // each plan's two axes in one sweep of bands
    bool ring = false;       // fused: bands stream their rows through a Window
    bool tiles = false;      // a cube of short reach in tiles boxed along all three axes at once
    long tileW = 0, tileH = 0;
    long height = 1;         // output rows per band when fused
    long stripColumns[3] = {0, 0, 0};  // the columns a strip runs over: a row, or a flattened plan
    long stripWidth[3] = {0, 0, 0};
    std::uint64_t perWorker = 0;  // bytes
};

// Chooses the route and the strip widths; false when the buffers cannot fit the limits. `flatPlans`:
// the plans' rows are contiguous, so a sweep along plans may take strips across rows.
bool makePlan(Plan& g, const Extents& e, std::size_t size, const generic::Stage& stage, bool inPlace, bool flatPlans,
              int threads, std::uint64_t budget) {
    for (int a = 0; a < 5; ++a) g.n[a] = long(e[a]);
    g.axes = stage.neighbourhood == Neighbourhood::TwentySix ? 3 : 2;
    for (int a = 0; a < g.axes; ++a) g.r[a] = std::min<long>(long(stage.passes), g.n[a]);
    if (budget == 0) return false;
    const std::uint64_t workers = std::uint64_t(std::max(1, threads));
    std::uint64_t image = size;
    for (int a = 0; a < 5; ++a) image *= e[a];
    const std::uint64_t cap = std::min(std::max(kWorkerBytes, image / workers), (budget - 1) / workers);
    const long wanted = 4 * long(workers);
    const long plans = g.n[2] * g.n[3] * g.n[4];
    if (cubeTilesServe(e, size, stage, inPlace)) {
        // Each plan's part of a tile boxed along y and x in registers, and joined along plans from
        // a ring (cubeTiles), so that no intermediate image is written. Where the tiles do not fit,
        // the sweeps below serve.
        const long vector = long(32 / size), r = g.r[0];
        long w = std::min((g.n[0] + vector - 1) / vector * vector, kTileRowBytes / long(size));
        long h = std::min(g.n[1], kTileRows);
        // Enough tiles for the workers where the rows allow, each at least 2r high (a tile boxes
        // the rows of its edges again).
        const long across = (g.n[0] + w - 1) / w * plans / g.n[2];
        while (h > 2 * r && across * ((g.n[1] + h - 1) / h) < wanted) h = std::max(2 * r, h / 2);
        while (tileBytes(w, h, r, size) > cap && (w > vector || h > 1)) {
            if (h > 2 * r || w == vector) h = std::max(1L, h / 2);
            else w = std::max(vector, w / 2 / vector * vector);
        }
        if (tileBytes(w, h, r, size) <= cap) {
            g.tiles = true;
            g.tileW = w;
            g.tileH = h;
            g.perWorker = tileBytes(w, h, r, size);
            return true;
        }
    }
    const std::uint64_t padBytes = std::uint64_t(g.n[0] + 2 * g.r[0]) * size;
    const std::uint64_t flatBytes = std::uint64_t(flatPitch(g.n[0], g.r[0], size)) * size;
    // Wide rows stream through a window of rows (few calls per row, little to hold); short rows go
    // a band at a time, as whole arrays, where per-row calls would cost more than the folds.
    g.ring = padBytes >= kRingRowBytes;
    // Ring: a window of rows and the padded row. Flat: a band of h output rows holds its h + 2r
    // input rows twice, padded: as read and folded along x, then folded along y. By segments of k
    // rows, k + 1 rows of whole vectors (Segment) and a row's folds along x.
    const bool segments = bySegments(g.r[1]);
    const long k = 2 * g.r[1] + 1, lanes = long(32 / size);
    const std::uint64_t vectorRowBytes = std::uint64_t((g.n[0] + lanes - 1) / lanes * lanes) * size;
    const std::uint64_t segmentBytes = segments ? std::uint64_t(rowFoldsLength(g.n[0], g.r[0], size)) * size : 0;
    auto bandBytes = [&](long h) {
        if (g.ring) return std::uint64_t(windowLines(g.r[1])) * std::uint64_t(g.n[0]) * size + padBytes;
        const long m = h + 2 * g.r[1];
        if (segments) return std::uint64_t(k + 1) * vectorRowBytes + segmentBytes;
        return 2 * std::uint64_t(m) * flatBytes + segmentBytes;
    };
    if (inPlace) {
        // Whole plans only: a band cut from a plan would overwrite rows its neighbour still reads.
        g.height = g.n[1];
        g.fused = bandBytes(g.height) <= cap && plans >= long(workers);
    } else {
        // Enough bands for the workers, each at least 2r rows high: a band boxes the rows of its
        // edges again, and fewer rows than that would cost more than a second sweep.
        const long perPlan = (wanted + plans - 1) / plans;
        long h = std::min(g.n[1], std::max((g.n[1] + perPlan - 1) / perPlan, 2 * g.r[1]));
        if (!g.ring && !segments) {
            const std::uint64_t room = std::min(cap, kBandBytes);
            h = std::min(h, long((room - std::min(room, segmentBytes)) / (2 * flatBytes)) - 2 * g.r[1]);
        }
        g.fused = h >= std::min(2 * g.r[1], g.n[1]) && h > 0 && bandBytes(h) <= cap;
        g.height = std::max(h, 1L);
    }
    if (g.fused) {
        g.perWorker = bandBytes(g.height);
    } else {
        if (padBytes > cap) return false;
        g.perWorker = padBytes;
    }
    const long line = std::max<long>(1, long(64 / size));
    for (int a = g.fused ? 2 : 1; a < g.axes; ++a) {
        g.stripColumns[a] = a == 2 && flatPlans ? g.n[0] * g.n[1] : g.n[0];
        const long across = g.n[0] * g.n[1] * plans / g.n[a] / g.stripColumns[a];
        const std::uint64_t perColumn = std::uint64_t(stripLines(g.r[a])) * size;
        const long want = std::max<long>(1, (wanted + across - 1) / std::max(across, 1L));
        const std::uint64_t room = std::min(cap, bySegments(g.r[a]) ? kSegmentStripBytes : kStripBytes);
        long w = long(std::min<std::uint64_t>(std::uint64_t(g.stripColumns[a]), room / perColumn));
        w = std::min(w, (g.stripColumns[a] + want - 1) / want);
        if (w < g.stripColumns[a] && w >= line) w -= w % line;
        w = std::max(w, 1L);
        // Segments hold whole vectors.
        const long held = bySegments(g.r[a]) ? (w + lanes - 1) / lanes * lanes : w;
        if (perColumn * std::uint64_t(held) > cap) return false;
        g.stripWidth[a] = w;
        g.perWorker = std::max(g.perWorker, perColumn * std::uint64_t(held));
    }
    return true;
}

} // namespace
} // namespace morphology
} // namespace lyn

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {
namespace {

template <bool D, class T>
struct Fold {
    using O = SimdVec::Ops<T>;
    static constexpr long N = long(O::N);
    static LYN_INLINE typename O::V v(typename O::V a, typename O::V b) {
        if constexpr (D) return O::max(a, b);
        else return O::min(a, b);
    }
    // out[i] = f(a[i], b[i]). `out` may be `a` with `b` ahead of it: each vector is loaded before
    // its store, and stores never reach what a later vector loads.
    static LYN_INLINE void arrays(T* out, const T* a, const T* b, long n) {
        long i = 0;
        for (; i + 2 * N <= n; i += 2 * N) {
            const auto x = v(O::load(a + i), O::load(b + i));
            const auto y = v(O::load(a + i + N), O::load(b + i + N));
            O::store(out + i, x);
            O::store(out + i + N, y);
        }
        for (; i + N <= n; i += N) O::store(out + i, v(O::load(a + i), O::load(b + i)));
        for (; i < n; ++i) out[i] = generic::f<D>(a[i], b[i]);
    }
};

// The first `count` lanes of v to `out`, with a streaming store where `stream` and the vector is
// whole and aligned: a line's last vector may end inside it.
template <class T>
LYN_INLINE void storeFirst(T* out, typename SimdVec::Ops<T>::V v, long count, bool stream) {
    using O = SimdVec::Ops<T>;
    constexpr long N = long(O::N);
    if (count >= N) {
        SimdVec::storeOut<T>(out, v, stream);
    } else {
        alignas(32) T part[N];
        O::store(part, v);
        std::memcpy(out, part, std::size_t(count) * sizeof(T));
    }
}

// The first doubling step straight from `row` (n voxels) padded by r >= 1 border values at each
// end, E: pad[i] = f(E[i], E[i + 1]) for i < n + 2r - 1.
template <bool D, class T>
LYN_INLINE void firstStep(const T* row, long n, long r, T border, T* pad) {
    std::fill_n(pad, r - 1, border);
    pad[r - 1] = generic::f<D>(border, row[0]);
    Fold<D, T>::arrays(pad + r, row, row + 1, n - 1);
    pad[r + n - 1] = generic::f<D>(row[n - 1], border);
    std::fill_n(pad + r + n, r - 1, border);
}

// `row` (n voxels) boxed along itself with reach r into `out`, which may be `row`; `pad` holds
// n + 2r voxels.
template <bool D, class T>
void boxRow(const T* row, long n, long r, T border, T* pad, T* out) {
    const long k = 2 * r + 1;
    firstStep<D>(row, n, r, border, pad);
    long p = 2, valid = n + 2 * r - 1;
    for (; 2 * p <= k; p *= 2) {
        Fold<D, T>::arrays(pad, pad, pad + p, valid - p);
        valid -= p;
    }
    Fold<D, T>::arrays(out, pad, pad + (k - p), n);
}

// The extremum of every k = 2r + 1 consecutive lines (w voxels each) of a stream: fill slot(),
// then push(); from the k-th line on, push() gives two lines whose fold is the window that ends at
// the line just pushed. Two methods, whichever folds less for k:
// - doubling: level l holds the folds of 2^l consecutive lines, in a ring of the 2^l + 1 it still
//   needs (the last level, L = log2(p), the k - p + 1 the windows read): L + 1 folds a line;
// - van Herk/Gil-Werman: the lines in segments of k; a complete segment is folded backward in
//   place and kept while the next one's lines arrive, folded forward into one running line; the
//   window starting at position t + 1 of the complete segment is its backward fold there with the
//   running fold of the next: three folds a line, whatever k, and 2k + 1 lines held.
template <bool D, class T>
class Window {
public:
    void reset(long r, long w, std::vector<T, SimdVec::AlignedAllocator<T>>& storage) {
        m_k = 2 * r + 1;
        m_w = w;
        m_j = -1;
        m_segments = bySegments(r);
        if (storage.size() < std::size_t(windowLines(r) * w)) storage.resize(std::size_t(windowLines(r) * w));
        m_data = storage.data();
        if (m_segments) {
            m_current = m_data;
            m_complete = m_data + m_k * w;
            m_run = m_data + 2 * m_k * w;
            return;
        }
        m_levels = log2Floor(m_k);
        m_p = 1L << m_levels;
        long at = 0;
        for (long l = 0; l <= m_levels; ++l) {
            m_base[l] = at;
            m_size[l] = l < m_levels ? (1L << l) + 1 : m_k - m_p + 1;
            at += m_size[l];
        }
    }
    T* slot() { return m_segments ? m_current + (m_j + 1) % m_k * m_w : line(0, m_j + 1); }
    bool push(const T*& a, const T*& b) {
        ++m_j;
        if (m_segments) {
            const long t = m_j % m_k;
            T* const added = m_current + t * m_w;
            if (t == m_k - 1) {
                for (long i = m_k - 2; i >= 0; --i)
                    Fold<D, T>::arrays(m_current + i * m_w, m_current + i * m_w, m_current + (i + 1) * m_w, m_w);
                std::swap(m_current, m_complete);
                a = b = m_complete;  // the window is the whole segment
                return true;
            }
            if (t == 0) {
                m_prefix = added;
            } else {
                Fold<D, T>::arrays(m_run, m_prefix, added, m_w);
                m_prefix = m_run;
            }
            if (m_j < m_k) return false;
            a = m_complete + (t + 1) * m_w;
            b = m_prefix;
            return true;
        }
        for (long l = 1; l <= m_levels; ++l) {
            const long at = m_j - (1L << l) + 1;
            if (at < 0) break;
            Fold<D, T>::arrays(line(l, at), line(l - 1, at), line(l - 1, at + (1L << (l - 1))), m_w);
        }
        if (m_j < m_k - 1) return false;
        const long start = m_j - m_k + 1;
        a = line(m_levels, start);
        b = line(m_levels, start + m_k - m_p);
        return true;
    }

private:
    T* line(long level, long index) { return m_data + (m_base[level] + index % m_size[level]) * m_w; }
    long m_k = 0, m_p = 0, m_levels = 0, m_w = 0, m_j = -1;
    bool m_segments = false;
    long m_base[64] = {}, m_size[64] = {};
    T* m_data = nullptr;
    T *m_current = nullptr, *m_complete = nullptr, *m_run = nullptr;
    const T* m_prefix = nullptr;
};

// Windows of k = 2r + 1 lines by van Herk/Gil-Werman segments in one segment's room, as a stream
// of lines arrives: line j of a segment takes slot j, over the backward fold of the segment before
// at j, and a running line holds the forward fold of the segment so far. Just before line j of a
// segment is taken, the window of the line k behind the one arriving is the backward fold at j
// with the running fold (at j = 0 the window is the segment before, whole). Once a segment is
// complete it is folded backward in place. So each output line leaves as soon as the last line of
// its window has arrived, and k + 1 lines are held, where storing the backward folds apart would
// hold three segments.
template <bool D, class T>
struct Segment {
    using F = Fold<D, T>;
    using O = typename F::O;
    using V = typename O::V;
    static constexpr long N = F::N;
    T* slots;
    T* running;
    long k, pitch, vectors;  // vectors of N columns a line, pitch apart
    // The window before line j takes its slot, at columns x .. x + N - 1, then v taken.
    template <bool inside>  // j > 0
    LYN_INLINE V take(long j, long x, V v) {
        T* const slot = slots + j * pitch + x;
        const V back = O::load(slot);
        O::store(slot, v);
        if constexpr (inside) {
            const V forward = O::load(running + x);
            O::store(running + x, F::v(forward, v));
            return F::v(back, forward);
        } else {
            O::store(running + x, v);
            return back;
        }
    }
    LYN_INLINE V take(long j, long x, V v) { return j ? take<true>(j, x, v) : take<false>(j, x, v); }
    LYN_INLINE V window(long j, long x) const {
        const V back = O::load(slots + j * pitch + x);
        return j ? F::v(back, O::load(running + x)) : back;
    }
    // After the segment's last line: slot j becomes the fold of slots j .. k - 1, four vectors of
    // columns at a time, held in registers down the slots.
    void backward() {
        long c = 0;
        for (; c + 4 <= vectors; c += 4) {
            T* p = slots + (k - 1) * pitch + c * N;
            V a0 = O::load(p), a1 = O::load(p + N), a2 = O::load(p + 2 * N), a3 = O::load(p + 3 * N);
            for (long l = k - 2; l >= 0; --l) {
                p -= pitch;
                a0 = F::v(a0, O::load(p));
                a1 = F::v(a1, O::load(p + N));
                a2 = F::v(a2, O::load(p + 2 * N));
                a3 = F::v(a3, O::load(p + 3 * N));
                O::store(p, a0);
                O::store(p + N, a1);
                O::store(p + 2 * N, a2);
                O::store(p + 3 * N, a3);
            }
        }
        for (; c < vectors; ++c) {
            T* p = slots + (k - 1) * pitch + c * N;
            V a = O::load(p);
            for (long l = k - 2; l >= 0; --l) {
                p -= pitch;
                a = F::v(a, O::load(p));
                O::store(p, a);
            }
        }
    }
};

// What a float scan has seen: a NaN, or zeros of both signs, is where the fold order shows.
struct Seen {
    bool nan = false, negativeZero = false, positiveZero = false;
    bool foldOrderShows() const { return nan || (negativeZero && positiveZero); }
    void add(const Seen& o) {
        nan |= o.nan;
        negativeZero |= o.negativeZero;
        positiveZero |= o.positiveZero;
    }
};

template <class T>
struct Scratch {
    std::vector<T, SimdVec::AlignedAllocator<T>> pad, window;
    Window<true, T> dilate;
    Window<false, T> erode;
    Seen seen;  // the rows this worker's first sweep read
    template <bool D>
    Window<D, T>& win() {
        if constexpr (D) return dilate;
        else return erode;
    }
};

template <class T>
LYN_INLINE void scanRow(const T* row, long n, Seen& seen) {
    using O = SimdVec::Ops<T>;
    constexpr long N = long(O::N);
    using U = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
    constexpr U sign = U(1) << (8 * sizeof(T) - 1);
    constexpr U infinity = sizeof(T) == 4 ? U(0x7f800000u) : U(0x7ff0000000000000ull);
    const __m256i signs = sizeof(T) == 4 ? _mm256_set1_epi32(int(0x80000000u)) : _mm256_set1_epi64x(static_cast<long long>(sign));
    __m256i isNan = _mm256_setzero_si256(), isNeg = isNan, isPos = isNan;
    long x = 0;
    for (; x + N <= n; x += N) {
        const auto v = O::load(row + x);
        const __m256i bits = O::bits(v);
        if constexpr (sizeof(T) == 4) {
            isNan = _mm256_or_si256(isNan, _mm256_castps_si256(_mm256_cmp_ps(v, v, _CMP_UNORD_Q)));
            isNeg = _mm256_or_si256(isNeg, _mm256_cmpeq_epi32(bits, signs));
            isPos = _mm256_or_si256(isPos, _mm256_cmpeq_epi32(bits, _mm256_setzero_si256()));
        } else {
            isNan = _mm256_or_si256(isNan, _mm256_castpd_si256(_mm256_cmp_pd(v, v, _CMP_UNORD_Q)));
            isNeg = _mm256_or_si256(isNeg, _mm256_cmpeq_epi64(bits, signs));
            isPos = _mm256_or_si256(isPos, _mm256_cmpeq_epi64(bits, _mm256_setzero_si256()));
        }
    }
    for (; x < n; ++x) {
        U u;
        std::memcpy(&u, row + x, sizeof u);
        seen.nan |= (u & ~sign) > infinity;
        seen.negativeZero |= u == sign;
        seen.positiveZero |= u == 0;
    }
    seen.nan |= !_mm256_testz_si256(isNan, isNan);
    seen.negativeZero |= !_mm256_testz_si256(isNeg, isNeg);
    seen.positiveZero |= !_mm256_testz_si256(isPos, isPos);
}

// Whether float data holds a NaN, or zeros of both signs, where the fold order shows: a read of the
// whole image before anything is written, for boxes in place.
template <class T>
bool foldOrderShows(const MemoryLayout& m, const long* n, generic::BoxPoll& poll) {
    if constexpr (!std::is_floating_point_v<T>) {
        return false;
    } else {
        const long rows = n[1] * n[2] * n[3] * n[4];
        tbb::enumerable_thread_specific<Seen> seen;
        tbb::parallel_for(tbb::blocked_range<long>(0, rows, 64), [&](const tbb::blocked_range<long>& range) {
            if (poll.cancelled()) throw ExceptionCancelation();
            Seen& local = seen.local();
            for (long q = range.begin(); q != range.end(); ++q)
                scanRow(reinterpret_cast<const T*>(m.base + q % n[1] * m.strides[1] + q / n[1] % n[2] * m.strides[2] +
                                                   q / n[1] / n[2] % n[3] * m.strides[3] +
                                                   q / n[1] / n[2] / n[3] * m.strides[4]),
                        n[0], local);
        });
        Seen all;
        for (const Seen& s : seen) all.add(s);
        return all.foldOrderShows();
    }
}


// A row held in consecutive vectors, shifted by B bytes: byte i of afterBytes<B>(v, next) is byte
// i + B of v followed by next; byte i of beforeBytes<B>(prev, v) is byte i - B of prev followed by v.
template <int B>
LYN_INLINE __m256i afterBytes(__m256i v, __m256i next) {
    static_assert(B > 0 && B <= 16, "folds of 2 and 4 shift by one or two elements");
    const __m256i middle = _mm256_permute2x128_si256(v, next, 0x21);  // v's high half, next's low half
    if constexpr (B < 16) return _mm256_alignr_epi8(middle, v, B);
    else return middle;
}
template <int B>
LYN_INLINE __m256i beforeBytes(__m256i prev, __m256i v) {
    const __m256i middle = _mm256_permute2x128_si256(prev, v, 0x21);
    if constexpr (B == 0) return v;
    else if constexpr (B < 16) return _mm256_alignr_epi8(v, middle, 16 - B);
    else if constexpr (B == 16) return middle;
    else return _mm256_alignr_epi8(middle, prev, 32 - B);
}
// The same by S elements of T.
template <class T, int S, class V>
LYN_INLINE V after(V v, V next) {
    using O = SimdVec::Ops<T>;
    return O::fromBits(afterBytes<S * int(sizeof(T))>(O::bits(v), O::bits(next)));
}
template <class T, int S, class V>
LYN_INLINE V before(V prev, V v) {
    using O = SimdVec::Ops<T>;
    return O::fromBits(beforeBytes<S * int(sizeof(T))>(O::bits(prev), O::bits(v)));
}

// Folds of 2^L consecutive elements along a row pushed a vector at a time, by doubling in
// registers: the push of vector j gives vector j - L of the folds, lane i the fold of the 2^L
// elements from that lane's on. The steps shift by at most half a vector.
template <class F, class T, int L>
struct Doubling {
    using V = typename F::O::V;
    V newest[L]{};  // the last vector given to each step
    template <int l = 0>
    LYN_INLINE V push(V x) {
        if constexpr (l == L) {
            return x;
        } else {
            const V previous = newest[l];
            newest[l] = x;
            return push<l + 1>(F::v(previous, after<T, (1 << l)>(previous, x)));
        }
    }
};

// A row of n voxels boxed along itself with reach r, border values beyond it, in vector code: the
// folds of p elements (p the largest power of two not above k = 2r + 1), by doubling in registers
// up to half a vector's lanes and then by whole vectors in `folds` (rowFoldsLength long); then
// two of those overlapping, vector c = 0 .. ceil(n / N) - 1 of the row given to emit(c, v). Lanes
// past the row's end are given too, and hold what no one should read.
template <bool D, class T, int L, class Emit>
LYN_INLINE void rowByDoubling(const T* row, long n, long r, T border, T* folds, Emit&& emit) {
    using F = Fold<D, T>;
    using O = typename F::O;
    using V = typename O::V;
    constexpr long N = F::N, P = 1L << L;
    const long k = 2 * r + 1, p = 1L << log2Floor(k);
    const long beside = (r + N - 1) / N, vectors = (n + N - 1) / N;
    const long end = vectors + std::max(0L, p - N) / N;  // the folds of P wanted: -beside .. end - 1
    alignas(32) T edge[N];
    std::fill_n(edge, N, border);
    const V b = O::load(edge);
    std::memcpy(edge, row + n / N * N, std::size_t(n % N) * sizeof(T));  // the row's last vector, if partial
    T* const at = folds + beside * N;  // element 0 of the row
    Doubling<F, T, L> steps;
    long j = -beside;
    auto push = [&](V u) {
        const V f = steps.push(u);
        if (j - L >= -beside) O::store(at + (j - L) * N, f);
        ++j;
    };
    while (j < 0) push(b);
    while ((j + 1) * N <= n) push(O::load(row + j * N));
    if (j * N < n) push(O::load(edge));
    while (j < end + L) push(b);
    for (long q = P; q < p; q *= 2) F::arrays(folds, folds, folds + q, (end + beside) * N - q);
    for (long c = 0; c < vectors; ++c) emit(c, F::v(O::load(at + c * N - r), O::load(at + c * N - r + (k - p))));
}
template <bool D, class T, class Emit>
LYN_INLINE void rowInRegisters(const T* row, long n, long r, T border, T* folds, Emit&& emit) {
    constexpr int lanes = int(Fold<D, T>::N), most = lanes == 32 ? 5 : lanes == 16 ? 4 : lanes == 8 ? 3 : 2;
    switch (std::min(int(log2Floor(2 * r + 1)), most)) {
    case 1: rowByDoubling<D, T, 1>(row, n, r, border, folds, emit); break;
    case 2: rowByDoubling<D, T, 2>(row, n, r, border, folds, emit); break;
    case 3: if constexpr (most >= 3) rowByDoubling<D, T, 3>(row, n, r, border, folds, emit); break;
    case 4: if constexpr (most >= 4) rowByDoubling<D, T, 4>(row, n, r, border, folds, emit); break;
    default: if constexpr (most >= 5) rowByDoubling<D, T, 5>(row, n, r, border, folds, emit); break;
    }
}

// Windows of k consecutive lines (K, or `k` where K is 0), line(d) for d = 0 .. k - 1 + `count` - 1,
// into o[0 .. count): four windows share the k - 3 lines in their middle, two share k - 1, so that
// a line costs (k + 4) / 4 folds in fours, (k + 1) / 2 in twos.
template <class F, int K, int count, class Line>
LYN_INLINE void windows(Line&& line, typename F::O::V* o, int k = K) {
    static_assert(count == 1 || count == 2 || count == 4, "one, two or four windows");
    if constexpr (count == 4) {
        auto middle = line(3);
        for (int d = 4; d < k; ++d) middle = F::v(middle, line(d));
        const auto before = F::v(middle, F::v(line(1), line(2)));
        const auto after = F::v(middle, F::v(line(k), line(k + 1)));
        o[0] = F::v(before, line(0));
        o[1] = F::v(before, line(k));
        o[2] = F::v(after, line(2));
        o[3] = F::v(after, line(k + 2));
    } else {
        auto shared = line(1);
        for (int d = 2; d < k; ++d) shared = F::v(shared, line(d));
        o[0] = F::v(shared, line(0));
        if constexpr (count == 2) o[1] = F::v(shared, line(k));
    }
}

// A cube of reach r = 2 to 7 along every axis (K = 2r + 1 for reach 2 and 3, 0 for 4 to 7, read
// from the plan), in tiles of w columns by h rows that run along the plans. Each plan's part of a
// tile is folded along y straight from the input, four rows at a time (windows), then along x in
// registers (folds of 2, then of 4, then two of those shifted: three folds a vector where k = 2r + 1
// loads would cost k - 1, half of them split across cache lines; from reach 4, folds of 8 stored in
// a line, two of them loaded), into a ring of k + 3 tiles; every four output plans are folded from
// the ring's tiles straight into the output's rows. Nothing but the input, the ring and the output
// is stored, where the sweeps below store every intermediate line.
// `stream`: the output goes out with streaming stores where vectors are aligned. scan(s, row, n)
// sees each of the tile's rows once, before it is folded; true stops the tile.
template <bool D, class T, int K, class Sweep, class Scan>
void cubeTiles(const Plan& g, const MemoryLayout& in, const MemoryLayout& out, T border, bool stream,
               generic::BoxPoll& poll, Sweep&& sweep, Scan&& scan) {
    static_assert(K == 5 || K == 7 || (K == 0 && sizeof(T) <= 4), "reach 2 or 3, or 4 to 7 in vectors of 8 or more");
    using F = Fold<D, T>;
    using O = typename F::O;
    using V = typename O::V;
    constexpr long N = F::N, KMost = K ? K : 15;
    const int k = K ? K : int(2 * g.r[0] + 1);
    const long R = k / 2;
    const long n0 = g.n[0], n1 = g.n[1], n2 = g.n[2];
    const long W = g.tileW, H = g.tileH;
    const long xTiles = (n0 + W - 1) / W, yTiles = (n1 + H - 1) / H;
    sweep(xTiles * yTiles * g.n[3] * g.n[4], [&](long t, auto& s) {
        const long x0 = t % xTiles * W, w = std::min(W, n0 - x0);
        const long y0 = t / xTiles % yTiles * H, h = std::min(H, n1 - y0);
        const long cube = t / xTiles / yTiles;
        const std::int64_t inCube = cube % g.n[3] * in.strides[3] + cube / g.n[3] * in.strides[4];
        const std::int64_t outCube = cube % g.n[3] * out.strides[3] + cube / g.n[3] * out.strides[4];
        auto rowAt = [&](const MemoryLayout& mem, std::int64_t at, long z, long y) {
            return reinterpret_cast<T*>(mem.base + at + z * mem.strides[2] + y * mem.strides[1]);
        };
        // Column vectors c = -1 .. nv of the tile (c = -1 and nv beside it): a line of them is
        // lineW long, vector c at (c + 1) * N.
        const long wp = (w + N - 1) / N * N, nv = wp / N, lineW = wp + 2 * N, tile = h * wp;
        s.pad.resize(std::size_t(tileLines(R) * lineW + (k + 3) * tile));
        T* const ys = s.pad.data();            // four rows folded along y
        T* const borderLine = ys + 4 * lineW;  // stands for the rows beyond the image
        T* const eights = borderLine + lineW;  // from reach 4: a line's folds of 8 along x
        T* const ring = ys + tileLines(R) * lineW;  // k + 3 tiles boxed along y and x, plan z's in slotOf(z)
        std::fill_n(borderLine, lineW, border);
        const V b = O::load(borderLine);
        // Columns x0 + c * N .. + N - 1 whole in the image for c in [0, full); the vector holding the
        // row's end, if any, is folded from the last N voxels of the rows and stored unaligned over
        // the border values that stand for what lies past the end.
        const long full = std::min(nv + 1, (n0 - x0) / N), tail = n0 - N - x0;
        const bool left = x0 > 0, tailIn = full <= nv && x0 + full * N < n0;
        const T* rows[KMost + 3 + kTileRows];  // the plan's rows y0 - R .. y0 + h + R - 1, at column x0
        // Rows i .. i + count - 1 of the plan folded along y, columns c = -1 .. nv, into the lines
        // of ys.
        auto alongY = [&](long i, auto count) {
            constexpr int n = decltype(count)::value;
            const T* const* p = rows + i;
            auto fold = [&](long at, T* a) {
                V o[n];
                windows<F, K, n>([&](int d) { return O::load(p[d] + at); }, o, k);
                for (int j = 0; j < n; ++j) O::store(a + j * lineW, o[j]);
            };
            auto edge = [&](T* a) {
                for (int j = 0; j < n; ++j) O::store(a + j * lineW, b);
            };
            T* const a = ys + N;
            if (left) fold(-N, a - N);
            else edge(a - N);
            for (long c = 0; c < full; ++c) fold(c * N, a + c * N);
            for (long c = full; c <= nv; ++c) edge(a + c * N);
            if (tailIn) fold(tail, a + tail);
        };
        // A line of ys boxed along x into dst: a, folds of 2 ([i, i + 1]); bv, of 4 ([i, i + 3]).
        // From reach 4, bv's folds of 8 ([i, i + 7], from b and the next b) go to `eights` for
        // c = -1 .. nv - 1, and the window [i - r, i + r] is two of them, loaded at i - r and i + r - 7.
        auto alongX = [&](const T* line, T* dst) {
            auto v = [&](long c) { return O::load(line + (c + 1) * N); };
            if constexpr (K != 0) {
                V v1 = v(1);
                const V vm = v(-1), v0 = v(0);
                const V am = F::v(vm, after<T, 1>(vm, v0));
                V a0 = F::v(v0, after<T, 1>(v0, v1));
                V bm = F::v(am, after<T, 2>(am, a0));
                for (long c = 0; c < nv; ++c) {
                    const V v2 = c + 2 <= nv ? v(c + 2) : v1;  // past the column beside: unused lanes
                    const V a1 = F::v(v1, after<T, 1>(v1, v2));
                    const V b0 = F::v(a0, after<T, 2>(a0, a1));
                    O::store(dst + c * N, F::v(before<T, K / 2>(bm, b0), before<T, K / 2 - (K - 4)>(bm, b0)));
                    bm = b0;
                    a0 = a1;
                    v1 = v2;
                }
            } else {
                auto twos = [&](V x, V next) { return F::v(x, after<T, 1>(x, next)); };
                auto fours = [&](V x, V next) { return F::v(x, after<T, 2>(x, next)); };
                // Past the column beside, lanes that no window reads: the column beside again.
                V vn = v(std::min(2L, nv));
                V a1 = twos(v(1), vn);
                V bc = fours(twos(v(-1), v(0)), twos(v(0), v(1)));  // b of vector c, from c = -1
                V bn = fours(twos(v(0), v(1)), a1);                  // and of c + 1
                for (long c = -1; c < nv; ++c) {
                    O::store(eights + (c + 1) * N, F::v(bc, after<T, 4>(bc, bn)));
                    const V vnext = v(std::min(c + 4, nv));
                    const V a2 = twos(vn, vnext);
                    bc = bn;
                    bn = fours(a1, a2);
                    a1 = a2;
                    vn = vnext;
                }
                for (long c = 0; c < nv; ++c) {
                    const T* e = eights + (c + 1) * N;
                    O::store(dst + c * N, F::v(O::load(e - R), O::load(e + R - 7)));
                }
            }
        };
        auto store = [&](T* dst, long x, V v) { storeFirst<T>(dst + x, v, w - x, stream); };
        auto slotOf = [&](long z) { return ring + (z + R) % (k + 3) * tile; };
        for (long z = -R; z < n2 + R; ++z) {
            if (poll.cancelled()) throw ExceptionCancelation();
            T* const slot = slotOf(z);
            if (z < 0 || z >= n2) {
                std::fill_n(slot, tile, border);
            } else {
                // The rows the plan after next will read, asked for a row or two at a time between
                // the rows' folds: asked for all at once, the prefetches waited on each other.
                const long aheadFrom = std::max(0L, y0 - R);
                const long aheadTo = z + kLinesAhead < n2 ? std::min(n1, y0 + h + R) : aheadFrom;
                long asked = aheadFrom;
                auto askAhead = [&](long done) {  // rows of this plan's tile folded so far
                    for (const long until = aheadFrom + (aheadTo - aheadFrom) * done / h; asked < until; ++asked) {
                        const char* p = reinterpret_cast<const char*>(rowAt(in, inCube, z + kLinesAhead, asked) + x0);
                        const long bytes = long(sizeof(T)) * std::min(wp + N, n0 - x0);
                        for (long at = left ? -N * long(sizeof(T)) : 0; at < bytes; at += 64)
                            __builtin_prefetch(p + at, 0, 3);
                    }
                };
                for (long i = 0; i < h + 2 * R; ++i) {
                    const long y = y0 - R + i;
                    rows[i] = y < 0 || y >= n1 ? borderLine + N : rowAt(in, inCube, z, y) + x0;
                }
                bool stop = false;
                for (long i = R; i < R + h; ++i) stop |= scan(s, rows[i], w);
                if (stop) return w * h * n2;
                auto alongYX = [&](long from, auto count) {
                    alongY(from, count);
                    for (int j = 0; j < decltype(count)::value; ++j) {
                        askAhead(from + j + 1);
                        alongX(ys + j * lineW, slot + (from + j) * wp);
                    }
                };
                long i = 0;
                for (; i + 4 <= h; i += 4) alongYX(i, std::integral_constant<int, 4>());
                for (; i + 2 <= h; i += 2) alongYX(i, std::integral_constant<int, 2>());
                if (i < h) alongYX(i, std::integral_constant<int, 1>());
            }
            // Along plans, four output plans at a time, whence the ring of k + 3: output q is the
            // extremum of the tiles of plans q - R .. q + R. The last one to three in twos and ones.
            const long q = z - R;
            if (q < 0 || ((q + 1) % 4 != 0 && q != n2 - 1)) continue;
            auto alongZ = [&](long first, auto count) {
                constexpr int n = decltype(count)::value;
                const T* tiles[KMost + 3];
                for (int d = 0; d < k + n - 1; ++d) tiles[d] = slotOf(first - R + d);
                for (long i = 0; i < h; ++i) {
                    T* outs[n];
                    for (int j = 0; j < n; ++j) outs[j] = rowAt(out, outCube, first + j, y0 + i) + x0;
                    for (long x = 0, at = i * wp; x < wp; x += N, at += N) {
                        V o[n];
                        windows<F, K, n>([&](int d) { return O::load(tiles[d] + at); }, o, k);
                        for (int j = 0; j < n; ++j) store(outs[j], x, o[j]);
                    }
                }
            };
            long first = q - q % 4;
            if ((q + 1) % 4 == 0) {
                alongZ(first, std::integral_constant<int, 4>());
                continue;
            }
            for (; first + 2 <= q + 1; first += 2) alongZ(first, std::integral_constant<int, 2>());
            if (first <= q) alongZ(first, std::integral_constant<int, 1>());
        }
        if (stream) _mm_sfence();  // streaming stores are weakly ordered: done before others read
        return w * h * n2;
    });
}

template <bool D, class T>
generic::BoxOutcome runTyped(const MemoryLayout& in, const MemoryLayout& out, const Extents& e, bool inPlace,
                             const generic::Stage& stage, T border, std::uint64_t budget, generic::BoxPoll& poll) {
    Plan g;
    const bool flatPlans = out.strides[1] == long(e[0] * sizeof(T));
    if (!makePlan(g, e, sizeof(T), stage, inPlace, flatPlans, tbb::this_task_arena::max_concurrency(), budget))
        return generic::BoxOutcome::OverBudget;
    const long voxels = g.n[0] * g.n[1] * g.n[2] * g.n[3] * g.n[4];
    if (voxels == 0) return generic::BoxOutcome::Done;
    // Out of place, float rows are scanned as the first sweep reads them, which saves a read of the
    // whole image; should the fold order show, the output is left half written for the passes to
    // overwrite. In place, nothing may be written before the whole image has been scanned.
    constexpr bool isFloat = std::is_floating_point_v<T>;
    const bool scanAsRead = isFloat && !inPlace;
    if (!scanAsRead && foldOrderShows<T>(in, g.n, poll)) return generic::BoxOutcome::FoldOrderShows;
    std::atomic<bool> shows{false};  // seen by one worker: the others stop at their next task

    const long plans = g.n[2] * g.n[3] * g.n[4];
    // Plan q of the flattened plans, sequences and spectra.
    auto planOffset = [&](const MemoryLayout& m, long q) {
        return q % g.n[2] * m.strides[2] + q / g.n[2] % g.n[3] * m.strides[3] + q / g.n[2] / g.n[3] * m.strides[4];
    };
    auto rowOf = [&](const MemoryLayout& m, long q, long y) {
        return reinterpret_cast<T*>(m.base + planOffset(m, q) + y * m.strides[1]);
    };
    tbb::enumerable_thread_specific<Scratch<T>> scratch;
    const double total = double(voxels) * (g.tiles ? 1 : g.fused ? g.axes - 1 : g.axes);
    std::atomic<long> done{0};
    auto sweep = [&](long tasks, auto&& task) {
        tbb::parallel_for(tbb::blocked_range<long>(0, tasks, 1), [&](const tbb::blocked_range<long>& range) {
            Scratch<T>& s = scratch.local();
            for (long t = range.begin(); t != range.end(); ++t) {
                if (isFloat && shows.load(std::memory_order_relaxed)) return;
                const long finished = task(t, s);
                poll.progress(double(done.fetch_add(finished) + finished) / total);
            }
        });
    };
    // An input row, as the first sweep reads it.
    auto readRow = [&](Scratch<T>& s, const T* row) {
        if constexpr (isFloat) {
            if (scanAsRead) {
                scanRow(row, g.n[0], s.seen);
                if (s.seen.foldOrderShows()) shows = true;
            }
        }
        return row;
    };
    // The window of reach r over lines 0 .. count - 1 of w voxels (border beyond them), giving the
    // output lines [from, to): line i is written once every line within reach below it has been
    // read, so in place is safe.
    auto stream = [&](Scratch<T>& s, long r, long from, long to, long count, long w, auto&& readLine,
                      auto&& outLine) {
        Window<D, T>& win = s.template win<D>();
        win.reset(r, w, s.window);
        const T *a, *b;
        for (long j = from - r; j < to + r; ++j) {
            if (poll.cancelled()) throw ExceptionCancelation();
            T* line = win.slot();
            if (j >= 0 && j < count) readLine(j, line);
            else std::fill_n(line, w, border);
            if (win.push(a, b)) Fold<D, T>::arrays(outLine(j - r), a, b, w);
        }
    };
    // The same by segments of k lines (Segment), in place: the line written, k behind the one
    // read, is r behind the last line read.
    auto segments = [&](Scratch<T>& s, long r, long count, long w, auto&& at) {
        using O = typename Fold<D, T>::O;
        using V = typename O::V;
        constexpr long N = Fold<D, T>::N;
        const long k = 2 * r + 1, lines = count + 2 * r;  // line i of the stream is line i - r
        const long vectors = (w + N - 1) / N, whole = w / N;
        s.window.resize(std::size_t((k + 1) * vectors * N));
        Segment<D, T> seg{s.window.data(), s.window.data() + k * vectors * N, k, vectors * N, vectors};
        alignas(32) T edge[N];
        std::fill_n(edge, N, border);
        const V b = O::load(edge);
        for (long i = 0; i <= lines; ++i) {
            const long j = i % k;
            if (j == 0 && poll.cancelled()) throw ExceptionCancelation();  // once a segment
            T* const o = i >= k ? at(i - k) : nullptr;
            const T* const line = i >= r && i < count + r ? at(i - r) : nullptr;
            // Lines a plan apart: the cache is asked for the one a few lines ahead.
            if (line && i - r + kLinesAhead < count) {
                const char* ahead = reinterpret_cast<const char*>(at(i - r + kLinesAhead));
                for (long c = 0; c < w * long(sizeof(T)); c += 64) __builtin_prefetch(ahead + c, 0, 3);
            }
            long c = 0;
            if (line && o && i < lines) {
                // The common case, apart: the loop below tests each vector's case.
                if (j) {
                    for (; c < whole; ++c)
                        O::store(o + c * N, seg.template take<true>(j, c * N, O::load(line + c * N)));
                } else {
                    for (; c < whole; ++c)
                        O::store(o + c * N, seg.template take<false>(j, c * N, O::load(line + c * N)));
                }
            }
            for (; c < vectors; ++c) {
                const long x = c * N;
                alignas(32) T part[N];
                V v = b;
                if (line && c < whole) {
                    v = O::load(line + x);
                } else if (line) {
                    std::fill_n(part, N, border);
                    std::memcpy(part, line + x, std::size_t(w - x) * sizeof(T));
                    v = O::load(part);
                }
                const V window = i < lines ? seg.take(j, x, v) : seg.window(j, x);
                if (o) storeFirst<T>(o + x, window, w - x, false);
            }
            if (j == k - 1) seg.backward();
        }
    };

    if (g.tiles) {
        const bool stream = SimdVec::streamingStores(std::uint64_t(voxels) * sizeof(T));
        // Each input row once, as its tile first reads it.
        auto scan = [&](Scratch<T>& s, const T* row, long n) {
            if constexpr (isFloat) {
                scanRow(row, n, s.seen);
                if (s.seen.foldOrderShows()) shows = true;
                return shows.load(std::memory_order_relaxed);
            }
            return false;
        };
        if (g.r[0] == 2) cubeTiles<D, T, 5>(g, in, out, border, stream, poll, sweep, scan);
        else if (g.r[0] == 3) cubeTiles<D, T, 7>(g, in, out, border, stream, poll, sweep, scan);
        else if constexpr (sizeof(T) <= 4) cubeTiles<D, T, 0>(g, in, out, border, stream, poll, sweep, scan);
    } else if (g.fused && g.ring) {
        const long h = g.height, bands = (g.n[1] + h - 1) / h;
        sweep(plans * bands, [&](long t, Scratch<T>& s) {
            const long q = t / bands, y0 = t % bands * h, y1 = std::min(g.n[1], y0 + h);
            s.pad.resize(std::size_t(g.n[0] + 2 * g.r[0]));
            stream(s, g.r[1], y0, y1, g.n[1], g.n[0],
                   [&](long y, T* line) { boxRow<D>(readRow(s, rowOf(in, q, y)), g.n[0], g.r[0], border, s.pad.data(), line); },
                   [&](long y) { return rowOf(out, q, y); });
            return (y1 - y0) * g.n[0];
        });
    } else if (g.fused && bySegments(g.r[1])) {
        // Each row boxed along x in registers (rowInRegisters) and along y by segments of k rows
        // (Segment) as it is read: k + 1 rows held, in L1 for short rows, and each output row
        // leaves as soon as the last row of its window is read.
        using O = typename Fold<D, T>::O;
        using V = typename O::V;
        constexpr long N = Fold<D, T>::N;
        const long h = g.height, bands = (g.n[1] + h - 1) / h;
        const long n0 = g.n[0], r1 = g.r[1], k1 = 2 * r1 + 1, vectors = (n0 + N - 1) / N, pitch = vectors * N;
        // Output rows are written whole; where the image is large, nothing reads them again soon
        // enough to find them in the cache (the sweep along plans starts at the first plan).
        const bool streamOut = SimdVec::streamingStores(std::uint64_t(voxels) * sizeof(T));
        sweep(plans * bands, [&](long t, Scratch<T>& s) {
            const long q = t / bands, y0 = t % bands * h, y1 = std::min(g.n[1], y0 + h);
            const long m = y1 - y0 + 2 * r1;  // input rows y0 - r .. y1 + r - 1
            s.pad.resize(std::size_t((k1 + 1) * pitch + rowFoldsLength(n0, g.r[0], sizeof(T))));
            Segment<D, T> seg{s.pad.data(), s.pad.data() + k1 * pitch, k1, pitch, vectors};
            T* const folds = seg.running + pitch;
            // The plan's first rows, once: rowOf divides.
            const T* const source = rowOf(in, q, 0);
            T* const target = rowOf(out, q, 0);
            auto inRow = [&](long y) { return reinterpret_cast<const T*>(reinterpret_cast<const char*>(source) + y * in.strides[1]); };
            auto outRow = [&](long y) { return reinterpret_cast<T*>(reinterpret_cast<char*>(target) + y * out.strides[1]); };
            auto put = [&](T* row, long c, V v) { storeFirst<T>(row + c * N, v, n0 - c * N, streamOut); };
            // Band row i, and from i = k on output row i - k, whose window ends at row i - 1; a row
            // past the band's last gives the last output.
            for (long i = 0; i <= m; ++i) {
                if (poll.cancelled()) throw ExceptionCancelation();
                const long j = i % k1, y = y0 - r1 + i;
                T* const o = i >= k1 ? outRow(y0 + i - k1) : nullptr;
                auto take = [&](long c, V v) {
                    const V w = seg.take(j, c * N, v);
                    if (o) put(o, c, w);
                };
                if (i == m) {
                    for (long c = 0; c < vectors; ++c) put(o, c, seg.window(j, c * N));
                } else if (y < 0 || y >= g.n[1]) {
                    alignas(32) T edge[N];
                    std::fill_n(edge, N, border);
                    const V b = O::load(edge);
                    for (long c = 0; c < vectors; ++c) take(c, b);
                } else {
                    if (y + kLinesAhead < g.n[1]) {
                        const char* ahead = reinterpret_cast<const char*>(inRow(y + kLinesAhead));
                        for (long b = 0; b < n0 * long(sizeof(T)); b += 64) __builtin_prefetch(ahead + b, 0, 3);
                    }
                    // The row is read whole before output i - k, which is not it, is written.
                    rowInRegisters<D>(readRow(s, inRow(y)), n0, g.r[0], border, folds, take);
                }
                if (j == k1 - 1) seg.backward();
            }
            if (streamOut) _mm_sfence();  // streaming stores are weakly ordered: done before others read
            return (y1 - y0) * n0;
        });
    } else if (g.fused) {
        const long h = g.height, bands = (g.n[1] + h - 1) / h, pitch = flatPitch(g.n[0], g.r[0], sizeof(T));
        const long k0 = 2 * g.r[0] + 1, k1 = 2 * g.r[1] + 1;
        const long p0 = 1L << log2Floor(k0), p1 = 1L << log2Floor(k1);
        sweep(plans * bands, [&](long t, Scratch<T>& s) {
            const long q = t / bands, y0 = t % bands * h, y1 = std::min(g.n[1], y0 + h);
            const long m = y1 - y0 + 2 * g.r[1];  // input rows y0 - r .. y1 + r - 1
            s.pad.resize(std::size_t(2 * m * pitch));
            T* const a = s.pad.data();
            T* const b = a + m * pitch;
            const long chunk = std::max(1L, long(kChunkBytes / (std::uint64_t(pitch) * sizeof(T))));
            for (long c0 = 0; c0 < m; c0 += chunk) {
                const long c1 = std::min(m, c0 + chunk);
                // The next chunk's rows, asked of the cache while this one is folded.
                const long ahead = y0 - g.r[1] + c1;
                for (long y = std::max(0L, ahead); y < std::min(g.n[1], ahead + chunk); ++y) {
                    const char* row = reinterpret_cast<const char*>(rowOf(in, q, y));
                    for (long b = 0; b < g.n[0] * long(sizeof(T)); b += 64) __builtin_prefetch(row + b, 0, 3);
                }
                for (long i = c0; i < c1; ++i) {
                    if (poll.cancelled()) throw ExceptionCancelation();
                    T* row = a + i * pitch;
                    const long y = y0 - g.r[1] + i;
                    if (y < 0 || y >= g.n[1]) {
                        std::fill_n(row, pitch, border);
                        continue;
                    }
                    firstStep<D>(readRow(s, rowOf(in, q, y)), g.n[0], g.r[0], border, row);
                    // Read by the next steps, spoiling only what no one reads.
                    std::fill(row + g.n[0] + 2 * g.r[0] - 1, row + pitch, border);
                }
                // Along x over the chunk's rows at once, while they are in L1: folds reaching past a
                // row's end spoil only its last voxels, which no later step reads.
                T* const ca = a + c0 * pitch;
                long valid = (c1 - c0) * pitch - 1;
                for (long p = 2; 2 * p <= k0; p *= 2) {
                    Fold<D, T>::arrays(ca, ca, ca + p, valid - p);
                    valid -= p;
                }
                Fold<D, T>::arrays(b + c0 * pitch, ca, ca + (k0 - p0), valid - (k0 - p0));
            }
            // Along y (at most 7 rows, else the band above serves): rows folded with the rows 1, 2,
            // 4, ... below.
            long rows = m;
            for (long p = 1; 2 * p <= k1; p *= 2) {
                if (poll.cancelled()) throw ExceptionCancelation();
                Fold<D, T>::arrays(b, b, b + p * pitch, (rows - p) * pitch);
                rows -= p;
            }
            for (long y = y0; y < y1; ++y) {
                const T* top = b + (y - y0) * pitch;
                Fold<D, T>::arrays(rowOf(out, q, y), top, top + (k1 - p1) * pitch, g.n[0]);
            }
            return (y1 - y0) * g.n[0];
        });
    } else {
        sweep(plans * g.n[1], [&](long t, Scratch<T>& s) {
            if (poll.cancelled()) throw ExceptionCancelation();
            s.pad.resize(std::size_t(g.n[0] + 2 * g.r[0]));
            boxRow<D>(readRow(s, rowOf(in, t / g.n[1], t % g.n[1])), g.n[0], g.r[0], border, s.pad.data(),
                      rowOf(out, t / g.n[1], t % g.n[1]));
            return g.n[0];
        });
    }
    if (scanAsRead) {
        Seen all;
        for (const Scratch<T>& s : scratch) all.add(s.seen);
        if (all.foldOrderShows()) return generic::BoxOutcome::FoldOrderShows;
    }
    if (g.tiles) return generic::BoxOutcome::Done;
    // Sweeps along columns (unfused) and plans, in place on the output, in strips of columns.
    for (int axis = g.fused ? 2 : 1; axis < g.axes; ++axis) {
        const long columns = g.stripColumns[axis], w = g.stripWidth[axis], strips = (columns + w - 1) / w;
        const long across = g.n[0] * g.n[1] * plans / g.n[axis] / columns;
        const std::int64_t step = out.strides[axis];
        sweep(strips * across, [&](long t, Scratch<T>& s) {
            const long x0 = t % strips * w, width = std::min(w, columns - x0), c = t / strips;
            // The first voxel of the strip's line 0: a row (of a plan, for axis 2) or a flattened plan.
            char* base = out.base + x0 * long(sizeof(T));
            if (axis == 1) {
                base += planOffset(out, c);
            } else if (columns == g.n[0]) {
                base += c % g.n[1] * out.strides[1] + c / g.n[1] % g.n[3] * out.strides[3] +
                        c / g.n[1] / g.n[3] * out.strides[4];
            } else {
                base += c % g.n[3] * out.strides[3] + c / g.n[3] * out.strides[4];
            }
            auto at = [&](long i) { return reinterpret_cast<T*>(base + i * step); };
            auto readLine = [&](long i, T* line) {
                // Lines a plan apart: the cache is asked for the one a few lines ahead.
                if (i + kLinesAhead < g.n[axis]) {
                    const char* ahead = reinterpret_cast<const char*>(at(i + kLinesAhead));
                    for (long b = 0; b < width * long(sizeof(T)); b += 64) __builtin_prefetch(ahead + b, 0, 3);
                }
                std::memcpy(line, at(i), std::size_t(width) * sizeof(T));
            };
            if (bySegments(g.r[axis])) segments(s, g.r[axis], g.n[axis], width, at);
            else stream(s, g.r[axis], 0, g.n[axis], g.n[axis], width, readLine, at);
            return width * g.n[axis];
        });
    }
    return generic::BoxOutcome::Done;
}

} // namespace
} // namespace morphology
} // namespace lyn
LYN_AVX2_END

namespace lyn {
namespace morphology {

bool cubeTilesServe(const Extents& e, std::size_t elementSize, const generic::Stage& stage, bool inPlace) {
    // Tiles read the rows around them, so the input must stay as it is. Rows of a vector at least:
    // a row's last vector is read whole.
    // From reach 4, vectors of 8 voxels or more: the windows along x stay within the vectors beside
    // the tile's.
    const long r = long(stage.passes);
    const bool reach = r == 2 || r == 3 || (r >= 4 && r <= 7 && elementSize <= 4);
    return stage.neighbourhood == Neighbourhood::TwentySix && !inPlace && reach &&
           long(e[0]) >= long(32 / elementSize) && long(e[1]) >= r && long(e[2]) >= r;
}

std::uint64_t boxSimdWorkingBytes(const Extents& extents, std::size_t elementSize, const generic::Stage& stage,
                                  bool inPlace, int threads, std::uint64_t memoryBudget) {
    Plan g;
    if (!generic::isBoxStage(stage) || !makePlan(g, extents, elementSize, stage, inPlace, true, threads, memoryBudget))
        return 0;
    return g.perWorker * std::uint64_t(std::max(1, threads));
}

generic::BoxOutcome runBoxSimd(const ImageModel& source, ImageModel& output, const generic::Stage& stage, bool dilate,
                               std::uint64_t memoryBudget, generic::BoxPoll& poll) {
    MemoryLayout in, out;
    const VoxelTypes t = output.getVoxelType();
    if (!generic::isBoxStage(stage) || source.getVoxelType() != t || source.extents() != output.extents() ||
        !source.getMemoryLayout(in) || !output.getMemoryLayout(out))
        return generic::BoxOutcome::NotABox;
    const Extents e = output.extents();
    auto typed = [&](auto traits) {
        using T = typename decltype(traits)::type;
        if (in.strides[0] != long(sizeof(T)) || out.strides[0] != long(sizeof(T))) return generic::BoxOutcome::NotABox;
        const bool inPlace = &source == &output || in.base == out.base;
        if (dilate) return runTyped<true, T>(in, out, e, inPlace, stage, traits.lowest(), memoryBudget, poll);
        return runTyped<false, T>(in, out, e, inPlace, stage, traits.highest(), memoryBudget, poll);
    };
    switch (t) {
    case UInt8: return typed(VoxelTraits<UInt8>{});
    case UInt16: return typed(VoxelTraits<UInt16>{});
    case UInt32: return typed(VoxelTraits<UInt32>{});
    case Int8: return typed(VoxelTraits<Int8>{});
    case Int16: return typed(VoxelTraits<Int16>{});
    case Int32: return typed(VoxelTraits<Int32>{});
    case Float: return typed(VoxelTraits<Float>{});
    case Double: return typed(VoxelTraits<Double>{});
    default: return generic::BoxOutcome::NotABox;
    }
}

} // namespace morphology
} // namespace lyn
