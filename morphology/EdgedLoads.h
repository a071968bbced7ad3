#pragma once
// Building blocks of the kernels that read their input rows in place (access::EdgedRow):
// - EdgedLoad: the three horizontal neighbours of vector x. Interior vectors are unaligned loads at
//   x - 1, x and x + 1; the row's first vector gets its left neighbour, and the last one its right
//   neighbour, by shifting the edge voxel in.
// - walkEdgedRow: the first, interior and last vectors of a row, each with its Edge.
// - Across: the order-free 3x3 reduction of integer types (rows first, then lane shifts).
// - walkBlockDirect: every output row of a block from the rows around it.
#include <type_traits>

#include "Core/private/Access/DirectRows.h"
#include "Core/private/Access/Iterators.h"
#include "simd/SimdVec.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

enum class Edge { First, Interior, Last };

template <class T, Edge E>
struct EdgedLoad {
    using Ops = SimdVec::Ops<T>;
    using V = typename Ops::V;
    static LYN_INLINE V left(const access::EdgedRow<T>& r, long x) {
        if constexpr (E == Edge::First) return SimdVec::shiftInFirst<T>(Ops::load(r.p), r.left);
        else return Ops::load(r.p + x - 1);
    }
    static LYN_INLINE V centre(const access::EdgedRow<T>& r, long x) { return Ops::load(r.p + x); }
    static LYN_INLINE V right(const access::EdgedRow<T>& r, long x) {
        if constexpr (E == Edge::Last) return SimdVec::shiftInLast<T>(Ops::load(r.p + x), r.right);
        else return Ops::load(r.p + x + 1);
    }
};

// Walks a row of n >= N + 1 voxels: Kernel::template vec<Edge>(args..., x) for the first vector,
// the interior ones and the last one (at n - N, overlapping its neighbour when N does not divide n).
// The last vector goes first so that a kernel updating a scratch row in place reads it unchanged.
template <class Kernel, unsigned long N, class... Args>
LYN_INLINE void walkEdgedRow(long n, Args&... args) {
    constexpr long L = long(N);
    Kernel::template vec<Edge::Last>(args..., n - L);
    Kernel::template vec<Edge::First>(args..., 0L);
    for (long x = L; x + L < n; x += L) Kernel::template vec<Edge::Interior>(args..., x);
}

// Integer minimum and maximum do not depend on the fold order, so a 3x3 reduction over three rows
// can fold them first (V, aligned loads) and take V's horizontal neighbours by lane shifts, never
// by loads that straddle cache lines.
template <class Functor, class T>
struct Across {
    static_assert(std::is_integral_v<T>, "order-free folds are for integer types only");
    using Ops = SimdVec::Ops<T>;
    using V = typename Ops::V;
    using Row = access::EdgedRow<T>;

    static LYN_INLINE T scalarStep(T a, T b) {
        if constexpr (Functor::isDilation) return a < b ? b : a;
        else return b < a ? b : a;
    }
    static LYN_INLINE V broadcast(T v) {
        if constexpr (sizeof(T) == 1) return _mm256_set1_epi8(static_cast<char>(v));
        else if constexpr (sizeof(T) == 2) return _mm256_set1_epi16(static_cast<short>(v));
        else return _mm256_set1_epi32(static_cast<int>(v));
    }
    static LYN_INLINE V rows3(const Row& r0, const Row& r1, const Row& r2, long x) {
        return Functor::template step<T>(Functor::template step<T>(Ops::load(r0.p + x), Ops::load(r1.p + x)),
                                         Ops::load(r2.p + x));
    }
    // f(V[x-1], V[x], V[x+1]) from V at x (c) and the lane-crossing pairs [V(x-N).hi, c.lo] (pm) and
    // [c.hi, V(x+N).lo] (nm).
    static LYN_INLINE V across(V c, V pm, V nm) {
        constexpr int S = int(sizeof(T));
        const V l = _mm256_alignr_epi8(c, pm, 16 - S);
        const V r = _mm256_alignr_epi8(nm, c, S);
        return Functor::template step<T>(Functor::template step<T>(l, c), r);
    }
    // The 3x3 reduction of a whole row (n >= N + 1 voxels), handed vector by vector to
    // sink.template put<Edge>(v, x) (the Edge says where x lies, for sinks that read the rows too);
    // the last vector overlaps its neighbour when N does not divide n.
    template <class Sink>
    static LYN_INLINE void row(const Row& r0, const Row& r1, const Row& r2, long n, const Sink& sink) {
        constexpr long L = long(Ops::N);
        const T vl = scalarStep(scalarStep(r0.left, r1.left), r2.left);
        const T vr = scalarStep(scalarStep(r0.right, r1.right), r2.right);
        V c = rows3(r0, r1, r2, 0);
        V pm = _mm256_permute2x128_si256(broadcast(vl), c, 0x21);
        long x = 0;
        for (; x + 2 * L <= n; x += L) {
            const V next = rows3(r0, r1, r2, x + L);
            const V nm = _mm256_permute2x128_si256(c, next, 0x21);
            if (x == 0) sink.template put<Edge::First>(across(c, pm, nm), x);
            else sink.template put<Edge::Interior>(across(c, pm, nm), x);
            pm = nm;
            c = next;
        }
        if (x + L == n) {
            sink.template put<Edge::Last>(across(c, pm, _mm256_permute2x128_si256(c, broadcast(vr), 0x21)), x);
            return;
        }
        // The row ends inside the next vector: V[x + N] from unaligned loads, then the last vector.
        const V l = _mm256_alignr_epi8(c, pm, 16 - int(sizeof(T)));
        const V v = Functor::template step<T>(Functor::template step<T>(l, c), rows3(r0, r1, r2, x + 1));
        if (x == 0) sink.template put<Edge::First>(v, x);
        else sink.template put<Edge::Interior>(v, x);
        const long t = n - L;
        const V ct = rows3(r0, r1, r2, t);
        const V lt = rows3(r0, r1, r2, t - 1);
        sink.template put<Edge::Last>(Functor::template step<T>(Functor::template step<T>(lt, ct), SimdVec::shiftInLast<T>(ct, vr)), t);
    }
};

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

// Walks every row of the block (and every plan of a 3D block) with input rows read in place:
// Kernel::template vec<Edge>(rows, out, stream, x) computes vector x of an output row from the
// input rows around it, rows[plan - planOffset][row + 1] with Planes plans from planOffset = -(Planes / 2).
// Kernel::kStreamOutput says whether the kernel may write large outputs with streaming stores.
// False, having done nothing, when the input cannot be read in place.
template <class Kernel, int Planes, class Block, class Context>
bool walkBlockDirect(const Block& block, Context& ctx) {
    using T = typename Context::OutType;
    constexpr unsigned long N = SimdVec::Ops<T>::N;
    access::DirectRows<typename Context::InView> rows;
    if (!openDirectRows(block, ctx, rows)) return false;
    const long n = long(block.getNbCols()), m = long(block.getNbRows()), p = long(block.getNbPlans());
    if (m == 0 || p == 0) return true;
    auto out = directOutput(ctx);
    out.init(block);
    const bool stream = Kernel::kStreamOutput && ctx.streamOutput();
    access::EdgedRow<T> r[Planes][3];
    for (long z = 0; z < p; ++z) {
        for (long y = 0; y < m; ++y) {
            for (int dz = 0; dz < Planes; ++dz)
                for (int dy = 0; dy < 3; ++dy) r[dz][dy] = rows.row(z + dz - Planes / 2, y + dy - 1);
            T* o = out.rowData();
            walkEdgedRow<Kernel, N>(n, r, o, stream);
            out.nextRow();
        }
        if (ctx.isGroupCancelled()) return true;
    }
    return true;
}

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
