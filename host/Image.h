#pragma once
// Images: the abstract ImageModel every algorithm reads and writes, the in-memory image, and a
// proxy presenting a sub-box of another image as an image of its own.
#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "host/VoxelTypes.h"

namespace lyn {

// Direct addressing of an image held in memory: byte strides along the five axes.
struct MemoryLayout {
    char* base = nullptr;
    std::array<std::int64_t, 5> strides{};
};

using Extents = std::array<std::uint64_t, 5>;

class ImageModel {
public:
    // Flags for enforceSameCharacteristics.
    enum Characteristics : int { SameVoxelType = 1, SameSize = 2, SameAll = 3 };

    virtual ~ImageModel();

    virtual std::uint64_t getNumOf(const Components& axis) const = 0;
    virtual VoxelTypes getVoxelType() const = 0;
    // 0 for an image held in memory, 1 for an image read from and written to its file.
    virtual int getStorageType() const = 0;
    // Makes this image take the voxel type and/or extents of `reference`, reallocating when they differ.
    virtual void enforceSameCharacteristics(const ImageModel* reference, const int& flags) = 0;

    // Copies `count` voxels of one row, all inside the image, to `dst` (no border handling here).
    virtual void readRaw(void* dst, std::uint64_t count, long col, long row, long plan, long seq, long spectral) const = 0;
    // The same for rows row .. row + nbRows - 1 of one plan, row i to rows[i]: one call for many
    // rows of a block, which an image on disk reads with one system call.
    virtual void readRawRows(char* const* rows, std::uint64_t count, long col, long row, std::uint64_t nbRows, long plan,
                             long seq, long spectral) const;
    // Writes `count` voxels of one row, all inside the image; false when the image refused the write.
    virtual bool writeRaw(const void* src, std::uint64_t count, long col, long row, long plan, long seq,
                          long spectral) = 0;
    // Where a caller may compute `count` voxels of a row before handing that same pointer to
    // writeRaw, on the same thread and with nothing else written in between: images that hold
    // writes back offer their own buffer, which saves a copy. Null when there is none.
    virtual void* rowToWrite(std::uint64_t count, long col, long row, long plan, long seq, long spectral) {
        (void)count, (void)col, (void)row, (void)plan, (void)seq, (void)spectral;
        return nullptr;
    }
    // Fills `layout` and returns true when the voxels are directly addressable in memory.
    virtual bool getMemoryLayout(MemoryLayout& layout) const;
    // Makes every row written so far visible to reads from any thread. Images that hold writes back
    // (on disk) need it after a parallel section that wrote them; it must not run concurrently with
    // writes. Nothing to do for images in memory.
    virtual void flushWrites() const {}

    Extents extents() const;
    std::uint64_t getNumOfVoxels() const;
    std::uint64_t getSizeInBytes() const;
    bool hasSameExtents(const ImageModel& other) const;
    // "512 x 512 x 256 uint8" (trailing axes of extent 1 omitted).
    std::string describe() const;
};

// An image whose voxels live in one 32-byte aligned buffer, columns fastest.
class MemoryImage : public ImageModel {
public:
    MemoryImage();
    MemoryImage(VoxelTypes type, const Extents& extents);
    MemoryImage(VoxelTypes type, std::uint64_t cols, std::uint64_t rows, std::uint64_t plans = 1,
                std::uint64_t sequence = 1, std::uint64_t spectral = 1);
    // Extents are (columns, rows, plans, sequence, spectral): every axis at least 1, or all 0 for an
    // empty image. Extents{cols, rows} leaves three axes at 0 and is refused (RuleException); write
    // Extents{cols, rows, 1, 1, 1} or use the constructor taking counts, whose later axes default to 1.
    // Wraps memory owned elsewhere (C order, columns fastest); the caller keeps it alive.
    MemoryImage(void* external, VoxelTypes type, const Extents& extents);
    ~MemoryImage() override;
    MemoryImage(const MemoryImage&) = delete;
    MemoryImage& operator=(const MemoryImage&) = delete;

    static std::shared_ptr<MemoryImage> New(VoxelTypes type, const Extents& extents);

    // Reallocates for a new type and shape, zero-filled unless `zeroFill` is false (scratch images
    // that are written before they are read; those keep their buffer, and its old contents, when the
    // new shape fits it without wasting half of it); throws std::bad_alloc when memory is short.
    void allocate(VoxelTypes type, const Extents& extents, bool zeroFill = true);
    // Like allocate, but reports failure instead of throwing.
    bool tryAllocate(VoxelTypes type, const Extents& extents, bool zeroFill = true);

    std::uint64_t getNumOf(const Components& axis) const override;
    VoxelTypes getVoxelType() const override { return m_type; }
    int getStorageType() const override { return 0; }
    void enforceSameCharacteristics(const ImageModel* reference, const int& flags) override;
    void readRaw(void* dst, std::uint64_t count, long col, long row, long plan, long seq, long spectral) const override;
    bool writeRaw(const void* src, std::uint64_t count, long col, long row, long plan, long seq, long spectral) override;
    bool getMemoryLayout(MemoryLayout& layout) const override;

    void* data() { return m_data; }
    const void* data() const { return m_data; }
    template <class T> T* dataAs() { return static_cast<T*>(m_data); }
    template <class T> const T* dataAs() const { return static_cast<const T*>(m_data); }
    // Linear index of a voxel, in elements.
    std::uint64_t index(long col, long row, long plan = 0, long seq = 0, long spectral = 0) const;

private:
    void release();
    char* address(long col, long row, long plan, long seq, long spectral) const;

    VoxelTypes m_type = UInt8;
    Extents m_extents{0, 0, 0, 0, 0};
    void* m_data = nullptr;
    std::uint64_t m_capacity = 0;  // bytes of voxels the owned buffer can hold
    bool m_owned = true;
};

// A sub-box of another image: (origin, extent) per axis, in Components order.
class ImageModelSizeProxy : public ImageModel {
public:
    ImageModelSizeProxy(const ImageModel* source, std::uint64_t colOrigin, std::uint64_t cols,
                        std::uint64_t rowOrigin, std::uint64_t rows, std::uint64_t planOrigin, std::uint64_t plans,
                        std::uint64_t seqOrigin, std::uint64_t seqs, std::uint64_t specOrigin, std::uint64_t specs);

    std::uint64_t getNumOf(const Components& axis) const override { return m_extents[axis]; }
    VoxelTypes getVoxelType() const override { return m_source->getVoxelType(); }
    int getStorageType() const override { return m_source->getStorageType(); }
    void enforceSameCharacteristics(const ImageModel* reference, const int& flags) override;
    void readRaw(void* dst, std::uint64_t count, long col, long row, long plan, long seq, long spectral) const override;
    void readRawRows(char* const* rows, std::uint64_t count, long col, long row, std::uint64_t nbRows, long plan, long seq,
                     long spectral) const override;
    bool writeRaw(const void* src, std::uint64_t count, long col, long row, long plan, long seq, long spectral) override;
    bool getMemoryLayout(MemoryLayout& layout) const override;
    void flushWrites() const override { m_source->flushWrites(); }

private:
    const ImageModel* m_source;
    Extents m_origin;
    Extents m_extents;
};

} // namespace lyn
