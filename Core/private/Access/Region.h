#pragma once
// Region is a host type: views hand one out as their largest possible region. The access layer
// names it under this path too.
#include "host/Region.h"
