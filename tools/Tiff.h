#pragma once
// TIFF files through libtiff: one grey page per plan (2D images and 3D volumes), every served type.
#include <memory>
#include <string>

#include "host/Image.h"

namespace lyn {
namespace io {

std::unique_ptr<MemoryImage> readTiff(const std::string& path);
// Written under a temporary name beside `path`, then renamed: the file is whole or absent.
void writeTiff(const std::string& path, const ImageModel& image);

} // namespace io
} // namespace lyn
