#pragma once
// Border conditions: how a row that reaches outside the image is completed. Row readers of the
// views and caches go through them, so kernels never test an image edge.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <memory>

#include "host/Image.h"

namespace lyn {
namespace access {

// Typed, bounds-free access to the voxels of one image; the memory layout is looked up once.
class ImageAccess {
public:
    explicit ImageAccess(const ImageModel* image) : m_image(image) {
        for (int a = 0; a < 5; ++a) m_extents[a] = static_cast<long>(image->getNumOf(static_cast<Components>(a)));
        m_direct = image->getMemoryLayout(m_layout);
        m_elementSize = static_cast<std::size_t>(helper::getSizeOf(image->getVoxelType()));
    }

    const ImageModel* image() const { return m_image; }
    long extent(int axis) const { return m_extents[axis]; }
    bool insideOuter(long row, long plan, long seq, long spectral) const {
        return row >= 0 && row < m_extents[1] && plan >= 0 && plan < m_extents[2] && seq >= 0 &&
               seq < m_extents[3] && spectral >= 0 && spectral < m_extents[4];
    }

    // `count` voxels of one row, all inside the image.
    void read(void* dst, std::uint64_t count, long col, long row, long plan, long seq, long spectral) const {
        if (m_direct) {
            std::memcpy(dst, address(col, row, plan, seq, spectral), count * m_elementSize);
        } else {
            m_image->readRaw(dst, count, col, row, plan, seq, spectral);
        }
    }
    // Rows row .. row + nbRows - 1 of one plan, `count` voxels from `col` each (all inside the
    // image), to rows[i] + skip.
    template <class T>
    void readRows(T* const* rows, long skip, std::uint64_t count, long col, long row, long nbRows, long plan, long seq,
                  long spectral) const {
        if (m_direct) {
            for (long i = 0; i < nbRows; ++i)
                std::memcpy(rows[i] + skip, address(col, row + i, plan, seq, spectral), count * m_elementSize);
            return;
        }
        char* batch[256];
        for (long i = 0; i < nbRows; i += 256) {
            const long n = std::min(256L, nbRows - i);
            for (long k = 0; k < n; ++k) batch[k] = reinterpret_cast<char*>(rows[i + k] + skip);
            m_image->readRawRows(batch, count, col, row + i, std::uint64_t(n), plan, seq, spectral);
        }
    }
    bool write(const void* src, std::uint64_t count, long col, long row, long plan, long seq, long spectral) const {
        // Writable views are only built from non-const images (View::New).
        auto* image = const_cast<ImageModel*>(m_image);
        if (m_direct && col >= 0 && insideOuter(row, plan, seq, spectral) &&
            col + static_cast<long>(count) <= m_extents[0]) {
            std::memmove(address(col, row, plan, seq, spectral), src, count * m_elementSize);
            return true;
        }
        return image->writeRaw(src, count, col, row, plan, seq, spectral);
    }

    // The memory layout when the image is held in memory.
    bool layout(MemoryLayout& out) const {
        if (m_direct) out = m_layout;
        return m_direct;
    }

    // Address of `count` voxels of one row when they are all inside the image and in memory.
    template <class T>
    const T* pointer(long col, long row, long plan, long seq, long spectral, unsigned long count) const {
        if (!m_direct || col < 0 || col + long(count) > m_extents[0] || !insideOuter(row, plan, seq, spectral)) return nullptr;
        return reinterpret_cast<const T*>(address(col, row, plan, seq, spectral));
    }

private:
    char* address(long col, long row, long plan, long seq, long spectral) const {
        return m_layout.base + col * m_layout.strides[0] + row * m_layout.strides[1] + plan * m_layout.strides[2] +
               seq * m_layout.strides[3] + spectral * m_layout.strides[4];
    }

    const ImageModel* m_image;
    long m_extents[5] = {0, 0, 0, 0, 0};
    MemoryLayout m_layout;
    bool m_direct = false;
    std::size_t m_elementSize = 1;
};

template <class T>
class BorderCondition {
public:
    virtual ~BorderCondition() = default;
    // Fills [begin, end) with the row that starts at (col, row, plan, seq, spectral); any coordinate may
    // lie outside the image, and the voxels there follow this condition's rule.
    virtual void readRow(const ImageAccess& access, T* begin, T* end, long col, long row, long plan, long seq,
                         long spectral) const = 0;
    // Rows row .. row + nbRows - 1 of one plan, each as readRow reads it, to begins[i] .. + n.
    // Border conditions that can read many rows at once say so.
    virtual void readRows(const ImageAccess& access, T* const* begins, long n, long col, long row, long nbRows,
                          long plan, long seq, long spectral) const {
        for (long i = 0; i < nbRows; ++i) readRow(access, begins[i], begins[i] + n, col, row + i, plan, seq, spectral);
    }
    // A short human-readable description ("fixed 0", "continue").
    virtual std::string describe() const = 0;
    // True, with the value, when every voxel outside the image reads as one value: kernels that read
    // rows in place then complete their edges themselves.
    virtual bool fixedValue(T& value) const {
        (void)value;
        return false;
    }
};

// Voxels outside the image read as one fixed value.
template <class T>
class FixedBorderCondition : public BorderCondition<T> {
public:
    explicit FixedBorderCondition(T value) : m_value(value) {}
    static std::shared_ptr<FixedBorderCondition> New(T value) { return std::make_shared<FixedBorderCondition>(value); }

    T getValue() const { return m_value; }
    bool fixedValue(T& value) const override {
        value = m_value;
        return true;
    }

    void readRow(const ImageAccess& access, T* begin, T* end, long col, long row, long plan, long seq,
                 long spectral) const override {
        const long n = end - begin;
        if (n <= 0) return;
        if (!access.insideOuter(row, plan, seq, spectral)) {
            std::fill(begin, end, m_value);
            return;
        }
        const long first = std::max(col, 0L);
        const long last = std::min(col + n, access.extent(0));
        if (last <= first) {
            std::fill(begin, end, m_value);
            return;
        }
        std::fill(begin, begin + (first - col), m_value);
        access.read(begin + (first - col), static_cast<std::uint64_t>(last - first), first, row, plan, seq, spectral);
        std::fill(begin + (last - col), end, m_value);
    }
    // The rows inside the image in one call, each row's outside voxels filled as readRow does.
    void readRows(const ImageAccess& access, T* const* begins, long n, long col, long row, long nbRows, long plan,
                  long seq, long spectral) const override {
        const long first = std::max(col, 0L), last = std::min(col + n, access.extent(0));
        const long top = std::max(row, 0L), bottom = std::min(row + nbRows, access.extent(1));
        if (n <= 0 || last <= first || bottom <= top || !access.insideOuter(top, plan, seq, spectral)) {
            BorderCondition<T>::readRows(access, begins, n, col, row, nbRows, plan, seq, spectral);
            return;
        }
        for (long i = 0; i < nbRows; ++i) {
            T* begin = begins[i];
            if (row + i < top || row + i >= bottom) {
                std::fill(begin, begin + n, m_value);
                continue;
            }
            std::fill(begin, begin + (first - col), m_value);
            std::fill(begin + (last - col), begin + n, m_value);
        }
        access.readRows(begins + (top - row), first - col, std::uint64_t(last - first), first, top, bottom - top, plan,
                        seq, spectral);
    }
    std::string describe() const override { return "fixed"; }

private:
    T m_value;
};

// Voxels outside the image read as the nearest voxel inside it (clamped coordinates).
template <class T>
class ContinueBorderCondition : public BorderCondition<T> {
public:
    static std::shared_ptr<ContinueBorderCondition> New() { return std::make_shared<ContinueBorderCondition>(); }

    void readRow(const ImageAccess& access, T* begin, T* end, long col, long row, long plan, long seq,
                 long spectral) const override {
        const long n = end - begin;
        if (n <= 0) return;
        for (int a = 0; a < 5; ++a)
            if (access.extent(a) == 0) {
                std::fill(begin, end, T{});  // an empty image has no voxel to continue
                return;
            }
        row = clamp(row, 1, access);
        plan = clamp(plan, 2, access);
        seq = clamp(seq, 3, access);
        spectral = clamp(spectral, 4, access);
        const long nc = access.extent(0);
        const long first = std::max(col, 0L);
        const long last = std::min(col + n, nc);
        if (last <= first) {
            T edge;
            access.read(&edge, 1, col < 0 ? 0 : nc - 1, row, plan, seq, spectral);
            std::fill(begin, end, edge);
            return;
        }
        T* mid = begin + (first - col);
        access.read(mid, static_cast<std::uint64_t>(last - first), first, row, plan, seq, spectral);
        std::fill(begin, mid, *mid);
        T* tail = begin + (last - col);
        std::fill(tail, end, *(tail - 1));
    }
    std::string describe() const override { return "continue"; }

private:
    static long clamp(long v, int axis, const ImageAccess& access) {
        return std::min(std::max(v, 0L), access.extent(axis) - 1);
    }
};

} // namespace access
} // namespace lyn
