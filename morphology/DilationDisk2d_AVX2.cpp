// DilationDisk2d runner: mode 0 the fast decomposition, any other mode the exact offsets of a disk.
// Registered with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {

template <class T>
void DilationDisk2dAVX2Dispatcher::run(DilationDisk2d* algo) {
    const ImageModel* in = algo->inputImage.get();
    ImageModel* out = algo->outputImage.get();
    const unsigned int radius = algo->kernelRadius.get();
    if (algo->mode.get() == 0)
        details::FastMorphoDisk2DSimd<details::DilationFunctor, SimdVec::arch_256_tag, T>(algo, in, radius, out);
    else
        details::runOffsets2d<details::DilationFunctor, T>(algo, in, out, kernel::generateDiskOffset2DCollection(radius));
}
LYN_INSTANTIATE_SE_DISPATCHER(DilationDisk2dAVX2Dispatcher, DilationDisk2d)

#ifdef LYN_REGISTER_RUNNERS
using DilationDisk2dAVX2Runner = AVX2OneTypeMinMaxRunner<DilationDisk2d, DilationDisk2dAVX2Dispatcher>;
LYN_AUTO_REGISTER_RUNNABLE(DilationDisk2dAVX2Runner, DilationDisk2dAVX2Runner, DilationDisk2d)
#endif

} // namespace morphology
} // namespace lyn
