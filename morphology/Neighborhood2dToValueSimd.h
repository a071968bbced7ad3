#pragma once
// One pass of a 2D neighbourhood reduction: for every pixel of a block, the functor folded over
// the input at a fixed set of offsets, in a fixed order (the order decides NaN results).
#include <vector>

#include "Core/private/Access/Iterators.h"
#include "Core/private/Filters/RecursiveImageContext.h"
#include "morphology/BlockWalk.h"
#include "morphology/Functors.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

template <class Functor, class NeighborhoodTag, class Data>
class Neighborhood2dToValueSimd;

// Centre and its four edge neighbours, folded up, left, centre, right, down.
template <class Functor>
class Neighborhood2dToValueSimd<Functor, access::Neighborhood2D_4Tag, access::NoDataType> {
public:
    static constexpr bool kStreamOutput = true;

    template <class Context>
    void run(const access::Block2d& block, Context& ctx) const {
        walkBlock<Neighborhood2dToValueSimd, 1>(block, ctx);
    }

    // Vector x of an output row: up, then left, centre, right of the middle row, then down.
    template <Edge E, class T>
    static LYN_INLINE void vec(const access::EdgedRow<T> (&r)[1][3], T* const& o, const bool& stream, long x) {
        using In = EdgedLoad<T, E>;
        auto acc = In::centre(r[0][0], x);
        acc = Functor::template step<T>(acc, In::left(r[0][1], x));
        acc = Functor::template step<T>(acc, In::centre(r[0][1], x));
        acc = Functor::template step<T>(acc, In::right(r[0][1], x));
        SimdVec::storeOut<T>(o + x, Functor::template step<T>(acc, In::centre(r[0][2], x)), stream);
    }

};

// Any offset list, folded in list order; a one-offset list shifts the image.
template <class Functor>
class Neighborhood2dToValueSimd<Functor, access::Neighborhood2D_GenTag, std::vector<kernel::Offset2D>> {
public:
    explicit Neighborhood2dToValueSimd(std::vector<kernel::Offset2D> offsets) : m_offsets(std::move(offsets)) {}

    template <class Context>
    void run(const access::Block2d& block, Context& ctx) const {
        using T = typename Context::OutType;
        using Ops = SimdVec::Ops<T>;
        constexpr unsigned long N = Ops::N;
        access::IteratorNeighborhood2D_Gen<typename Context::InView, N> in(ctx.getInputView(), m_offsets);
        in.init(block);
        const access::OverlapBorder overlap =
            ctx.isInPlace() ? access::OverlapBorder(in.getBorderInfluence()) : access::OverlapBorder();
        access::IteratorPixelOutput<typename Context::OutView, N> out(ctx.getOutputView(), false, overlap, !ctx.isInPlace());
        out.init(block);
        const long cols = long(block.getNbCols());
        const std::size_t n = in.size();
        for (long y = 0; y < long(block.getNbRows()); ++y) {
            T* o = out.rowData();
            const long last = SimdVec::lastVectorStart(cols, long(N));
            for (long x = 0;; x += long(N)) {
                if (x > last) x = last;
                auto acc = Ops::load(in.ptr(0) + x);
                for (std::size_t k = 1; k < n; ++k) acc = Functor::template step<T>(acc, Ops::load(in.ptr(k) + x));
                Ops::store(o + x, acc);
                if (x == last) break;
            }
            out.nextRow();
            if (y + 1 < long(block.getNbRows())) in.nextRow();
        }
    }

private:
    std::vector<kernel::Offset2D> m_offsets;
};

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
