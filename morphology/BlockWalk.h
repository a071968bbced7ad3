#pragma once
// Walks over a block for kernels that read their input rows in place: every output row from the
// rows around it (walkBlockDirect), and plans order-free until a plan shows the order
// (walkPlansOrderFreeFirst).
#include "Core/private/Access/DirectRows.h"
#include "Core/private/Access/Iterators.h"
#include "morphology/EdgedRows.h"
#include "morphology/OrderFree.h"
#include "simd/SimdVec.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

// Walks the plans of a block for a kernel with two ways to compute a plan: plans.orderFree(z, watch)
// (false when the watch saw NaN or -0.0 in the next input plan) and plans.inOrder(z). Plans go
// order-free, the block's first watching all three input plans, until one is not: that plan is
// computed again in order, and so is the rest of the block, since voxels that show the order
// seldom come alone. Stops after a plan when the group is cancelled.
template <class T, class Plans, class Out, class Context>
void walkPlansOrderFreeFirst(long p, const Plans& plans, Out& out, Context& ctx) {
    bool orderFree = true;
    for (long z = 0; z < p; ++z) {
        if (orderFree) {
            if (z == 0) {
                typename OrderFree<T>::WatchAll all;
                orderFree = plans.orderFree(z, all);
            } else {
                typename OrderFree<T>::Watch next;
                orderFree = plans.orderFree(z, next);
            }
            if (!orderFree) {
                out.rewindToPlan(z);
                plans.inOrder(z);
            }
        } else {
            plans.inOrder(z);
        }
        if (ctx.isGroupCancelled()) return;
    }
}

// The input rows of a block, read in place; false when the pass writes the image it reads or the
// input cannot be read in place (see access::DirectRows::init; rows need N + 1 voxels).
template <class Block, class Context>
bool openDirectRows(const Block& block, const Context& ctx, access::DirectRows<typename Context::InView>& rows) {
    return !ctx.isInPlace() && rows.init(*ctx.getInputView(), block, SimdVec::Ops<typename Context::OutType>::N + 1);
}

// The output rows of a pass that reads its input in place: it defers nothing, so rows of an output
// held in memory are computed where they belong. init(block) before use.
template <class Context>
using DirectOutput = access::IteratorPixelOutput<typename Context::OutView, SimdVec::Ops<typename Context::OutType>::N>;
template <class Context>
DirectOutput<Context> directOutput(Context& ctx) {
    return DirectOutput<Context>(ctx.getOutputView(), false, access::OverlapBorder(), true);
}

// One output plan of walkBlockDirect: its m rows of n voxels, written through `out`.
template <class Kernel, int Planes, class Rows, class Out>
LYN_INLINE void walkPlanDirect(const Rows& rows, long z, long n, long m, Out& out, bool stream) {
    using T = typename Rows::T;
    constexpr unsigned long N = SimdVec::Ops<T>::N;
    access::EdgedRow<T> r[Planes][3];
    for (long y = 0; y < m; ++y) {
        for (int dz = 0; dz < Planes; ++dz)
            for (int dy = 0; dy < 3; ++dy) r[dz][dy] = rows.row(z + dz - Planes / 2, y + dy - 1);
        T* o = out.rowData();
        walkEdgedRow<Kernel, N>(n, r, o, stream);
        out.nextRow();
    }
}

// Walks every row of the block (and every plan of a 3D block) with input rows read in place:
// Kernel::template vec<Edge>(rows, out, stream, x) computes vector x of an output row from the
// input rows around it, rows[plan - planOffset][row + 1] with Planes plans from planOffset = -(Planes / 2).
// Kernel::kStreamOutput says whether the kernel may write large outputs with streaming stores.
// False, having done nothing, when the input cannot be read in place.
template <class Kernel, int Planes, class Block, class Context>
bool walkBlockDirect(const Block& block, Context& ctx) {
    access::DirectRows<typename Context::InView> rows;
    if (!openDirectRows(block, ctx, rows)) return false;
    const long n = long(block.getNbCols()), m = long(block.getNbRows()), p = long(block.getNbPlans());
    if (m == 0 || p == 0) return true;
    auto out = directOutput(ctx);
    out.init(block);
    const bool stream = Kernel::kStreamOutput && ctx.streamOutput();
    for (long z = 0; z < p; ++z) {
        walkPlanDirect<Kernel, Planes>(rows, z, n, m, out, stream);
        if (ctx.isGroupCancelled()) return true;
    }
    return true;
}

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
