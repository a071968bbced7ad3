#pragma once
// Square and cube dilation/erosion: the border value that never wins, the kernel for the
// neighbourhood value, and a recursive filter running it for the pass count.
#include <memory>

#include "Core/private/Filters/RecursiveImageFilters.h"
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

template <class Functor, class T, class Reduction>
Reduction makeReduction() {
    using Scratch = typename Reduction::Scratch;
    return Reduction(std::make_shared<Scratch>(), std::make_shared<Scratch>());
}

template <class Functor, int Dims>
struct SquareCubeDispatch {
    template <class T>
    static void run(SquareMorphology* algo) {
        run<T>(algo, nullptr, algo->neighborhood.get(), algo->inputImage.get(), algo->outputImage.get(),
               algo->kernelRadius.get());
    }

    template <class T>
    static void run(BaseAlgorithm* algo, algorithms::AbstractPrivateImplementation* parent, int n,
                    const ImageModel* in, ImageModel* out, unsigned long passes) {
        using Arch = SimdVec::arch_256_tag;
        const T border = borderValue<Functor, T>();
        if constexpr (Dims == 2) {
            if (n == 0) {
                using Op = Neighborhood2dToValueSimd<Functor, access::Neighborhood2D_4Tag, access::NoDataType>;
                runFilter<RecursiveImageFilter2d<T, T, Arch, Op>>(algo, in, out, passes, Op(), border, parent);
            } else {
                using Op = Neighborhood8ColumnsReductionSimd<Functor, T, Arch>;
                runFilter<RecursiveImageFilter2d<T, T, Arch, Op>>(algo, in, out, passes, makeReduction<Functor, T, Op>(),
                                                                   border, parent);
            }
        } else {
            if (n == 0) {
                using Op = Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_6Tag, access::NoDataType>;
                runFilter<RecursiveImageFilter3d<T, T, Arch, Op>>(algo, in, out, passes, Op(), border, parent);
            } else if (n == 1) {
                using Op = Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_18Tag, access::NoDataType>;
                runFilter<RecursiveImageFilter3d<T, T, Arch, Op>>(algo, in, out, passes, Op(), border, parent);
            } else {
                using Op = Neighborhood26PlansReductionSimd<Functor, T, Arch>;
                runFilter<RecursiveImageFilter3d<T, T, Arch, Op>>(algo, in, out, passes, makeReduction<Functor, T, Op>(),
                                                                   border, parent);
            }
        }
    }
};

template <class Functor, int Dims, class T>
void runSquareCubeStage(algorithms::AbstractPrivateImplementation* parent, int neighbourhood,
                        const ImageModel* input, ImageModel* output, unsigned long passes) {
    SquareCubeDispatch<Functor, Dims>::template run<T>(nullptr, parent, neighbourhood, input, output, passes);
}

} // namespace details
} // namespace morphology
} // namespace lyn

#define LYN_INSTANTIATE_SQUARE_DISPATCHER(Name, Functor, Dims)                                 \
    namespace lyn {                                                                           \
    namespace morphology {                                                                    \
    template <class T>                                                                        \
    void Name::run(SquareMorphology* algo) {                                                  \
        details::SquareCubeDispatch<details::Functor, Dims>::template run<T>(algo);          \
    }                                                                                         \
    template void Name::run<unsigned char>(SquareMorphology*);                                \
    template void Name::run<unsigned short>(SquareMorphology*);                               \
    template void Name::run<unsigned int>(SquareMorphology*);                                 \
    template void Name::run<signed char>(SquareMorphology*);                                  \
    template void Name::run<short>(SquareMorphology*);                                        \
    template void Name::run<int>(SquareMorphology*);                                          \
    template void Name::run<float>(SquareMorphology*);                                        \
    template void Name::run<double>(SquareMorphology*);                                       \
    }                                                                                         \
    }                                                                                         \
    LYN_INSTANTIATE_SQUARE_STAGE(Functor, Dims)

// The same kernels as stages of a decomposition, compiled in the same file so that the heavy
// kernel instances are shared rather than built twice.
#define LYN_INSTANTIATE_SQUARE_STAGE_T(Functor, Dims, T)                                                          \
    template void lyn::morphology::details::runSquareCubeStage<lyn::morphology::details::Functor, Dims, T>(      \
        lyn::algorithms::AbstractPrivateImplementation*, int, const lyn::ImageModel*, lyn::ImageModel*,          \
        unsigned long);
#define LYN_INSTANTIATE_SQUARE_STAGE(Functor, Dims)                \
    LYN_INSTANTIATE_SQUARE_STAGE_T(Functor, Dims, unsigned char)   \
    LYN_INSTANTIATE_SQUARE_STAGE_T(Functor, Dims, unsigned short)  \
    LYN_INSTANTIATE_SQUARE_STAGE_T(Functor, Dims, unsigned int)    \
    LYN_INSTANTIATE_SQUARE_STAGE_T(Functor, Dims, signed char)     \
    LYN_INSTANTIATE_SQUARE_STAGE_T(Functor, Dims, short)           \
    LYN_INSTANTIATE_SQUARE_STAGE_T(Functor, Dims, int)             \
    LYN_INSTANTIATE_SQUARE_STAGE_T(Functor, Dims, float)           \
    LYN_INSTANTIATE_SQUARE_STAGE_T(Functor, Dims, double)
