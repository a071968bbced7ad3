#include "host/Shapes.h"

#include <climits>
#include <cmath>
#include <cstdio>

#include "host/Kernel.h"
#include "host/generic/Generic.h"

namespace lyn {
namespace shapes {

const std::vector<ShapeInfo>& shapeTable() {
    static const std::vector<ShapeInfo> table = {
        {"square", 2, Radius | Connectivity, 0, "r (default 1) passes of the 3x3 square, or of the cross (connectivity 4)"},
        {"cube", 3, Radius | Connectivity, 0, "r (default 1) passes of the 26-, 18- or 6-neighbour operator"},
        {"disk", 2, Radius | Exact, Radius, "square and cross passes; exact: every offset within distance r"},
        {"ball", 3, Radius | Exact, Radius, "6/18/26-neighbour passes; exact: every offset within distance r"},
        {"line", 2, Length | Angle, Length, "L pixels through the origin at angle degrees (default 0)"},
        {"disk3d", 3, Radius | Angles, Radius | Angles, "disk of radius r, one voxel thick, across line3d's direction"},
        {"line3d", 3, Length | Angles, Length | Angles, "L voxels through the origin along angles azimuth,elevation"},
    };
    return table;
}

const char* optionName(Option option) {
    switch (option) {
    case Radius: return "radius";
    case Connectivity: return "connectivity";
    case Exact: return "exact";
    case Length: return "length";
    case Angle: return "angle";
    case Angles: return "angles";
    }
    return "?";
}

const ShapeInfo& findShape(const std::string& name) {
    std::string names;
    for (const ShapeInfo& s : shapeTable()) {
        if (name == s.name) return s;
        names += (names.empty() ? "" : ", ") + std::string(s.name);
    }
    throw ShapeError("shape", "unknown shape '" + name + "' (" + names + ")");
}

namespace {

unsigned given(const ShapeParams& p) {
    auto bit = [](bool set, Option o) { return set ? unsigned(o) : 0u; };
    return bit(p.radius.has_value(), Radius) | bit(p.connectivity.has_value(), Connectivity) | bit(p.exact, Exact) |
           bit(p.length.has_value(), Length) | bit(p.angle.has_value(), Angle) | bit(p.angles.has_value(), Angles);
}

bool is(const ShapeInfo& shape, const char* name) { return std::string(shape.name) == name; }

template <class Dilation, class Erosion>
std::unique_ptr<morphology::StructuringElementMorphology> make(bool dilate) {
    if (dilate) return std::make_unique<Dilation>();
    return std::make_unique<Erosion>();
}

unsigned radiusOf(const ShapeParams& p) { return p.radius ? static_cast<unsigned>(*p.radius) : 1u; }

} // namespace

void validate(const ShapeInfo& shape, const ShapeParams& p) {
    const std::string with = " with shape " + std::string(shape.name);
    for (unsigned bit = 1; bit <= Angles; bit <<= 1) {
        const Option o = static_cast<Option>(bit);
        if ((given(p) & bit) && !(shape.options & bit)) throw ShapeError(optionName(o), "does not apply to shape " + std::string(shape.name));
        if ((shape.required & bit) && !(given(p) & bit)) throw ShapeError(optionName(o), "required" + with);
    }
    if (p.radius && *p.radius > UINT_MAX) throw ShapeError("radius", "too large (at most " + std::to_string(UINT_MAX) + ")");
    if (p.length && *p.length < 1) throw ShapeError("length", "must be at least 1");
    if (p.connectivity) {
        const int c = *p.connectivity;
        if (shape.dimensions == 2 && c != 8 && c != 4) throw ShapeError("connectivity", "must be 8 or 4" + with);
        if (shape.dimensions == 3 && c != 26 && c != 18 && c != 6)
            throw ShapeError("connectivity", "must be 26, 18 or 6" + with);
    }
    if (p.angle && !std::isfinite(*p.angle)) throw ShapeError("angle", "must be a finite number of degrees");
    if (p.angles && !(std::isfinite((*p.angles)[0]) && std::isfinite((*p.angles)[1])))
        throw ShapeError("angles", "must be finite numbers of degrees");
    // Offset lists beyond this are refused before anything is built.
    const unsigned long cap = morphology::StructuringElementMorphology::maxOffsets;
    const std::string tooMany = "would make more than " + std::to_string(cap) + " offsets" + with;
    if (p.length && *p.length > cap) throw ShapeError("length", tooMany);
    if (p.radius && *p.radius <= UINT_MAX) {
        const unsigned long r = static_cast<unsigned long>(*p.radius);
        unsigned long count = 0;
        if (is(shape, "disk") && p.exact) count = kernel::countDiskOffsets(r, cap);
        if (is(shape, "ball") && p.exact) count = kernel::countSphereOffsets(r, cap);
        if (is(shape, "disk3d")) count = kernel::countDisk3DOffsets((*p.angles)[1], (*p.angles)[0], r, cap);
        if (count > cap) throw ShapeError("radius", tooMany);
    }
}

bool isIdentity(const ShapeInfo& shape, const ShapeParams& p) {
    if (shape.options & Radius) return radiusOf(p) == 0;
    return p.length && *p.length == 1;
}

std::unique_ptr<morphology::StructuringElementMorphology> makeAlgorithm(const ShapeInfo& shape, const ShapeParams& p,
                                                                        bool dilate) {
    using namespace morphology;
    const unsigned radius = radiusOf(p);
    const unsigned length = p.length ? static_cast<unsigned>(*p.length) : 1u;
    if (is(shape, "square") || is(shape, "cube")) {
        auto algo = shape.dimensions == 2 ? make<Dilation2d, Erosion2d>(dilate) : make<Dilation3d, Erosion3d>(dilate);
        auto& square = static_cast<SquareMorphology&>(*algo);
        const int c = p.connectivity.value_or(shape.dimensions == 2 ? 8 : 26);
        square.kernelRadius = radius;
        square.neighborhood = c == 4 || c == 6 ? 0 : c == 18 ? 1 : 2;
        return algo;
    }
    if (is(shape, "disk") || is(shape, "ball")) {
        auto algo = shape.dimensions == 2 ? make<DilationDisk2d, ErosionDisk2d>(dilate)
                                          : make<DilationBall3d, ErosionBall3d>(dilate);
        auto& disk = static_cast<RadiusModeMorphology&>(*algo);
        disk.kernelRadius = radius;
        disk.mode = p.exact ? 1 : 0;
        return algo;
    }
    if (is(shape, "line")) {
        auto algo = make<DilationLine2d, ErosionLine2d>(dilate);
        auto& line = static_cast<LineMorphology2d&>(*algo);
        line.angle = p.angle.value_or(0.0);
        line.length = length;
        return algo;
    }
    auto algo = is(shape, "disk3d") ? make<DilationDisk3d, ErosionDisk3d>(dilate)
                                     : make<DilationLine3d, ErosionLine3d>(dilate);
    auto& oriented = static_cast<OrientedMorphology3d&>(*algo);
    oriented.angle1 = (*p.angles)[0];
    oriented.angle2 = (*p.angles)[1];
    oriented.size = is(shape, "disk3d") ? radius : length;
    return algo;
}

std::array<long, 3> reach(const ShapeInfo& shape, const ShapeParams& params) {
    return generic::reach(makeAlgorithm(shape, params, true)->passList());
}

std::string describeShapes(const std::string& indent) {
    std::string out;
    for (const ShapeInfo& s : shapeTable()) {
        std::string options;
        for (unsigned bit = 1; bit <= Angles; bit <<= 1)
            if (s.options & bit) options += (options.empty() ? "" : " ") + std::string(optionName(static_cast<Option>(bit)));
        char line[256];
        std::snprintf(line, sizeof line, "%-7s %dD  %-19s  %s\n", s.name, s.dimensions, options.c_str(), s.summary);
        out += indent + line;
    }
    return out;
}

} // namespace shapes
} // namespace lyn
