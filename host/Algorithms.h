#pragma once
// The host's algorithm classes. Each exposes its parameters as properties, in the order below,
// and runs its generic implementation when no registered runner accepts a request.
#include "host/Algorithm.h"
#include "host/Measurement.h"

namespace lyn {

namespace generic {
struct Stage;
}

// Base of the algorithms that read one input image and write one output image.
class ImageToImageAlgorithm : public BaseAlgorithm {
protected:
    // Rejects a missing input or output.
    void checkImages(const ImageModel* input, const ImageModel* output) const;
    // Gives the output the input's type and extents (nothing to do in place).
    void shapeOutput(const ImageModel* input, ImageModel* output);
};

namespace morphology {

// Dilation (maximum) or erosion (minimum) by a structuring element. The element is a value: the
// list of passes its properties describe (host/generic/Generic.h), which the host's generic code runs.
class StructuringElementMorphology : public ImageToImageAlgorithm {
public:
    // Offset lists longer than this are refused as absurd rather than built.
    static constexpr unsigned long maxOffsets = 1000000;

    bool isDilation() const { return m_dilate; }
    // The run the current properties describe; call after the properties have passed their checks.
    virtual std::vector<generic::Stage> passList() const = 0;
    virtual const ImageModel* inputImageModel() const = 0;
    virtual ImageModel* outputImageModel() const = 0;
    virtual void setImages(const ImageModel* input, ImageModel* output) = 0;

protected:
    explicit StructuringElementMorphology(bool dilate) : m_dilate(dilate) {}
    void runGeneric() override;
    // Raises RuleException naming `property` when its value would make more than maxOffsets offsets.
    void checkOffsetCount(const char* property, unsigned long value, unsigned long count) const;
    // Raises RuleException naming `property` unless `value` is finite.
    void checkAngle(const char* property, double value) const;
    // Raises RuleException naming `property` when a length is 0.
    void checkLength(const char* property, unsigned long value) const;

private:
    bool m_dilate;
};

// Dilation or erosion by an elementary neighbourhood applied `kernelRadius` times.
class SquareMorphology : public StructuringElementMorphology {
public:
    Property<const ImageModel*> inputImage{this, "InputImage", nullptr};
    Property<unsigned int> kernelRadius{this, "KernelRadius", 1};
    // 2D: 0 the 4-connected cross, any other value the 8-connected square.
    // 3D: 0 6-connected, 1 18-connected, any other value 26-connected.
    Property<int> neighborhood{this, "Neighborhood", 1};
    Property<ImageModel*> outputImage{this, "OutputImage", nullptr};

    std::vector<generic::Stage> passList() const override;
    const ImageModel* inputImageModel() const override { return inputImage; }
    ImageModel* outputImageModel() const override { return outputImage; }
    void setImages(const ImageModel* input, ImageModel* output) override {
        inputImage = input;
        outputImage = output;
    }

protected:
    SquareMorphology(bool dilate, int dimensions) : StructuringElementMorphology(dilate), m_dimensions(dimensions) {}
    void checkProperties() const override { checkImages(inputImage, outputImage); }
    void prepareOutputs() override { shapeOutput(inputImage, outputImage); }

private:
    int m_dimensions;
};

class Dilation2d : public SquareMorphology {
    LYN_ALGORITHM_CLASS(Dilation2d, "lyn::morphology::Dilation2d")
    Dilation2d() : SquareMorphology(true, 2) {}
};
class Erosion2d : public SquareMorphology {
    LYN_ALGORITHM_CLASS(Erosion2d, "lyn::morphology::Erosion2d")
    Erosion2d() : SquareMorphology(false, 2) {}
};
class Dilation3d : public SquareMorphology {
    LYN_ALGORITHM_CLASS(Dilation3d, "lyn::morphology::Dilation3d")
    Dilation3d() : SquareMorphology(true, 3) {}
};
class Erosion3d : public SquareMorphology {
    LYN_ALGORITHM_CLASS(Erosion3d, "lyn::morphology::Erosion3d")
    Erosion3d() : SquareMorphology(false, 3) {}
};

// Disk (2D) and ball (3D): radius, and mode 0 for the fast decomposition (chained 3x3 or 3x3x3
// passes), any other value for every offset within Euclidean distance r.
class RadiusModeMorphology : public StructuringElementMorphology {
public:
    Property<const ImageModel*> inputImage{this, "InputImage", nullptr};
    Property<unsigned int> kernelRadius{this, "KernelRadius", 1};
    Property<int> mode{this, "Mode", 0};
    Property<ImageModel*> outputImage{this, "OutputImage", nullptr};

    std::vector<generic::Stage> passList() const override;
    const ImageModel* inputImageModel() const override { return inputImage; }
    ImageModel* outputImageModel() const override { return outputImage; }
    void setImages(const ImageModel* input, ImageModel* output) override {
        inputImage = input;
        outputImage = output;
    }

protected:
    RadiusModeMorphology(bool dilate, int dimensions) : StructuringElementMorphology(dilate), m_dimensions(dimensions) {}
    void checkProperties() const override;
    void prepareOutputs() override { shapeOutput(inputImage, outputImage); }

private:
    int m_dimensions;
};

// Line (2D): orientation in degrees counter-clockwise from the column axis, and length in pixels.
class LineMorphology2d : public StructuringElementMorphology {
public:
    Property<const ImageModel*> inputImage{this, "InputImage", nullptr};
    Property<double> angle{this, "Angle", 0.0};
    Property<unsigned int> length{this, "Length", 1};
    Property<ImageModel*> outputImage{this, "OutputImage", nullptr};

    std::vector<generic::Stage> passList() const override;
    const ImageModel* inputImageModel() const override { return inputImage; }
    ImageModel* outputImageModel() const override { return outputImage; }
    void setImages(const ImageModel* input, ImageModel* output) override {
        inputImage = input;
        outputImage = output;
    }

protected:
    explicit LineMorphology2d(bool dilate) : StructuringElementMorphology(dilate) {}
    void checkProperties() const override;
    void prepareOutputs() override { shapeOutput(inputImage, outputImage); }
};

// Disk in an oriented plane, or line, in 3D: azimuth Angle1 and elevation Angle2 in degrees (the
// line's direction, the disk's normal), and the radius or length.
class OrientedMorphology3d : public StructuringElementMorphology {
public:
    Property<const ImageModel*> inputImage{this, "InputImage", nullptr};
    Property<double> angle1{this, "Angle1", 0.0};
    Property<double> angle2{this, "Angle2", 0.0};
    Property<unsigned int> size{this, "Size", 1};
    Property<ImageModel*> outputImage{this, "OutputImage", nullptr};

    std::vector<generic::Stage> passList() const override;
    const ImageModel* inputImageModel() const override { return inputImage; }
    ImageModel* outputImageModel() const override { return outputImage; }
    void setImages(const ImageModel* input, ImageModel* output) override {
        inputImage = input;
        outputImage = output;
    }

protected:
    OrientedMorphology3d(bool dilate, bool disk) : StructuringElementMorphology(dilate), m_disk(disk) {}
    void checkProperties() const override;
    void prepareOutputs() override { shapeOutput(inputImage, outputImage); }

private:
    bool m_disk;
};

#define LYN_SE_CLASS(Name, Base, ...)                          \
    class Name : public Base {                                  \
        LYN_ALGORITHM_CLASS(Name, "lyn::morphology::" #Name)   \
        Name() : Base(__VA_ARGS__) {}                           \
    };
LYN_SE_CLASS(DilationDisk2d, RadiusModeMorphology, true, 2)
LYN_SE_CLASS(ErosionDisk2d, RadiusModeMorphology, false, 2)
LYN_SE_CLASS(DilationBall3d, RadiusModeMorphology, true, 3)
LYN_SE_CLASS(ErosionBall3d, RadiusModeMorphology, false, 3)
LYN_SE_CLASS(DilationLine2d, LineMorphology2d, true)
LYN_SE_CLASS(ErosionLine2d, LineMorphology2d, false)
LYN_SE_CLASS(DilationDisk3d, OrientedMorphology3d, true, true)
LYN_SE_CLASS(ErosionDisk3d, OrientedMorphology3d, false, true)
LYN_SE_CLASS(DilationLine3d, OrientedMorphology3d, true, false)
LYN_SE_CLASS(ErosionLine3d, OrientedMorphology3d, false, false)
#undef LYN_SE_CLASS

} // namespace morphology

namespace analysis {

// Smallest and largest voxel value, for the whole image or per element of the axes that the
// range mode's bits select.
class IntensityExtrema : public BaseAlgorithm {
    LYN_ALGORITHM_CLASS(IntensityExtrema, "lyn::analysis::IntensityExtrema")
    // Bits of "RangeMode": one result per plan, per spectral series (axis 4), per sequence step (axis 3).
    enum RangeModeBits : int { PerPlan = 1, PerSpectral = 2, PerSequence = 4 };

    Property<const ImageModel*> inputImage{this, "InputImage", nullptr};
    Property<int> rangeMode{this, "RangeMode", 0};
    Property<IntensityExtremaMsr*> result{this, "Result", nullptr};

    // Result shape for a mode and image: (plans or 1, axis 3 or 1, axis 4 or 1).
    static object_model::TupleX resultShape(int mode, const ImageModel& image);

protected:
    void checkProperties() const override;
    void runGeneric() override;
    void finishRun() override;
};

} // namespace analysis

// Names of every algorithm class, in the plug-in's source-file order.
const std::vector<const char*>& algorithmClassNames();

} // namespace lyn
