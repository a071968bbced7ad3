#include "tools/OnDisk.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "host/Settings.h"
#include "host/TemporaryImage.h"
#include "tools/Commands.h"
#include "tools/Npy.h"

namespace lyn {
namespace tool {

namespace {
std::string gib(std::uint64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f GiB", double(bytes) / double(1u << 30));
    return text;
}
} // namespace

std::unique_ptr<DiskImage> openNpyOnDisk(const std::string& path, int& axes) {
    const io::NpyHeader h = io::readNpyHeader(path);
    DiskImage::FileLayout layout;
    layout.type = h.type;
    layout.extents = h.extents;
    layout.dataOffset = h.dataOffset;
    layout.bigEndian = h.bigEndian;
    axes = h.axes;
    try {
        return DiskImage::open(path, layout, false);
    } catch (const RuntimeError& e) {
        throw io::InputError(e.getInfo().message);
    }
}

DiskOutput::DiskOutput(const std::string& path, VoxelTypes type, const Extents& extents, int axes) : m_path(path) {
    std::string dir = ".", base = path;
    if (auto slash = path.rfind('/'); slash != std::string::npos) {
        dir = slash == 0 ? "/" : path.substr(0, slash);
        base = path.substr(slash + 1);
    }
    for (int attempt = 0;; ++attempt) {
        m_partial = dir + "/." + base + ".partial-" + std::to_string(::getpid()) + "-" + std::to_string(attempt);
        try {
            m_image = DiskImage::createNpy(m_partial, type, extents, axes);
            return;
        } catch (const RuntimeError&) {
            // A name left by an earlier process of the same id: take the next one.
            if (::access(m_partial.c_str(), F_OK) != 0 || attempt > 100) throw;
        }
    }
}

DiskOutput::~DiskOutput() {
    if (!m_partial.empty()) ::unlink(m_partial.c_str());
}

void DiskOutput::commit() {
    m_image->sync();
    if (std::rename(m_partial.c_str(), m_path.c_str()) != 0)
        throw std::runtime_error(m_path + ": cannot write: " + std::strerror(errno));
    m_partial.clear();
}

void copyRows(const ImageModel& from, ImageModel& to) {
    const Extents e = from.extents();
    std::vector<char> row(e[0] * helper::getSizeOf(from.getVoxelType()));
    for (std::uint64_t l = 0; l < e[4]; ++l)
        for (std::uint64_t s = 0; s < e[3]; ++s)
            for (std::uint64_t p = 0; p < e[2]; ++p)
                for (std::uint64_t r = 0; r < e[1]; ++r) {
                    from.readRaw(row.data(), e[0], 0, long(r), long(p), long(s), long(l));
                    if (!to.writeRaw(row.data(), e[0], 0, long(r), long(p), long(s), long(l)))
                        throw std::runtime_error("cannot copy a row of " + from.describe());
                }
}

void checkFitsInMemory(const std::string& path, std::uint64_t bytes) {
    const std::uint64_t available = availableMemoryBytes();
    if (available == 0 || bytes <= available) return;
    throw UsageError(path + ": holding it in memory takes " + gib(bytes) + " but only " + gib(available) +
                     " is available; use --on-disk to work on the files instead");
}

std::string adviceFor(const Exception& failure) {
    const std::string message = failure.getInfo().message;
    if (message == "The temporary disk image cannot be allocated.") {
        const std::string dir = io::temporaryDirectory();
        struct statvfs fs {};
        const std::string space = ::statvfs(dir.c_str(), &fs) == 0
                                      ? " (" + gib(std::uint64_t(fs.f_bavail) * fs.f_frsize) + " free)"
                                      : " (not usable: " + std::string(std::strerror(errno)) + ")";
        return "temporary images on disk go to " + dir + space +
               "; choose another directory with --tmpdir, or set LYN_RECURSIVITY_TMP_DISK_IMAGE=false to work in "
               "place without one";
    }
    if (message == "The temporary in memory image cannot be allocated.")
        return "a lower --memory-budget makes the passes work in place without a temporary image";
    return {};
}

} // namespace tool
} // namespace lyn
