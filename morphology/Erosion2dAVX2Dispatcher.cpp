#include "morphology/SquareCubeDispatch.impl.h"

LYN_INSTANTIATE_SQUARE_DISPATCHER(Erosion2dAVX2Dispatcher, ErosionFunctor, 2)
