#pragma once
// Per-type entry points of the square and cube runners. Declarations only: the AVX2 instances
// are compiled in their own files (*Dispatcher.cpp), so the runners' files carry no AVX2 code.
#include "host/Algorithms.h"

namespace lyn {
namespace morphology {

#define LYN_DECLARE_DISPATCHER(Name)                      \
    struct Name {                                         \
        template <class T>                                \
        static void run(SquareMorphology* algo);          \
    };
LYN_DECLARE_DISPATCHER(Dilation2dAVX2Dispatcher)
LYN_DECLARE_DISPATCHER(Erosion2dAVX2Dispatcher)
LYN_DECLARE_DISPATCHER(Dilation3dAVX2Dispatcher)
LYN_DECLARE_DISPATCHER(Erosion3dAVX2Dispatcher)
#undef LYN_DECLARE_DISPATCHER

} // namespace morphology
} // namespace lyn
