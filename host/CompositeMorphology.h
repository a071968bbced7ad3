#pragma once
// Opening, closing, morphological gradient and top-hats: algorithms run as stages of a structuring
// element's dilation and erosion algorithms (so a runner that serves those serves the stages), and
// a subtraction that saturates at the type's range for integers and follows IEEE for floats.
#include <functional>
#include <memory>
#include <vector>

#include "host/Algorithms.h"
#include "host/Shapes.h"
#include "host/TemporaryImage.h"

namespace lyn {
namespace morphology {

// A structuring element as the composites see it: builds the dilation (dilate true) or the erosion
// by the element, or by its mirror (every offset negated, folded in the original order), every
// property set but the images. Null when the element is the origin alone: that stage is a copy.
using StageFactory = std::function<std::unique_ptr<StructuringElementMorphology>(bool dilate, bool mirrored)>;

// The element of a shape of the table. A centrally symmetric shape is its own mirror, so both
// stages are the shape's own algorithm (which a runner may serve); the mirror of any other shape
// (an even-length line) is a MirroredMorphology.
StageFactory shapeElement(const shapes::ShapeInfo& shape, const shapes::ShapeParams& params);

// Whether every stage's offsets, negated, are the same set (the fixed neighbourhoods always are).
bool isCentrallySymmetric(const std::vector<generic::Stage>& list);

// Dilation or erosion by the mirror of another algorithm's element: its pass list with every offset
// negated, in the original order. No runner serves it; the host's generic code does.
class MirroredMorphology : public StructuringElementMorphology {
    LYN_ALGORITHM_CLASS(MirroredMorphology, "lyn::morphology::MirroredMorphology")
    explicit MirroredMorphology(std::unique_ptr<StructuringElementMorphology> original);

    std::vector<generic::Stage> passList() const override;
    const ImageModel* inputImageModel() const override { return m_original->inputImageModel(); }
    ImageModel* outputImageModel() const override { return m_original->outputImageModel(); }
    void setImages(const ImageModel* input, ImageModel* output) override { m_original->setImages(input, output); }

protected:
    void checkProperties() const override { checkImages(inputImageModel(), outputImageModel()); }
    void prepareOutputs() override { shapeOutput(inputImageModel(), outputImageModel()); }

private:
    std::unique_ptr<StructuringElementMorphology> m_original;
};

class CompositeMorphology : public ImageToImageAlgorithm {
public:
    // open: erode, then dilate by the mirror; close: dilate, then erode by the mirror;
    // gradient: dilation - erosion; tophat: input - opening; blackhat: closing - input.
    enum Operation { Open, Close, Gradient, TopHat, BlackHat };

    Property<const ImageModel*> inputImage{this, "InputImage", nullptr};
    Property<ImageModel*> outputImage{this, "OutputImage", nullptr};

    static std::unique_ptr<CompositeMorphology> create(Operation op);

    void setStructuringElement(StageFactory factory) { m_factory = std::move(factory); }
    void setImages(const ImageModel* input, ImageModel* output) {
        inputImage = input;
        outputImage = output;
    }
    Operation getOperation() const { return m_op; }
    // Whether the operation needs an intermediate image besides the output: the gradient always,
    // the top-hats when they write over their input.
    bool needsIntermediate() const;
    // The runner of each stage of the last execute() in run order (null: the generic code ran it).
    const std::vector<const Runnable*>& getStageRunners() const { return m_stageRunners; }
    // The intermediate image is kept from one execute() to the next while its type, extents and
    // place still fit, so a repeated run does not pay for fresh pages; this frees it at once.
    void releaseIntermediate() { m_intermediate = {}; }
    // The intermediate image held now (null: none), for callers that watch memory.
    const ImageModel* getIntermediate() const { return m_intermediate ? m_intermediate->getImageModel() : nullptr; }

protected:
    explicit CompositeMorphology(Operation op) : m_op(op) {}
    void checkProperties() const override;
    void prepareOutputs() override;
    void runGeneric() override;

private:
    Operation m_op;
    StageFactory m_factory;
    std::vector<const Runnable*> m_stageRunners;
    RefImpl<io::TemporaryImage> m_intermediate;
};

class Opening : public CompositeMorphology {
    LYN_ALGORITHM_CLASS(Opening, "lyn::morphology::Opening")
    Opening() : CompositeMorphology(Open) {}
};
class Closing : public CompositeMorphology {
    LYN_ALGORITHM_CLASS(Closing, "lyn::morphology::Closing")
    Closing() : CompositeMorphology(Close) {}
};
class MorphologicalGradient : public CompositeMorphology {
    LYN_ALGORITHM_CLASS(MorphologicalGradient, "lyn::morphology::MorphologicalGradient")
    MorphologicalGradient() : CompositeMorphology(Gradient) {}
};
class WhiteTopHat : public CompositeMorphology {
    LYN_ALGORITHM_CLASS(WhiteTopHat, "lyn::morphology::WhiteTopHat")
    WhiteTopHat() : CompositeMorphology(TopHat) {}
};
class BlackTopHat : public CompositeMorphology {
    LYN_ALGORITHM_CLASS(BlackTopHat, "lyn::morphology::BlackTopHat")
    BlackTopHat() : CompositeMorphology(BlackHat) {}
};

} // namespace morphology
} // namespace lyn
