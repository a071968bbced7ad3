#include "python/src/Shapes.h"

#include <pybind11/stl.h>

namespace py = pybind11;

namespace lyn {
namespace python {

namespace {

py::tuple optionNames(unsigned bits) {
    py::list names;
    for (unsigned bit = 1; bit <= shapes::Angles; bit <<= 1)
        if (bits & bit) names.append(shapes::optionName(static_cast<shapes::Option>(bit)));
    return py::tuple(names);
}

// The package has checked the values' Python types; the table checks the rest.
shapes::ShapeParams paramsOf(const py::dict& options) {
    shapes::ShapeParams p;
    for (auto item : options) {
        const std::string name = py::str(item.first);
        py::handle v = item.second;
        if (name == "radius") p.radius = v.cast<unsigned long long>();
        else if (name == "connectivity") p.connectivity = v.cast<int>();
        else if (name == "exact") p.exact = v.cast<bool>();
        else if (name == "length") p.length = v.cast<unsigned long long>();
        else if (name == "angle") p.angle = v.cast<double>();
        else if (name == "angles") p.angles = v.cast<std::array<double, 2>>();
        else throw py::value_error(name + ": not a shape option");
    }
    return p;
}

struct Resolved {
    const shapes::ShapeInfo* info;
    shapes::ShapeParams params;
};

Resolved resolve(const std::string& shape, const py::dict& options) {
    try {
        const shapes::ShapeInfo& info = shapes::findShape(shape);
        shapes::ShapeParams params = paramsOf(options);
        shapes::validate(info, params);
        return {&info, params};
    } catch (const shapes::ShapeError& e) {
        throw py::value_error(e.option() + ": " + e.what());
    }
}

} // namespace

std::unique_ptr<morphology::StructuringElementMorphology> makeMorphology(const std::string& shape,
                                                                         const py::dict& options, bool dilate,
                                                                         bool& identity) {
    const Resolved r = resolve(shape, options);
    identity = shapes::isIdentity(*r.info, r.params);
    return shapes::makeAlgorithm(*r.info, r.params, dilate);
}

std::unique_ptr<morphology::CompositeMorphology> makeComposite(morphology::CompositeMorphology::Operation op,
                                                               const std::string& shape, const py::dict& options) {
    const Resolved r = resolve(shape, options);
    auto algo = morphology::CompositeMorphology::create(op);
    algo->setStructuringElement(morphology::shapeElement(*r.info, r.params));
    return algo;
}

py::dict shapeTable() {
    py::dict d;
    for (const shapes::ShapeInfo& s : shapes::shapeTable())
        d[s.name] = py::make_tuple(s.dimensions, optionNames(s.options), optionNames(s.required), s.summary);
    return d;
}

std::array<long, 3> shapeReach(const std::string& shape, const py::dict& options) {
    const Resolved r = resolve(shape, options);
    const std::array<long, 3> xyz = shapes::reach(*r.info, r.params);
    return {xyz[2], xyz[1], xyz[0]};
}

} // namespace python
} // namespace lyn
