// ErosionDisk2d runner: mode 0 the fast decomposition, any other mode the exact offsets of a disk.
// Registered with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {

template <class T>
void ErosionDisk2dAVX2Dispatcher::run(ErosionDisk2d* algo) {
    const ImageModel* in = algo->inputImage.get();
    ImageModel* out = algo->outputImage.get();
    const unsigned int radius = algo->kernelRadius.get();
    if (algo->mode.get() == 0)
        details::FastMorphoDisk2DSimd<details::ErosionFunctor, SimdVec::arch_256_tag, T>(algo, in, radius, out);
    else
        details::runOffsets2d<details::ErosionFunctor, T>(algo, in, out, kernel::generateDiskOffset2DCollection(radius));
}
LYN_INSTANTIATE_SE_DISPATCHER(ErosionDisk2dAVX2Dispatcher, ErosionDisk2d)

#ifdef LYN_REGISTER_RUNNERS
using ErosionDisk2dAVX2Runner = AVX2OneTypeMinMaxRunner<ErosionDisk2d, ErosionDisk2dAVX2Dispatcher>;
LYN_AUTO_REGISTER_RUNNABLE(ErosionDisk2dAVX2Runner, ErosionDisk2dAVX2Runner, ErosionDisk2d)
#endif

} // namespace morphology
} // namespace lyn
