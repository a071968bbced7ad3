#pragma once
// Images whose voxels stay in a file: inputs and outputs larger than memory, and temporary images
// on disk. Rows are read and written with positioned I/O (pread/pwrite), so memory use does not
// grow with the image: a mapping would make every page touched count as resident until unmapped.
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <tbb/enumerable_thread_specific.h>

#include "host/Image.h"

namespace lyn {

class DiskImage : public ImageModel {
public:
    // Where and how the voxels of a file lie: C order, columns fastest, from `dataOffset`.
    struct FileLayout {
        VoxelTypes type = UInt8;
        Extents extents{1, 1, 1, 1, 1};
        std::uint64_t dataOffset = 0;
        bool bigEndian = false;
    };

    // An existing file; read-only unless `writable`. Raises RuntimeError naming the file when it
    // cannot be opened or is shorter than `layout` says.
    static std::unique_ptr<DiskImage> open(const std::string& path, const FileLayout& layout, bool writable);
    // A new NumPy .npy file with `axes` axes (2 to 5; NumPy's last axis is the column axis), its
    // space reserved at once so that a full disk is an error here rather than in the middle of a run.
    // Fails when `path` exists.
    static std::unique_ptr<DiskImage> createNpy(const std::string& path, VoxelTypes type, const Extents& extents,
                                                int axes);
    // A file with no name in `directory`: it disappears when the image is destroyed or the process
    // dies, whatever the way. Space reserved at once.
    static std::unique_ptr<DiskImage> createUnnamed(const std::string& directory, VoxelTypes type,
                                                    const Extents& extents);

    ~DiskImage() override;
    DiskImage(const DiskImage&) = delete;
    DiskImage& operator=(const DiskImage&) = delete;

    std::uint64_t getNumOf(const Components& axis) const override;
    VoxelTypes getVoxelType() const override { return m_layout.type; }
    int getStorageType() const override { return 1; }
    // A file's type and extents are fixed: raises RuleException unless they already match.
    void enforceSameCharacteristics(const ImageModel* reference, const int& flags) override;
    // I/O errors raise RuntimeError naming the file (they propagate out of parallel loops).
    // A thread's writes are held back while they continue one another, and reach the file when the
    // run breaks, the buffer fills, the same thread reads, or flushWrites() runs.
    void readRaw(void* dst, std::uint64_t count, long col, long row, long plan, long seq, long spectral) const override;
    // Whole rows go straight from the file into `rows` with vectored reads, bypassing the
    // read-ahead copy; parts of rows, which do not follow one another in the file, go by readRaw.
    void readRawRows(char* const* rows, std::uint64_t count, long col, long row, std::uint64_t nbRows, long plan,
                     long seq, long spectral) const override;
    bool writeRaw(const void* src, std::uint64_t count, long col, long row, long plan, long seq, long spectral) override;
    // The next place in this thread's held-back writes, flushing them first when the row does not
    // continue them or would not fit; a row handed back to writeRaw from there is not copied.
    void* rowToWrite(std::uint64_t count, long col, long row, long plan, long seq, long spectral) override;
    void flushWrites() const override;

    const std::string& path() const { return m_path; }
    const FileLayout& layout() const { return m_layout; }
    bool isWritable() const { return m_writable; }
    // Writes what is held back and flushes the file to the device; raises RuntimeError on failure.
    void sync();

private:
    DiskImage(int fd, std::string path, const FileLayout& layout, bool writable);
    static std::unique_ptr<DiskImage> createAt(int fd, const std::string& path, const std::string& header,
                                               VoxelTypes type, const Extents& extents);
    std::uint64_t offsetOf(long col, long row, long plan, long seq, long spectral) const;
    bool inside(std::uint64_t count, long col, long row, long plan, long seq, long spectral) const;
    void readAt(void* dst, std::uint64_t bytes, std::uint64_t offset) const;

    // The last run of rows a thread read, kept for its next reads: kernels fetch a block's rows one
    // after the other, and one read of many rows costs about what one of a single row does. The
    // copy is used only while no write reached the image since it was read.
    struct ReadAhead {
        std::unique_ptr<char[]> data;
        std::uint64_t capacity = 0;
        std::uint64_t begin = 0, end = 0;  // file offsets held
        std::uint64_t generation = 0;
    };

    // One thread's run of consecutive writes not yet in the file: one system call instead of one per
    // row, which costs as much as the row's computation when rows are short.
    struct WriteBehind {
        std::unique_ptr<char[]> data;
        std::uint64_t begin = 0, size = 0;  // file offset and bytes held
    };
    void flush(WriteBehind& pending) const;

    int m_fd;
    std::string m_path;
    FileLayout m_layout;
    bool m_writable;
    std::size_t m_elementSize;
    std::uint64_t m_rowBytes;
    std::uint64_t m_dataEnd;
    mutable std::atomic<std::uint64_t> m_writes{0};
    mutable tbb::enumerable_thread_specific<ReadAhead> m_readAhead;
    mutable tbb::enumerable_thread_specific<WriteBehind> m_writeBehind;
};

// The .npy header (magic, version, dictionary padded to 64 bytes) of a little-endian C-order array.
// Raises RuleException for a voxel type that NumPy cannot name.
std::string npyHeader(VoxelTypes type, const Extents& extents, int axes);

} // namespace lyn
