#pragma once
// Typed views over an image: row reads through a border condition, row writes, deferred
// ("temporized") writes collected from many threads, and the caches that kernels work through.
#include <memory>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

#include "host/Region.h"
#include "host/BorderCondition.h"

namespace lyn {
namespace access {

template <class View, class Alloc> class RowCacheRead;
template <class View, class Alloc> class RowCacheReadWrite;
template <class View, class Alloc> class PlanCacheRead;
template <class View, class Alloc> class PlanCacheReadWrite;

template <class T, class Alloc>
class View {
public:
    using value_type = T;
    using allocator_type = Alloc;

    // Read-only view.
    static std::shared_ptr<const View> New(const ImageModel* image, std::shared_ptr<BorderCondition<T>> border) {
        return std::shared_ptr<const View>(new View(image, std::move(border), false));
    }
    // Writable view.
    static std::shared_ptr<View> New(ImageModel* image, std::shared_ptr<BorderCondition<T>> border) {
        return std::shared_ptr<View>(new View(image, std::move(border), true));
    }

    View(const View&) = delete;
    View& operator=(const View&) = delete;

    // Caches of `n` rows or plans; defined with the cache classes (Core/private/Access/Caches.h).
    std::shared_ptr<RowCacheRead<View, Alloc>> createRowCacheRead(unsigned long n) const;
    std::shared_ptr<RowCacheReadWrite<View, Alloc>> createRowCacheReadWrite(unsigned long n);
    std::shared_ptr<PlanCacheRead<View, Alloc>> createPlanCacheRead(unsigned long n) const;
    std::shared_ptr<PlanCacheReadWrite<View, Alloc>> createPlanCacheReadWrite(unsigned long n);

    Region getLargestPossibleRegion() const {
        return Region(0, m_access.extent(1), 0, m_access.extent(0), 0, m_access.extent(2), 0, m_access.extent(3), 0,
                      m_access.extent(4));
    }
    std::shared_ptr<BorderCondition<T>> getBorderCondition() { return m_border; }
    std::shared_ptr<const BorderCondition<T>> getBorderCondition() const { return m_border; }
    VoxelTypes getVoxelType() const { return m_image->getVoxelType(); }
    const ImageModel* getInterface() const { return m_image; }
    const ImageAccess& getAccess() const { return m_access; }
    long getNbCols() const { return m_access.extent(0); }
    long getNbRows() const { return m_access.extent(1); }
    long getNbPlans() const { return m_access.extent(2); }
    long getNbSequence() const { return m_access.extent(3); }
    long getNbSpectral() const { return m_access.extent(4); }

    // Fills [begin, end) from (col, row, plan, seq, spectral), the border condition supplying outside voxels.
    void readRow(T* begin, T* end, long col, long row, long plan, long seq, long spectral) const {
        m_border->readRow(m_access, begin, end, col, row, plan, seq, spectral);
    }
    // Rows row .. row + nbRows - 1 of one plan, n voxels each from col, to begins[i].
    void readRows(T* const* begins, long n, long col, long row, long nbRows, long plan, long seq, long spectral) const {
        m_border->readRows(m_access, begins, n, col, row, nbRows, plan, seq, spectral);
    }

    // The voxels [col, col + count) of a row lying wholly inside an image held in memory, read in
    // place; null when they must be copied through readRow.
    const T* directRow(long col, long row, long plan, long seq, long spectral, unsigned long count) const {
        return m_access.template pointer<T>(col, row, plan, seq, spectral, count);
    }

    // Where to compute a row in place in a writable image held in memory (null otherwise): for
    // passes whose output rows need no deferral.
    T* directRowWrite(long col, long row, long plan, long seq, long spectral, unsigned long count) {
        if (!m_writable) return nullptr;
        return const_cast<T*>(m_access.template pointer<T>(col, row, plan, seq, spectral, count));
    }

    // Where to compute a row that writeRowAt then writes without copying it (ImageModel::rowToWrite);
    // null when the image offers no such place.
    T* rowToWrite(long col, long row, long plan, long seq, long spectral, unsigned long count) {
        if (!m_writable) return nullptr;
        return static_cast<T*>(const_cast<ImageModel*>(m_access.image())->rowToWrite(count, col, row, plan, seq, spectral));
    }

    // The memory layout of a writable image held in memory; false otherwise. For writers that walk
    // many rows and would rather step by strides than look up every row (directRowWrite).
    bool writableLayout(MemoryLayout& out) const { return m_writable && m_access.layout(out); }

    // Writes `count` voxels at once; false when any of them lies outside the image or the image refused.
    bool writeRowAt(unsigned long count, const T* src, long col, long row, long plan, long seq, long spectral) {
        if (!m_writable) return false;
        return m_access.write(src, count, col, row, plan, seq, spectral);
    }

    // Keeps a whole row, or `count` of its voxels from element `offset`, to be written by
    // writeAllTemporizedRows. Safe to call from many threads at once.
    template <class Row>
    void temporizeRowWriting(const Row& row) {
        temporizeRowWriting(row, row.size(), 0);
    }
    template <class Row>
    void temporizeRowWriting(const Row& row, unsigned long count, unsigned long offset) {
        Store& store = m_temporized.local();
        Piece piece{store.data.size(), count, row.getColumn() + static_cast<long>(offset), row.getRow(),
                    row.getPlan(), row.getSequence(), row.getSpectral()};
        store.data.insert(store.data.end(), row.data() + offset, row.data() + offset + count);
        store.pieces.push_back(piece);
    }
    // Writes every kept piece (clipped to the image) and forgets them. Called by one thread,
    // after the parallel section that kept them.
    // Also the end of a pass: the image's held-back writes are made visible to the next one.
    void writeAllTemporizedRows() {
        for (Store& store : m_temporized) {
            for (const Piece& p : store.pieces) writeClipped(store.data.data() + p.offset, p);
            store.data.clear();
            store.pieces.clear();
        }
        m_image->flushWrites();
    }
    // Number of pieces waiting; for tests and diagnostics.
    std::size_t countTemporizedPieces() const {
        std::size_t n = 0;
        for (const Store& store : m_temporized) n += store.pieces.size();
        return n;
    }

private:
    struct Piece {
        std::size_t offset;
        std::size_t count;
        long col, row, plan, seq, spectral;
    };
    struct Store {
        std::vector<T> data;
        std::vector<Piece> pieces;
    };

    View(const ImageModel* image, std::shared_ptr<BorderCondition<T>> border, bool writable)
        : m_image(checked(image)), m_border(std::move(border)), m_access(image), m_writable(writable) {
        if (!m_border) raise<RuleException>("A view needs a border condition", "host/View", __LINE__);
    }
    static const ImageModel* checked(const ImageModel* image) {
        if (!image) raise<RuleException>("A view needs an image", "host/View", __LINE__);
        if (helper::getSizeOf(image->getVoxelType()) != sizeof(T))
            raise<RuleException>(std::string("A view's element type does not match the image's voxel type (") +
                                     voxelTypeName(image->getVoxelType()) + ")",
                                 "host/View", __LINE__);
        return image;
    }
    void writeClipped(const T* src, const Piece& p) {
        if (!m_access.insideOuter(p.row, p.plan, p.seq, p.spectral)) return;
        long first = std::max(p.col, 0L);
        long last = std::min(p.col + static_cast<long>(p.count), m_access.extent(0));
        if (last <= first) return;
        m_access.write(src + (first - p.col), static_cast<std::uint64_t>(last - first), first, p.row, p.plan, p.seq,
                       p.spectral);
    }

    const ImageModel* m_image;
    std::shared_ptr<BorderCondition<T>> m_border;
    ImageAccess m_access;
    bool m_writable;
    tbb::enumerable_thread_specific<Store> m_temporized;
};

} // namespace access
} // namespace lyn
