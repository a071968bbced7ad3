#pragma once
// Per-type entry points of the disk, ball and line runners, and the compiled pieces they share.
// Declarations only: each heavy kernel instance is compiled once, in the file named beside it, so
// the ten dispatchers stay light and none of them instantiates a kernel again.
#include <cstdint>
#include <vector>

#include "host/Algorithms.h"
#include "host/Kernel.h"
#include "host/PrivateImplementation.h"

namespace lyn {
namespace SimdVec {
struct arch_256_tag;
}
namespace morphology {
namespace details {
struct DilationFunctor;
struct ErosionFunctor;

// One pass of the general-offset kernel, the offsets folded in list order (OffsetKernels.cpp,
// compiled once per functor and dimensionality).
template <class Functor, class T>
void runOffsets2d(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output,
                  std::vector<kernel::Offset2D> offsets);
template <class Functor, class T>
void runOffsets3d(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output,
                  std::vector<kernel::Offset3D> offsets);

// The same pass, same results, folded as runs along x (OffsetRuns.cpp): false, having run nothing,
// when the list's runs are too short to pay.
template <class Functor, class T>
bool runOffsetRuns2d(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output,
                     const std::vector<kernel::Offset2D>& offsets);
template <class Functor, class T>
bool runOffsetRuns3d(BaseAlgorithm* algo, const ImageModel* input, ImageModel* output,
                     const std::vector<kernel::Offset3D>& offsets);

// Disk and ball approximated by chained square (cube) passes (FastMorpho.cpp).
template <class Functor, class Arch, class T>
void FastMorphoDisk2DSimd(BaseAlgorithm* algo, const ImageModel* input, std::uint32_t radius, ImageModel* output);
template <class Functor, class Arch, class T>
void FastMorphoBall3DSimd(BaseAlgorithm* algo, const ImageModel* input, std::uint32_t radius, ImageModel* output);

// Pass counts of the decompositions, in stage order.
struct DiskPasses {
    unsigned long square, cross;
};
struct BallPasses {
    unsigned long six, eighteen, twentySix;
};
DiskPasses diskPasses(std::uint32_t radius);
BallPasses ballPasses(std::uint32_t radius);

} // namespace details

#define LYN_DECLARE_SE_DISPATCHER(Name, Algo) \
    struct Name {                             \
        template <class T>                    \
        static void run(Algo* algo);          \
    };
LYN_DECLARE_SE_DISPATCHER(DilationBall3dAVX2Dispatcher, DilationBall3d)
LYN_DECLARE_SE_DISPATCHER(DilationDisk2dAVX2Dispatcher, DilationDisk2d)
LYN_DECLARE_SE_DISPATCHER(DilationDisk3dAVX2Dispatcher, DilationDisk3d)
LYN_DECLARE_SE_DISPATCHER(DilationLine2dAVX2Dispatcher, DilationLine2d)
LYN_DECLARE_SE_DISPATCHER(DilationLine3dAVX2Dispatcher, DilationLine3d)
LYN_DECLARE_SE_DISPATCHER(ErosionBall3dAVX2Dispatcher, ErosionBall3d)
LYN_DECLARE_SE_DISPATCHER(ErosionDisk2dAVX2Dispatcher, ErosionDisk2d)
LYN_DECLARE_SE_DISPATCHER(ErosionDisk3dAVX2Dispatcher, ErosionDisk3d)
LYN_DECLARE_SE_DISPATCHER(ErosionLine2dAVX2Dispatcher, ErosionLine2d)
LYN_DECLARE_SE_DISPATCHER(ErosionLine3dAVX2Dispatcher, ErosionLine3d)
#undef LYN_DECLARE_SE_DISPATCHER

} // namespace morphology
} // namespace lyn

// Instantiates a dispatcher's run<T> for the eight voxel types.
#define LYN_INSTANTIATE_SE_DISPATCHER(Name, Algo)                  \
    template void Name::run<unsigned char>(Algo*);                 \
    template void Name::run<unsigned short>(Algo*);                \
    template void Name::run<unsigned int>(Algo*);                  \
    template void Name::run<signed char>(Algo*);                   \
    template void Name::run<short>(Algo*);                         \
    template void Name::run<int>(Algo*);                           \
    template void Name::run<float>(Algo*);                         \
    template void Name::run<double>(Algo*);
