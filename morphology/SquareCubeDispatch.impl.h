#pragma once
// Square and cube dilation/erosion: the border value that never wins, the kernel of each
// neighbourhood, and a recursive filter running it for the pass count.
#include <memory>

#include "Core/private/Filters/RecursiveImageFilters.h"
#include "host/Neighbourhood.h"
#include "host/VoxelTypes.h"
#include "morphology/Neighborhood26PlansReductionSimd.h"
#include "morphology/Neighborhood2dToValueSimd.h"
#include "morphology/Neighborhood3dToValueSimd.h"
#include "morphology/Neighborhood8ColumnsReductionSimd.h"
#include "morphology/SquareCubeDispatchers.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {
namespace details {

// Out-of-image voxels: the type's lowest value for dilation, highest for erosion (finite for floats).
template <class Functor, class T>
T borderValue() {
    using Traits = VoxelTraits<voxelTypeOf<T>()>;
    return Functor::isDilation ? Traits::lowest() : Traits::highest();
}

// Runs the filter for the algorithm, or, given a parent, as the parent's current step (the filter
// then has no algorithm of its own and reports through the parent).
template <class Filter, class Op, class T>
void runFilter(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output, unsigned long iterations, Op op,
               T border, algorithms::AbstractPrivateImplementation* parent = nullptr) {
    Filter filter(parent ? nullptr : algo, std::move(op));
    filter.setInput(input, access::FixedBorderCondition<T>::New(border));
    filter.setOutput(output, access::FixedBorderCondition<T>::New(border));
    filter.setIterations(iterations);
    if (parent) parent->runChildAlgo(&filter);
    else filter.run();
}

template <class Reduction>
Reduction makeReduction() {
    using Scratch = typename Reduction::Scratch;
    return Reduction(std::make_shared<Scratch>(), std::make_shared<Scratch>());
}

template <class Functor, Neighbourhood K>
template <class T>
void SquareCubeKernel<Functor, K>::run(BaseAlgorithm* algo, algorithms::AbstractPrivateImplementation* parent,
                                       const ImageModel* in, ImageModel* out, unsigned long passes) {
    using Arch = SimdVec::arch_256_tag;
    const T border = borderValue<Functor, T>();
    if constexpr (K == Neighbourhood::Cross4) {
        using Op = Neighborhood2dToValueSimd<Functor, access::Neighborhood2D_4Tag, access::NoDataType>;
        runFilter<RecursiveImageFilter2d<T, T, Arch, Op>>(algo, in, out, passes, Op(), border, parent);
    } else if constexpr (K == Neighbourhood::Square8) {
        using Op = Neighborhood8ColumnsReductionSimd<Functor, T, Arch>;
        runFilter<RecursiveImageFilter2d<T, T, Arch, Op>>(algo, in, out, passes, makeReduction<Op>(), border, parent);
    } else if constexpr (K == Neighbourhood::Six) {
        using Op = Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_6Tag, access::NoDataType>;
        runFilter<RecursiveImageFilter3d<T, T, Arch, Op>>(algo, in, out, passes, Op(), border, parent);
    } else if constexpr (K == Neighbourhood::Eighteen) {
        using Op = Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_18Tag, access::NoDataType>;
        runFilter<RecursiveImageFilter3d<T, T, Arch, Op>>(algo, in, out, passes, Op(), border, parent);
    } else {
        static_assert(K == Neighbourhood::TwentySix, "no square or cube kernel for this neighbourhood");
        using Op = Neighborhood26PlansReductionSimd<Functor, T, Arch>;
        runFilter<RecursiveImageFilter3d<T, T, Arch, Op>>(algo, in, out, passes, makeReduction<Op>(), border, parent);
    }
}

} // namespace details
} // namespace morphology
} // namespace lyn
