#include "host/DiskImage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace lyn {

namespace {

constexpr const char* kSource = "host/DiskImage";

[[noreturn]] void fail(const std::string& path, const std::string& what, int err, int line) {
    raise<RuntimeError>(path + ": " + what + (err ? std::string(": ") + std::strerror(err) : std::string()), kSource,
                        line);
}

std::uint64_t byteSize(VoxelTypes type, const Extents& extents) {
    std::uint64_t n = helper::getSizeOf(type);
    for (auto e : extents) {
        if (e != 0 && n > UINT64_MAX / 4 / e) raise<RuleException>("An image on disk this large cannot be addressed", kSource, __LINE__);
        n *= e;
    }
    return n;
}

void swapBytes(void* data, std::uint64_t count, std::size_t size) {
    if (size == 1) return;
    auto* p = static_cast<unsigned char*>(data);
    for (std::uint64_t i = 0; i < count; ++i, p += size) std::reverse(p, p + size);
}

// NumPy's name of each voxel type, without the byte-order character.
const char* npyCode(VoxelTypes type) {
    switch (type) {
    case UInt8: return "u1";
    case UInt16: return "u2";
    case UInt32: return "u4";
    case UInt64: return "u8";
    case Int8: return "i1";
    case Int16: return "i2";
    case Int32: return "i4";
    case Int64: return "i8";
    case Float: return "f4";
    case Double: return "f8";
    case Binary: return "b1";
    default: return nullptr;
    }
}

void writeAll(int fd, const std::string& path, const char* data, std::size_t bytes, std::uint64_t offset) {
    while (bytes) {
        const ssize_t w = ::pwrite(fd, data, std::min<std::size_t>(bytes, std::size_t(1) << 30), off_t(offset));
        if (w < 0) {
            if (errno == EINTR) continue;
            fail(path, "cannot write", errno, __LINE__);
        }
        data += w;
        bytes -= std::size_t(w);
        offset += std::uint64_t(w);
    }
}

// Reserves the file's blocks; a file system that cannot reserve them (no fallocate) gets them
// written instead, which glibc does.
void reserveSpace(int fd, const std::string& path, std::uint64_t bytes) {
    if (bytes == 0) return;
    const int err = ::posix_fallocate(fd, 0, off_t(bytes));
    if (err) {
        fail(path, "cannot reserve " + std::to_string(bytes) + " bytes" +
                       (err == ENOSPC || err == EFBIG ? " (the disk is full or the file size limit is reached)" : ""),
             err, __LINE__);
    }
}

// Threads reading the same image start their read-ahead this small and double it along a
// sequential run, up to the largest; a few such buffers per thread bound the memory this takes.
constexpr std::uint64_t kReadAheadMin = 16 << 10;
constexpr std::uint64_t kReadAheadMax = 1 << 20;
constexpr std::uint64_t kWriteBehind = 256 << 10;

} // namespace

std::string npyHeader(VoxelTypes type, const Extents& extents, int axes) {
    const char* code = npyCode(type);
    if (!code) raise<RuleException>(std::string("NumPy has no dtype for voxel type ") + voxelTypeName(type), kSource, __LINE__);
    if (axes < 2 || axes > 5) raise<RuleException>("A .npy image has 2 to 5 axes", kSource, __LINE__);
    std::string shape;
    for (int i = axes - 1; i >= 0; --i) shape += std::to_string(extents[i]) + (i ? ", " : "");
    std::string dict = std::string("{'descr': '") + (helper::getSizeOf(type) == 1 ? "|" : "<") + code +
                       "', 'fortran_order': False, 'shape': (" + shape + "), }";
    // Spaces so that the data starts on a 64-byte boundary, a newline last.
    const std::size_t total = 10 + dict.size() + 1;
    dict.append((total + 63) / 64 * 64 - total, ' ');
    dict.push_back('\n');
    std::string header = "\x93NUMPY";
    header.push_back(1);
    header.push_back(0);
    header.push_back(static_cast<char>(dict.size() & 0xff));
    header.push_back(static_cast<char>((dict.size() >> 8) & 0xff));
    return header + dict;
}

DiskImage::DiskImage(int fd, std::string path, const FileLayout& layout, bool writable)
    : m_fd(fd), m_path(std::move(path)), m_layout(layout), m_writable(writable),
      m_elementSize(static_cast<std::size_t>(helper::getSizeOf(layout.type))),
      m_rowBytes(layout.extents[0] * helper::getSizeOf(layout.type)),
      m_dataEnd(layout.dataOffset + byteSize(layout.type, layout.extents)) {}

DiskImage::~DiskImage() {
    try {
        flushWrites();
    } catch (const Exception&) {
        // Nobody is left to tell: the owner that cares calls sync() first.
    }
    ::close(m_fd);
}

std::unique_ptr<DiskImage> DiskImage::open(const std::string& path, const FileLayout& layout, bool writable) {
    if (!isValidVoxelType(layout.type)) raise<RuleException>("Invalid voxel type for an image", kSource, __LINE__);
    const std::uint64_t bytes = byteSize(layout.type, layout.extents);
    const int fd = ::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) fail(path, "cannot open", errno, __LINE__);
    struct stat st {};
    if (::fstat(fd, &st) != 0 || std::uint64_t(st.st_size) < layout.dataOffset + bytes) {
        ::close(fd);
        fail(path, "the file is shorter than its " + std::to_string(bytes) + " bytes of voxels", 0, __LINE__);
    }
    return std::unique_ptr<DiskImage>(new DiskImage(fd, path, layout, writable));
}

std::unique_ptr<DiskImage> DiskImage::createAt(int fd, const std::string& path, const std::string& header,
                                               VoxelTypes type, const Extents& extents) {
    FileLayout layout;
    layout.type = type;
    layout.extents = extents;
    layout.dataOffset = header.size();
    // Owns the descriptor from here: any failure below closes it.
    std::unique_ptr<DiskImage> image(new DiskImage(fd, path, layout, true));
    reserveSpace(fd, path, header.size() + byteSize(type, extents));
    writeAll(fd, path, header.data(), header.size(), 0);
    return image;
}

std::unique_ptr<DiskImage> DiskImage::createNpy(const std::string& path, VoxelTypes type, const Extents& extents,
                                                int axes) {
    const std::string header = npyHeader(type, extents, axes);
    byteSize(type, extents);
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) fail(path, "cannot create", errno, __LINE__);
    try {
        return createAt(fd, path, header, type, extents);
    } catch (...) {
        ::unlink(path.c_str());
        throw;
    }
}

std::unique_ptr<DiskImage> DiskImage::createUnnamed(const std::string& directory, VoxelTypes type,
                                                    const Extents& extents) {
    if (!isValidVoxelType(type)) raise<RuleException>("Invalid voxel type for an image", kSource, __LINE__);
    byteSize(type, extents);
    const std::string dir = directory.empty() ? std::string("/tmp") : directory;
    int fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
        // No unnamed files on this file system: a named one, unlinked before anything else happens.
        std::string name = dir + "/.lyn-temporary-XXXXXX";
        fd = ::mkostemp(name.data(), O_CLOEXEC);
        if (fd >= 0) ::unlink(name.c_str());
    }
    if (fd < 0) fail(dir, "cannot create a temporary image", errno, __LINE__);
    return createAt(fd, dir + " (temporary image)", std::string(), type, extents);
}

std::uint64_t DiskImage::getNumOf(const Components& axis) const {
    return (axis >= 0 && axis < 5) ? m_layout.extents[axis] : 1;
}

void DiskImage::enforceSameCharacteristics(const ImageModel* reference, const int& flags) {
    if (!reference || reference == this) return;
    const bool sameType = !(flags & SameVoxelType) || reference->getVoxelType() == m_layout.type;
    const bool sameSize = !(flags & SameSize) || reference->extents() == m_layout.extents;
    if (!sameType || !sameSize)
        raise<RuleException>(m_path + ": an image on disk is " + describe() + " and cannot become " +
                                 reference->describe(),
                             kSource, __LINE__);
}

std::uint64_t DiskImage::offsetOf(long col, long row, long plan, long seq, long spectral) const {
    const Extents& e = m_layout.extents;
    const std::uint64_t index =
        std::uint64_t(col) +
        e[0] * (std::uint64_t(row) + e[1] * (std::uint64_t(plan) + e[2] * (std::uint64_t(seq) + e[3] * std::uint64_t(spectral))));
    return m_layout.dataOffset + index * m_elementSize;
}

void DiskImage::readAt(void* dst, std::uint64_t bytes, std::uint64_t offset) const {
    char* p = static_cast<char*>(dst);
    while (bytes) {
        const ssize_t r = ::pread(m_fd, p, std::min<std::uint64_t>(bytes, std::uint64_t(1) << 30), off_t(offset));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) fail(m_path, "cannot read", r < 0 ? errno : EIO, __LINE__);
        p += r;
        bytes -= std::uint64_t(r);
        offset += std::uint64_t(r);
    }
}

void DiskImage::readRaw(void* dst, std::uint64_t count, long col, long row, long plan, long seq, long spectral) const {
    if (count == 0) return;
    const std::uint64_t bytes = count * m_elementSize;
    const std::uint64_t offset = offsetOf(col, row, plan, seq, spectral);
    // This thread's own writes first, so that it reads what it wrote.
    WriteBehind& pending = m_writeBehind.local();
    if (pending.size) flush(pending);
    ReadAhead& ra = m_readAhead.local();
    const std::uint64_t generation = m_writes.load(std::memory_order_acquire);
    if (ra.generation != generation) {
        // Written since the last read: while a pass writes this image, rows are read one at a time.
        ra.begin = ra.end = 0;
        ra.generation = generation;
        readAt(dst, bytes, offset);
    } else if (offset >= ra.begin && offset + bytes <= ra.end) {
        std::memcpy(dst, ra.data.get() + (offset - ra.begin), bytes);
    } else {
        const std::uint64_t held = ra.end - ra.begin;
        const bool sequential = held && offset >= ra.begin && offset <= ra.end + held;
        std::uint64_t size = std::max({bytes, kReadAheadMin, m_rowBytes});
        if (sequential) size = std::max(size, 2 * held);
        size = std::min(size, std::max(bytes, kReadAheadMax));
        size = std::min(size, m_dataEnd - offset);
        if (size > ra.capacity) {
            ra.data.reset(new char[size]);
            ra.capacity = size;
        }
        ra.begin = ra.end = 0;
        readAt(ra.data.get(), size, offset);
        ra.begin = offset;
        ra.end = offset + size;
        std::memcpy(dst, ra.data.get(), bytes);
    }
    if (m_layout.bigEndian) swapBytes(dst, count, m_elementSize);
}

void DiskImage::readRawRows(char* const* rows, std::uint64_t count, long col, long row, std::uint64_t nbRows,
                            long plan, long seq, long spectral) const {
    const std::uint64_t bytes = count * m_elementSize;
    if (nbRows < 2 || bytes != m_rowBytes || bytes == 0) {
        ImageModel::readRawRows(rows, count, col, row, nbRows, plan, seq, spectral);
        return;
    }
    WriteBehind& pending = m_writeBehind.local();
    if (pending.size) flush(pending);
    std::uint64_t offset = offsetOf(0, row, plan, seq, spectral);
    constexpr std::uint64_t kRowsPerCall = 256;  // below every system's IOV_MAX (1024 on Linux)
    iovec iov[kRowsPerCall];
    for (std::uint64_t i = 0; i < nbRows; i += kRowsPerCall) {
        int n = int(std::min(kRowsPerCall, nbRows - i));
        for (int k = 0; k < n; ++k) iov[k] = {rows[i + std::uint64_t(k)], std::size_t(bytes)};
        iovec* at = iov;
        while (n) {
            const ssize_t r = ::preadv(m_fd, at, n, off_t(offset));
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) fail(m_path, "cannot read", r < 0 ? errno : EIO, __LINE__);
            offset += std::uint64_t(r);
            // A short read goes on from where it stopped.
            for (std::size_t left = std::size_t(r); left;) {
                const std::size_t take = std::min(left, at->iov_len);
                at->iov_base = static_cast<char*>(at->iov_base) + take;
                at->iov_len -= take;
                left -= take;
                if (at->iov_len == 0) {
                    ++at;
                    --n;
                }
            }
        }
    }
    if (m_layout.bigEndian)
        for (std::uint64_t i = 0; i < nbRows; ++i) swapBytes(rows[i], count, m_elementSize);
}

bool DiskImage::inside(std::uint64_t count, long col, long row, long plan, long seq, long spectral) const {
    const Extents& e = m_layout.extents;
    return col >= 0 && row >= 0 && plan >= 0 && seq >= 0 && spectral >= 0 && std::uint64_t(col) + count <= e[0] &&
           std::uint64_t(row) < e[1] && std::uint64_t(plan) < e[2] && std::uint64_t(seq) < e[3] &&
           std::uint64_t(spectral) < e[4];
}

void* DiskImage::rowToWrite(std::uint64_t count, long col, long row, long plan, long seq, long spectral) {
    const std::uint64_t bytes = count * m_elementSize;
    if (!m_writable || count == 0 || bytes > kWriteBehind || (m_layout.bigEndian && m_elementSize > 1) ||
        !inside(count, col, row, plan, seq, spectral))
        return nullptr;
    const std::uint64_t offset = offsetOf(col, row, plan, seq, spectral);
    WriteBehind& pending = m_writeBehind.local();
    if (pending.size && (offset != pending.begin + pending.size || pending.size + bytes > kWriteBehind)) flush(pending);
    if (!pending.data) pending.data.reset(new char[kWriteBehind]);
    return pending.data.get() + pending.size;
}

bool DiskImage::writeRaw(const void* src, std::uint64_t count, long col, long row, long plan, long seq, long spectral) {
    if (!m_writable || !inside(count, col, row, plan, seq, spectral)) return false;
    if (count == 0) return true;
    const std::uint64_t bytes = count * m_elementSize;
    const std::uint64_t offset = offsetOf(col, row, plan, seq, spectral);
    WriteBehind& pending = m_writeBehind.local();
    // Computed where rowToWrite said (which gives no place to byte-swapped files): already in place.
    if (pending.data && src == pending.data.get() + pending.size &&
        (!pending.size || offset == pending.begin + pending.size) && pending.size + bytes <= kWriteBehind) {
        if (!pending.size) pending.begin = offset;
        pending.size += bytes;
        return true;
    }
    if (pending.size && (offset != pending.begin + pending.size || pending.size + bytes > kWriteBehind)) flush(pending);
    if (bytes > kWriteBehind) {
        std::vector<char> swapped;
        const char* data = static_cast<const char*>(src);
        if (m_layout.bigEndian && m_elementSize > 1) {
            swapped.assign(data, data + bytes);
            swapBytes(swapped.data(), count, m_elementSize);
            data = swapped.data();
        }
        writeAll(m_fd, m_path, data, static_cast<std::size_t>(bytes), offset);
        m_writes.fetch_add(1, std::memory_order_acq_rel);
        return true;
    }
    if (!pending.data) pending.data.reset(new char[kWriteBehind]);
    if (!pending.size) pending.begin = offset;
    char* at = pending.data.get() + pending.size;
    // memmove: a row computed where rowToWrite said may have moved down since, by a flush.
    std::memmove(at, src, static_cast<std::size_t>(bytes));
    if (m_layout.bigEndian) swapBytes(at, count, m_elementSize);
    pending.size += bytes;
    return true;
}

void DiskImage::flush(WriteBehind& pending) const {
    const std::uint64_t size = pending.size;
    pending.size = 0;
    writeAll(m_fd, m_path, pending.data.get(), static_cast<std::size_t>(size), pending.begin);
    // After the write: a reader that saw the old count and read before it finds its copy stale.
    m_writes.fetch_add(1, std::memory_order_acq_rel);
}

void DiskImage::flushWrites() const {
    for (WriteBehind& pending : m_writeBehind)
        if (pending.size) flush(pending);
}

void DiskImage::sync() {
    flushWrites();
    if (::fsync(m_fd) != 0) fail(m_path, "cannot flush to disk", errno, __LINE__);
}

} // namespace lyn
