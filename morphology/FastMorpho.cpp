// Disk and ball approximated by chained passes of the square and cube kernels: each stage is a
// recursive filter run as one progress step of a private implementation built on the algorithm,
// so progress, cancellation and the memory budget are the algorithm's. A stage after the first
// reads the output, which holds what the earlier stages made.
#include "morphology/StructuringElementDispatchers.h"

namespace lyn {
namespace morphology {
namespace details {

namespace {
// Owns the progress steps; the stages run as its children.
class Decomposition : public algorithms::AbstractPrivateImplementation {
public:
    Decomposition(BaseAlgorithm* algo, std::uint64_t steps) : AbstractPrivateImplementation(algo) {
        m_nbSteps.store(steps);
    }
    void run() override {}
};
} // namespace

DiskPasses diskPasses(std::uint32_t radius) {
    const unsigned long square = radius >> 1;
    return {square, radius - square};
}

BallPasses ballPasses(std::uint32_t radius) {
    // Taken in double precision as written: 10 * 0.3 is 3.0000000000000004, so 3.
    const double r = double(radius);
    const unsigned long six = static_cast<unsigned long>(r * 0.6);
    const unsigned long eighteen = static_cast<unsigned long>(r * 0.3);
    return {six, eighteen, radius - (six + eighteen)};
}

// Square passes first, cross passes last (the cross takes the extra pass of an odd radius).
template <class Functor, class Arch, class T>
void FastMorphoDisk2DSimd(BaseAlgorithm* algo, const ImageModel* input, std::uint32_t radius, ImageModel* output) {
    const DiskPasses p = diskPasses(radius);
    if (radius > 1) {
        Decomposition impl(algo, 2);
        runSquareCubeStage<Functor, 2, T>(&impl, 1, input, output, p.square);
        runSquareCubeStage<Functor, 2, T>(&impl, 0, output, output, p.cross);
    } else {
        // Zero passes leave the output untouched: no copy of the input is made.
        Decomposition impl(algo, 1);
        runSquareCubeStage<Functor, 2, T>(&impl, 0, input, output, p.cross);
    }
}

// 6-connected, then 18-connected, then 26-connected passes; the last stage always runs.
template <class Functor, class Arch, class T>
void FastMorphoBall3DSimd(BaseAlgorithm* algo, const ImageModel* input, std::uint32_t radius, ImageModel* output) {
    const BallPasses p = ballPasses(radius);
    Decomposition impl(algo, 1 + (p.six != 0) + (p.eighteen != 0));
    if (p.six) runSquareCubeStage<Functor, 3, T>(&impl, 0, input, output, p.six);
    if (p.eighteen) runSquareCubeStage<Functor, 3, T>(&impl, 1, p.six ? output : input, output, p.eighteen);
    runSquareCubeStage<Functor, 3, T>(&impl, 2, (p.six || p.eighteen) ? output : input, output, p.twentySix);
}

#define LYN_FAST(Functor, T)                                                                                        \
    template void FastMorphoDisk2DSimd<Functor, SimdVec::arch_256_tag, T>(BaseAlgorithm*, const ImageModel*,        \
                                                                          std::uint32_t, ImageModel*);              \
    template void FastMorphoBall3DSimd<Functor, SimdVec::arch_256_tag, T>(BaseAlgorithm*, const ImageModel*,        \
                                                                          std::uint32_t, ImageModel*);
#define LYN_FAST_TYPES(Functor) \
    LYN_FAST(Functor, unsigned char) \
    LYN_FAST(Functor, unsigned short) \
    LYN_FAST(Functor, unsigned int) \
    LYN_FAST(Functor, signed char) \
    LYN_FAST(Functor, short) \
    LYN_FAST(Functor, int) \
    LYN_FAST(Functor, float) \
    LYN_FAST(Functor, double)
LYN_FAST_TYPES(DilationFunctor)
LYN_FAST_TYPES(ErosionFunctor)

} // namespace details
} // namespace morphology
} // namespace lyn
