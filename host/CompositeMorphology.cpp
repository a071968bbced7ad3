#include "host/CompositeMorphology.h"

#include <algorithm>
#include <array>
#include <tuple>

#include "host/PrivateImplementation.h"
#include "host/Settings.h"
#include "host/TemporaryImage.h"
#include "host/generic/Generic.h"

namespace lyn {
namespace morphology {

bool isCentrallySymmetric(const std::vector<generic::Stage>& list) {
    for (const generic::Stage& stage : list) {
        std::vector<kernel::Offset3D> offsets = stage.offsets;
        std::vector<kernel::Offset3D> negated;
        for (const kernel::Offset3D& o : offsets) negated.push_back({-o.x, -o.y, -o.z});
        auto order = [](const kernel::Offset3D& a, const kernel::Offset3D& b) {
            return std::tie(a.z, a.y, a.x) < std::tie(b.z, b.y, b.x);
        };
        std::sort(offsets.begin(), offsets.end(), order);
        std::sort(negated.begin(), negated.end(), order);
        if (!(offsets == negated)) return false;
    }
    return true;
}

MirroredMorphology::MirroredMorphology(std::unique_ptr<StructuringElementMorphology> original)
    : StructuringElementMorphology(original->isDilation()), m_original(std::move(original)) {}

std::vector<generic::Stage> MirroredMorphology::passList() const { return generic::mirror(m_original->passList()); }

StageFactory shapeElement(const shapes::ShapeInfo& shape, const shapes::ShapeParams& params) {
    const shapes::ShapeInfo* info = &shape;
    return [info, params](bool dilate, bool mirrored) -> std::unique_ptr<StructuringElementMorphology> {
        if (shapes::isIdentity(*info, params)) return nullptr;
        auto algo = shapes::makeAlgorithm(*info, params, dilate);
        if (mirrored && !isCentrallySymmetric(algo->passList()))
            return std::make_unique<MirroredMorphology>(std::move(algo));
        return algo;
    };
}

std::unique_ptr<CompositeMorphology> CompositeMorphology::create(Operation op) {
    switch (op) {
    case Open: return std::make_unique<Opening>();
    case Close: return std::make_unique<Closing>();
    case Gradient: return std::make_unique<MorphologicalGradient>();
    case TopHat: return std::make_unique<WhiteTopHat>();
    case BlackHat: return std::make_unique<BlackTopHat>();
    }
    raise<RuntimeError>("Unknown composite operation " + std::to_string(int(op)), "host/CompositeMorphology",
                        __LINE__);
}

bool CompositeMorphology::needsIntermediate() const {
    const bool inPlace = inputImage.get() && inputImage.get() == outputImage.get();
    return m_op == Gradient || ((m_op == TopHat || m_op == BlackHat) && inPlace);
}

void CompositeMorphology::checkProperties() const {
    checkImages(inputImage, outputImage);
    if (!m_factory)
        raise<RuleException>(std::string(getClassName()) + ": the structuring element is not set",
                             "host/CompositeMorphology", __LINE__);
}

void CompositeMorphology::prepareOutputs() { shapeOutput(inputImage, outputImage); }

namespace {

// The steps of one run: each stage, copy or subtraction fills an equal share of the progress.
class Steps : public algorithms::AbstractPrivateImplementation {
public:
    Steps(BaseAlgorithm* owner, std::uint64_t count) : AbstractPrivateImplementation(owner) { m_nbSteps = count; }
    void run() override {}
};

// One step; as a stage's progress observer it also hands the composite's cancellation to the stage.
class Step : public algorithms::AbstractPrivateImplementation, public ProgressObserver {
public:
    explicit Step(std::function<void(Step&)> body) : AbstractPrivateImplementation(nullptr), m_body(std::move(body)) {}
    void run() override {
        if (isCancelled()) throw ExceptionCancelation();
        m_body(*this);
    }
    void watch(BaseAlgorithm* stage) { m_stage = stage; }
    void onProgress(double fraction) override {
        if (m_stage && isCancelled()) m_stage->cancelExecution();
        reportFraction(fraction);
    }

private:
    std::function<void(Step&)> m_body;
    BaseAlgorithm* m_stage = nullptr;
};

} // namespace

void CompositeMorphology::runGeneric() {
    const ImageModel& in = *inputImage.get();
    ImageModel& out = *outputImage.get();
    const std::string name = getClassName();
    m_stageRunners.clear();

    // The intermediate image follows the rules of temporary images: on disk when an image is and
    // the setting allows it, else in memory within the extra-memory budget, which the stages then share.
    std::uint64_t budget = getMaximumExtraMemoryUsageInBytes();
    if (needsIntermediate()) {
        const std::uint64_t bytes = in.getSizeInBytes();
        const bool onDisk =
            hasPropertyImageOnDisk() && globalSettings()->getValueAsBool("LYN_RECURSIVITY_TMP_DISK_IMAGE", true);
        if (!onDisk && bytes >= budget)
            raise<RuleException>(name + ": the intermediate image needs " + std::to_string(bytes) +
                                     " bytes, more than the extra memory allowed (" + std::to_string(budget) +
                                     " bytes); raise the memory budget",
                                 "host/CompositeMorphology", __LINE__);
        const io::TemporaryImage::LocationMode mode = onDisk ? io::TemporaryImage::OnDisk : io::TemporaryImage::InMemory;
        const ImageModel* kept = m_intermediate ? m_intermediate->getImageModel() : nullptr;
        if (!kept || m_intermediate->getLocationMode() != mode || kept->getVoxelType() != in.getVoxelType() ||
            kept->extents() != in.extents()) {
            m_intermediate = {};  // the old one goes before the new one is allocated
            RefImpl<io::TemporaryImage> temp = io::TemporaryImage::New(mode);
            const Extents e = in.extents();
            if (!temp->reserve(in.getVoxelType(), e[0], e[1], e[2], e[3], e[4]))
                raise<RuleException>(name + ": the intermediate image " + (onDisk ? "on disk" : "in memory") +
                                         " of " + std::to_string(bytes) + " bytes cannot be allocated",
                                     "host/CompositeMorphology", __LINE__);
            m_intermediate = temp;
        }
        if (!onDisk) budget -= bytes;
    } else {
        m_intermediate = {};
    }
    RefImpl<io::TemporaryImage> temp = m_intermediate;
    ImageModel* tmp = temp ? temp->getImageModel() : nullptr;

    struct Stage {
        bool dilate;
        bool mirrored;
        const ImageModel* source;
        ImageModel* target;
    };
    std::array<Stage, 2> stages{};
    const ImageModel* minuend = nullptr;
    const ImageModel* subtrahend = nullptr;
    // Open and close write their first stage into the output and finish there in place; the top-hats
    // do the same in the output when it is not the input, and subtract from it.
    ImageModel* work = tmp ? tmp : &out;
    switch (m_op) {
    case Open: stages = {Stage{false, false, &in, &out}, Stage{true, true, &out, &out}}; break;
    case Close: stages = {Stage{true, false, &in, &out}, Stage{false, true, &out, &out}}; break;
    case Gradient:
        // The erosion first: in place, the dilation overwrites the input it reads.
        stages = {Stage{false, false, &in, tmp}, Stage{true, false, &in, &out}};
        minuend = &out;
        subtrahend = tmp;
        break;
    case TopHat:
        stages = {Stage{false, false, &in, work}, Stage{true, true, work, work}};
        minuend = &in;
        subtrahend = work;
        break;
    case BlackHat:
        stages = {Stage{true, false, &in, work}, Stage{false, true, work, work}};
        minuend = work;
        subtrahend = &in;
        break;
    }

    Steps steps(this, stages.size() + (minuend ? 1 : 0));
    for (const Stage& s : stages) {
        std::unique_ptr<StructuringElementMorphology> algo = m_factory(s.dilate, s.mirrored);
        Step step([&](Step& self) {
            if (!algo) {
                generic::copyImage(*s.source, *s.target, self);
                return;
            }
            algo->setUsePlugin(getUsePlugin());
            algo->setMaxThreads(getMaxThreads());
            algo->setGrainSizes(getGrainSizes());
            algo->setMaximumExtraMemoryUsageInBytes(budget);
            self.watch(algo.get());
            algo->setProgressObserver(&self);
            algo->setImages(s.source, s.target);
            algo->execute();
            m_stageRunners.push_back(algo->getLastRunner());
        });
        steps.runChildAlgo(&step);
    }
    if (minuend) {
        Step step([&](Step& self) { generic::subtract(*minuend, *subtrahend, out, self); });
        steps.runChildAlgo(&step);
    }
}

} // namespace morphology
} // namespace lyn
