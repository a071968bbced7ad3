#pragma once
// 8-bit grey PNG output (libpng), for pictures such as the demo's montage.
#include <cstdint>
#include <string>
#include <vector>

namespace lyn {
namespace io {

// Writes `pixels` (rows of `width` bytes, top row first) as a grey PNG; throws std::runtime_error.
void writePngGray8(const std::string& path, std::uint32_t width, std::uint32_t height,
                   const std::vector<std::uint8_t>& pixels);

} // namespace io
} // namespace lyn
