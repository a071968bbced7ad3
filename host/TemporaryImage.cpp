#include "host/TemporaryImage.h"

namespace lyn {

Object::~Object() = default;

void raiseNullDereference() {
    raise<UnexpectedError>("Null dereference of a reference-counted handle", "host/TemporaryImage", __LINE__);
}

namespace io {

RefImpl<TemporaryImage> TemporaryImage::New(LocationMode mode) { return RefImpl<TemporaryImage>(new TemporaryImage(mode)); }

bool TemporaryImage::reserve(const VoxelTypes& type, unsigned long cols, unsigned long rows, unsigned long plans,
                             unsigned long sequence, unsigned long spectral) {
    if (m_mode != InMemory) {
        // Images on disk are not available in this build: the caller reports the failure.
        return false;
    }
    auto image = std::make_unique<MemoryImage>();
    // Every pass writes the whole region before the next one reads it: no need to zero it.
    if (!image->tryAllocate(type, {cols, rows, plans, sequence, spectral}, false)) return false;
    m_image = std::move(image);
    return true;
}

} // namespace io
} // namespace lyn
