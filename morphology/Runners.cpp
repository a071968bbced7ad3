#include "morphology/Runners.h"

#include "host/VoxelTypes.h"
#include "host/generic/Generic.h"
#include "morphology/Box.h"

namespace lyn {
namespace morphology {

bool squareCubeRunnable(BaseAlgorithm*, const PassLimits& limits, SquareMorphology* typed) {
    if (!typed) return false;
    const ImageModel* in = typed->inputImage.get();
    if (!in) return false;
    const int t = in->getVoxelType();
    if (in->getStorageType() == 0) {
        // Both properties are read afresh for each comparison, as the limits are per value.
        for (int n = 0; n < 3; ++n)
            if (typed->neighborhood.get() == n && limits.limit[n] >= 0 &&
                static_cast<long>(typed->kernelRadius.get()) > limits.limit[n])
                return false;
    }
    return helper::commonAcceptance(t);
}

bool simdBoxWanted(const generic::Stage& stage, const ImageModel& in, const ImageModel& out) {
    if (!generic::isBoxStage(stage) || !generic::boxEnabled()) return false;
    if (stage.passes >= simdBoxFromPasses(stage.neighbourhood)) return true;
    return cubeTilesServe(in.extents(), helper::getSizeOf(in.getVoxelType()), stage, &in == &out);
}

bool runAsBox(SquareMorphology* algo, int dimensions) {
    const generic::Stage stage{generic::neighbourhoodOf(dimensions, algo->neighborhood.get()),
                               algo->kernelRadius.get(), {}};
    const ImageModel& in = *algo->inputImage.get();
    ImageModel& out = *algo->outputImage.get();
    if (!simdBoxWanted(stage, in, out)) return false;
    struct AlgoPoll : generic::BoxPoll {
        BaseAlgorithm& algo;
        explicit AlgoPoll(BaseAlgorithm& a) : algo(a) {}
        bool cancelled() override { return algo.isCancelRequested(); }
        void progress(double fraction) override { algo.reportProgress(fraction); }
    } poll(*algo);
    const std::uint64_t budget = algo->getMaximumExtraMemoryUsageInBytes();
    const generic::BoxOutcome outcome = runBoxSimd(in, out, stage, algo->isDilation(), budget, poll);
    if (outcome == generic::BoxOutcome::Done) return true;
    // Where the fold order shows, only the passes give the bytes; a budget too narrow for the
    // plug-in's buffers may still hold the host's narrower strips.
    if (outcome == generic::BoxOutcome::FoldOrderShows || stage.passes < kBoxFromPasses ||
        algo->hasPropertyImageOnDisk())
        return false;
    return generic::runBox(in, out, stage, algo->isDilation(), budget, poll) == generic::BoxOutcome::Done;
}

const PassLimits Dilation2dAVX2Runner::limits = {{46, 35, -1}};
const PassLimits Erosion2dAVX2Runner::limits = {{51, 37, -1}};
const PassLimits Dilation3dAVX2Runner::limits = {{69, 61, 77}};
const PassLimits Erosion3dAVX2Runner::limits = {{103, 81, 132}};

bool Dilation2dAVX2Runner::isRunnable(BaseAlgorithm* algo) const {
    return squareCubeRunnable(algo, limits, dynamic_cast<Dilation2d*>(algo));
}
bool Erosion2dAVX2Runner::isRunnable(BaseAlgorithm* algo) const {
    return squareCubeRunnable(algo, limits, dynamic_cast<Erosion2d*>(algo));
}
bool Dilation3dAVX2Runner::isRunnable(BaseAlgorithm* algo) const {
    return squareCubeRunnable(algo, limits, dynamic_cast<Dilation3d*>(algo));
}
bool Erosion3dAVX2Runner::isRunnable(BaseAlgorithm* algo) const {
    return squareCubeRunnable(algo, limits, dynamic_cast<Erosion3d*>(algo));
}

} // namespace morphology
} // namespace lyn
