// ErosionDisk3d runner: the exact offsets of a disk in an oriented plane.
// Registered with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {

template <class T>
void ErosionDisk3dAVX2Dispatcher::run(ErosionDisk3d* algo) {
    // Angle2 is the elevation, the generator's first argument.
    details::runOffsets3d<details::ErosionFunctor, T>(
        algo, algo->inputImage.get(), algo->outputImage.get(),
        kernel::generateDiskOffset3DCollection(algo->angle2.get(), algo->angle1.get(), algo->size.get()));
}
LYN_INSTANTIATE_SE_DISPATCHER(ErosionDisk3dAVX2Dispatcher, ErosionDisk3d)

#ifdef LYN_REGISTER_RUNNERS
using ErosionDisk3dAVX2Runner = AVX2OneTypeMinMaxRunner<ErosionDisk3d, ErosionDisk3dAVX2Dispatcher>;
LYN_AUTO_REGISTER_RUNNABLE(ErosionDisk3dAVX2Runner, ErosionDisk3dAVX2Runner, ErosionDisk3d)
#endif

} // namespace morphology
} // namespace lyn
