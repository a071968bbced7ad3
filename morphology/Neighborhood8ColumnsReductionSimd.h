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
class Neighborhood8ColumnsReductionSimd : details::ScratchRows<T> {
public:
    using typename details::ScratchRows<T>::Scratch;
    using details::ScratchRows<T>::ScratchRows;

    // Integer rows wider than a vector fold the three rows first (Across), others in fold order.
    template <class Context>
    void run(const access::Block2d& block, Context& ctx) const {
        const long n = long(block.getNbCols()), m = long(block.getNbRows());
        withBlock<1>(block, ctx, true, [&](const auto& rows, auto& out, bool stream) LYN_LAMBDA_INLINE {
            if (std::is_integral_v<T> && n > long(Ops::N)) runAcross(rows, n, m, out, stream);
            else runSeparable(rows, n, m, out, stream);
        });
    }

private:
    using Ops = SimdVec::Ops<T>;
    using V = typename Ops::V;
    using Row = access::EdgedRow<T>;

    // Integer types: the three rows are folded first, then across (Across); no scratch row.
    template <class Rows, class Out>
    static void runAcross(const Rows& rows, long n, long m, Out& out, bool stream) {
        for (long y = 0; y < m; ++y) {
            prefetchAhead<1>(rows, 0, y, n);
            Across<Functor, T>::row(rows.row(0, y - 1), rows.row(0, y), rows.row(0, y + 1), n, StoreOut{out.rowData(), stream});
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

    // In fold order (floats, and rows no wider than a vector): H rows in the thread's two scratch
    // rows, A the row above, B the current one.
    template <class Rows, class Out>
    void runSeparable(const Rows& rows, long n, long m, Out& out, bool stream) const {
        auto [a, b] = this->local(static_cast<std::size_t>(n));
        Row r = rows.row(0, -1);
        walkRow<StoreH, Ops::N, Rows>(n, r, a);
        r = rows.row(0, 0);
        walkRow<StoreH, Ops::N, Rows>(n, r, b);
        for (long y = 0; y < m; ++y) {
            prefetchAhead<1>(rows, 0, y, n);
            r = rows.row(0, y + 1);
            T* o = out.rowData();
            V last;
            walkRow<FoldH, Ops::N, Rows>(n, r, a, b, o, last, stream);
            if (n > long(Ops::N)) Ops::store(a + n - long(Ops::N), last);
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
};

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
