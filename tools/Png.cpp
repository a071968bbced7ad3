#include "tools/Png.h"

#include <png.h>

#include <cstring>
#include <stdexcept>

namespace lyn {
namespace io {

void writePngGray8(const std::string& path, std::uint32_t width, std::uint32_t height,
                   const std::vector<std::uint8_t>& pixels) {
    if (pixels.size() != std::size_t(width) * height) throw std::runtime_error(path + ": picture size mismatch");
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_GRAY;
    if (!png_image_write_to_file(&image, path.c_str(), 0, pixels.data(), 0, nullptr)) {
        const std::string why = image.message;
        png_image_free(&image);
        throw std::runtime_error(path + ": cannot write PNG: " + why);
    }
}

} // namespace io
} // namespace lyn
