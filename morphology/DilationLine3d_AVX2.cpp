// DilationLine3d runner: the exact offsets of a 3D line of `length` voxels.
// Registered with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {

template <class T>
void DilationLine3dAVX2Dispatcher::run(DilationLine3d* algo) {
    // Angle2 is the elevation, the generator's first argument.
    details::runOffsets3d<details::DilationFunctor, T>(
        algo, algo->inputImage.get(), algo->outputImage.get(),
        kernel::generateLineOffset3DCollectionWithConstNumOfPixels(algo->angle2.get(), algo->angle1.get(),
                                                                   algo->size.get(), true));
}
LYN_INSTANTIATE_SE_DISPATCHER(DilationLine3dAVX2Dispatcher, DilationLine3d)

#ifdef LYN_REGISTER_RUNNERS
using DilationLine3dAVX2Runner = AVX2OneTypeMinMaxRunner<DilationLine3d, DilationLine3dAVX2Dispatcher>;
LYN_AUTO_REGISTER_RUNNABLE(DilationLine3dAVX2Runner, DilationLine3dAVX2Runner, DilationLine3d)
#endif

} // namespace morphology
} // namespace lyn
