#include "host/TemporaryImage.h"

#include <cstdlib>
#include <mutex>

#include "host/DiskImage.h"
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

std::string temporaryDirectory() {
    String dir = globalSettings()->getValue("LYN_TMPDIR", "");
    if (dir.empty()) {
        const char* env = std::getenv("TMPDIR");
        dir = env && *env ? env : "/tmp";
    }
    return dir;
}

TemporaryImage::~TemporaryImage() {
    if (!m_memory || m_memory->getSizeInBytes() > retainLimit()) return;
    Retained& r = retained();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.image = std::move(m_memory);
}

RefImpl<TemporaryImage> TemporaryImage::New(LocationMode mode) { return RefImpl<TemporaryImage>(new TemporaryImage(mode)); }

bool TemporaryImage::reserve(const VoxelTypes& type, unsigned long cols, unsigned long rows, unsigned long plans,
                             unsigned long sequence, unsigned long spectral) {
    if (m_mode == OnDisk) {
        try {
            m_disk = DiskImage::createUnnamed(temporaryDirectory(), type, {cols, rows, plans, sequence, spectral});
            return true;
        } catch (const Exception& e) {
            m_failure = e.getInfo(true).message;
            return false;
        }
    }
    std::unique_ptr<MemoryImage> image;
    {
        Retained& r = retained();
        std::lock_guard<std::mutex> lock(r.mutex);
        image = std::move(r.image);
    }
    if (!image) image = std::make_unique<MemoryImage>();
    // Every pass writes the whole region before the next one reads it: no need to zero it.
    if (!image->tryAllocate(type, {cols, rows, plans, sequence, spectral}, false)) {
        m_failure = "not enough memory";
        return false;
    }
    m_memory = std::move(image);
    return true;
}

} // namespace io
} // namespace lyn
