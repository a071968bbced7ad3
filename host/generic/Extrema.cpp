// Generic intensity extrema: a plain scan that keeps the first strictly smaller (larger) value,
// from accumulators that start at the type's finite extremes. NaN never compares smaller or
// larger, so NaN voxels are ignored; a zero result is reported as +0.0 whatever the sign of the
// zeros seen, so the answer does not depend on scan order.
//
// Accumulators that start at the finite extremes cannot tell "the extreme is the type's highest
// finite value" from "+inf only", "no values at all" or "NaN only"; settleExtrema re-scans the
// elements where that ambiguity can arise and reports what is really there.
#include <type_traits>
#include <vector>

#include "host/BorderCondition.h"
#include "host/generic/Generic.h"

namespace lyn {
namespace generic {

namespace {

template <class T>
analysis::ExactValue exactOf(T v) {
    if constexpr (std::is_floating_point_v<T>) return analysis::ExactValue::ofReal(v == 0 ? 0.0 : double(v));
    else if constexpr (std::is_signed_v<T>) return analysis::ExactValue::ofSigned(v);
    else return analysis::ExactValue::ofUnsigned(v);
}

// Calls f(row) for every row of element (a, b, c) of the split given by `mode`.
template <class T, class F>
void forEachRow(BaseAlgorithm& algo, const ImageModel& image, int mode, std::uint64_t a, std::uint64_t b,
                std::uint64_t c, F&& f) {
    const Extents e = image.extents();
    if (e[0] == 0) return;
    access::ImageAccess access(&image);
    std::vector<T> row(e[0]);
    using Extrema = analysis::IntensityExtrema;
    const bool perPlan = mode & Extrema::PerPlan, perSequence = mode & Extrema::PerSequence,
               perSpectral = mode & Extrema::PerSpectral;
    const long p0 = perPlan ? long(a) : 0, p1 = perPlan ? long(a) + 1 : long(e[2]);
    const long s0 = perSequence ? long(b) : 0, s1 = perSequence ? long(b) + 1 : long(e[3]);
    const long l0 = perSpectral ? long(c) : 0, l1 = perSpectral ? long(c) + 1 : long(e[4]);
    for (long l = l0; l < l1; ++l)
        for (long s = s0; s < s1; ++s)
            for (long p = p0; p < p1; ++p) {
                if (algo.isCancelRequested()) throw ExceptionCancelation();
                for (long r = 0; r < long(e[1]); ++r) {
                    access.read(row.data(), e[0], 0, r, p, s, l);
                    f(row);
                }
            }
}

template <class Traits>
void extremaOf(BaseAlgorithm& algo, const ImageModel& image, int mode, analysis::IntensityExtremaMsr& result) {
    using T = typename Traits::type;
    object_model::TupleX shape = analysis::IntensityExtrema::resultShape(mode, image);
    result.minimum().setShape(shape);
    result.maximum().setShape(shape);
    result.exactMinimum().assign(result.minimum().values().size(), {});
    result.exactMaximum().assign(result.maximum().values().size(), {});
    const std::uint64_t subRuns = shape.product();
    std::uint64_t done = 0;
    for (std::uint64_t a = 0; a < shape[0]; ++a)
        for (std::uint64_t b = 0; b < shape[1]; ++b)
            for (std::uint64_t c = 0; c < shape[2]; ++c) {
                T lo = Traits::highest();
                T hi = Traits::lowest();
                forEachRow<T>(algo, image, mode, a, b, c, [&](const std::vector<T>& row) {
                    for (T v : row) {
                        if (v < lo) lo = v;
                        if (v > hi) hi = v;
                    }
                });
                double dlo = static_cast<double>(lo), dhi = static_cast<double>(hi);
                result.minimum().at(a, b, c) = dlo == 0 ? 0.0 : dlo;
                result.maximum().at(a, b, c) = dhi == 0 ? 0.0 : dhi;
                const std::uint64_t at = a + b * result.minimum().stride1() + c * result.minimum().stride2();
                result.exactMinimum()[at] = exactOf(lo);
                result.exactMaximum()[at] = exactOf(hi);
                algo.reportProgress(double(++done) / double(subRuns));
            }
}

template <class Traits>
void settle(BaseAlgorithm& algo, const ImageModel& image, int mode, analysis::IntensityExtremaMsr& result,
            bool fromDoubles) {
    using T = typename Traits::type;
    constexpr bool wide = std::is_integral_v<T> && sizeof(T) == 8;  // not every value survives a double
    auto& mn = result.minimum();
    auto& mx = result.maximum();
    const auto& shape = mn.shape();
    const std::size_t n = mn.values().size();
    if (fromDoubles || result.exactMinimum().size() != n || result.exactMaximum().size() != n) {
        result.exactMinimum().assign(n, {});
        result.exactMaximum().assign(n, {});
        fromDoubles = true;
    }
    const analysis::ExactValue highest = exactOf(Traits::highest()), lowest = exactOf(Traits::lowest());
    for (std::uint64_t c = 0; c < shape[2]; ++c)
        for (std::uint64_t b = 0; b < shape[1]; ++b)
            for (std::uint64_t a = 0; a < shape[0]; ++a) {
                const std::uint64_t at = a + b * mn.stride1() + c * mn.stride2();
                auto& emin = result.exactMinimum()[at];
                auto& emax = result.exactMaximum()[at];
                if (fromDoubles && !wide) {
                    emin = exactOf(static_cast<T>(mn.at(a, b, c)));
                    emax = exactOf(static_cast<T>(mx.at(a, b, c)));
                }
                if (!(fromDoubles && wide) && !(emin == highest) && !(emax == lowest)) continue;
                // First non-NaN value onwards, so infinities and "nothing" come out as they are.
                bool any = false;
                T lo{}, hi{};
                forEachRow<T>(algo, image, mode, a, b, c, [&](const std::vector<T>& row) {
                    for (T v : row) {
                        if (v != v) continue;
                        if (!any) {
                            lo = hi = v;
                            any = true;
                        }
                        if (v < lo) lo = v;
                        if (v > hi) hi = v;
                    }
                });
                emin = any ? exactOf(lo) : analysis::ExactValue();
                emax = any ? exactOf(hi) : analysis::ExactValue();
                mn.at(a, b, c) = emin.toDouble();
                mx.at(a, b, c) = emax.toDouble();
            }
}

} // namespace

void intensityExtrema(BaseAlgorithm& algo, const ImageModel& input, int mode, analysis::IntensityExtremaMsr& result) {
    dispatchVoxelType(input.getVoxelType(), [&](auto traits) { extremaOf<decltype(traits)>(algo, input, mode, result); });
}

void settleExtrema(BaseAlgorithm& algo, const ImageModel& input, int mode, analysis::IntensityExtremaMsr& result,
                   bool fromDoubles) {
    dispatchVoxelType(input.getVoxelType(),
                      [&](auto traits) { settle<decltype(traits)>(algo, input, mode, result, fromDoubles); });
}

} // namespace generic
} // namespace lyn
