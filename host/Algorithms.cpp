#include "host/Algorithms.h"

#include "host/generic/Generic.h"

namespace lyn {

void ImageToImageAlgorithm::checkImages(const ImageModel* input, const ImageModel* output) const {
    std::string name = getClassName();
    if (!input) raise<RuleException>(name + ": the input image is not set", "host/Algorithms", __LINE__);
    if (!output) raise<RuleException>(name + ": the output image is not set", "host/Algorithms", __LINE__);
}

void ImageToImageAlgorithm::shapeOutput(const ImageModel* input, ImageModel* output) {
    if (output != input) output->enforceSameCharacteristics(input, ImageModel::SameAll);
}

namespace morphology {

void SquareMorphology::checkProperties() const { checkImages(inputImage, outputImage); }

void SquareMorphology::prepareOutputs() { shapeOutput(inputImage, outputImage); }

void SquareMorphology::runGeneric() {
    generic::squareMorphology(*this, *inputImage.get(), *outputImage.get(), kernelRadius,
                              generic::neighbourhoodOf(m_dimensions, neighborhood), m_dilate);
}

void StructuringElementMorphology::runGeneric() {
    raise<RuntimeError>(std::string(getClassName()) + " has no generic implementation in this build of the host",
                        "host/Algorithms", __LINE__);
}

} // namespace morphology

namespace analysis {

object_model::TupleX IntensityExtrema::resultShape(int mode, const ImageModel& image) {
    object_model::TupleX shape(3);
    shape[0] = (mode & 1) ? image.getNumOf(Plans) : 1;
    shape[1] = (mode & 4) ? image.getNumOf(Sequence) : 1;
    shape[2] = (mode & 2) ? image.getNumOf(Spectral) : 1;
    return shape;
}

void IntensityExtrema::checkProperties() const {
    if (!inputImage.get())
        raise<RuleException>("lyn::analysis::IntensityExtrema: the input image is not set", "host/Algorithms", __LINE__);
    if (!result.get())
        raise<RuleException>("lyn::analysis::IntensityExtrema: the result measurement is not set", "host/Algorithms",
                             __LINE__);
}

void IntensityExtrema::runGeneric() { generic::intensityExtrema(*this, *inputImage.get(), rangeMode, *result.get()); }

} // namespace analysis

const std::vector<const char*>& algorithmClassNames() {
    static const std::vector<const char*> names = {
        "lyn::analysis::IntensityExtrema",  "lyn::morphology::Dilation2d",     "lyn::morphology::Dilation3d",
        "lyn::morphology::DilationBall3d",  "lyn::morphology::DilationDisk2d", "lyn::morphology::DilationDisk3d",
        "lyn::morphology::DilationLine2d",  "lyn::morphology::DilationLine3d", "lyn::morphology::Erosion2d",
        "lyn::morphology::Erosion3d",       "lyn::morphology::ErosionBall3d",  "lyn::morphology::ErosionDisk2d",
        "lyn::morphology::ErosionDisk3d",   "lyn::morphology::ErosionLine2d",  "lyn::morphology::ErosionLine3d",
    };
    return names;
}

} // namespace lyn
