// The square and cube kernels of one functor and one dimensionality (the 4- and 8-connected in
// 2D, the 6-, 18- and 26-connected in 3D), for the eight voxel types. CMake compiles this file
// once per pair (LYN_FUNCTOR, LYN_DIMS): four heavy objects that compile in parallel, each sharing
// the parse of the headers and the common instances among its kernels.
#include "Core/private/TmplDispatch/Visitor1Args.h"
#include "morphology/SquareCubeDispatch.impl.h"

#if !defined(LYN_FUNCTOR) || !defined(LYN_DIMS)
#error "LYN_FUNCTOR and LYN_DIMS must be defined"
#endif

// One instance per type of the kernel of neighbourhood LYN_K, which each use below defines.
#define LYN_KERNEL_T(T)                                                                                      \
    template void SquareCubeKernel<LYN_FUNCTOR, Neighbourhood::LYN_K>::run<T>(                               \
        BaseAlgorithm*, algorithms::AbstractPrivateImplementation*, const ImageModel*, ImageModel*, unsigned long);
#define LYN_KERNEL LYN_FOR_EACH_VOXEL_TYPE(LYN_KERNEL_T)

namespace lyn {
namespace morphology {
namespace details {

#if LYN_DIMS == 2
#define LYN_K Cross4
LYN_KERNEL
#undef LYN_K
#define LYN_K Square8
LYN_KERNEL
#undef LYN_K
#else
#define LYN_K Six
LYN_KERNEL
#undef LYN_K
#define LYN_K Eighteen
LYN_KERNEL
#undef LYN_K
#define LYN_K TwentySix
LYN_KERNEL
#undef LYN_K
#endif

} // namespace details
} // namespace morphology
} // namespace lyn
