#include "python/src/Shapes.h"

#include <limits>

#include "host/Algorithms.h"

namespace py = pybind11;

namespace lyn {
namespace python {

namespace {

struct ShapeEntry {
    const char* name;
    int dimensions;
    const char* options;   // comma-separated
    const char* required;  // comma-separated
};

// The tool's shapes and their options; square and cube are computed by this build.
constexpr ShapeEntry kShapes[] = {
    {"square", 2, "radius,connectivity", ""},
    {"cube", 3, "radius,connectivity", ""},
    {"disk", 2, "radius,exact", "radius"},
    {"ball", 3, "radius,exact", "radius"},
    {"line", 2, "length,angle", "length"},
    {"disk3d", 3, "radius,angles", "radius"},
    {"line3d", 3, "length,angles", "length"},
};

py::tuple split(const char* list) {
    py::list out;
    std::string s(list);
    for (std::size_t i = 0; i < s.size();) {
        std::size_t j = s.find(',', i);
        if (j == std::string::npos) j = s.size();
        out.append(s.substr(i, j - i));
        i = j + 1;
    }
    return py::tuple(out);
}

const ShapeEntry& entry(const std::string& shape) {
    for (const ShapeEntry& e : kShapes)
        if (shape == e.name) return e;
    std::string names;
    for (const ShapeEntry& e : kShapes) names += (names.empty() ? "" : ", ") + std::string(e.name);
    throw py::value_error("shape: unknown shape '" + shape + "' (" + names + ")");
}

unsigned radiusOf(const ShapeValues& v) {
    if (v.radius > long(std::numeric_limits<unsigned>::max())) throw py::value_error("radius: is too large");
    return v.radius < 0 ? 1u : static_cast<unsigned>(v.radius);
}

template <class Algo>
class SquareRun : public MorphologyRun {
public:
    SquareRun(unsigned radius, int neighbourhood) {
        m_algo.kernelRadius = radius;
        m_algo.neighborhood = neighbourhood;
    }
    BaseAlgorithm& algorithm() override { return m_algo; }
    void bind(const ImageModel* input, ImageModel* output) override {
        m_algo.inputImage = input;
        m_algo.outputImage = output;
    }
    bool isIdentity() const override { return m_algo.kernelRadius == 0u; }

private:
    Algo m_algo;
};

} // namespace

std::unique_ptr<MorphologyRun> makeMorphology(const std::string& shape, const ShapeValues& values, bool dilate,
                                              const Extents&) {
    const ShapeEntry& e = entry(shape);
    const unsigned radius = radiusOf(values);
    if (shape == "square") {
        const long c = values.connectivity < 0 ? 8 : values.connectivity;
        if (c != 8 && c != 4) throw py::value_error("connectivity: must be 8 or 4 with shape='square'");
        const int n = c == 4 ? 0 : 1;
        if (dilate) return std::make_unique<SquareRun<morphology::Dilation2d>>(radius, n);
        return std::make_unique<SquareRun<morphology::Erosion2d>>(radius, n);
    }
    if (shape == "cube") {
        const long c = values.connectivity < 0 ? 26 : values.connectivity;
        if (c != 26 && c != 18 && c != 6) throw py::value_error("connectivity: must be 26, 18 or 6 with shape='cube'");
        const int n = c == 6 ? 0 : c == 18 ? 1 : 2;
        if (dilate) return std::make_unique<SquareRun<morphology::Dilation3d>>(radius, n);
        return std::make_unique<SquareRun<morphology::Erosion3d>>(radius, n);
    }
    throw py::value_error("shape: '" + std::string(e.name) + "' is not available in this build of lyn (square and cube are)");
}

py::dict shapeTable() {
    py::dict d;
    for (const ShapeEntry& e : kShapes) d[e.name] = py::make_tuple(e.dimensions, split(e.options), split(e.required));
    return d;
}

std::array<long, 3> shapeReach(const std::string& shape, const ShapeValues& values, int dimensions) {
    const ShapeEntry& e = entry(shape);
    const long r = long(radiusOf(values));
    if (shape == "square") return {0, r, r};
    if (shape == "cube") return {dimensions >= 3 ? r : 0, r, r};
    throw py::value_error("shape: '" + std::string(e.name) + "' is not available in this build of lyn (square and cube are)");
}

} // namespace python
} // namespace lyn
