#pragma once
// The order-free 3x3 reduction over three rows read in place: the rows folded first, then the
// result's horizontal neighbours by lane shifts.
#include <type_traits>
#include "morphology/EdgedRows.h"
#include "morphology/OrderFree.h"
#include "simd/SimdVec.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

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

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
