// The square and cube kernels of one functor and one neighbourhood, for the eight voxel types.
// CMake compiles this file once per pair (LYN_FUNCTOR, LYN_NEIGHBOURHOOD): each pair is a heavy
// set of instances, and apart they compile in parallel.
#include "morphology/SquareCubeDispatch.impl.h"

#if !defined(LYN_FUNCTOR) || !defined(LYN_NEIGHBOURHOOD)
#error "LYN_FUNCTOR and LYN_NEIGHBOURHOOD must be defined"
#endif

namespace lyn {
namespace morphology {
namespace details {

using Kernel = SquareCubeKernel<LYN_FUNCTOR, Neighbourhood::LYN_NEIGHBOURHOOD>;
template void Kernel::run<unsigned char>(BaseAlgorithm*, algorithms::AbstractPrivateImplementation*,
                                              const ImageModel*, ImageModel*, unsigned long);
template void Kernel::run<unsigned short>(BaseAlgorithm*, algorithms::AbstractPrivateImplementation*,
                                              const ImageModel*, ImageModel*, unsigned long);
template void Kernel::run<unsigned int>(BaseAlgorithm*, algorithms::AbstractPrivateImplementation*,
                                              const ImageModel*, ImageModel*, unsigned long);
template void Kernel::run<signed char>(BaseAlgorithm*, algorithms::AbstractPrivateImplementation*,
                                              const ImageModel*, ImageModel*, unsigned long);
template void Kernel::run<short>(BaseAlgorithm*, algorithms::AbstractPrivateImplementation*,
                                              const ImageModel*, ImageModel*, unsigned long);
template void Kernel::run<int>(BaseAlgorithm*, algorithms::AbstractPrivateImplementation*,
                                              const ImageModel*, ImageModel*, unsigned long);
template void Kernel::run<float>(BaseAlgorithm*, algorithms::AbstractPrivateImplementation*,
                                              const ImageModel*, ImageModel*, unsigned long);
template void Kernel::run<double>(BaseAlgorithm*, algorithms::AbstractPrivateImplementation*,
                                              const ImageModel*, ImageModel*, unsigned long);

} // namespace details
} // namespace morphology
} // namespace lyn
