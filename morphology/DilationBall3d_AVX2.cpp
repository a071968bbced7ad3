// DilationBall3d runner: mode 0 the fast decomposition, any other mode the exact offsets of a ball.
// Registered with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {

template <class T>
void DilationBall3dAVX2Dispatcher::run(DilationBall3d* algo) {
    const ImageModel* in = algo->inputImage.get();
    ImageModel* out = algo->outputImage.get();
    const unsigned int radius = algo->kernelRadius.get();
    if (algo->mode.get() == 0)
        details::FastMorphoBall3DSimd<details::DilationFunctor, SimdVec::arch_256_tag, T>(algo, in, radius, out);
    else
        details::runOffsets3d<details::DilationFunctor, T>(algo, in, out, kernel::generateSphereOffset3DCollection(radius));
}
LYN_INSTANTIATE_SE_DISPATCHER(DilationBall3dAVX2Dispatcher, DilationBall3d)

#ifdef LYN_REGISTER_RUNNERS
using DilationBall3dAVX2Runner = AVX2OneTypeMinMaxRunner<DilationBall3d, DilationBall3dAVX2Dispatcher>;
LYN_AUTO_REGISTER_RUNNABLE(DilationBall3dAVX2Runner, DilationBall3dAVX2Runner, DilationBall3d)
#endif

} // namespace morphology
} // namespace lyn
