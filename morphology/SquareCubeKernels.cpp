// The square and cube kernels of one functor and one dimensionality (the 4- and 8-connected in
// 2D, the 6-, 18- and 26-connected in 3D), for the eight voxel types. CMake compiles this file
// once per pair (LYN_FUNCTOR, LYN_DIMS): four heavy objects that compile in parallel, each sharing
// the parse of the headers and the common instances among its kernels.
#include "morphology/SquareCubeDispatch.impl.h"

#if !defined(LYN_FUNCTOR) || !defined(LYN_DIMS)
#error "LYN_FUNCTOR and LYN_DIMS must be defined"
#endif

#define LYN_KERNEL_T(K, T)                                                                                   \
    template void SquareCubeKernel<LYN_FUNCTOR, Neighbourhood::K>::run<T>(                                   \
        BaseAlgorithm*, algorithms::AbstractPrivateImplementation*, const ImageModel*, ImageModel*, unsigned long);
#define LYN_KERNEL(K)                                                                                        \
    LYN_KERNEL_T(K, unsigned char)                                                                           \
    LYN_KERNEL_T(K, unsigned short)                                                                          \
    LYN_KERNEL_T(K, unsigned int)                                                                            \
    LYN_KERNEL_T(K, signed char)                                                                             \
    LYN_KERNEL_T(K, short)                                                                                   \
    LYN_KERNEL_T(K, int)                                                                                     \
    LYN_KERNEL_T(K, float)                                                                                   \
    LYN_KERNEL_T(K, double)

namespace lyn {
namespace morphology {
namespace details {

#if LYN_DIMS == 2
LYN_KERNEL(Cross4)
LYN_KERNEL(Square8)
#else
LYN_KERNEL(Six)
LYN_KERNEL(Eighteen)
LYN_KERNEL(TwentySix)
#endif

} // namespace details
} // namespace morphology
} // namespace lyn
