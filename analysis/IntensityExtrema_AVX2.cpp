// Intensity extrema runner and its registration.
#include "Core/private/Helper/Acceptance.h"
#include "Core/private/Helper/AutoRegister.h"
#include "Core/private/Helper/safe_cast.h"
#include "Core/private/TmplDispatch/Visitor1Args.h"
#include "analysis/IntensityExtremaAVX.h"

namespace lyn {
namespace analysis {

bool IntensityExtremaAVXRunner::isRunnable(BaseAlgorithm* algo) const {
    const devices::Cpu& cpu = devices::Cpu::getDevice();
    if (!cpu.hasAVX()) return false;
    auto* typed = dynamic_cast<IntensityExtrema*>(algo);
    if (!typed || !typed->inputImage.get()) return false;
    const VoxelTypes t = typed->inputImage.get()->getVoxelType();
    bool served = false;
    if (helper::isServedIntegerType(t)) served = helper::getSizeOf(t) <= 4;
    if (helper::isServedFloatingType(t)) served = true;
    return served && cpu.getAVXLevel() > 1;
}

void IntensityExtremaAVXRunner::run(BaseAlgorithm* algo) const {
    IntensityExtrema* typed = helper::safe_cast<IntensityExtrema*>(algo);
    IntensityExtremaAVXPrivateImpl impl(typed);
    impl.run();
}

void IntensityExtremaAVXPrivateImpl::run() {
    using Pair = std::pair<IntensityExtrema*, algorithms::AbstractPrivateImplementation*>;
    tmpl_dispatch::Visitor1Args<tmpl_dispatch::VoxelTypeList, IntensityExtremaAVXDispatcher>()(
        m_algo->inputImage.get()->getVoxelType(), Pair(m_algo, this));
}

#ifdef LYN_REGISTER_RUNNERS
LYN_AUTO_REGISTER_RUNNABLE(IntensityExtremaAVXRunner, IntensityExtremaAVXRunner, IntensityExtrema)
#endif

} // namespace analysis
} // namespace lyn
