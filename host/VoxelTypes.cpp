#include "host/VoxelTypes.h"

namespace lyn {

bool isValidVoxelType(int id) { return id >= 0 && id < kNumVoxelTypes; }

const char* voxelTypeName(VoxelTypes t) {
    static const char* const names[kNumVoxelTypes] = {"uint8", "uint16", "uint32", "uint64", "int8", "int16",
                                                      "int32", "int64", "float32", "float64", "binary", "label"};
    return isValidVoxelType(t) ? names[t] : "invalid";
}

namespace helper {
std::uint64_t getSizeOf(const VoxelTypes& t) {
    static const std::uint64_t sizes[kNumVoxelTypes] = {1, 2, 4, 8, 1, 2, 4, 8, 4, 8, 1, 4};
    return isValidVoxelType(t) ? sizes[t] : 0;
}
} // namespace helper

} // namespace lyn
