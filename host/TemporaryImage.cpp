#include "host/TemporaryImage.h"

#include <mutex>

#include "host/Settings.h"

namespace lyn {

Object::~Object() = default;

void raiseNullDereference() {
    raise<UnexpectedError>("Null dereference of a reference-counted handle", "host/TemporaryImage", __LINE__);
}

namespace io {

namespace {
// The last in-memory temporary image, kept for the next one: multi-pass filters ask for a temporary
// the size of their image at every run, and fresh memory costs a first touch of every page (which
// the kernel zeroes), often more than a pass itself. Images above LYN_TEMPORARY_RETAIN_BYTES are
// freed at once.
struct Retained {
    std::mutex mutex;
    std::unique_ptr<MemoryImage> image;
};
Retained& retained() {
    static Retained r;
    return r;
}
std::uint64_t retainLimit() {
    return globalSettings()->getValueAsBytes("LYN_TEMPORARY_RETAIN_BYTES", physicalMemoryBytes() / 16);
}
} // namespace

TemporaryImage::~TemporaryImage() {
    if (!m_image || m_image->getSizeInBytes() > retainLimit()) return;
    Retained& r = retained();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.image = std::move(m_image);
}

RefImpl<TemporaryImage> TemporaryImage::New(LocationMode mode) { return RefImpl<TemporaryImage>(new TemporaryImage(mode)); }

bool TemporaryImage::reserve(const VoxelTypes& type, unsigned long cols, unsigned long rows, unsigned long plans,
                             unsigned long sequence, unsigned long spectral) {
    if (m_mode != InMemory) {
        // Images on disk are not available in this build: the caller reports the failure.
        return false;
    }
    std::unique_ptr<MemoryImage> image;
    {
        Retained& r = retained();
        std::lock_guard<std::mutex> lock(r.mutex);
        image = std::move(r.image);
    }
    if (!image) image = std::make_unique<MemoryImage>();
    // Every pass writes the whole region before the next one reads it: no need to zero it.
    if (!image->tryAllocate(type, {cols, rows, plans, sequence, spectral}, false)) return false;
    m_image = std::move(image);
    return true;
}

} // namespace io
} // namespace lyn
