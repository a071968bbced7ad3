#include "host/Algorithms.h"

#include <cmath>

#include "host/Kernel.h"

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

void StructuringElementMorphology::runGeneric() {
    generic::runPasses(*this, *inputImageModel(), *outputImageModel(), passList(), m_dilate);
}

void StructuringElementMorphology::checkOffsetCount(const char* property, unsigned long value,
                                                    unsigned long count) const {
    if (count > maxOffsets)
        raise<RuleException>(std::string(getClassName()) + ": " + property + " " + std::to_string(value) +
                                 " would make more than " + std::to_string(maxOffsets) + " offsets",
                             "host/Algorithms", __LINE__);
}

void StructuringElementMorphology::checkAngle(const char* property, double value) const {
    if (!std::isfinite(value))
        raise<RuleException>(std::string(getClassName()) + ": " + property + " must be a finite number of degrees",
                             "host/Algorithms", __LINE__);
}

void StructuringElementMorphology::checkLength(const char* property, unsigned long value) const {
    if (value == 0)
        raise<RuleException>(std::string(getClassName()) + ": " + property + " must be at least 1", "host/Algorithms",
                             __LINE__);
}

std::vector<generic::Stage> SquareMorphology::passList() const {
    return {generic::Stage{generic::neighbourhoodOf(m_dimensions, neighborhood), kernelRadius, {}}};
}

void RadiusModeMorphology::checkProperties() const {
    checkImages(inputImage, outputImage);
    if (mode == 0) return;  // the decomposition makes no offset list
    const unsigned long cap = maxOffsets;
    checkOffsetCount("KernelRadius", kernelRadius, m_dimensions == 2 ? kernel::countDiskOffsets(kernelRadius, cap)
                                                                     : kernel::countSphereOffsets(kernelRadius, cap));
}

std::vector<generic::Stage> RadiusModeMorphology::passList() const {
    if (mode == 0) return m_dimensions == 2 ? generic::fastDiskPasses(kernelRadius) : generic::fastBallPasses(kernelRadius);
    return m_dimensions == 2 ? generic::offsetPasses(kernel::generateDiskOffset2DCollection(kernelRadius))
                             : generic::offsetPasses(kernel::generateSphereOffset3DCollection(kernelRadius));
}

void LineMorphology2d::checkProperties() const {
    checkImages(inputImage, outputImage);
    checkAngle("Angle", angle);
    checkLength("Length", length);
    checkOffsetCount("Length", length, length);
}

std::vector<generic::Stage> LineMorphology2d::passList() const {
    return generic::offsetPasses(kernel::generateLineOffset2DCollectionWithConstNumOfPixels(angle, length, true));
}

void OrientedMorphology3d::checkProperties() const {
    checkImages(inputImage, outputImage);
    checkAngle("Angle1", angle1);
    checkAngle("Angle2", angle2);
    if (m_disk) {
        checkOffsetCount("Size", size, kernel::countDisk3DOffsets(angle2, angle1, size, maxOffsets));
    } else {
        checkLength("Size", size);
        checkOffsetCount("Size", size, size);
    }
}

std::vector<generic::Stage> OrientedMorphology3d::passList() const {
    // The generators take the elevation (Angle2) first.
    if (m_disk) return generic::offsetPasses(kernel::generateDiskOffset3DCollection(angle2, angle1, size));
    return generic::offsetPasses(kernel::generateLineOffset3DCollectionWithConstNumOfPixels(angle2, angle1, size, true));
}

} // namespace morphology

namespace analysis {

object_model::TupleX IntensityExtrema::resultShape(int mode, const ImageModel& image) {
    object_model::TupleX shape(3);
    shape[0] = (mode & PerPlan) ? image.getNumOf(Plans) : 1;
    shape[1] = (mode & PerSequence) ? image.getNumOf(Sequence) : 1;
    shape[2] = (mode & PerSpectral) ? image.getNumOf(Spectral) : 1;
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

void IntensityExtrema::finishRun() {
    generic::settleExtrema(*this, *inputImage.get(), rangeMode, *result.get(), getLastRunner() != nullptr);
}

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
