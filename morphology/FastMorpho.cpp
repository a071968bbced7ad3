// Disk and ball approximated by chained passes of the square and cube kernels: each stage is one
// progress step of a private implementation built on the algorithm, so progress, cancellation and
// the memory budget are the algorithm's. A stage after the first reads what the earlier ones made.
#include <functional>
#include <utility>

#include "Core/private/TmplDispatch/Visitor1Args.h"
#include "host/TemporaryImage.h"
#include "morphology/Box.h"
#include "morphology/Runners.h"
#include "morphology/SquareCubeDispatchers.h"
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {
namespace details {

namespace {
// Owns the progress steps; the stages run as its children.
class Decomposition : public algorithms::AbstractPrivateImplementation {
public:
    Decomposition(BaseAlgorithm* algo, std::uint64_t steps) : AbstractPrivateImplementation(algo) {
        m_nbSteps.store(steps);
    }
    void run() override {}
};

// A stage whose passes run one by one as its children.
class ChainStage : public algorithms::AbstractPrivateImplementation {
public:
    ChainStage(std::uint64_t passes, std::function<void(ChainStage*)> body)
        : AbstractPrivateImplementation(nullptr), m_body(std::move(body)) {
        m_nbSteps.store(passes);
    }
    void run() override { m_body(this); }

private:
    std::function<void(ChainStage*)> m_body;
};

// Progress and cancellation of a box run as one step of `step`.
struct StepPoll : generic::BoxPoll {
    algorithms::AbstractPrivateImplementation& step;
    explicit StepPoll(algorithms::AbstractPrivateImplementation& s) : step(s) {}
    bool cancelled() override { return step.isCancelled(); }
    void progress(double fraction) override { step.reportFraction(fraction); }
};

// Square and cube stages of many passes go through the box, as the runners send them (Runners.h):
// true when it computed the stage from `in` into `out`.
template <class Functor>
bool boxStage(algorithms::AbstractPrivateImplementation& step, Neighbourhood n, unsigned long passes,
              const ImageModel& in, ImageModel& out, std::uint64_t budget) {
    const generic::Stage stage{n, unsigned(passes), {}};
    if (!simdBoxWanted(stage, in, out)) return false;
    StepPoll poll(step);
    return runBoxSimd(in, out, stage, std::is_same_v<Functor, DilationFunctor>, budget, poll) ==
           generic::BoxOutcome::Done;
}

// (neighbourhood, passes) in run order; stages of no pass are skipped.
using Stages = std::vector<std::pair<Neighbourhood, unsigned long>>;

// Runs the stages from input to output. When the images are in memory and one temporary image fits
// the budget, every pass reads one image and writes the other (output and temporary in turn, the
// last pass landing in the output): no pass runs in place, whose kernels save and move rows, and
// one temporary serves every stage instead of one fresh per stage. Otherwise each stage runs as
// the recursive filter decides: in place on the output, with its own temporary for several passes.
template <class Functor, class T>
void runStages(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output, const Stages& stages) {
    std::uint64_t steps = 0, total = 0;
    for (const auto& stage : stages) {
        steps += stage.second != 0;
        total += stage.second;
    }
    Decomposition impl(algo, steps);
    RefImpl<io::TemporaryImage> temp;
    // In place, the first pass must not write the input while later rows still read it: only an
    // even count, whose first pass goes to the temporary image, can start there.
    const bool inPlace = input == output;
    if (total >= 2 && !(inPlace && total % 2 == 1) && !algo->hasPropertyImageOnDisk() &&
        output->getSizeInBytes() < algo->getMaximumExtraMemoryUsageInBytes()) {
        temp = io::TemporaryImage::New(io::TemporaryImage::InMemory);
        const Extents e = output->extents();
        if (!temp->reserve(output->getVoxelType(), e[0], e[1], e[2], e[3], e[4])) temp = {};
    }
    const std::uint64_t budget = algo->getMaximumExtraMemoryUsageInBytes();
    if (!temp) {
        bool first = true;
        for (const auto& [n, passes] : stages) {
            if (!passes) continue;
            const ImageModel* source = first ? input : output;
            const Neighbourhood neighbourhood = n;
            ChainStage stage(1, [&, neighbourhood, passes = passes](ChainStage* self) {
                if (!boxStage<Functor>(*self, neighbourhood, passes, *source, *output, budget))
                    runSquareCubeStage<Functor, T>(self, neighbourhood, source, output, passes);
            });
            impl.runChildAlgo(&stage);
            first = false;
        }
        return;
    }
    ImageModel* const other = temp->getImageModel();
    const std::uint64_t rest = budget - output->getSizeInBytes();
    bool toTemp = total % 2 == 0;  // so that the last pass lands in the output
    const ImageModel* source = input;
    for (const auto& [n, passes] : stages) {
        if (!passes) continue;
        const Neighbourhood neighbourhood = n;
        ChainStage stage(1, [&, neighbourhood, passes = passes](ChainStage* self) {
            // A box lands where the stage's last pass would: the parity of what follows holds.
            ImageModel* const first = toTemp ? other : output;
            ImageModel* const land = passes % 2 ? first : (first == other ? output : other);
            if (boxStage<Functor>(*self, neighbourhood, passes, *source, *land, rest)) {
                source = land;
                toTemp = toTemp != (passes % 2 == 1);
                return;
            }
            ChainStage each(passes, [&](ChainStage* chain) {
                for (unsigned long i = 0; i < passes; ++i) {
                    ImageModel* target = toTemp ? other : output;
                    runSquareCubeStage<Functor, T>(chain, neighbourhood, source, target, 1);
                    source = target;
                    toTemp = !toTemp;
                }
            });
            self->runChildAlgo(&each);
        });
        impl.runChildAlgo(&stage);
    }
}
} // namespace

DiskPasses diskPasses(std::uint32_t radius) {
    const unsigned long square = radius >> 1;
    return {square, radius - square};
}

BallPasses ballPasses(std::uint32_t radius) {
    // Taken in double precision as written: 10 * 0.3 is 3.0000000000000004, so 3.
    const double r = double(radius);
    const unsigned long six = static_cast<unsigned long>(r * 0.6);
    const unsigned long eighteen = static_cast<unsigned long>(r * 0.3);
    return {six, eighteen, radius - (six + eighteen)};
}

// Square passes first, cross passes last (the cross takes the extra pass of an odd radius).
template <class Functor, class Arch, class T>
void FastMorphoDisk2DSimd(BaseAlgorithm* algo, const ImageModel* input, std::uint32_t radius, ImageModel* output) {
    const DiskPasses p = diskPasses(radius);
    if (radius > 1) {
        runStages<Functor, T>(algo, input, output, {{Neighbourhood::Square8, p.square}, {Neighbourhood::Cross4, p.cross}});
    } else {
        // Zero passes leave the output untouched: no copy of the input is made.
        Decomposition impl(algo, 1);
        runSquareCubeStage<Functor, T>(&impl, Neighbourhood::Cross4, input, output, p.cross);
    }
}

// 6-connected, then 18-connected, then 26-connected passes; the last stage always runs.
template <class Functor, class Arch, class T>
void FastMorphoBall3DSimd(BaseAlgorithm* algo, const ImageModel* input, std::uint32_t radius, ImageModel* output) {
    const BallPasses p = ballPasses(radius);
    if (p.twentySix == 0) {
        // Radius 0: zero passes leave the output untouched, as for the disk.
        Decomposition impl(algo, 1);
        runSquareCubeStage<Functor, T>(&impl, Neighbourhood::TwentySix, input, output, 0);
        return;
    }
    runStages<Functor, T>(algo, input, output, {{Neighbourhood::Six, p.six}, {Neighbourhood::Eighteen, p.eighteen}, {Neighbourhood::TwentySix, p.twentySix}});
}

#define LYN_FAST(Functor, T)                                                                                        \
    template void FastMorphoDisk2DSimd<Functor, SimdVec::arch_256_tag, T>(BaseAlgorithm*, const ImageModel*,        \
                                                                          std::uint32_t, ImageModel*);              \
    template void FastMorphoBall3DSimd<Functor, SimdVec::arch_256_tag, T>(BaseAlgorithm*, const ImageModel*,        \
                                                                          std::uint32_t, ImageModel*);
#define LYN_FAST_DILATION(T) LYN_FAST(DilationFunctor, T)
#define LYN_FAST_EROSION(T) LYN_FAST(ErosionFunctor, T)
LYN_FOR_EACH_VOXEL_TYPE(LYN_FAST_DILATION)
LYN_FOR_EACH_VOXEL_TYPE(LYN_FAST_EROSION)

} // namespace details
} // namespace morphology
} // namespace lyn
