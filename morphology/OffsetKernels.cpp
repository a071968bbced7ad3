// One pass of the general-offset kernel for one functor and one dimensionality, over the eight
// voxel types. CMake compiles this file once per pair (LYN_FUNCTOR, LYN_DIMS), so the disk, line
// and oriented-disk dispatchers share one instance of each kernel and the four compile in parallel.
// Lists whose runs along x are long enough go through the run kernel (OffsetRuns.cpp), which
// keeps this kernel's results, floats' NaN and signed zeros included.
#include "morphology/SquareCubeDispatch.impl.h"
#include "Core/private/TmplDispatch/Visitor1Args.h"

#if !defined(LYN_FUNCTOR) || !defined(LYN_DIMS)
#error "LYN_FUNCTOR and LYN_DIMS must be defined"
#endif

namespace lyn {
namespace morphology {
namespace details {

#if LYN_DIMS == 2
template <class Functor, class T>
void runOffsets2d(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output,
                  std::vector<kernel::Offset2D> offsets) {
    if (runOffsetRuns2d<Functor, T>(algo, input, output, offsets)) return;
    using Op = Neighborhood2dToValueSimd<Functor, access::Neighborhood2D_GenTag, std::vector<kernel::Offset2D>>;
    runFilter<RecursiveImageFilter2d<T, T, SimdVec::arch_256_tag, Op>>(algo, input, output, 1, Op(std::move(offsets)),
                                                                       borderValue<Functor, T>());
}
#define LYN_OFFSETS(T) \
    template void runOffsets2d<LYN_FUNCTOR, T>(BaseAlgorithm*, const ImageModel*, ImageModel*, std::vector<kernel::Offset2D>);
#else
template <class Functor, class T>
void runOffsets3d(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output,
                  std::vector<kernel::Offset3D> offsets) {
    if (runOffsetRuns3d<Functor, T>(algo, input, output, offsets)) return;
    using Op = Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_GenTag, std::vector<kernel::Offset3D>>;
    runFilter<RecursiveImageFilter3d<T, T, SimdVec::arch_256_tag, Op>>(algo, input, output, 1, Op(std::move(offsets)),
                                                                       borderValue<Functor, T>());
}
#define LYN_OFFSETS(T) \
    template void runOffsets3d<LYN_FUNCTOR, T>(BaseAlgorithm*, const ImageModel*, ImageModel*, std::vector<kernel::Offset3D>);
#endif

LYN_FOR_EACH_VOXEL_TYPE(LYN_OFFSETS)

} // namespace details
} // namespace morphology
} // namespace lyn
