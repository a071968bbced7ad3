#pragma once
// The host's shape table as the Python package sees it: options arrive as a dict of the options
// the caller gave, errors leave as ValueError naming the option, and the reach of a shape (how far
// its dilation looks from a voxel along each axis) comes from the algorithm's own list of passes.
#include <pybind11/pybind11.h>

#include <array>
#include <memory>
#include <string>

#include "host/Shapes.h"

namespace lyn {
namespace python {

// A dilation or erosion by `shape`, images not yet set. Raises ValueError naming the option.
std::unique_ptr<morphology::StructuringElementMorphology> makeMorphology(const std::string& shape,
                                                                         const pybind11::dict& options, bool dilate,
                                                                         bool& identity);

// name -> (dimensions, options taken, options required, summary).
pybind11::dict shapeTable();

// How far the shape reaches from a voxel along (plans, rows, cols): per stage, the widest offset of
// its operator times its passes, summed over the stages.
std::array<long, 3> shapeReach(const std::string& shape, const pybind11::dict& options);

} // namespace python
} // namespace lyn
