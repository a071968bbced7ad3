// The general-offset kernel folded as runs along x (OffsetRuns.h), one functor and one
// dimensionality per object as OffsetKernels.cpp.
#include "morphology/OffsetRuns.h"

#include "Core/private/Filters/RecursiveImageFilters.h"
#include "morphology/SquareCubeDispatch.impl.h"
#include "Core/private/TmplDispatch/Visitor1Args.h"

#if !defined(LYN_FUNCTOR) || !defined(LYN_DIMS)
#error "LYN_FUNCTOR and LYN_DIMS must be defined"
#endif

namespace lyn {
namespace morphology {
namespace details {

namespace {
template <class Functor, int Dims, class T, class Offset>
bool runRuns(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output, const std::vector<Offset>& offsets) {
    OffsetRuns runs = planRuns(offsets);
    if (!runs.pays(offsets.size())) return false;
    using Op = OffsetRunsSimd<Functor, Dims>;
    using Filter = std::conditional_t<Dims == 2, RecursiveImageFilter2d<T, T, SimdVec::arch_256_tag, Op>,
                                      RecursiveImageFilter3d<T, T, SimdVec::arch_256_tag, Op>>;
    runFilter<Filter>(algo, input, output, 1, Op(offsets, std::move(runs)), borderValue<Functor, T>());
    return true;
}
} // namespace

#if LYN_DIMS == 2
template <class Functor, class T>
bool runOffsetRuns2d(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output,
                     const std::vector<kernel::Offset2D>& offsets) {
    return runRuns<Functor, 2, T>(algo, input, output, offsets);
}
#define LYN_RUNS(T)                                                                                       \
    template bool runOffsetRuns2d<LYN_FUNCTOR, T>(BaseAlgorithm*, const ImageModel*, ImageModel*, \
                                                  const std::vector<kernel::Offset2D>&);
#else
template <class Functor, class T>
bool runOffsetRuns3d(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output,
                     const std::vector<kernel::Offset3D>& offsets) {
    return runRuns<Functor, 3, T>(algo, input, output, offsets);
}
#define LYN_RUNS(T)                                                                                       \
    template bool runOffsetRuns3d<LYN_FUNCTOR, T>(BaseAlgorithm*, const ImageModel*, ImageModel*, \
                                                  const std::vector<kernel::Offset3D>&);
#endif

LYN_FOR_EACH_VOXEL_TYPE(LYN_RUNS)

} // namespace details
} // namespace morphology
} // namespace lyn
