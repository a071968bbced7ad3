#pragma once
// Any offset list folded as runs along x, where the fold order cannot show: integers always (their
// minimum and maximum are associative and commutative), floats for output rows whose input rows
// hold neither NaN nor -0.0 (OrderFree); other float rows fold the list in order.
//
// The list is grouped by row (dy, dz) into runs of consecutive dx. Over a run of length L from a,
// the fold is G_M(x + a) folded with G_M(x + a + L - M), M the largest power of two <= L, where
// G_M(p) folds input p .. p + M - 1 of one row and is built by doubling: G_2M(p) = f(G_M(p),
// G_M(p + M)). An input row's G rows are built once and serve every output row of the plan that
// reads it: per distinct dz a ring of G rows over the rows that dz spans. A disk of radius 10 (317
// offsets, 21 runs) then costs about 40 loads per output vector and 4 doublings per input row
// instead of 317 loads.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <map>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

#include "Core/private/Access/Iterators.h"
#include "Core/private/Filters/RecursiveImageContext.h"
#include "host/Kernel.h"
#include "morphology/OrderFree.h"
#include "morphology/Functors.h"
#include "morphology/ScratchRows.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {
namespace details {

struct OffsetRuns {
    // A row of offsets: its (dy, dz), an offset of the list on it (its read pointer locates the
    // input row) and its band (the rows sharing its dz).
    struct Key {
        long dy, dz;
        std::size_t source;
        long sourceX;
        std::size_t band;
    };
    struct Run {
        std::size_t key;
        long a, length;
        unsigned level; // log2 of the largest power of two <= length
    };
    // The G rows of one dz: `levels` rows (G_2 .. G_2^levels) per input row of the ring.
    struct Band {
        long dz, minRow, maxRow;
        unsigned levels;
        std::size_t firstRow, firstTag;
        long slots() const { return maxRow - minRow + 1; }
    };
    std::vector<Key> keys;
    std::vector<Run> runs;
    std::vector<Band> bands;
    long minCol = 0, maxCol = 0;
    std::size_t folds = 0;       // loads per output vector
    std::size_t doublings = 0;   // G rows built per output row, in the steady state
    std::size_t scratchRows = 0; // G rows held per block
    std::size_t tags = 0;

    // Worth it when the estimated work per output vector (a doubling is two loads, a step and a
    // store) is under three quarters of the in-order fold's: not for a horizontal line or a line
    // whose runs are one or two voxels long.
    bool pays(std::size_t offsets) const { return !runs.empty() && 4 * (folds + 3 * doublings) < 3 * offsets; }
};

inline long planOf(const kernel::Offset2D&) { return 0; }
inline long planOf(const kernel::Offset3D& o) { return o.z; }
inline unsigned floorLog2(long v) {
    unsigned l = 0;
    while ((2L << l) <= v) ++l;
    return l;
}

template <class Offset>
OffsetRuns planRuns(const std::vector<Offset>& offsets) {
    OffsetRuns r;
    if (offsets.empty()) return r;
    // (dz, dy) -> (dx, list index), rows ordered by dz then dy.
    std::map<std::pair<long, long>, std::vector<std::pair<long, std::size_t>>> rows;
    r.minCol = r.maxCol = offsets[0].x;
    for (std::size_t k = 0; k < offsets.size(); ++k) {
        rows[{planOf(offsets[k]), offsets[k].y}].push_back({offsets[k].x, k});
        r.minCol = std::min(r.minCol, offsets[k].x);
        r.maxCol = std::max(r.maxCol, offsets[k].x);
    }
    for (auto& [zy, xs] : rows) {
        std::sort(xs.begin(), xs.end());
        if (r.bands.empty() || r.bands.back().dz != zy.first) r.bands.push_back({zy.first, zy.second, zy.second, 0, 0, 0});
        OffsetRuns::Band& band = r.bands.back();
        band.maxRow = zy.second;
        r.keys.push_back({zy.second, zy.first, xs[0].second, xs[0].first, r.bands.size() - 1});
        for (std::size_t i = 0; i < xs.size();) {
            std::size_t j = i + 1;
            while (j < xs.size() && xs[j].first <= xs[j - 1].first + 1) ++j; // a repeated offset joins its run
            const long a = xs[i].first, length = xs[j - 1].first - a + 1;
            const unsigned level = floorLog2(length);
            r.runs.push_back({r.keys.size() - 1, a, length, level});
            band.levels = std::max(band.levels, level);
            r.folds += length == (1L << level) ? 1 : 2;
            i = j;
        }
    }
    for (auto& band : r.bands) {
        band.firstRow = r.scratchRows;
        band.firstTag = r.tags;
        r.scratchRows += std::size_t(band.slots()) * band.levels;
        r.tags += std::size_t(band.slots());
        r.doublings += band.levels;
    }
    return r;
}

template <class Functor, int Dims>
class OffsetRunsSimd {
public:
    using Offset = std::conditional_t<Dims == 2, kernel::Offset2D, kernel::Offset3D>;

    OffsetRunsSimd(std::vector<Offset> offsets, OffsetRuns runs) : m_offsets(std::move(offsets)), m_runs(std::move(runs)) {}

    template <class Block, class Context>
    void run(const Block& block, Context& ctx) const {
        using T = typename Context::OutType;
        constexpr long N = long(SimdVec::Ops<T>::N);
        using In = std::conditional_t<Dims == 2, access::IteratorNeighborhood2D_Gen<typename Context::InView, N>,
                                      access::IteratorNeighborhood3D_Gen<typename Context::InView, N>>;
        In in(ctx.getInputView(), m_offsets);
        in.init(block);
        const access::OverlapBorder overlap =
            ctx.isInPlace() ? access::OverlapBorder(in.getBorderInfluence()) : access::OverlapBorder();
        access::IteratorPixelOutput<typename Context::OutView, N> out(ctx.getOutputView(), false, overlap, !ctx.isInPlace());
        out.init(block);
        const long cols = long(block.getNbCols()), rows = long(block.getNbRows()), plans = long(block.getNbPlans());
        if (cols == 0 || rows == 0 || plans == 0) return;

        // G rows padded by two vectors: the doubling loops and the last output vector read whole
        // vectors past the positions that matter; their surplus lanes reach no written voxel.
        const long rowLen = cols + m_runs.maxCol - m_runs.minCol;
        const std::size_t stride = std::size_t((rowLen + 2 * N + N - 1) / N * N);
        const std::size_t bytes = m_runs.scratchRows * stride * sizeof(T);
        const bool fits = bytes <= kMaxScratchBytes;
        // Per thread and kept: a fresh allocation per block costs a page fault per 4 KiB once it
        // is large enough to be mapped (measured: a quarter of the float disk r3's time).
        auto& held = m_scratch->local();
        if (fits && held.size() < bytes) held.resize(bytes);
        T* const scratch = reinterpret_cast<T*>(held.data());
        std::vector<long> tags(m_runs.tags);
        std::vector<char> clean(m_runs.tags);
        std::vector<const T*> source(m_runs.keys.size()), g(m_runs.keys.size()), ptrs;
        ptrs.reserve(std::max(2 * m_runs.runs.size(), m_offsets.size()));

        for (long z = 0; z < plans; ++z) {
            std::fill(tags.begin(), tags.end(), LONG_MIN);
            for (long y = 0; y < rows; ++y) {
                ptrs.clear();
                if (!fits || !aimRuns<T, N>(in, y, rowLen, stride, scratch, tags, clean, source, g, ptrs)) {
                    // Every offset in list order: too wide for the G rows, or a float row that is not order-free.
                    ptrs.clear();
                    for (std::size_t k = 0; k < m_offsets.size(); ++k) ptrs.push_back(in.ptr(k));
                }
                foldRow<T>(ptrs, out.rowData(), cols);
                out.nextRow();
                if (y + 1 < rows) in.nextRow();
            }
            if constexpr (Dims == 3)
                if (z + 1 < plans) in.nextPlan();
        }
    }

private:
    static constexpr std::size_t kMaxScratchBytes = std::size_t(32) << 20;

    // Builds the G rows of the input rows output row y reads that no earlier row of the plan
    // built, and lists the operands of row y's fold. False if one of those rows is not order-free.
    template <class T, long N, class In>
    bool aimRuns(const In& in, long y, long rowLen, std::size_t stride, T* scratch, std::vector<long>& tags,
                 std::vector<char>& clean, std::vector<const T*>& source, std::vector<const T*>& g,
                 std::vector<const T*>& ptrs) const {
        constexpr bool kWatch = !std::is_integral_v<T>;
        bool allClean = true;
        for (std::size_t k = 0; k < m_runs.keys.size(); ++k) {
            const OffsetRuns::Key& key = m_runs.keys[k];
            const OffsetRuns::Band& band = m_runs.bands[key.band];
            source[k] = in.ptr(key.source) - (key.sourceX - m_runs.minCol); // column minCol of the input row
            if (!kWatch && band.levels == 0) continue;
            const long inputRow = y + key.dy;
            const std::size_t slot = std::size_t((inputRow - band.minRow) % band.slots());
            T* rowG = scratch + (band.firstRow + slot * band.levels) * stride;
            g[k] = rowG;
            long& tag = tags[band.firstTag + slot];
            char& rowClean = clean[band.firstTag + slot];
            if (tag != inputRow) {
                tag = inputRow;
                rowClean = !kWatch || orderFree<T, N>(source[k], rowLen);
                if (rowClean) buildG<T, N>(source[k], rowG, band.levels, rowLen, stride);
            }
            allClean = allClean && rowClean;
        }
        if (!allClean) return false;
        for (const OffsetRuns::Run& run : m_runs.runs) {
            const T* base = run.level == 0 ? source[run.key] : g[run.key] + (run.level - 1) * stride;
            const T* p = base + (run.a - m_runs.minCol);
            ptrs.push_back(p);
            const long m = 1L << run.level;
            if (run.length != m) ptrs.push_back(p + (run.length - m));
        }
        return true;
    }

    // Whether the row's rowLen voxels hold neither NaN nor -0.0.
    template <class T, long N>
    static bool orderFree(const T* row, long rowLen) {
        typename OrderFree<T>::Watch watch;
        long p = 0;
        for (; p + N <= rowLen; p += N) watch.vec(SimdVec::Ops<T>::load(row + p));
        for (; p < rowLen; ++p) watch.edges(row[p], row[p]);
        return watch.clean();
    }

    // G_2 .. G_2^levels of one input row, from its cached copy.
    template <class T, long N>
    static void buildG(const T* source, T* rowG, unsigned levels, long rowLen, std::size_t stride) {
        const T* prev = source;
        for (unsigned l = 1; l <= levels; ++l) {
            const long half = 1L << (l - 1), end = rowLen - 2 * half + 1;
            T* dst = rowG + (l - 1) * stride;
            for (long p = 0; p < end; p += N)
                SimdVec::Ops<T>::store(dst + p, Functor::template step<T>(SimdVec::Ops<T>::load(prev + p),
                                                                          SimdVec::Ops<T>::load(prev + p + half)));
            prev = dst;
        }
    }

    template <class T>
    static void foldRow(const std::vector<const T*>& ptrs, T* o, long cols) {
        using Ops = SimdVec::Ops<T>;
        const std::size_t n = ptrs.size();
        const T* const* p = ptrs.data();
        const long last = SimdVec::lastVectorStart(cols, long(Ops::N));
        for (long x = 0;; x += long(Ops::N)) {
            if (x > last) x = last;
            auto acc = Ops::load(p[0] + x);
            for (std::size_t k = 1; k < n; ++k) acc = Functor::template step<T>(acc, Ops::load(p[k] + x));
            Ops::store(o + x, acc);
            if (x == last) break;
        }
    }

    using Scratch = tbb::enumerable_thread_specific<std::vector<unsigned char, SimdVec::AlignedAllocator<unsigned char, 32>>>;

    std::vector<Offset> m_offsets;
    OffsetRuns m_runs;
    std::shared_ptr<Scratch> m_scratch = std::make_shared<Scratch>();
};

} // namespace details
} // namespace morphology
} // namespace lyn
LYN_AVX2_END
