#pragma once
// The 8-connected 3x3 square in 2D as a separable reduction: each input row is reduced across
// three columns once (H), and each output row folds three consecutive H rows, upper first. Two H
// rows are carried in per-thread scratch rows: 4 functor steps per vector instead of 8.
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

#include "Core/private/Access/DirectRows.h"
#include "Core/private/Filters/RecursiveImageContext.h"
#include "morphology/Across.h"
#include "morphology/BlockWalk.h"
#include "morphology/Functors.h"
#include "morphology/ScratchRows.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

template <class Functor, class T, class Arch>
class Neighborhood8ColumnsReductionSimd {
public:
    using Scratch = typename details::ScratchRows<T>::Scratch;

    Neighborhood8ColumnsReductionSimd(std::shared_ptr<Scratch> a, std::shared_ptr<Scratch> b)
        : m_scratch(std::move(a), std::move(b)) {}

    template <class Context>
    void run(const access::Block2d& block, Context& ctx) const {
        access::DirectRows<typename Context::InView> rows;
        if (!openDirectRows(block, ctx, rows)) return runCached(block, ctx);
        if constexpr (std::is_integral_v<T>) runDirectIntegral(block, ctx, rows);
        else runDirect(block, ctx, rows);
    }

private:
    using Ops = SimdVec::Ops<T>;
    using V = typename Ops::V;
    using Row = access::EdgedRow<T>;

    // Integer types, input rows read in place: the three rows are folded first, then across
    // (Across); no scratch row.
    template <class Context, class Rows>
    void runDirectIntegral(const access::Block2d& block, Context& ctx, const Rows& rows) const {
        const long n = long(block.getNbCols()), m = long(block.getNbRows());
        auto out = directOutput(ctx);
        out.init(block);
        for (long y = 0; y < m; ++y) {
            Across<Functor, T>::row(rows.row(0, y - 1), rows.row(0, y), rows.row(0, y + 1), n,
                                    StoreOut{out.rowData(), ctx.streamOutput()});
            out.nextRow();
        }
    }
    struct StoreOut {
        T* o;
        bool stream;
        static constexpr bool kMiddleRow = false;
        template <Edge>
        LYN_INLINE void put(V v, V, V, long x) const { SimdVec::storeOut<T>(o + x, v, stream); }
    };

    // Floating types, input rows read in place: H rows in two scratch rows as below, in fold order.
    template <class Context, class Rows>
    void runDirect(const access::Block2d& block, Context& ctx, const Rows& rows) const {
        const long n = long(block.getNbCols()), m = long(block.getNbRows());
        details::BlockStorage<T> scratch;
        auto [a, b] = details::blockRows<T, 2>(static_cast<std::size_t>(n), scratch);
        auto out = directOutput(ctx);
        out.init(block);
        const bool stream = ctx.streamOutput();
        Row r = rows.row(0, -1);
        walkEdgedRow<StoreH, Ops::N>(n, r, a);
        r = rows.row(0, 0);
        walkEdgedRow<StoreH, Ops::N>(n, r, b);
        for (long y = 0; y < m; ++y) {
            r = rows.row(0, y + 1);
            T* o = out.rowData();
            V last;
            walkEdgedRow<FoldH, Ops::N>(n, r, a, b, o, last, stream);
            Ops::store(a + n - long(Ops::N), last);
            out.nextRow();
            std::swap(a, b);
        }
    }
    template <Edge E>
    static LYN_INLINE V horizontalEdged(const Row& r, long x) {
        using In = EdgedLoad<T, E>;
        const V h = Functor::template step<T>(In::left(r, x), In::centre(r, x));
        return Functor::template step<T>(h, In::right(r, x));
    }
    struct StoreH {
        template <Edge E>
        static LYN_INLINE void vec(const Row& r, T* const& dst, long x) { Ops::store(dst + x, horizontalEdged<E>(r, x)); }
    };
    // out = f(f(A, B), H), upper row first; H replaces A (the last vector's H waits in `last` until
    // the others have read A).
    struct FoldH {
        template <Edge E>
        static LYN_INLINE void vec(const Row& r, T* const& a, T* const& b, T* const& o, V& last, const bool& stream,
                                   long x) {
            const V h = horizontalEdged<E>(r, x);
            const V acc = Functor::template step<T>(Ops::load(a + x), Ops::load(b + x));
            SimdVec::storeOut<T>(o + x, Functor::template step<T>(acc, h), stream);
            if constexpr (E == Edge::Last) last = h;
            else Ops::store(a + x, h);
        }
    };

    template <class Context>
    void runCached(const access::Block2d& block, Context& ctx) const {
        constexpr long L = long(Ops::N);
        const long n = long(block.getNbCols()), m = long(block.getNbRows());

        auto& inCache = ctx.inputRowCache();
        if (!inCache) ctx.createInputRowCache(3);
        auto& outCache = ctx.outputRowCache();
        if (!outCache) ctx.createOuputRowCache(1);
        auto [a, b] = m_scratch.local(static_cast<std::size_t>(n));

        const bool inPlace = ctx.isInPlace();
        const auto& inView = *ctx.getInputView();
        // Rows of at least N + 2 voxels are walked in three parts: the first vector and the last
        // one (from padded edge segments) and the interior vectors, read in place when the pass
        // does not write the image it reads. Narrower rows are one padded row.
        const bool split = n >= L + 2;
        auto fetch = [&](long r) {
            return access::details::fetchSplitRow<Ops::N>(inView, *inCache, 0, block, r, !inPlace);
        };
        const long t = n - L;
        auto row = fetch(-1);
        storeH(row, a, n, split);
        row = fetch(0);
        storeH(row, b, n, split);

        const access::OverlapBorder overlap(1, 1, 1, 1, 0, 0);
        // Rows are computed straight into an output held in memory when nothing is deferred; no
        // vector is stored past the row then.
        auto& outView = *ctx.getOutputView();
        const bool direct = !inPlace && n >= L;
        const long full = n >= L ? n / L * L : L;
        const bool tail = n > L && n % L != 0;
        for (long y = 0; y < m; ++y) {
            T* out = direct ? outView.directRowWrite(block.colsBegin(), block.rowsBegin() + y, block.plansBegin(),
                                                     block.sequenceBegin(), block.spectralSeriesBegin(),
                                                     static_cast<unsigned long>(n))
                            : nullptr;
            typename std::decay_t<decltype(*outCache)>::Row* outRow = nullptr;
            if (!out) {
                outRow = &outCache->getRowInBlock(0, static_cast<unsigned long>(n), block, 0, y, 0, 0, 0);
                out = outRow->data();
            }
            row = fetch(y + 1);
            if (split) {
                // The last vector first: it must read A before the others replace the lanes it shares.
                const auto th = horizontal(row.right, 0);
                step(a, b, out, t, th);
                Ops::store(a, step(a, b, out, 0, horizontal(row.left, 0)));
                for (long x = L; x + L + 1 <= n; x += L) Ops::store(a + x, step(a, b, out, x, horizontal(row.interior + x - 1, 0)));
                Ops::store(a + t, th);
            } else {
                typename Ops::V th{};
                if (tail) {
                    th = horizontal(row.left, t);
                    step(a, b, out, t, th);
                }
                for (long x = 0; x < full; x += L) Ops::store(a + x, step(a, b, out, x, horizontal(row.left, x)));
                if (tail) Ops::store(a + t, th);
            }
            if (outRow) {
                if (inPlace) outRow->writeRow(block, overlap);
                else outRow->writeRow(block);
            }
            std::swap(a, b);
        }
    }

    // out[x] = f(f(A[x], B[x]), h), upper row first; returns h for A.
    static LYN_INLINE V step(const T* a, const T* b, T* out, long x, V h) {
        using Ops = SimdVec::Ops<T>;
        const auto acc = Functor::template step<T>(Ops::load(a + x), Ops::load(b + x));
        Ops::store(out + x, Functor::template step<T>(acc, h));
        return h;
    }

    // H of a whole row into `dst` (n voxels): three parts when split, else whole padded vectors.
    template <class Row>
    static LYN_INLINE void storeH(const Row& row, T* dst, long n, bool split) {
        using Ops = SimdVec::Ops<T>;
        constexpr long L = long(Ops::N);
        if (!split) {
            for (long x = 0; x < n; x += L) Ops::store(dst + x, horizontal(row.left, x));
            return;
        }
        Ops::store(dst, horizontal(row.left, 0));
        for (long x = L; x + L + 1 <= n; x += L) Ops::store(dst + x, horizontal(row.interior + x - 1, 0));
        Ops::store(dst + n - L, horizontal(row.right, 0));
    }

    // H(row) = f(f(left, centre), right), from a row fetched one column left of the block.
    static LYN_INLINE typename SimdVec::Ops<T>::V horizontal(const T* in, long x) {
        using Ops = SimdVec::Ops<T>;
        auto h = Ops::load(in + x);
        h = Functor::template step<T>(h, Ops::load(in + x + 1));
        return Functor::template step<T>(h, Ops::load(in + x + 2));
    }

    details::ScratchRows<T> m_scratch;
};

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
