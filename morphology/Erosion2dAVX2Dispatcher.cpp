#include "morphology/SquareCubeDispatchers.h"

LYN_INSTANTIATE_SQUARE_DISPATCHER(Erosion2dAVX2Dispatcher, ErosionFunctor, 2)
