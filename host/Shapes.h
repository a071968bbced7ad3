#pragma once
// The structuring elements by name: one table says, for each shape, its dimensionality, the options
// it takes, their defaults and limits, and how to build its dilation or erosion. The tool, the Python
// package and the composite operations (opening, closing, ...) all go through it, so a new shape is
// one entry here (and, when it needs one, a new offset generator in host/Kernel).
#include <array>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/Algorithms.h"

namespace lyn {
namespace shapes {

// The options a shape may take; a shape's entry lists those it accepts and those it requires.
enum Option : unsigned { Radius = 1, Connectivity = 2, Exact = 4, Length = 8, Angle = 16, Angles = 32 };

// Option values as the user gave them; an empty optional is an option not given.
struct ShapeParams {
    std::optional<unsigned long long> radius;
    std::optional<int> connectivity;
    bool exact = false;
    std::optional<unsigned long long> length;
    std::optional<double> angle;                  // degrees
    std::optional<std::array<double, 2>> angles;  // degrees: azimuth, elevation
};

struct ShapeInfo {
    const char* name;
    int dimensions;      // 2: applies plan by plan to a volume; 3: a 2D image is a volume of one plan
    unsigned options;    // Option bits accepted
    unsigned required;   // Option bits that must be given
    const char* summary; // one line for help texts
};

// Bad shape parameters. `option` is the option's plain name ("radius", "angles", "shape"), which
// front ends spell their own way (--radius, radius=); what() is the message without that name, to
// be shown as "NAME: MESSAGE".
class ShapeError : public std::invalid_argument {
public:
    ShapeError(std::string option, const std::string& message) : std::invalid_argument(message), m_option(std::move(option)) {}
    const std::string& option() const { return m_option; }

private:
    std::string m_option;
};

// Every shape, in the order help texts list them.
const std::vector<ShapeInfo>& shapeTable();
// The entry of `name`; ShapeError naming "shape" when there is none.
const ShapeInfo& findShape(const std::string& name);
// Plain name of an option bit ("radius", ...).
const char* optionName(Option option);

// Checks the parameters against the shape: options it does not take, missing ones, values out of
// range, and sizes whose offset list would be absurd. Raises ShapeError naming the option.
void validate(const ShapeInfo& shape, const ShapeParams& params);

// Whether the shape is the origin alone (radius 0, length 1): its dilation and erosion are the input.
// The algorithms leave their output untouched for zero passes, so a caller copies instead.
bool isIdentity(const ShapeInfo& shape, const ShapeParams& params);

// The configured dilation or erosion, images not yet set; `params` must have passed validate().
std::unique_ptr<morphology::StructuringElementMorphology> makeAlgorithm(const ShapeInfo& shape,
                                                                        const ShapeParams& params, bool dilate);

// How far the shape reads from an output voxel along (column, row, plan), in either direction;
// `params` must have passed validate().
std::array<long, 3> reach(const ShapeInfo& shape, const ShapeParams& params);

// One line per shape: name, dimensionality, the options it takes, summary.
std::string describeShapes(const std::string& indent = "  ");

} // namespace shapes
} // namespace lyn
