#pragma once
// Per-type entry points of the square and cube runners, and the kernel runs they choose from.
// Declarations only: the AVX2 instances are compiled in SquareCubeKernels.cpp, once per functor
// and dimensionality (CMake builds that file four times), so the runners' files carry no AVX2 code
// and the heavy instances compile in parallel.
#include "host/Algorithms.h"
#include "host/Neighbourhood.h"
#include "host/PrivateImplementation.h"

namespace lyn {
namespace morphology {

namespace details {
struct DilationFunctor;
struct ErosionFunctor;

// `passes` passes of the kernel for neighbourhood K over voxels of type T, run for `algo`, or, given
// a parent, as the parent's current step: its progress, cancellation and memory budget apply.
template <class Functor, Neighbourhood K>
struct SquareCubeKernel {
    template <class T>
    static void run(BaseAlgorithm* algo, algorithms::AbstractPrivateImplementation* parent, const ImageModel* in,
                    ImageModel* out, unsigned long passes);
};

template <class Functor, class T>
void runSquareCube(Neighbourhood k, BaseAlgorithm* algo, algorithms::AbstractPrivateImplementation* parent,
                   const ImageModel* in, ImageModel* out, unsigned long passes) {
    switch (k) {
    case Neighbourhood::Cross4:
        return SquareCubeKernel<Functor, Neighbourhood::Cross4>::template run<T>(algo, parent, in, out, passes);
    case Neighbourhood::Square8:
        return SquareCubeKernel<Functor, Neighbourhood::Square8>::template run<T>(algo, parent, in, out, passes);
    case Neighbourhood::Six:
        return SquareCubeKernel<Functor, Neighbourhood::Six>::template run<T>(algo, parent, in, out, passes);
    case Neighbourhood::Eighteen:
        return SquareCubeKernel<Functor, Neighbourhood::Eighteen>::template run<T>(algo, parent, in, out, passes);
    case Neighbourhood::TwentySix:
        return SquareCubeKernel<Functor, Neighbourhood::TwentySix>::template run<T>(algo, parent, in, out, passes);
    case Neighbourhood::Offsets2D:
    case Neighbourhood::Offsets3D:
        break;  // offset lists have their own kernels
    }
    raise<UnexpectedError>(std::string("No square or cube kernel for the ") + neighbourhoodName(k) + " neighbourhood.",
                           "morphology/SquareCubeDispatchers", __LINE__);
}

// The square or cube algorithm's own run: its neighbourhood property, input, output and passes.
template <class Functor, int Dims, class T>
void runSquareCube(SquareMorphology* algo) {
    runSquareCube<Functor, T>(neighbourhoodOf(Dims, algo->neighborhood.get()), algo, nullptr,
                              algo->inputImage.get(), algo->outputImage.get(), algo->kernelRadius.get());
}

// The same kernels as a stage of a decomposition: `passes` passes as the current step of `parent`.
template <class Functor, class T>
void runSquareCubeStage(algorithms::AbstractPrivateImplementation* parent, Neighbourhood k, const ImageModel* in,
                        ImageModel* out, unsigned long passes) {
    runSquareCube<Functor, T>(k, nullptr, parent, in, out, passes);
}
} // namespace details

#define LYN_DECLARE_DISPATCHER(Name)                      \
    struct Name {                                         \
        template <class T>                                \
        static void run(SquareMorphology* algo);          \
    };
LYN_DECLARE_DISPATCHER(Dilation2dAVX2Dispatcher)
LYN_DECLARE_DISPATCHER(Erosion2dAVX2Dispatcher)
LYN_DECLARE_DISPATCHER(Dilation3dAVX2Dispatcher)
LYN_DECLARE_DISPATCHER(Erosion3dAVX2Dispatcher)
#undef LYN_DECLARE_DISPATCHER

} // namespace morphology
} // namespace lyn

// Defines Name::run<T> for the eight voxel types.
#define LYN_INSTANTIATE_SQUARE_DISPATCHER(Name, Functor, Dims)                                 \
    namespace lyn {                                                                           \
    namespace morphology {                                                                    \
    template <class T>                                                                        \
    void Name::run(SquareMorphology* algo) {                                                  \
        details::runSquareCube<details::Functor, Dims, T>(algo);                              \
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
