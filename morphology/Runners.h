#pragma once
// The plug-in's runners for the morphology classes. They hold no state.
#include "Core/private/Helper/Acceptance.h"
#include "Core/private/Helper/safe_cast.h"
#include "Core/private/TmplDispatch/Visitor1Args.h"
#include "host/Algorithms.h"
#include "host/Neighbourhood.h"

namespace lyn {
namespace generic {
struct Stage;
}
namespace morphology {

// Square and cube runners decline a request whose pass count exceeds the limit for its
// "Neighborhood" property value (the index: 0, 1, 2), unless the input is stored on disk. The
// values are deliberate and kept as they are, dilation and erosion differing; a property value
// outside 0..2 has no limit although the dispatchers read it as the square or the cube.
struct PassLimits {
    long limit[3];  // -1: no limit
};

bool squareCubeRunnable(BaseAlgorithm* algo, const PassLimits& limits, SquareMorphology* typed);

// From 3 square (5 cube) passes on, images in memory go through the plug-in's box (morphology/Box.h),
// which costs about the same whatever the passes: below, the passes cost less (docs/performance.md,
// "The plug-in's box"), but for the cubes that go in tiles along all three axes at once
// (cubeTilesServe). Where it steps aside for want of room, the host's box, whose strips can be
// narrower, serves from kBoxFromPasses passes on, where it costs less than the passes
// (docs/performance.md, "Many passes in the host"). Images on disk, float NaN or zeros of both
// signs, and LYN_GENERIC_BOX false keep the passes. True when a box served it.
constexpr unsigned simdBoxFromPasses(Neighbourhood n) { return n == Neighbourhood::Square8 ? 3 : 5; }
constexpr unsigned kBoxFromPasses = 8;
// Whether the plug-in's box should try a stage from `in` to `out`: a square or cube with enough
// passes, boxes allowed.
bool simdBoxWanted(const generic::Stage& stage, const ImageModel& in, const ImageModel& out);
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
