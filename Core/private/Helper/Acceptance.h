#pragma once
// The test every runner applies before accepting a request: AVX usable, a served voxel type,
// and AVX2 or better.
#include "host/Cpu.h"

namespace lyn {
namespace helper {

// Ids 0, 1, 2, 4, 5, 6 (bit 2 cleared leaves at most 2) and 8, 9.
inline bool isServedIntegerType(int t) { return static_cast<unsigned>(t & ~4) <= 2u; }
inline bool isServedFloatingType(int t) { return static_cast<unsigned>(t - 8) <= 1u; }

inline bool commonAcceptance(int typeId) {
    const devices::Cpu& cpu = devices::Cpu::getDevice();
    if (!cpu.hasAVX()) return false;
    if (!isServedIntegerType(typeId) && !isServedFloatingType(typeId)) return false;
    return cpu.getAVXLevel() > 1;
}

} // namespace helper
} // namespace lyn
