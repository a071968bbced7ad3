// Generic intensity extrema: a plain scan that keeps the first strictly smaller (larger) value.
// NaN never compares smaller or larger, so NaN voxels are ignored; a zero result is reported as
// +0.0 whatever the sign of the zeros seen, so the answer does not depend on scan order.
#include <vector>

#include "host/BorderCondition.h"
#include "host/generic/Generic.h"

namespace lyn {
namespace generic {

namespace {

template <class Traits>
void extremaOf(BaseAlgorithm& algo, const ImageModel& image, int mode, analysis::IntensityExtremaMsr& result) {
    using T = typename Traits::type;
    const Extents e = image.extents();
    object_model::TupleX shape = analysis::IntensityExtrema::resultShape(mode, image);
    result.minimum().setShape(shape);
    result.maximum().setShape(shape);
    access::ImageAccess access(&image);
    std::vector<T> row(e[0]);
    const std::uint64_t subRuns = shape.product();
    std::uint64_t done = 0;
    for (std::uint64_t a = 0; a < shape[0]; ++a)
        for (std::uint64_t b = 0; b < shape[1]; ++b)
            for (std::uint64_t c = 0; c < shape[2]; ++c) {
                T lo = Traits::highest();
                T hi = Traits::lowest();
                const long p0 = (mode & 1) ? long(a) : 0, p1 = (mode & 1) ? long(a) + 1 : long(e[2]);
                const long s0 = (mode & 4) ? long(b) : 0, s1 = (mode & 4) ? long(b) + 1 : long(e[3]);
                const long l0 = (mode & 2) ? long(c) : 0, l1 = (mode & 2) ? long(c) + 1 : long(e[4]);
                for (long l = l0; l < l1; ++l)
                    for (long s = s0; s < s1; ++s)
                        for (long p = p0; p < p1; ++p) {
                            if (algo.isCancelRequested()) throw ExceptionCancelation();
                            for (long r = 0; r < long(e[1]) && e[0]; ++r) {
                                access.read(row.data(), e[0], 0, r, p, s, l);
                                for (T v : row) {
                                    if (v < lo) lo = v;
                                    if (v > hi) hi = v;
                                }
                            }
                        }
                double dlo = static_cast<double>(lo), dhi = static_cast<double>(hi);
                result.minimum().at(a, b, c) = dlo == 0 ? 0.0 : dlo;
                result.maximum().at(a, b, c) = dhi == 0 ? 0.0 : dhi;
                algo.reportProgress(double(++done) / double(subRuns));
            }
}

} // namespace

void intensityExtrema(BaseAlgorithm& algo, const ImageModel& input, int mode, analysis::IntensityExtremaMsr& result) {
    dispatchVoxelType(input.getVoxelType(), [&](auto traits) { extremaOf<decltype(traits)>(algo, input, mode, result); });
}

} // namespace generic
} // namespace lyn
