#pragma once
// Images that the tool leaves in their files (--on-disk), and the check that an image held in
// memory fits in the memory left.
#include <memory>
#include <string>

#include "host/DiskImage.h"

namespace lyn {
namespace tool {

// The voxels of a .npy file, read in place; the file is never written. `axes` receives the
// array's number of axes.
std::unique_ptr<DiskImage> openNpyOnDisk(const std::string& path, int& axes);

// A .npy output written in place under a temporary name beside `path`, renamed to `path` by
// commit(); the partial file is removed on every other way out.
class DiskOutput {
public:
    DiskOutput(const std::string& path, VoxelTypes type, const Extents& extents, int axes);
    ~DiskOutput();
    DiskOutput(const DiskOutput&) = delete;
    DiskOutput& operator=(const DiskOutput&) = delete;

    DiskImage& image() { return *m_image; }
    // Flushes the file to the device and gives it its final name.
    void commit();

private:
    std::string m_path;
    std::string m_partial;
    std::unique_ptr<DiskImage> m_image;
};

// Copies every voxel of `from` to `to` (same type and extents), row by row.
void copyRows(const ImageModel& from, ImageModel& to);

// Raises a usage error suggesting --on-disk when `bytes` (what the command would hold in memory
// for `path`) exceed the memory available.
void checkFitsInMemory(const std::string& path, std::uint64_t bytes);

// A line that tells what to do about a failure of the host, or nothing.
std::string adviceFor(const Exception& failure);

} // namespace tool
} // namespace lyn
