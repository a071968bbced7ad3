#pragma once
// The plug-in's runners for the morphology classes. They hold no state.
#include "Core/private/Helper/Acceptance.h"
#include "Core/private/Helper/safe_cast.h"
#include "Core/private/TmplDispatch/Visitor1Args.h"
#include "host/Algorithms.h"

namespace lyn {
namespace morphology {

// Square and cube runners decline a request whose pass count exceeds the limit for its
// "Neighborhood" property value (the index: 0, 1, 2), unless the input is stored on disk. The
// values are deliberate and kept as they are, dilation and erosion differing; a property value
// outside 0..2 has no limit although the dispatchers read it as the square or the cube.
struct PassLimits {
    long limit[3];  // -1: no limit
};

bool squareCubeRunnable(BaseAlgorithm* algo, const PassLimits& limits, SquareMorphology* typed);

// From kBoxFromPasses square (cube) passes on, one box of the host's generic code costs less than
// the passes (docs/performance.md, "Many passes in the host"): a runner lets it serve images in
// memory, and runs its passes when the box steps aside (float NaN or zeros of both signs, memory
// budget) or LYN_GENERIC_BOX is false. True when the box served the request.
constexpr unsigned kBoxFromPasses = 8;
bool runAsBox(SquareMorphology* algo, int dimensions);

#define LYN_DECLARE_SQUARE_RUNNER(Name)                              \
    class Name : public Runnable {                                   \
    public:                                                          \
        ~Name() override {}                                          \
        void run(BaseAlgorithm* algo) const override;                \
        bool isRunnable(BaseAlgorithm* algo) const override;         \
        int getOptimType() const override { return 2; }              \
        static const PassLimits limits;                              \
    };
LYN_DECLARE_SQUARE_RUNNER(Dilation2dAVX2Runner)
LYN_DECLARE_SQUARE_RUNNER(Erosion2dAVX2Runner)
LYN_DECLARE_SQUARE_RUNNER(Dilation3dAVX2Runner)
LYN_DECLARE_SQUARE_RUNNER(Erosion3dAVX2Runner)
#undef LYN_DECLARE_SQUARE_RUNNER

// Runner of the structuring-element classes: input and output of the same served type, no limits.
template <class Algo, class Dispatcher>
class AVX2OneTypeMinMaxRunner : public Runnable {
public:
    ~AVX2OneTypeMinMaxRunner() override {}
    void run(BaseAlgorithm* algo) const override {
        Algo* typed = helper::safe_cast<Algo*>(algo);
        tmpl_dispatch::Visitor1Args<tmpl_dispatch::VoxelTypeList, Dispatcher>()(
            typed->inputImage.get()->getVoxelType(), typed);
    }
    bool isRunnable(BaseAlgorithm* algo) const override {
        Algo* typed = dynamic_cast<Algo*>(algo);
        if (!typed) return false;
        const ImageModel* in = typed->inputImage.get();
        const ImageModel* out = typed->outputImage.get();
        if (!in || !out) return false;
        const int t = in->getVoxelType();
        if (t != out->getVoxelType()) return false;
        return helper::commonAcceptance(t);
    }
    int getOptimType() const override { return 2; }
};

} // namespace morphology
} // namespace lyn
