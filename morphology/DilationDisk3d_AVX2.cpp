// DilationDisk3d runner: the exact offsets of a disk in an oriented plane.
// Registered with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {

template <class T>
void DilationDisk3dAVX2Dispatcher::run(DilationDisk3d* algo) {
    // Angle2 is the elevation, the generator's first argument.
    details::runOffsets3d<details::DilationFunctor, T>(
        algo, algo->inputImage.get(), algo->outputImage.get(),
        kernel::generateDiskOffset3DCollection(algo->angle2.get(), algo->angle1.get(), algo->size.get()));
}
LYN_INSTANTIATE_SE_DISPATCHER(DilationDisk3dAVX2Dispatcher, DilationDisk3d)

#ifdef LYN_REGISTER_RUNNERS
using DilationDisk3dAVX2Runner = AVX2OneTypeMinMaxRunner<DilationDisk3d, DilationDisk3dAVX2Dispatcher>;
LYN_AUTO_REGISTER_RUNNABLE(DilationDisk3dAVX2Runner, DilationDisk3dAVX2Runner, DilationDisk3d)
#endif

} // namespace morphology
} // namespace lyn
