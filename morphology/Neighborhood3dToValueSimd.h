#pragma once
// One pass of a 3D neighbourhood reduction over a block: the 6- and 18-neighbourhoods with their
// fixed fold orders, and any offset list folded in list order.
#include <vector>

#include "Core/private/Access/Iterators.h"
#include "Core/private/Filters/RecursiveImageContext.h"
#include "morphology/Functors.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

namespace details {
// Folds the iterator's operands in order over every row and plan of the block.
template <class Functor, class Iterator, class Context>
void foldBlock3d(const access::Block3d& block, Context& ctx, Iterator& in, const access::OverlapBorder& overlap,
                 std::size_t operands) {
    using T = typename Context::OutType;
    using Ops = SimdVec::Ops<T>;
    constexpr long L = long(Ops::N);
    access::IteratorPixelOutput<typename Context::OutView, Ops::N> out(ctx.getOutputView(), false, overlap);
    out.init(block);
    const long cols = long(block.getNbCols()), rows = long(block.getNbRows()), plans = long(block.getNbPlans());
    if (rows == 0 || cols == 0) return;
    for (long z = 0; z < plans; ++z) {
        for (long y = 0; y < rows; ++y) {
            T* o = out.rowData();
            for (long x = 0; x < cols; x += L) {
                auto acc = Ops::load(in.ptr(0) + x);
                for (std::size_t k = 1; k < operands; ++k) acc = Functor::template step<T>(acc, Ops::load(in.ptr(k) + x));
                Ops::store(o + x, acc);
            }
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
    template <class Context>
    void run(const access::Block3d& block, Context& ctx) const {
        using Ops = SimdVec::Ops<typename Context::OutType>;
        access::IteratorNeighborhood3D_6<typename Context::InView, Ops::N> in(ctx.getInputView(), access::NoDataType{});
        in.init(block);
        const access::OverlapBorder overlap =
            ctx.isInPlace() ? access::OverlapBorder(AlgoBorderInfluence(1, 1, 1, 0, 0)) : access::OverlapBorder();
        details::foldBlock3d<Functor>(block, ctx, in, overlap, 7);
    }
};

// Plus shapes in the plans before and after, the full 3x3 square in the current plan.
template <class Functor>
class Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_18Tag, access::NoDataType> {
public:
    template <class Context>
    void run(const access::Block3d& block, Context& ctx) const {
        using Ops = SimdVec::Ops<typename Context::OutType>;
        access::IteratorNeighborhood3D_18<typename Context::InView, Ops::N> in(ctx.getInputView(), access::NoDataType{});
        in.init(block);
        const access::OverlapBorder overlap =
            ctx.isInPlace() ? access::OverlapBorder(AlgoBorderInfluence(1, 1, 1, 0, 0)) : access::OverlapBorder();
        details::foldBlock3d<Functor>(block, ctx, in, overlap, 19);
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
        details::foldBlock3d<Functor>(block, ctx, in, overlap, in.size());
    }

private:
    std::vector<kernel::Offset3D> m_offsets;
};

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
