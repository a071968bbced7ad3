#pragma once
// The host's shape table as the Python package sees it: options arrive as a dict of the options
// the caller gave, and errors leave as ValueError naming the option.
#include <pybind11/pybind11.h>

#include <array>
#include <memory>
#include <string>

#include "host/CompositeMorphology.h"
#include "host/Shapes.h"

namespace lyn {
namespace python {

// A dilation or erosion by `shape`, images not yet set. Raises ValueError naming the option.
std::unique_ptr<morphology::StructuringElementMorphology> makeMorphology(const std::string& shape,
                                                                         const pybind11::dict& options, bool dilate,
                                                                         bool& identity);

// An opening, closing, gradient or top-hat by `shape`, images not yet set. Raises ValueError naming the option.
std::unique_ptr<morphology::CompositeMorphology> makeComposite(morphology::CompositeMorphology::Operation op,
                                                               const std::string& shape, const pybind11::dict& options);

// name -> (dimensions, options taken, options required, summary).
pybind11::dict shapeTable();

// How far the shape reaches from a voxel along (plans, rows, cols), as the host's table says.
std::array<long, 3> shapeReach(const std::string& shape, const pybind11::dict& options);

} // namespace python
} // namespace lyn
