#pragma once
// Walks over a block for the square and cube kernels: the input rows (read in place or copied, the
// same EdgedRows either way), the output rows, every output row from the rows around it
// (walkBlock), and plans order-free until a plan shows the order (walkPlans).
#include <type_traits>

#include "Core/private/Access/DirectRows.h"
#include "Core/private/Access/Iterators.h"
#include "morphology/EdgedRows.h"
#include "morphology/OrderFree.h"
#include "simd/SimdVec.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

// Walks the plans of a block for a kernel with two ways to compute a plan: orderFree(z, watch)
// (false when the watch saw NaN or -0.0 in the next input plan) and inOrder(z). With `mayOrderFree`
// (see mayGoOrderFree), plans go order-free, the block's first watching all three input plans,
// until one is not: that plan is computed again in order, and so is the rest of the block, since
// voxels that show the order seldom come alone. Stops after a plan when the group is cancelled.
template <class T, class FreeFn, class InOrderFn, class Out, class Context>
void walkPlans(long p, bool mayOrderFree, const FreeFn& orderFree, const InOrderFn& inOrder, Out& out, Context& ctx) {
    bool clean = mayOrderFree;
    for (long z = 0; z < p; ++z) {
        if (clean) {
            if (z == 0) {
                typename OrderFree<T>::WatchAll all;
                clean = orderFree(z, all);
            } else {
                typename OrderFree<T>::Watch next;
                clean = orderFree(z, next);
            }
            if (!clean) {
                out.rewindToPlan(z);
                inOrder(z);
            }
        } else {
            inOrder(z);
        }
        if (ctx.isGroupCancelled()) return;
    }
}

// The output rows of a block. A pass that does not write the image it reads defers nothing, so
// rows of an output held in memory are computed where they belong; an in-place pass computes rows
// aside and defers the voxels that neighbouring blocks still read (one voxel deep, one plan deep
// in 3D). init(block) before use.
template <class Context>
using BlockOutput = access::IteratorPixelOutput<typename Context::OutView, SimdVec::Ops<typename Context::OutType>::N>;
template <class Context>
BlockOutput<Context> blockOutput(Context& ctx, int planes) {
    if (!ctx.isInPlace()) return BlockOutput<Context>(ctx.getOutputView(), false, access::OverlapBorder(), true);
    return BlockOutput<Context>(ctx.getOutputView(), false,
                                access::OverlapBorder(AlgoBorderInfluence(1, 1, planes > 1 ? 1 : 0, 0, 0)), false);
}

// Calls f(rows, out, stream) for a block that has voxels. rows: its input rows, read in place
// (access::DirectRows) when the pass does not write the image it reads and the input can be read
// so (rows need N + 1 voxels), else copied through the calling thread's caches
// (access::PaddedRows). out: its output rows (blockOutput). stream: whether
// to write them with streaming stores: large outputs in memory of a pass that does not read them
// again, for kernels that ask for it (rows computed aside and then written would be read back from
// memory).
template <int Planes, class Block, class Context, class F>
LYN_INLINE void withBlock(const Block& block, Context& ctx, bool kernelStreams, F&& f) {
    if (block.getNbCols() == 0 || block.getNbRows() == 0 || block.getNbPlans() == 0) return;
    using View = typename Context::InView;
    auto out = blockOutput(ctx, Planes);
    out.init(block);
    MemoryLayout layout;
    const bool stream = kernelStreams && !ctx.isInPlace() && ctx.streamOutput() && ctx.getOutputView()->writableLayout(layout);
    access::DirectRows<View> direct;
    if (!ctx.isInPlace() && direct.init(*ctx.getInputView(), block, SimdVec::Ops<typename Context::OutType>::N + 1))
        return f(direct, out, stream);
    access::PaddedRows<View, Planes> padded;
    if constexpr (Planes == 1) {
        auto& cache = ctx.inputRowCache();
        if (!cache) ctx.createInputRowCache(3);
        padded.init(*cache, block);
    } else {
        auto& cache = ctx.inputPlanCache();
        if (!cache) ctx.createInputPlanCache(Planes);
        padded.init(*cache, block);
    }
    f(padded, out, stream);
}

// Whether plans may go the order-free way (walkPlans): rows wide enough for the
// lane-shift reductions, and, for floats, a pass that may compute a plan twice (an in-place pass
// has deferred some of its rows by then).
template <class T, class Context>
bool mayGoOrderFree(const Context& ctx, long n) {
    return n > long(SimdVec::Ops<T>::N) && (std::is_integral_v<T> || !ctx.isInPlace());
}

// Asks the cache, at output row y of plan z, for the input row that the walk will first read a few
// rows later (in the plan after, for a cube): on images larger than the cache the walk then finds
// it there instead of waiting for memory (docs/performance.md, "Prefetching the rows ahead").
// About 8 KiB ahead, at least a row and at most eight.
template <int Planes, class Rows>
LYN_INLINE void prefetchAhead(const Rows& rows, long z, long y, long n) {
    const long rowBytes = n * long(sizeof(typename Rows::T));
    const long ahead = rowBytes >= 8192 ? 1 : rowBytes <= 1024 ? 8 : 8192 / rowBytes;
    rows.prefetch(Planes > 1 ? z + Planes / 2 : 0, y + 1 + ahead);
}

// One output plan of walkBlock: its m rows of n voxels, written through `out`.
template <class Kernel, int Planes, class Rows, class Out>
LYN_INLINE void walkPlan(const Rows& rows, long z, long n, long m, Out& out, bool stream) {
    using T = typename Rows::T;
    constexpr unsigned long N = SimdVec::Ops<T>::N;
    access::EdgedRow<T> r[Planes][3];
    for (long y = 0; y < m; ++y) {
        prefetchAhead<Planes>(rows, z, y, n);
        for (int dz = 0; dz < Planes; ++dz)
            for (int dy = 0; dy < 3; ++dy) r[dz][dy] = rows.row(z + dz - Planes / 2, y + dy - 1);
        T* o = out.rowData();
        walkRow<Kernel, N, Rows>(n, r, o, stream);
        out.nextRow();
    }
}

// Walks every row of the block (and every plan of a 3D block): Kernel::template vec<Edge>(rows,
// out, stream, x) computes vector x of an output row from the input rows around it,
// rows[plan - planOffset][row + 1] with Planes plans from planOffset = -(Planes / 2).
// Kernel::kStreamOutput says whether the kernel may write large outputs with streaming stores.
template <class Kernel, int Planes, class Block, class Context>
void walkBlock(const Block& block, Context& ctx) {
    const long n = long(block.getNbCols()), m = long(block.getNbRows()), p = long(block.getNbPlans());
    withBlock<Planes>(block, ctx, Kernel::kStreamOutput, [&](const auto& rows, auto& out, bool stream) LYN_LAMBDA_INLINE {
        for (long z = 0; z < p; ++z) {
            walkPlan<Kernel, Planes>(rows, z, n, m, out, stream);
            if (ctx.isGroupCancelled()) return;
        }
    });
}

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
