// Dilation3d runner: run, and registration with the host when the plug-in loads.
#include "Core/private/Helper/AutoRegister.h"
#include "morphology/Runners.h"
#include "morphology/SquareCubeDispatchers.h"

namespace lyn {
namespace morphology {

void Dilation3dAVX2Runner::run(BaseAlgorithm* algo) const {
    Dilation3d* typed = helper::safe_cast<Dilation3d*>(algo);
    if (runAsBox(typed, 3)) return;
    tmpl_dispatch::Visitor1Args<tmpl_dispatch::VoxelTypeList, Dilation3dAVX2Dispatcher>()(
        typed->inputImage.get()->getVoxelType(), static_cast<SquareMorphology*>(typed));
}

#ifdef LYN_REGISTER_RUNNERS
LYN_AUTO_REGISTER_RUNNABLE(Dilation3dAVX2Runner, Dilation3dAVX2Runner, Dilation3d)
#endif

} // namespace morphology
} // namespace lyn
