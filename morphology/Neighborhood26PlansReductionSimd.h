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
class Neighborhood26PlansReductionSimd : details::ScratchRows<T> {
public:
    using typename details::ScratchRows<T>::Scratch;
    using details::ScratchRows<T>::ScratchRows;

    // Plans go the order-free way (always, for integer types) or fold in order: walkPlans.
    template <class Context>
    void run(const access::Block3d& block, Context& ctx) const {
        const long n = long(block.getNbCols()), m = long(block.getNbRows()), p = long(block.getNbPlans());
        withBlock<3>(block, ctx, true, [&](const auto& rows, auto& out, bool stream) LYN_LAMBDA_INLINE {
            const bool orderFree = mayGoOrderFree<T>(ctx, n);
            details::BlockStorage<T> scratch;
            std::array<T*, 3> ring{};
            if (orderFree) {
                ring = details::blockRows<T, 3>(static_cast<std::size_t>(n), scratch);
            } else {
                const auto [a, b] = this->local(static_cast<std::size_t>(n));
                ring = {a, b, nullptr};
            }
            walkPlans<T>(
                p, orderFree, [&](long z, auto& next) { return planOrderFree(rows, z, n, m, ring, out, stream, next); },
                [&](long z) { planInOrder(rows, z, n, m, {ring[0], ring[1]}, out, stream); }, out, ctx);
        });
    }

private:
    using Ops = SimdVec::Ops<T>;
    using V = typename Ops::V;
    using Row = access::EdgedRow<T>;

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
            prefetchAhead<3>(rows, z, y, n);
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
    static void planInOrder(const Rows& rows, long z, long n, long m, std::array<T*, 2> ab, Out& out, bool stream) {
        T* a = ab[0];
        T* b = ab[1];
        for (long k = -1; k <= 0; ++k) {
            const Row r0 = rows.row(z - 1, k), r1 = rows.row(z, k), r2 = rows.row(z + 1, k);
            T* dst = k < 0 ? a : b;
            walkRow<Prelude, Ops::N, Rows>(n, r0, r1, r2, dst);
        }
        for (long y = 0; y < m; ++y) {
            prefetchAhead<3>(rows, z, y, n);
            std::swap(a, b);
            const Row r0 = rows.row(z - 1, y + 1), r1 = rows.row(z, y + 1), r2 = rows.row(z + 1, y + 1);
            T* o = out.rowData();
            V last;
            walkRow<Fold, Ops::N, Rows>(n, r0, r1, r2, a, b, o, last, stream);
            if (n > long(Ops::N)) Ops::store(b + n - long(Ops::N), last);
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
};

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
