#pragma once
// The generic code's one fold of two values, shared by the pass and box implementations.

namespace lyn {
namespace generic {

// The accumulator comes first: on a tie or a NaN the second operand wins, as the vector
// instructions of the plug-in do.
template <bool Dilate, class T>
inline T f(T acc, T next) {
    if constexpr (Dilate) return acc > next ? acc : next;
    else return acc < next ? acc : next;
}

} // namespace generic
} // namespace lyn
