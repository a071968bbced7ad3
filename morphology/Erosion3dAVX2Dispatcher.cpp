#include "morphology/SquareCubeDispatchers.h"

LYN_INSTANTIATE_SQUARE_DISPATCHER(Erosion3dAVX2Dispatcher, ErosionFunctor, 3)
