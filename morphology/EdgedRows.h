#pragma once
// Rows as kernels see them (access::EdgedRow: a pointer to block column 0 and the voxels beside the
// block) walked in whole vectors: EdgedLoad gives vector x's three horizontal neighbours (the first
// vector gets its left one, the last its right one, by shifting the edge voxel in), walkEdgedRow
// visits the first, interior and last vectors with their Edge (walkRow also rows no wider than a
// vector), and RowStore says how a row's vectors are stored.
#include <cstdint>
#include "Core/private/Access/DirectRows.h"
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

// Walks a row from `Rows` (access::DirectRows or PaddedRows): as walkEdgedRow, and for copied rows
// (kAnyWidth, readable from column -1 to N) also a row no wider than a vector, as one Interior
// vector at 0. Rows read in place are always wider (DirectRows::init), and their walk has no branch.
template <class Kernel, unsigned long N, class Rows, class... Args>
LYN_INLINE void walkRow(long n, Args&... args) {
    if constexpr (Rows::kAnyWidth) {
        if (n <= long(N)) return Kernel::template vec<Edge::Interior>(args..., 0L);
    }
    walkEdgedRow<Kernel, N>(n, args...);
}

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
