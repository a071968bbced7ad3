#pragma once
// The two reductions of grey-level morphology. Neither has a neutral value: kernels seed their
// accumulator with the first operand and fold the others in as step(accumulator, next).
#include "simd/SimdVec.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {
namespace details {

struct DilationFunctor {
    template <class T>
    static LYN_INLINE typename SimdVec::Ops<T>::V step(typename SimdVec::Ops<T>::V acc, typename SimdVec::Ops<T>::V next) {
        return SimdVec::Ops<T>::max(acc, next);
    }
    static constexpr bool isDilation = true;
};

struct ErosionFunctor {
    template <class T>
    static LYN_INLINE typename SimdVec::Ops<T>::V step(typename SimdVec::Ops<T>::V acc, typename SimdVec::Ops<T>::V next) {
        return SimdVec::Ops<T>::min(acc, next);
    }
    static constexpr bool isDilation = false;
};

} // namespace details
} // namespace morphology
} // namespace lyn
LYN_AVX2_END
