#include "host/Image.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include <sys/mman.h>

namespace lyn {

ImageModel::~ImageModel() = default;

bool ImageModel::getMemoryLayout(MemoryLayout&) const { return false; }

void ImageModel::readRawRows(char* const* rows, std::uint64_t count, long col, long row, std::uint64_t nbRows,
                             long plan, long seq, long spectral) const {
    for (std::uint64_t i = 0; i < nbRows; ++i) readRaw(rows[i], count, col, row + long(i), plan, seq, spectral);
}

Extents ImageModel::extents() const {
    Extents e{};
    for (int a = 0; a < 5; ++a) e[a] = getNumOf(static_cast<Components>(a));
    return e;
}

std::uint64_t ImageModel::getNumOfVoxels() const {
    std::uint64_t n = 1;
    for (auto e : extents()) n *= e;
    return n;
}

std::uint64_t ImageModel::getSizeInBytes() const { return getNumOfVoxels() * helper::getSizeOf(getVoxelType()); }

bool ImageModel::hasSameExtents(const ImageModel& other) const { return extents() == other.extents(); }

std::string ImageModel::describe() const {
    Extents e = extents();
    int last = 1;
    for (int a = 2; a < 5; ++a)
        if (e[a] != 1) last = a;
    std::string s;
    for (int a = 0; a <= last; ++a) s += (a ? " x " : "") + std::to_string(e[a]);
    return s + " " + voxelTypeName(getVoxelType());
}

// ---------------------------------------------------------------------------------------------
namespace {
// A cache line, which holds whole vectors: rows that start on one take the aligned vector paths.
constexpr std::size_t kAlign = 64;

// Large images are backed by huge pages where the kernel offers them on request: a first touch
// then faults once per 2 MiB instead of once per 4 KiB, which matters for temporary images that are
// allocated and filled within one algorithm run.
constexpr std::uint64_t kHugePage = std::uint64_t(2) << 20;
constexpr std::uint64_t kHugeFrom = 2 * kHugePage;

// Extents{cols, rows} leaves the other three axes at 0, which would make a silently empty image:
// an image is either empty on every axis or at least 1 on every axis.
void checkExtents(const Extents& e, const char* file, int line) {
    int zeros = 0;
    for (auto v : e) zeros += v == 0;
    if (zeros == 0 || zeros == 5) return;
    std::string shape;
    for (int a = 0; a < 5; ++a) shape += (a ? " x " : "") + std::to_string(e[a]);
    raise<RuleException>("Image extents " + shape +
                             " mix 0 and non-0 axes: give 1 for every axis the image does not use "
                             "(columns, rows, plans, sequence, spectral), or 0 for all of them",
                         file, line);
}

void* alignedAllocate(std::uint64_t bytes, bool zeroFill) {
    // Spare bytes at the end so whole-vector reads of the last row stay inside the block.
    std::uint64_t rounded = (bytes + kAlign - 1) / kAlign * kAlign + kAlign;
    const bool huge = rounded >= kHugeFrom;
    if (huge) rounded = (rounded + kHugePage - 1) / kHugePage * kHugePage;
    void* p = std::aligned_alloc(huge ? kHugePage : kAlign, rounded);
    if (!p) throw std::bad_alloc();
    if (huge) ::madvise(p, rounded, MADV_HUGEPAGE);  // advice only: failure changes nothing else
    if (zeroFill) std::memset(p, 0, rounded);
    else std::memset(static_cast<char*>(p) + rounded - kAlign, 0, kAlign);  // the slack is read, never used
    return p;
}
} // namespace

MemoryImage::MemoryImage() = default;

MemoryImage::MemoryImage(VoxelTypes type, const Extents& extents) { allocate(type, extents); }

MemoryImage::MemoryImage(VoxelTypes type, std::uint64_t cols, std::uint64_t rows, std::uint64_t plans,
                         std::uint64_t sequence, std::uint64_t spectral) {
    allocate(type, {cols, rows, plans, sequence, spectral});
}

MemoryImage::MemoryImage(void* external, VoxelTypes type, const Extents& extents)
    : m_type(type), m_extents(extents), m_data(external), m_owned(false) {
    if (!isValidVoxelType(type)) raise<RuleException>("Invalid voxel type for an image", "host/Image", __LINE__);
    checkExtents(extents, "host/Image", __LINE__);
}

MemoryImage::~MemoryImage() { release(); }

std::shared_ptr<MemoryImage> MemoryImage::New(VoxelTypes type, const Extents& extents) {
    return std::make_shared<MemoryImage>(type, extents);
}

void MemoryImage::release() {
    if (m_owned) std::free(m_data);
    m_data = nullptr;
    m_capacity = 0;
    m_owned = true;
}

void MemoryImage::allocate(VoxelTypes type, const Extents& extents, bool zeroFill) {
    if (!isValidVoxelType(type)) raise<RuleException>("Invalid voxel type for an image", "host/Image", __LINE__);
    checkExtents(extents, "host/Image", __LINE__);
    std::uint64_t n = 1;
    for (auto e : extents) {
        if (e != 0 && n > UINT64_MAX / e) throw std::bad_alloc();
        n *= e;
    }
    std::uint64_t size = helper::getSizeOf(type);
    if (n > UINT64_MAX / size / 2) throw std::bad_alloc();
    const std::uint64_t bytes = n * size;
    if (!zeroFill && m_owned && m_data && bytes <= m_capacity && bytes >= m_capacity / 2) {
        m_type = type;
        m_extents = extents;
        return;
    }
    void* p = alignedAllocate(bytes, zeroFill);
    release();
    m_data = p;
    m_capacity = bytes;
    m_type = type;
    m_extents = extents;
}

bool MemoryImage::tryAllocate(VoxelTypes type, const Extents& extents, bool zeroFill) {
    try {
        allocate(type, extents, zeroFill);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

std::uint64_t MemoryImage::getNumOf(const Components& axis) const {
    return (axis >= 0 && axis < 5) ? m_extents[axis] : 1;
}

void MemoryImage::enforceSameCharacteristics(const ImageModel* reference, const int& flags) {
    if (!reference || reference == this) return;
    VoxelTypes type = (flags & SameVoxelType) ? reference->getVoxelType() : m_type;
    Extents ext = (flags & SameSize) ? reference->extents() : m_extents;
    if (type == m_type && ext == m_extents && m_data) return;
    if (!m_owned) raise<RuleException>("An image wrapping external memory cannot change its type or extents",
                                       "host/Image", __LINE__);
    allocate(type, ext);
}

std::uint64_t MemoryImage::index(long col, long row, long plan, long seq, long spectral) const {
    return static_cast<std::uint64_t>(col) +
           m_extents[0] * (static_cast<std::uint64_t>(row) +
                           m_extents[1] * (static_cast<std::uint64_t>(plan) +
                                           m_extents[2] * (static_cast<std::uint64_t>(seq) +
                                                           m_extents[3] * static_cast<std::uint64_t>(spectral))));
}

char* MemoryImage::address(long col, long row, long plan, long seq, long spectral) const {
    return static_cast<char*>(m_data) + index(col, row, plan, seq, spectral) * helper::getSizeOf(m_type);
}

void MemoryImage::readRaw(void* dst, std::uint64_t count, long col, long row, long plan, long seq, long spectral) const {
    std::memcpy(dst, address(col, row, plan, seq, spectral), count * helper::getSizeOf(m_type));
}

bool MemoryImage::writeRaw(const void* src, std::uint64_t count, long col, long row, long plan, long seq,
                           long spectral) {
    if (col < 0 || row < 0 || plan < 0 || seq < 0 || spectral < 0 || static_cast<std::uint64_t>(col) + count > m_extents[0] ||
        static_cast<std::uint64_t>(row) >= m_extents[1] || static_cast<std::uint64_t>(plan) >= m_extents[2] ||
        static_cast<std::uint64_t>(seq) >= m_extents[3] || static_cast<std::uint64_t>(spectral) >= m_extents[4])
        return false;
    std::memmove(address(col, row, plan, seq, spectral), src, count * helper::getSizeOf(m_type));
    return true;
}

bool MemoryImage::getMemoryLayout(MemoryLayout& layout) const {
    if (!m_data) return false;
    std::int64_t s = static_cast<std::int64_t>(helper::getSizeOf(m_type));
    layout.base = static_cast<char*>(m_data);
    for (int a = 0; a < 5; ++a) {
        layout.strides[a] = s;
        s *= static_cast<std::int64_t>(m_extents[a]);
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
ImageModelSizeProxy::ImageModelSizeProxy(const ImageModel* source, std::uint64_t colOrigin, std::uint64_t cols,
                                         std::uint64_t rowOrigin, std::uint64_t rows, std::uint64_t planOrigin,
                                         std::uint64_t plans, std::uint64_t seqOrigin, std::uint64_t seqs,
                                         std::uint64_t specOrigin, std::uint64_t specs)
    : m_source(source), m_origin{colOrigin, rowOrigin, planOrigin, seqOrigin, specOrigin},
      m_extents{cols, rows, plans, seqs, specs} {
    if (!source) raise<RuleException>("A size proxy needs a source image", "host/Image", __LINE__);
    for (int a = 0; a < 5; ++a)
        if (m_origin[a] + m_extents[a] > source->getNumOf(static_cast<Components>(a)))
            raise<RuleException>("A size proxy must lie inside its source image", "host/Image", __LINE__);
}

void ImageModelSizeProxy::enforceSameCharacteristics(const ImageModel* reference, const int& flags) {
    if (!reference) return;
    bool sameType = !(flags & SameVoxelType) || reference->getVoxelType() == getVoxelType();
    bool sameSize = !(flags & SameSize) || reference->extents() == m_extents;
    if (!sameType || !sameSize)
        raise<RuleException>("A size proxy cannot change its type or extents", "host/Image", __LINE__);
}

void ImageModelSizeProxy::readRaw(void* dst, std::uint64_t count, long col, long row, long plan, long seq,
                                  long spectral) const {
    m_source->readRaw(dst, count, col + static_cast<long>(m_origin[0]), row + static_cast<long>(m_origin[1]),
                      plan + static_cast<long>(m_origin[2]), seq + static_cast<long>(m_origin[3]),
                      spectral + static_cast<long>(m_origin[4]));
}

void ImageModelSizeProxy::readRawRows(char* const* rows, std::uint64_t count, long col, long row, std::uint64_t nbRows,
                                      long plan, long seq, long spectral) const {
    m_source->readRawRows(rows, count, col + static_cast<long>(m_origin[0]), row + static_cast<long>(m_origin[1]),
                          nbRows, plan + static_cast<long>(m_origin[2]), seq + static_cast<long>(m_origin[3]),
                          spectral + static_cast<long>(m_origin[4]));
}

bool ImageModelSizeProxy::writeRaw(const void*, std::uint64_t, long, long, long, long, long) {
    // Proxies serve read-only sub-images.
    return false;
}

bool ImageModelSizeProxy::getMemoryLayout(MemoryLayout& layout) const {
    if (!m_source->getMemoryLayout(layout)) return false;
    for (int a = 0; a < 5; ++a) layout.base += static_cast<std::int64_t>(m_origin[a]) * layout.strides[a];
    return true;
}

} // namespace lyn
