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
    std::uint64_t dataBytes = 0;  // what the shape and type need
};

// Refuses a directory or a missing file with a message naming it.
void requireRegularFile(const std::string& path);
// Reads and checks the header, the file's size against the shape included: nothing is allocated
// for a claim the file cannot back.
NpyHeader readNpyHeader(const std::string& path);
std::unique_ptr<MemoryImage> readNpy(const std::string& path, int* axes = nullptr);
class OutputFile;
// Writes through `out` (a temporary file, then published whole); the axes count keeps a 4- or
// 5-axis NumPy shape when the trailing axes have extent 1.
void writeNpy(OutputFile& out, const ImageModel& image, int axes);
// The same to `path`, replacing what is there.
void writeNpy(const std::string& path, const ImageModel& image, int axes);

} // namespace io
} // namespace lyn
