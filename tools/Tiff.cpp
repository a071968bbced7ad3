#include "tools/Tiff.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <tiffio.h>

#include "tools/Npy.h"

namespace lyn {
namespace io {

namespace {

struct TiffCloser {
    void operator()(TIFF* t) const { TIFFClose(t); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

// libtiff reports through global handlers; keep the last message for our own errors.
thread_local std::string g_tiffError;
void onTiffError(const char* module, const char* fmt, va_list ap) {
    char buf[512];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    g_tiffError = (module ? std::string(module) + ": " : std::string()) + buf;
}
void onTiffWarning(const char*, const char*, va_list) {}

void installHandlers() {
    TIFFSetErrorHandler(onTiffError);
    TIFFSetWarningHandler(onTiffWarning);
}

VoxelTypes typeOf(const std::string& path, uint16_t bits, uint16_t format) {
    if (format == SAMPLEFORMAT_IEEEFP) {
        if (bits == 32) return Float;
        if (bits == 64) return Double;
    } else if (format == SAMPLEFORMAT_INT) {
        if (bits == 8) return Int8;
        if (bits == 16) return Int16;
        if (bits == 32) return Int32;
        if (bits == 64) return Int64;
    } else if (format == SAMPLEFORMAT_UINT || format == SAMPLEFORMAT_VOID) {
        if (bits == 8) return UInt8;
        if (bits == 16) return UInt16;
        if (bits == 32) return UInt32;
        if (bits == 64) return UInt64;
    }
    throw InputError(path + ": unsupported TIFF sample format (" + std::to_string(bits) + " bits, format " +
                     std::to_string(format) + ")");
}

} // namespace

std::unique_ptr<MemoryImage> readTiff(const std::string& path) {
    installHandlers();
    TiffPtr tif(TIFFOpen(path.c_str(), "r"));
    if (!tif) throw InputError(path + ": cannot open as TIFF" + (g_tiffError.empty() ? "" : " (" + g_tiffError + ")"));
    uint32_t width = 0, height = 0;
    uint16_t bits = 8, format = SAMPLEFORMAT_UINT, spp = 1, planar = PLANARCONFIG_CONTIG;
    TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_PLANARCONFIG, &planar);
    if (spp != 1) throw InputError(path + ": has " + std::to_string(spp) + " samples per pixel; only grey images are supported");
    const VoxelTypes type = typeOf(path, bits, format);
    const std::uint64_t pages = TIFFNumberOfDirectories(tif.get());
    auto image = std::make_unique<MemoryImage>();
    try {
        image->allocate(type, {width, height, pages, 1, 1});
    } catch (const std::bad_alloc&) {
        throw InputError(path + ": not enough memory to load it");
    }
    const std::size_t rowBytes = std::size_t(width) * (bits / 8);
    char* base = static_cast<char*>(image->data());
    for (std::uint64_t page = 0; page < pages; ++page) {
        if (!TIFFSetDirectory(tif.get(), static_cast<tdir_t>(page))) throw InputError(path + ": unreadable page " + std::to_string(page));
        uint32_t w = 0, h = 0;
        uint16_t b = 8, f = SAMPLEFORMAT_UINT;
        TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &h);
        TIFFGetFieldDefaulted(tif.get(), TIFFTAG_BITSPERSAMPLE, &b);
        TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLEFORMAT, &f);
        if (w != width || h != height || typeOf(path, b, f) != type)
            throw InputError(path + ": page " + std::to_string(page) + " differs in size or type from the first page");
        char* plane = base + page * rowBytes * height;
        if (TIFFIsTiled(tif.get())) {
            uint32_t tw = 0, th = 0;
            TIFFGetField(tif.get(), TIFFTAG_TILEWIDTH, &tw);
            TIFFGetField(tif.get(), TIFFTAG_TILELENGTH, &th);
            std::vector<char> tile(TIFFTileSize(tif.get()));
            const std::size_t bpp = bits / 8;
            for (uint32_t y = 0; y < height; y += th)
                for (uint32_t x = 0; x < width; x += tw) {
                    if (TIFFReadTile(tif.get(), tile.data(), x, y, 0, 0) < 0)
                        throw InputError(path + ": unreadable tile (" + g_tiffError + ")");
                    for (uint32_t r = 0; r < th && y + r < height; ++r) {
                        const uint32_t n = std::min(tw, width - x);
                        std::memcpy(plane + (std::size_t(y + r) * width + x) * bpp, tile.data() + std::size_t(r) * tw * bpp,
                                    n * bpp);
                    }
                }
        } else {
            for (uint32_t y = 0; y < height; ++y)
                if (TIFFReadScanline(tif.get(), plane + std::size_t(y) * rowBytes, y, 0) < 0)
                    throw InputError(path + ": unreadable row " + std::to_string(y) + " (" + g_tiffError + ")");
        }
    }
    return image;
}

void writeTiff(const std::string& path, const ImageModel& image) {
    installHandlers();
    const auto* mem = dynamic_cast<const MemoryImage*>(&image);
    if (!mem) throw std::runtime_error(path + ": only images in memory can be saved as TIFF");
    const Extents e = image.extents();
    if (e[3] != 1 || e[4] != 1)
        throw std::runtime_error(path + ": TIFF holds 2D images and 3D volumes; use .npy for more axes");
    uint16_t bits = static_cast<uint16_t>(8 * helper::getSizeOf(image.getVoxelType()));
    uint16_t format = SAMPLEFORMAT_UINT;
    switch (image.getVoxelType()) {
    case Int8: case Int16: case Int32: case Int64: format = SAMPLEFORMAT_INT; break;
    case Float: case Double: format = SAMPLEFORMAT_IEEEFP; break;
    default: break;
    }
    const TemporaryFile file = createBeside(path);
    const int fd = file.fd;
    std::vector<char> name(file.name.begin(), file.name.end());
    name.push_back('\0');
    const bool big = image.getSizeInBytes() > (std::uint64_t(1) << 31);
    TIFF* tif = TIFFFdOpen(fd, name.data(), big ? "w8" : "w");
    bool ok = tif != nullptr;
    const std::size_t rowBytes = std::size_t(e[0]) * (bits / 8);
    const char* data = static_cast<const char*>(mem->data());
    for (std::uint64_t z = 0; ok && z < e[2]; ++z) {
        ok = TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(e[0])) && TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(e[1])) &&
             TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits) && TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, format) &&
             TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(1)) &&
             TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK) &&
             TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
             TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif, 0));
        if (e[2] > 1) ok = ok && TIFFSetField(tif, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE) &&
                          TIFFSetField(tif, TIFFTAG_PAGENUMBER, uint16_t(z), uint16_t(e[2]));
        for (std::uint64_t y = 0; ok && y < e[1]; ++y)
            ok = TIFFWriteScanline(tif, const_cast<char*>(data + (z * e[1] + y) * rowBytes), uint32_t(y), 0) >= 0;
        ok = ok && TIFFWriteDirectory(tif);
    }
    if (tif) TIFFClose(tif);  // closes fd
    else ::close(fd);
    if (ok) {
        int f = ::open(name.data(), O_RDONLY);
        if (f >= 0) {
            ok = ::fsync(f) == 0;
            ::close(f);
        }
        ::chmod(name.data(), 0644);
    }
    if (!ok || std::rename(name.data(), path.c_str()) != 0) {
        ::unlink(name.data());
        throw std::runtime_error(path + ": cannot write TIFF" + (g_tiffError.empty() ? "" : " (" + g_tiffError + ")"));
    }
}

} // namespace io
} // namespace lyn
