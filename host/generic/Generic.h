#pragma once
// The host's own implementations: portable scalar code for every voxel type the host serves.
// They define the results the plug-in must reproduce bit for bit, fold order included (the order
// decides which value wins among NaNs and signed zeros).
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "host/Algorithms.h"
#include "host/Kernel.h"
#include "host/PrivateImplementation.h"
#include "host/Neighbourhood.h"

namespace lyn {
namespace generic {

// The elementary operators (host/Neighbourhood.h): the fixed 3x3 (3x3x3) neighbourhoods, and
// explicit offset lists folded in list order, plan by plan (Offsets2D) or across plans (Offsets3D).
using lyn::Neighbourhood;
using lyn::neighbourhoodOf;
using lyn::neighbourhoodName;
// Whether the operator reaches across plans (else a volume is processed plan by plan).
bool reachesAcrossPlans(Neighbourhood n);

// One stage of a run: an operator applied `passes` times, each pass reading what the previous wrote.
struct Stage {
    Neighbourhood neighbourhood;
    unsigned passes;
    std::vector<kernel::Offset3D> offsets;  // the offset operators only (z = 0 for Offsets2D)
    bool operator==(const Stage& o) const {
        return neighbourhood == o.neighbourhood && passes == o.passes && offsets == o.offsets;
    }
};

// A structuring element as a run: stages in order, each one progress step. The first pass of the
// run reads the input image; every later pass reads the output, so the stages chain.
using PassList = std::vector<Stage>;

PassList offsetPasses(const std::vector<kernel::Offset2D>& offsets);
PassList offsetPasses(const std::vector<kernel::Offset3D>& offsets);
// Fast disk of radius r: floor(r/2) 8-connected passes then the rest 4-connected; r <= 1 is the
// 4-connected stage alone. Fast ball: trunc(0.6 r) 6-connected, trunc(0.3 r) 18-connected (each
// stage only when it has passes), then the rest 26-connected, always present.
PassList fastDiskPasses(unsigned radius);
PassList fastBallPasses(unsigned radius);
// The reflected structuring element: offsets negated in place (the fixed operators are symmetric).
PassList mirror(PassList list);
// How far a run reads from an output voxel along (column, row, plan), in either direction: what a
// tile of a larger image needs around it to compute its voxels as the whole image would.
std::array<long, 3> reach(const PassList& list);

// What a run does, stage by stage, for tests and diagnostics: called as each stage starts.
struct StageStart {
    std::size_t index;       // 0-based
    std::size_t steps;       // progress steps of the run: one per stage
    const Stage* stage;
    bool readsInput;         // false: it reads the output, which earlier stages wrote
};
using StageObserver = std::function<void(const StageStart&)>;

// Runs the list with dilation (maximum) or erosion (minimum). Out-of-image voxels read as the type's
// lowest value (dilation) or highest (erosion), the finite extremes for floats. Input and output may
// be the same image. An empty list, or one whose stages have no passes, leaves the output untouched.
// Progress is reported to `algo` in equal steps per stage; its cancellation raises ExceptionCancelation.
void runPasses(BaseAlgorithm& algo, const ImageModel& input, ImageModel& output, const PassList& list, bool dilate,
               const StageObserver& observer = {});

// Several passes of the 8-connected square (26-connected cube) as one box of side 2N + 1: the passes
// compose into the box clipped to the image, with the border value joining wherever the box leaves
// the image, and a box is separable. Along rows the extremum of 2N + 1 neighbours comes from shifted
// copies doubling in reach, log2(2N + 1) + 1 folds per voxel on a row held in cache, which the
// compiler vectorises; along columns and plans from van Herk/Gil-Werman running extrema over strips
// of columns, three folds per voxel whatever N. Parallel (TBB) over rows and strips.
// The box steps aside, having written nothing, when it would not give the passes' bytes (float data
// holding a NaN, or zeros of both signs: there the fold order decides) or when its buffers would not
// fit the memory limits; runStage then runs the passes.
enum class BoxOutcome { Done, NotABox, FoldOrderShows, OverBudget };
const char* boxOutcomeName(BoxOutcome outcome);

// Progress and cancellation of a box run; both are called from any worker thread.
class BoxPoll {
public:
    virtual ~BoxPoll();
    // Asked before every row, strip or scanned row: true stops the run with ExceptionCancelation.
    virtual bool cancelled() = 0;
    // Rising fraction of the box's work.
    virtual void progress(double fraction) = 0;
};

// Whether `stage` is one the box can compute: the square or cube with at least two passes.
bool isBoxStage(const Stage& stage);
// Working memory of the box for images of these extents and element size, at most `threads`
// workers: buffers of each worker's row or strip. Zero when the limits leave no room: the memory
// stays strictly below `memoryBudget` and, per worker, below 1 MiB or the image's share, whichever
// is larger.
std::uint64_t boxWorkingBytes(const Extents& extents, std::size_t elementSize, const Stage& stage, int threads,
                              std::uint64_t memoryBudget);
// `source` (the stage's input, possibly `output` itself) through the stage's passes into `output`, of
// the same type and extents, with the current TBB arena's threads.
BoxOutcome runBox(const ImageModel& source, ImageModel& output, const Stage& stage, bool dilate,
                  std::uint64_t memoryBudget, BoxPoll& poll);
// The setting "LYN_GENERIC_BOX" (default true); false keeps the plain passes, the box's reference.
bool boxEnabled();

// Voxel by voxel, images of one type and extents, `target` possibly one of the sources: a copy, and
// minuend - subtrahend saturated at the type's range for integers, IEEE for floats. `step` receives
// progress and is polled for cancellation.
void copyImage(const ImageModel& source, ImageModel& target, algorithms::AbstractPrivateImplementation& step);
void subtract(const ImageModel& minuend, const ImageModel& subtrahend, ImageModel& target,
              algorithms::AbstractPrivateImplementation& step);

void intensityExtrema(BaseAlgorithm& algo, const ImageModel& input, int mode, analysis::IntensityExtremaMsr& result);
// After either implementation: fills the exact values (from the doubles when `fromDoubles`, as a
// runner leaves them) and re-scans every element whose minimum is the type's highest finite value
// or whose maximum is its lowest (and, from doubles, every element of a 64-bit integer image), so
// that infinities, empty and NaN-only elements and whole 64-bit integers are reported as they are.
void settleExtrema(BaseAlgorithm& algo, const ImageModel& input, int mode, analysis::IntensityExtremaMsr& result,
                   bool fromDoubles);

} // namespace generic
} // namespace lyn
