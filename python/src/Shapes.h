#pragma once
// The shapes the Python package offers, as the package sees them: option values, the algorithm that
// computes a dilation or erosion with them, and how far they reach (for chunked arrays).
#include <pybind11/pybind11.h>

#include <array>
#include <memory>
#include <string>

#include "host/Algorithm.h"
#include "host/Image.h"

namespace lyn {
namespace python {

// Option values as given by the caller; negative integers mean "not given".
struct ShapeValues {
    long radius = -1;
    long connectivity = -1;
    long length = -1;
    double angle = 0.0;
    double angle1 = 0.0;
    double angle2 = 0.0;
    bool exact = false;
};

// One dilation or erosion, ready to run once its images are bound.
class MorphologyRun {
public:
    virtual ~MorphologyRun() = default;
    virtual BaseAlgorithm& algorithm() = 0;
    virtual void bind(const ImageModel* input, ImageModel* output) = 0;
    // True when the shape is the origin alone (radius 0): the result is the input.
    virtual bool isIdentity() const = 0;
};

// Raises ValueError naming the argument for an unknown shape or a bad option value.
std::unique_ptr<MorphologyRun> makeMorphology(const std::string& shape, const ShapeValues& values, bool dilate,
                                              const Extents& extents);

// name -> (dimensions, options taken, options required).
pybind11::dict shapeTable();

// Reach of the shape along (plans, rows, cols) on an image of `dimensions` axes (2: no plans).
std::array<long, 3> shapeReach(const std::string& shape, const ShapeValues& values, int dimensions);

} // namespace python
} // namespace lyn
