#pragma once
// NumPy .npy files: every served type, 2 to 5 axes, C order, either byte order. The last NumPy
// axis is the image's column axis: (rows, cols), (plans, rows, cols), up to
// (axis4, axis3, plans, rows, cols).
#include <memory>
#include <stdexcept>
#include <string>

#include "host/Image.h"

namespace lyn {
namespace io {

// An input that cannot be read or understood; the message names the file and the problem.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct NpyHeader {
    VoxelTypes type = UInt8;
    bool bigEndian = false;
    Extents extents{1, 1, 1, 1, 1};
    int axes = 2;
    std::size_t dataOffset = 0;
};

NpyHeader readNpyHeader(const std::string& path);
std::unique_ptr<MemoryImage> readNpy(const std::string& path, int* axes = nullptr);
// Writes under a temporary name beside `path`, then renames: the file is whole or absent.
void writeNpy(const std::string& path, const ImageModel& image, int axes);

// A new file named ".NAME.partial-XXXXXX" in the directory of `path`, for writing aside.
struct TemporaryFile {
    int fd;
    std::string name;
};
TemporaryFile createBeside(const std::string& path);

// Writes `bytes` to `path` atomically (temporary file beside it, fsync, rename).
void writeFileAtomically(const std::string& path, const std::string& header, const void* data, std::size_t bytes);

} // namespace io
} // namespace lyn
