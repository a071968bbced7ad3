// ErosionLine2d runner: the exact offsets of a line of `length` pixels.
// Registered with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {

template <class T>
void ErosionLine2dAVX2Dispatcher::run(ErosionLine2d* algo) {
    details::runOffsets2d<details::ErosionFunctor, T>(
        algo, algo->inputImage.get(), algo->outputImage.get(),
        kernel::generateLineOffset2DCollectionWithConstNumOfPixels(algo->angle.get(), algo->length.get(), true));
}
LYN_INSTANTIATE_SE_DISPATCHER(ErosionLine2dAVX2Dispatcher, ErosionLine2d)

#ifdef LYN_REGISTER_RUNNERS
using ErosionLine2dAVX2Runner = AVX2OneTypeMinMaxRunner<ErosionLine2d, ErosionLine2dAVX2Dispatcher>;
LYN_AUTO_REGISTER_RUNNABLE(ErosionLine2dAVX2Runner, ErosionLine2dAVX2Runner, ErosionLine2d)
#endif

} // namespace morphology
} // namespace lyn
