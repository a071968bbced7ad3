#pragma once
// TIFF files through libtiff: one grey page per plan (2D images and 3D volumes), every served type.
#include <memory>
#include <string>

#include "host/Image.h"

namespace lyn {
namespace io {

std::unique_ptr<MemoryImage> readTiff(const std::string& path);
class OutputFile;
// Writes through `out` (a temporary file, then published whole).
void writeTiff(OutputFile& out, const ImageModel& image);

} // namespace io
} // namespace lyn
