#pragma once
// One pass of a 3D neighbourhood reduction over a block: the 6- and 18-neighbourhoods with their
// fixed fold orders, and any offset list folded in list order.
#include <array>
#include <type_traits>
#include <utility>
#include <vector>

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

namespace details {
// Walks every row and plan of the block, Kernel::fold(iterator, outputRow, cols) computing each row.
template <class Kernel, class Iterator, class Context>
void walkBlock3d(const access::Block3d& block, Context& ctx, Iterator& in, const access::OverlapBorder& overlap) {
    using T = typename Context::OutType;
    access::IteratorPixelOutput<typename Context::OutView, SimdVec::Ops<T>::N> out(ctx.getOutputView(), false, overlap,
                                                                                   !ctx.isInPlace());
    out.init(block);
    const long cols = long(block.getNbCols()), rows = long(block.getNbRows()), plans = long(block.getNbPlans());
    if (rows == 0 || cols == 0) return;
    for (long z = 0; z < plans; ++z) {
        for (long y = 0; y < rows; ++y) {
            Kernel::fold(in, out.rowData(), cols);
            out.nextRow();
            if (y + 1 < rows) in.nextRow();
        }
        if (z + 1 < plans) in.nextPlan();
    }
}
} // namespace details

template <class Functor, class NeighborhoodTag, class Data>
class Neighborhood3dToValueSimd;

// Back, up, left, centre, right, down, front.
template <class Functor>
class Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_6Tag, access::NoDataType> {
public:
    // Measured: this light kernel runs faster with ordinary stores even on outputs larger than
    // the streaming threshold (docs/performance.md).
    static constexpr bool kStreamOutput = false;

    template <class Context>
    void run(const access::Block3d& block, Context& ctx) const {
        walkBlock<Neighborhood3dToValueSimd, 3>(block, ctx);
    }

    template <Edge E, class T>
    static LYN_INLINE void vec(const access::EdgedRow<T> (&r)[3][3], T* const& o, const bool& stream, long x) {
        using In = EdgedLoad<T, E>;
        auto acc = In::centre(r[0][1], x);
        acc = Functor::template step<T>(acc, In::centre(r[1][0], x));
        acc = Functor::template step<T>(acc, In::left(r[1][1], x));
        acc = Functor::template step<T>(acc, In::centre(r[1][1], x));
        acc = Functor::template step<T>(acc, In::right(r[1][1], x));
        acc = Functor::template step<T>(acc, In::centre(r[1][2], x));
        SimdVec::storeOut<T>(o + x, Functor::template step<T>(acc, In::centre(r[2][1], x)), stream);
    }
};

// Plus shapes in the plans before and after, the full 3x3 square in the current plan.
template <class Functor>
class Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_18Tag, access::NoDataType> {
public:
    static constexpr bool kStreamOutput = true;

    // Plans whose input plans are order-free (always, for integer types) go in two stages: for each
    // row y of the band, M(y) is the 3x3 square across plans and columns (Across) and S(y) folds
    // plan z - 1, plan z across three columns, and plan z + 1; output row y folds S(y - 1), M(y) and
    // S(y + 1). S rows live in a ring of three, M rows in a ring of two: 10 steps per vector. Other
    // plans fold in order (vec).
    template <class Context>
    void run(const access::Block3d& block, Context& ctx) const {
        using T = typename Context::OutType;
        const long n = long(block.getNbCols()), m = long(block.getNbRows()), p = long(block.getNbPlans());
        withBlock<3>(block, ctx, kStreamOutput, [&](const auto& rows, auto& out, bool stream) LYN_LAMBDA_INLINE {
            const bool orderFree = mayGoOrderFree<T>(ctx, n);
            details::BlockStorage<T> scratch;
            const auto rowsOf = details::blockRows<T, 5>(orderFree ? static_cast<std::size_t>(n) : 0, scratch);
            walkPlans<T>(
                p, orderFree, [&](long z, auto& next) { return planTwoStage(rows, z, n, m, rowsOf, out, stream, next); },
                [&](long z) { walkPlan<Neighborhood3dToValueSimd, 3>(rows, z, n, m, out, stream); }, out, ctx);
        });
    }

    // Plan z in two stages, `next` watching plan z + 1. Stops, false, at the first row where `next`
    // sees a voxel that is not order-free.
    template <class Rows, class T, class Out, class Watch>
    static bool planTwoStage(const Rows& rows, long z, long n, long m, const std::array<T*, 5>& rowsOf, Out& out,
                             bool stream, Watch& next) {
        T* sr[3] = {rowsOf[0], rowsOf[1], rowsOf[2]};
        T* mr[2] = {rowsOf[3], rowsOf[4]};
        for (long k = -1; k <= 0; ++k) {
            const Sink18<T, RowStore::None> sink{rows.row(z - 1, k), rows.row(z, k), rows.row(z + 1, k), sr[k + 1],
                                                 mr[k < 0 ? 1 : 0], nullptr, nullptr, nullptr};
            Across<Functor, T>::row(sink.r0, sink.r1, sink.r2, n, sink, next);
        }
        for (long y = 0; y < m; ++y) {
            prefetchAhead<3>(rows, z, y, n);
            const access::EdgedRow<T> r0 = rows.row(z - 1, y + 1), r1 = rows.row(z, y + 1), r2 = rows.row(z + 1, y + 1);
            T* o = out.rowData();
            if (rowStoreFor(stream, o) == RowStore::Stream)
                Across<Functor, T>::row(r0, r1, r2, n, Sink18<T, RowStore::Stream>{r0, r1, r2, sr[2], mr[1], sr[0], mr[0], o}, next);
            else
                Across<Functor, T>::row(r0, r1, r2, n, Sink18<T, RowStore::Plain>{r0, r1, r2, sr[2], mr[1], sr[0], mr[0], o}, next);
            out.nextRow();
            T* freed = sr[0];
            sr[0] = sr[1];
            sr[1] = sr[2];
            sr[2] = freed;
            std::swap(mr[0], mr[1]);
            if (!next.clean()) return false;
        }
        return next.clean();
    }
    template <class T, RowStore S>
    struct Sink18 {
        using Ops = SimdVec::Ops<T>;
        access::EdgedRow<T> r0, r1, r2;
        T* sNew;
        T* mNew;
        const T* sUp;  // S(y - 1)
        const T* mMid; // M(y)
        T* o;          // unused while the band is being primed (RowStore::None)
        // S = the three plans' centres and plan z's sides (x - 1, x + 1), its centre being among the
        // former. The sides come from lane shifts of plan z's aligned vectors (Across) for 4- and
        // 8-byte voxels and from loads for narrower ones (measured: each is the faster for its types).
        static constexpr bool kMiddleRow = sizeof(T) >= 4;
        template <Edge E>
        LYN_INLINE void put(typename Ops::V mv, typename Ops::V centres, typename Ops::V sides, long x) const {
            using In = EdgedLoad<T, E>;
            if constexpr (!kMiddleRow) sides = Functor::template step<T>(In::left(r1, x), In::right(r1, x));
            const auto sv = Functor::template step<T>(centres, sides);
            Ops::store(sNew + x, sv);
            Ops::store(mNew + x, mv);
            if constexpr (S != RowStore::None)
                storeRowVector<S, E, T>(
                    o + x, Functor::template step<T>(Functor::template step<T>(Ops::load(sUp + x), Ops::load(mMid + x)), sv));
        }
    };

    template <Edge E, class T>
    static LYN_INLINE void vec(const access::EdgedRow<T> (&r)[3][3], T* const& o, const bool& stream, long x) {
        using In = EdgedLoad<T, E>;
        auto acc = In::centre(r[0][0], x);
        acc = Functor::template step<T>(acc, In::left(r[0][1], x));
        acc = Functor::template step<T>(acc, In::centre(r[0][1], x));
        acc = Functor::template step<T>(acc, In::right(r[0][1], x));
        acc = Functor::template step<T>(acc, In::centre(r[0][2], x));
        for (int dy = 0; dy < 3; ++dy) {
            acc = Functor::template step<T>(acc, In::left(r[1][dy], x));
            acc = Functor::template step<T>(acc, In::centre(r[1][dy], x));
            acc = Functor::template step<T>(acc, In::right(r[1][dy], x));
        }
        acc = Functor::template step<T>(acc, In::centre(r[2][0], x));
        acc = Functor::template step<T>(acc, In::left(r[2][1], x));
        acc = Functor::template step<T>(acc, In::centre(r[2][1], x));
        acc = Functor::template step<T>(acc, In::right(r[2][1], x));
        SimdVec::storeOut<T>(o + x, Functor::template step<T>(acc, In::centre(r[2][2], x)), stream);
    }
};

template <class Functor>
class Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_GenTag, std::vector<kernel::Offset3D>> {
public:
    explicit Neighborhood3dToValueSimd(std::vector<kernel::Offset3D> offsets) : m_offsets(std::move(offsets)) {}

    template <class Context>
    void run(const access::Block3d& block, Context& ctx) const {
        using Ops = SimdVec::Ops<typename Context::OutType>;
        access::IteratorNeighborhood3D_Gen<typename Context::InView, Ops::N> in(ctx.getInputView(), m_offsets);
        in.init(block);
        const access::OverlapBorder overlap =
            ctx.isInPlace() ? access::OverlapBorder(in.getBorderInfluence()) : access::OverlapBorder();
        details::walkBlock3d<Neighborhood3dToValueSimd>(block, ctx, in, overlap);
    }

    template <class Iterator, class T>
    static LYN_INLINE void fold(const Iterator& in, T* o, long cols) {
        using Ops = SimdVec::Ops<T>;
        const std::size_t n = in.size();
        const long last = SimdVec::lastVectorStart(cols, long(Ops::N));
        for (long x = 0;; x += long(Ops::N)) {
            if (x > last) x = last;
            auto acc = Ops::load(in.ptr(0) + x);
            for (std::size_t k = 1; k < n; ++k) acc = Functor::template step<T>(acc, Ops::load(in.ptr(k) + x));
            Ops::store(o + x, acc);
            if (x == last) break;
        }
    }

private:
    std::vector<kernel::Offset3D> m_offsets;
};

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
