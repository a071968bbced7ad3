#pragma once
// Building blocks of the kernels that read their input rows in place (access::EdgedRow):
// - EdgedLoad: the three horizontal neighbours of vector x. Interior vectors are unaligned loads at
//   x - 1, x and x + 1; the row's first vector gets its left neighbour, and the last one its right
//   neighbour, by shifting the edge voxel in.
// - walkEdgedRow: the first, interior and last vectors of a row, each with its Edge.
// - Across: the order-free 3x3 reduction of integer types (rows first, then lane shifts).
// - walkBlockDirect: every output row of a block from the rows around it.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
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

// How a kernel stores the vectors of an output row: not at all (a row that only primes scratch
// rows), with ordinary stores, or streaming (the row starts vector-aligned, so only its overlapping
// last vector may not be). Chosen once per row so the column loop tests nothing.
enum class RowStore { None, Plain, Stream };

inline RowStore rowStoreFor(bool stream, const void* o) {
    return stream && (reinterpret_cast<std::uintptr_t>(o) & 31) == 0 ? RowStore::Stream : RowStore::Plain;
}

template <RowStore S, Edge E, class T>
LYN_INLINE void storeRowVector(T* p, typename SimdVec::Ops<T>::V v) {
    if constexpr (S == RowStore::Stream && E != Edge::Last)
        _mm256_stream_si256(reinterpret_cast<__m256i*>(p), SimdVec::Ops<T>::bits(v));
    else if constexpr (S == RowStore::Stream)
        SimdVec::storeOut<T>(p, v, true);
    else if constexpr (S == RowStore::Plain)
        SimdVec::Ops<T>::store(p, v);
}

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

// Float minimum and maximum depend on the fold order only through NaN (a NaN accumulator is
// replaced by the next operand, a NaN operand replaces the accumulator) and through ties of +0.0
// and -0.0 (the later operand wins). Over voxels holding neither NaN nor -0.0, equal values have
// equal bits, so any order gives the fold order's result: the order-free kernels may serve.
// Integer folds are always order-free.
template <class T>
struct OrderFree {
    using Ops = SimdVec::Ops<T>;

    // Sees voxels go by (as a kernel loads them) and tells whether all were order-free. It may
    // answer no for order-free voxels (infinities of both signs), which only costs speed. A kernel
    // folding three rows shows it the third row's voxels, or all three rows' with AllRows.
    template <bool AllRows>
    class Watcher {
    public:
        static constexpr bool kAllRows = AllRows;
        // Written out: an implicit constructor would be compiled without AVX2.
        LYN_INLINE Watcher() : m_a(Ops::fromBits(_mm256_setzero_si256())), m_b(_mm256_setzero_si256()) {}
        LYN_INLINE void vec(typename Ops::V v) {
            if constexpr (std::is_same_v<T, float>) {
                // Two steps per vector: a sum turns NaN if a NaN goes by (or +inf and -inf do), and
                // -0.0 is the only float whose bits are the least 32-bit integer.
                m_a = _mm256_add_ps(m_a, v);
                m_b = _mm256_min_epi32(m_b, Ops::bits(v));
            } else if constexpr (std::is_same_v<T, double>) {
                // A lane equal to zero or unordered keeps its bits: zero for +0.0, not for -0.0 and NaN.
                m_b = _mm256_or_si256(m_b, _mm256_and_si256(Ops::bits(v), Ops::bits(_mm256_cmp_pd(v, _mm256_setzero_pd(), _CMP_EQ_UQ))));
            }
        }
        LYN_INLINE void edges(T left, T right) {
            if constexpr (!std::is_integral_v<T>) m_badEdge |= special(left) || special(right);
        }
        LYN_INLINE bool clean() const {
            if constexpr (std::is_integral_v<T>) {
                return true;
            } else if constexpr (std::is_same_v<T, float>) {
                const __m256i nan = _mm256_castps_si256(_mm256_cmp_ps(m_a, m_a, _CMP_UNORD_Q));
                const __m256i negativeZero = _mm256_cmpeq_epi32(m_b, _mm256_set1_epi32(std::numeric_limits<std::int32_t>::min()));
                const __m256i bad = _mm256_or_si256(nan, negativeZero);
                return !m_badEdge && _mm256_testz_si256(bad, bad);
            } else {
                return !m_badEdge && _mm256_testz_si256(m_b, m_b);
            }
        }

    private:
        static LYN_INLINE bool special(T v) { return v != v || (v == T(0) && std::signbit(v)); }
        typename Ops::V m_a;
        __m256i m_b;
        bool m_badEdge = false;
    };

    using Watch = Watcher<false>;
    using WatchAll = Watcher<true>;
};

// Integer minimum and maximum do not depend on the fold order (nor do float ones over data free of
// NaN and -0.0, see OrderFree), so a 3x3 reduction over three rows can fold them first (V, aligned
// loads) and take V's horizontal neighbours by lane shifts, never by loads that straddle cache lines.
template <class Functor, class T>
struct Across {
    using Ops = SimdVec::Ops<T>;
    using V = typename Ops::V;
    using Row = access::EdgedRow<T>;

    static LYN_INLINE T scalarStep(T a, T b) {
        if constexpr (Functor::isDilation) return a < b ? b : a;
        else return b < a ? b : a;
    }
    static LYN_INLINE V broadcast(T v) {
        if constexpr (sizeof(T) == 1) return Ops::fromBits(_mm256_set1_epi8(static_cast<char>(v)));
        else if constexpr (sizeof(T) == 2) return Ops::fromBits(_mm256_set1_epi16(static_cast<short>(v)));
        else if constexpr (std::is_same_v<T, float>) return _mm256_set1_ps(v);
        else if constexpr (std::is_same_v<T, double>) return _mm256_set1_pd(v);
        else if constexpr (sizeof(T) == 4) return _mm256_set1_epi32(static_cast<int>(v));
        else return _mm256_set1_epi64x(static_cast<long long>(v));
    }
    // [a.hi, b.lo]
    static LYN_INLINE V midPair(V a, V b) {
        return Ops::fromBits(_mm256_permute2x128_si256(Ops::bits(a), Ops::bits(b), 0x21));
    }
    template <int Bytes>
    static LYN_INLINE V alignr(V hi, V lo) {
        return Ops::fromBits(_mm256_alignr_epi8(Ops::bits(hi), Ops::bits(lo), Bytes));
    }
    template <class Watch>
    static LYN_INLINE V rows3(const Row& r0, const Row& r1, const Row& r2, long x, Watch& watch, V& v1) {
        const V v0 = Ops::load(r0.p + x), v2 = Ops::load(r2.p + x);
        v1 = Ops::load(r1.p + x);
        if constexpr (std::decay_t<Watch>::kAllRows) {
            watch.vec(v0);
            watch.vec(v1);
        }
        watch.vec(v2);
        return Functor::template step<T>(Functor::template step<T>(v0, v1), v2);
    }
    // f(V[x-1], V[x], V[x+1]) from V at x (c) and the lane-crossing pairs [V(x-N).hi, c.lo] (pm) and
    // [c.hi, V(x+N).lo] (nm).
    static LYN_INLINE V across(V c, V pm, V nm) {
        return Functor::template step<T>(Functor::template step<T>(alignr<16 - int(sizeof(T))>(c, pm), c), alignr<int(sizeof(T))>(nm, c));
    }
    // f(V[x-1], V[x+1]): the two sides alone, for sinks that have V[x] folded in already.
    static LYN_INLINE V sides(V c, V pm, V nm) {
        return Functor::template step<T>(alignr<16 - int(sizeof(T))>(c, pm), alignr<int(sizeof(T))>(nm, c));
    }
    // The 3x3 reduction of a whole row (n >= N + 1 voxels), handed vector by vector to
    // sink.template put<Edge>(v, centres, sides, x): centres is the three rows' fold at x, and
    // sides, for sinks with kMiddleRow, r1's fold of columns x-1 and x+1 (the Edge says where
    // x lies, for sinks that read the rows too). The last vector overlaps its neighbour when N does
    // not divide n. `watch` sees every voxel of r2 (columns -1 to n; of all three rows if it asks),
    // so that a kernel walking plans learns whether the next one is order-free.
    template <class Sink, class Watch = typename OrderFree<T>::Watch>
    static LYN_INLINE void row(const Row& r0, const Row& r1, const Row& r2, long n, const Sink& sink, Watch&& watch = Watch()) {
        // A local copy stays in a register; the caller's may have to live in memory, since stores
        // through the kernels' pointers could alias it.
        std::decay_t<Watch> local = watch;
        walk(r0, r1, r2, n, sink, local);
        watch = local;
    }

private:
    template <class Sink, class Watch>
    static LYN_INLINE void walk(const Row& r0, const Row& r1, const Row& r2, long n, const Sink& sink, Watch& watch) {
        constexpr long L = long(Ops::N);
        constexpr bool kMiddle = Sink::kMiddleRow;
        if constexpr (std::decay_t<Watch>::kAllRows) {
            watch.edges(r0.left, r0.right);
            watch.edges(r1.left, r1.right);
        }
        watch.edges(r2.left, r2.right);
        const T vl = scalarStep(scalarStep(r0.left, r1.left), r2.left);
        const T vr = scalarStep(scalarStep(r0.right, r1.right), r2.right);
        V m;  // r1 at x: the middle row's own sides come by the same lane shifts
        V c = rows3(r0, r1, r2, 0, watch, m);
        V pm = midPair(broadcast(vl), c);
        V pmm{};
        if constexpr (kMiddle) pmm = midPair(broadcast(r1.left), m);
        long x = 0;
        for (; x + 2 * L <= n; x += L) {
            V nextM;
            const V next = rows3(r0, r1, r2, x + L, watch, nextM);
            const V nm = midPair(c, next);
            V middle{}, nmm{};
            if constexpr (kMiddle) {
                nmm = midPair(m, nextM);
                middle = sides(m, pmm, nmm);
            }
            if (x == 0) sink.template put<Edge::First>(across(c, pm, nm), c, middle, x);
            else sink.template put<Edge::Interior>(across(c, pm, nm), c, middle, x);
            pm = nm;
            c = next;
            if constexpr (kMiddle) {
                pmm = nmm;
                m = nextM;
            }
        }
        if (x + L == n) {
            V middle{};
            if constexpr (kMiddle) middle = sides(m, pmm, midPair(m, broadcast(r1.right)));
            sink.template put<Edge::Last>(across(c, pm, midPair(c, broadcast(vr))), c, middle, x);
            return;
        }
        // The row ends inside the next vector: V[x + N] from unaligned loads, then the last vector.
        constexpr int S = int(sizeof(T));
        V unused;
        const V l = alignr<16 - S>(c, pm);
        const V v = Functor::template step<T>(Functor::template step<T>(l, c), rows3(r0, r1, r2, x + 1, watch, unused));
        V middle{};
        if constexpr (kMiddle) middle = Functor::template step<T>(alignr<16 - S>(m, pmm), Ops::load(r1.p + x + 1));
        if (x == 0) sink.template put<Edge::First>(v, c, middle, x);
        else sink.template put<Edge::Interior>(v, c, middle, x);
        const long t = n - L;
        V mt;
        const V ct = rows3(r0, r1, r2, t, watch, mt);
        const V lt = rows3(r0, r1, r2, t - 1, watch, unused);
        if constexpr (kMiddle) middle = Functor::template step<T>(Ops::load(r1.p + t - 1), SimdVec::shiftInLast<T>(mt, r1.right));
        sink.template put<Edge::Last>(Functor::template step<T>(Functor::template step<T>(lt, ct), SimdVec::shiftInLast<T>(ct, vr)), ct,
                                      middle, t);
    }
};

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
