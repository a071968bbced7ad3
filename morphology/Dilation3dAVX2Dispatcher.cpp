#include "morphology/SquareCubeDispatchers.h"

LYN_INSTANTIATE_SQUARE_DISPATCHER(Dilation3dAVX2Dispatcher, DilationFunctor, 3)
