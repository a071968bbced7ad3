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

namespace lyn {
namespace morphology {
namespace details {

// Out-of-image voxels: the type's lowest value for dilation, highest for erosion (finite for floats).
template <class Functor, class T>
T borderValue() {
    using Traits = VoxelTraits<voxelTypeOf<T>()>;
    return Functor::isDilation ? Traits::lowest() : Traits::highest();
}

template <class Filter, class Op, class T>
void runFilter(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output, unsigned long iterations, Op op,
               T border) {
    Filter filter(algo, std::move(op));
    filter.setInput(input, access::FixedBorderCondition<T>::New(border));
    filter.setOutput(output, access::FixedBorderCondition<T>::New(border));
    filter.setIterations(iterations);
    filter.run();
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
        using Arch = SimdVec::arch_256_tag;
        const int n = algo->neighborhood.get();
        const ImageModel* in = algo->inputImage.get();
        ImageModel* out = algo->outputImage.get();
        const unsigned long passes = algo->kernelRadius.get();
        const T border = borderValue<Functor, T>();
        if constexpr (Dims == 2) {
            if (n == 0) {
                using Op = Neighborhood2dToValueSimd<Functor, access::Neighborhood2D_4Tag, access::NoDataType>;
                runFilter<RecursiveImageFilter2d<T, T, Arch, Op>>(algo, in, out, passes, Op(), border);
            } else {
                using Op = Neighborhood8ColumnsReductionSimd<Functor, T, Arch>;
                runFilter<RecursiveImageFilter2d<T, T, Arch, Op>>(algo, in, out, passes, makeReduction<Functor, T, Op>(),
                                                                   border);
            }
        } else {
            if (n == 0) {
                using Op = Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_6Tag, access::NoDataType>;
                runFilter<RecursiveImageFilter3d<T, T, Arch, Op>>(algo, in, out, passes, Op(), border);
            } else if (n == 1) {
                using Op = Neighborhood3dToValueSimd<Functor, access::Neighborhood3D_18Tag, access::NoDataType>;
                runFilter<RecursiveImageFilter3d<T, T, Arch, Op>>(algo, in, out, passes, Op(), border);
            } else {
                using Op = Neighborhood26PlansReductionSimd<Functor, T, Arch>;
                runFilter<RecursiveImageFilter3d<T, T, Arch, Op>>(algo, in, out, passes, makeReduction<Functor, T, Op>(),
                                                                   border);
            }
        }
    }
};

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
    }
