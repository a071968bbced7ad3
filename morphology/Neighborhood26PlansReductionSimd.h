#pragma once
// The 26-connected 3x3x3 cube in two stages: for each row of the band, the nine voxels of three
// plans by three columns are folded once (R); each output row folds three consecutive R rows,
// upper first. Two R rows are carried in per-thread scratch rows: 10 functor steps per vector.
#include <array>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

#include "Core/private/Access/DirectRows.h"
#include "Core/private/Access/Iterators.h"
#include "Core/private/Filters/RecursiveImageContext.h"
#include "morphology/Across.h"
#include "morphology/BlockWalk.h"
#include "morphology/Functors.h"
#include "morphology/ScratchRows.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

template <class Functor, class T, class Arch>
class Neighborhood26PlansReductionSimd {
public:
    using Scratch = typename details::ScratchRows<T>::Scratch;

    Neighborhood26PlansReductionSimd(std::shared_ptr<Scratch> a, std::shared_ptr<Scratch> b)
        : m_scratch(std::move(a), std::move(b)) {}

    template <class Context>
    void run(const access::Block3d& block, Context& ctx) const {
        access::DirectRows<typename Context::InView> rows;
        if (openDirectRows(block, ctx, rows)) return runDirect(block, ctx, rows);
        runCached(block, ctx);
    }

private:
    using Ops = SimdVec::Ops<T>;
    using V = typename Ops::V;
    using Row = access::EdgedRow<T>;

    // Input rows read in place: nothing is copied, and output rows go straight to an image in memory.
    // Plans go the order-free way (always, for integer types) or fold in order: walkPlansOrderFreeFirst.
    template <class Context, class Rows>
    void runDirect(const access::Block3d& block, Context& ctx, const Rows& rows) const {
        const long n = long(block.getNbCols()), m = long(block.getNbRows()), p = long(block.getNbPlans());
        if (m == 0 || p == 0) return;
        details::BlockStorage<T> scratch;
        const auto ring = details::blockRows<T, 3>(static_cast<std::size_t>(n), scratch);
        auto out = directOutput(ctx);
        out.init(block);
        const bool stream = ctx.streamOutput();
        walkPlansOrderFreeFirst<T>(p, DirectPlans<Rows, decltype(out)>{rows, n, m, ring, out, stream}, out, ctx);
    }
    template <class Rows, class Out>
    struct DirectPlans {
        const Rows& rows;
        long n, m;
        std::array<T*, 3> ring;
        Out& out;
        bool stream;
        template <class Watch>
        LYN_INLINE bool orderFree(long z, Watch& next) const { return planOrderFree(rows, z, n, m, ring, out, stream, next); }
        LYN_INLINE void inOrder(long z) const { planInOrder(rows, z, n, m, ring, out, stream); }
    };

    // R the order-free way (Across); the R rows live in a ring of three scratch rows. Stops, false,
    // at the first row where `next` sees a voxel that is not order-free.
    template <class Rows, class Out, class Watch>
    static bool planOrderFree(const Rows& rows, long z, long n, long m, std::array<T*, 3> ring, Out& out, bool stream,
                              Watch& next) {
        T* up = ring[0];
        T* mid = ring[1];
        T* down = ring[2];
        Across<Functor, T>::row(rows.row(z - 1, -1), rows.row(z, -1), rows.row(z + 1, -1), n, StoreR{up}, next);
        Across<Functor, T>::row(rows.row(z - 1, 0), rows.row(z, 0), rows.row(z + 1, 0), n, StoreR{mid}, next);
        for (long y = 0; y < m; ++y) {
            const Row r0 = rows.row(z - 1, y + 1), r1 = rows.row(z, y + 1), r2 = rows.row(z + 1, y + 1);
            T* o = out.rowData();
            if (rowStoreFor(stream, o) == RowStore::Stream)
                Across<Functor, T>::row(r0, r1, r2, n, FoldR<RowStore::Stream>{up, mid, down, o}, next);
            else
                Across<Functor, T>::row(r0, r1, r2, n, FoldR<RowStore::Plain>{up, mid, down, o}, next);
            out.nextRow();
            T* freed = up;
            up = mid;
            mid = down;
            down = freed;
            if (!next.clean()) return false;
        }
        return next.clean();
    }

    // R in fold order; A and B carry the two R rows above the output row.
    template <class Rows, class Out>
    static void planInOrder(const Rows& rows, long z, long n, long m, std::array<T*, 3> ring, Out& out, bool stream) {
        T* a = ring[0];
        T* b = ring[1];
        for (long k = -1; k <= 0; ++k) {
            const Row r0 = rows.row(z - 1, k), r1 = rows.row(z, k), r2 = rows.row(z + 1, k);
            walkEdgedRow<Prelude, Ops::N>(n, r0, r1, r2, k < 0 ? a : b);
        }
        for (long y = 0; y < m; ++y) {
            std::swap(a, b);
            const Row r0 = rows.row(z - 1, y + 1), r1 = rows.row(z, y + 1), r2 = rows.row(z + 1, y + 1);
            T* o = out.rowData();
            V last;
            walkEdgedRow<Fold, Ops::N>(n, r0, r1, r2, a, b, o, last, stream);
            Ops::store(b + n - long(Ops::N), last);
            out.nextRow();
        }
    }

    struct StoreR {
        T* dst;
        static constexpr bool kMiddleRow = false;
        template <Edge>
        LYN_INLINE void put(V r, V, V, long x) const { Ops::store(dst + x, r); }
    };
    // The output row folds R of the rows above, at and below it, upper first; R joins the ring.
    template <RowStore S>
    struct FoldR {
        const T* up;
        const T* mid;
        T* down;
        T* o;
        static constexpr bool kMiddleRow = false;
        template <Edge E>
        LYN_INLINE void put(V r, V, V, long x) const {
            Ops::store(down + x, r);
            storeRowVector<S, E, T>(o + x, Functor::template step<T>(Functor::template step<T>(Ops::load(up + x), Ops::load(mid + x)), r));
        }
    };

    // R of vector x in fold order: plan z-1 at x-1, x, x+1, then plan z, then plan z+1.
    template <Edge E>
    static LYN_INLINE V reduceEdged(const Row& r0, const Row& r1, const Row& r2, long x) {
        using In = EdgedLoad<T, E>;
        auto acc = In::left(r0, x);
        acc = Functor::template step<T>(acc, In::centre(r0, x));
        acc = Functor::template step<T>(acc, In::right(r0, x));
        acc = Functor::template step<T>(acc, In::left(r1, x));
        acc = Functor::template step<T>(acc, In::centre(r1, x));
        acc = Functor::template step<T>(acc, In::right(r1, x));
        acc = Functor::template step<T>(acc, In::left(r2, x));
        acc = Functor::template step<T>(acc, In::centre(r2, x));
        return Functor::template step<T>(acc, In::right(r2, x));
    }
    struct Prelude {
        template <Edge E>
        static LYN_INLINE void vec(const Row& r0, const Row& r1, const Row& r2, T* dst, long x) {
            Ops::store(dst + x, reduceEdged<E>(r0, r1, r2, x));
        }
    };
    // out = f(f(B, A), R), upper row first; R replaces B (the last vector's R is kept in `last`
    // until the others have read B).
    struct Fold {
        template <Edge E>
        static LYN_INLINE void vec(const Row& r0, const Row& r1, const Row& r2, T* a, T* b, T* o, V& last,
                                   const bool& stream, long x) {
            const V r = reduceEdged<E>(r0, r1, r2, x);
            const V acc = Functor::template step<T>(Ops::load(b + x), Ops::load(a + x));
            SimdVec::storeOut<T>(o + x, Functor::template step<T>(acc, r), stream);
            if constexpr (E == Edge::Last) last = r;
            else Ops::store(b + x, r);
        }
    };

    template <class Context>
    void runCached(const access::Block3d& block, Context& ctx) const {
        constexpr long L = long(Ops::N);
        const long n = long(block.getNbCols()), m = long(block.getNbRows()), p = long(block.getNbPlans());
        const unsigned long w = static_cast<unsigned long>(n + 2), h = static_cast<unsigned long>(m + 2);

        auto& inCache = ctx.inputPlanCache();
        if (!inCache) ctx.createInputPlanCache(3);
        auto& outCache = ctx.outputPlanCache();
        if (!outCache) ctx.createOuputPlanCache(1);
        auto [a, b] = m_scratch.local(static_cast<std::size_t>(n));

        using Plan = typename std::decay_t<decltype(*inCache)>::Plan;
        const Plan* plans[3];  // roles: plan z-1, plan z, plan z+1
        plans[0] = &inCache->fetchPlanInBlock(1, w, h, block, -1, -1, -1, 0, 0);
        plans[1] = &inCache->fetchPlanInBlock(2, w, h, block, -1, -1, 0, 0, 0);
        unsigned long freeSlot = 0, slotOf[2] = {1, 2};

        const bool inPlace = ctx.isInPlace();
        const access::OverlapBorder overlap(1, 1, 1, 1, 1, 1);
        // Planes are computed straight into an output held in memory when nothing is deferred; the
        // overlapping last vector then keeps every store inside the row.
        auto& outView = *ctx.getOutputView();
        auto directRow = [&](long z, long y) {
            return outView.directRowWrite(block.colsBegin(), block.rowsBegin() + y, block.plansBegin() + z,
                                          block.sequenceBegin(), block.spectralSeriesBegin(),
                                          static_cast<unsigned long>(n));
        };
        const bool direct = !inPlace && n >= L && m > 0 && directRow(0, 0) != nullptr;
        const long full = n >= L ? n / L * L : L;
        const long t = n - L;
        const bool tail = n > L && n % L != 0;
        for (long z = 0; z < p; ++z) {
            plans[2] = &inCache->fetchPlanInBlock(freeSlot, w, h, block, -1, -1, z + 1, 0, 0);
            const auto* out = direct ? nullptr
                                     : &outCache->getPlanInBlock(0, static_cast<unsigned long>(n),
                                                                 static_cast<unsigned long>(m), block, 0, 0, z, 0, 0);
            for (long x = 0; x < n; x += L) {
                Ops::store(a + x, reduce(plans, 0, x));
                Ops::store(b + x, reduce(plans, 1, x));
            }
            if (ctx.isGroupCancelled()) return;
            for (long y = 0; y < m; ++y) {
                std::swap(a, b);
                T* o = direct ? directRow(z, y) : out->row(static_cast<unsigned long>(y)).data();
                const unsigned long k = static_cast<unsigned long>(y + 2);
                // The overlapping last vector first: it must read B before the main loop replaces it.
                typename Ops::V rt{};
                if (tail) {
                    rt = reduce(plans, k, t);
                    const auto acc = Functor::template step<T>(Ops::load(b + t), Ops::load(a + t));
                    Ops::store(o + t, Functor::template step<T>(acc, rt));
                }
                for (long x = 0; x < full; x += L) {
                    const auto r = reduce(plans, k, x);
                    const auto acc = Functor::template step<T>(Ops::load(b + x), Ops::load(a + x));
                    Ops::store(o + x, Functor::template step<T>(acc, r));
                    Ops::store(b + x, r);
                }
                if (tail) Ops::store(b + t, rt);
            }
            if (ctx.isGroupCancelled()) return;
            for (long y = 0; y < m && !direct; ++y) {
                if (inPlace) out->row(static_cast<unsigned long>(y)).writeRow(block, overlap);
                else out->row(static_cast<unsigned long>(y)).writeRow(block);
            }
            // Plan z becomes plan z-1, plan z+1 becomes plan z; the old plan z-1's slot is free.
            const unsigned long oldest = slotOf[0];
            slotOf[0] = slotOf[1];
            slotOf[1] = freeSlot;
            freeSlot = oldest;
            plans[0] = plans[1];
            plans[1] = plans[2];
        }
    }

    // R(k)[x]: plan z-1 at x-1, x, x+1, then plan z, then plan z+1, all in fetched row k.
    template <class Plan>
    static LYN_INLINE typename SimdVec::Ops<T>::V reduce(const Plan* const* plans, unsigned long k, long x) {
        using Ops = SimdVec::Ops<T>;
        const T* r = plans[0]->row(k).data();
        auto acc = Ops::load(r + x);
        acc = Functor::template step<T>(acc, Ops::load(r + x + 1));
        acc = Functor::template step<T>(acc, Ops::load(r + x + 2));
        for (int q = 1; q < 3; ++q) {
            r = plans[q]->row(k).data();
            acc = Functor::template step<T>(acc, Ops::load(r + x));
            acc = Functor::template step<T>(acc, Ops::load(r + x + 1));
            acc = Functor::template step<T>(acc, Ops::load(r + x + 2));
        }
        return acc;
    }

    details::ScratchRows<T> m_scratch;
};

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
