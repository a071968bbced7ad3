// Dilation2d runner: run, and registration with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/SquareCubeDispatchers.h"

namespace lyn {
namespace morphology {

void Dilation2dAVX2Runner::run(BaseAlgorithm* algo) const {
    Dilation2d* typed = helper::safe_cast<Dilation2d*>(algo);
    if (runAsBox(typed, 2)) return;
    tmpl_dispatch::Visitor1Args<tmpl_dispatch::VoxelTypeList, Dilation2dAVX2Dispatcher>()(
        typed->inputImage.get()->getVoxelType(), static_cast<SquareMorphology*>(typed));
}

#ifdef LYN_REGISTER_RUNNERS
LYN_AUTO_REGISTER_RUNNABLE(Dilation2dAVX2Runner, Dilation2dAVX2Runner, Dilation2d)
#endif

} // namespace morphology
} // namespace lyn
