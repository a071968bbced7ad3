// DilationLine2d runner: the exact offsets of a line of `length` pixels.
// Registered with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {

template <class T>
void DilationLine2dAVX2Dispatcher::run(DilationLine2d* algo) {
    details::runOffsets2d<details::DilationFunctor, T>(
        algo, algo->inputImage.get(), algo->outputImage.get(),
        kernel::generateLineOffset2DCollectionWithConstNumOfPixels(algo->angle.get(), algo->length.get(), true));
}
LYN_INSTANTIATE_SE_DISPATCHER(DilationLine2dAVX2Dispatcher, DilationLine2d)

#ifdef LYN_REGISTER_RUNNERS
using DilationLine2dAVX2Runner = AVX2OneTypeMinMaxRunner<DilationLine2d, DilationLine2dAVX2Dispatcher>;
LYN_AUTO_REGISTER_RUNNABLE(DilationLine2dAVX2Runner, DilationLine2dAVX2Runner, DilationLine2d)
#endif

} // namespace morphology
} // namespace lyn
