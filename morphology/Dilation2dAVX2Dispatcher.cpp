#include "morphology/SquareCubeDispatchers.h"

LYN_INSTANTIATE_SQUARE_DISPATCHER(Dilation2dAVX2Dispatcher, DilationFunctor, 2)
