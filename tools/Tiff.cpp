#include "tools/Tiff.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <tiffio.h>

#include "tools/Npy.h"
#include "tools/Output.h"
#include "tools/Signals.h"

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

// The most a page's stored bytes can expand to under its compression; 0 when unbounded or unknown.
std::uint64_t maxExpansion(uint16_t compression) {
    switch (compression) {
    case COMPRESSION_NONE: return 1;
    case COMPRESSION_PACKBITS: return 128;
    case COMPRESSION_LZW: return 4096;
    case COMPRESSION_DEFLATE: case COMPRESSION_ADOBE_DEFLATE: return 1100;
    default: return 0;
    }
}

std::string pageName(std::uint64_t page, std::uint64_t pages) {
    return pages > 1 ? "page " + std::to_string(page) + " of " + std::to_string(pages) + ": " : std::string();
}

std::string libtiffSays() { return g_tiffError.empty() ? std::string() : " (" + g_tiffError + ")"; }

} // namespace

std::unique_ptr<MemoryImage> readTiff(const std::string& path) {
    installHandlers();
    requireRegularFile(path);
    struct stat st {};
    ::stat(path.c_str(), &st);
    const auto fileSize = static_cast<std::uint64_t>(st.st_size);
    g_tiffError.clear();
    TiffPtr tif(TIFFOpen(path.c_str(), "r"));
    if (!tif) throw InputError(path + ": cannot open as TIFF" + libtiffSays());
    uint32_t width = 0, height = 0;
    uint16_t bits = 8, format = SAMPLEFORMAT_UINT, spp = 1;
    TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLESPERPIXEL, &spp);
    if (spp != 1) throw InputError(path + ": has " + std::to_string(spp) + " samples per pixel; only grey images are supported");
    const VoxelTypes type = typeOf(path, bits, format);
    if (width == 0 || height == 0) throw InputError(path + ": has a page of " + std::to_string(width) + " x " +
                                                    std::to_string(height) + " pixels");
    const std::uint64_t pages = TIFFNumberOfDirectories(tif.get());
    // libtiff opened a first directory yet may count none when the chain of directories is broken.
    if (pages == 0) throw InputError(path + ": has no readable page" + libtiffSays());
    const std::uint64_t pageBytes = std::uint64_t(width) * height * (bits / 8);

    // Every page is checked against the file before anything is allocated: same size and type, its
    // strips or tiles inside the file, and enough stored bytes to hold the page.
    for (std::uint64_t page = 0; page < pages; ++page) {
        const std::string where = path + ": " + pageName(page, pages);
        g_tiffError.clear();
        if (!TIFFSetDirectory(tif.get(), static_cast<tdir_t>(page)))
            throw InputError(where + "unreadable directory" + libtiffSays());
        uint32_t w = 0, h = 0;
        uint16_t b = 8, f = SAMPLEFORMAT_UINT, sp = 1, compression = COMPRESSION_NONE;
        TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &w);
        TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &h);
        TIFFGetFieldDefaulted(tif.get(), TIFFTAG_BITSPERSAMPLE, &b);
        TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLEFORMAT, &f);
        TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLESPERPIXEL, &sp);
        TIFFGetFieldDefaulted(tif.get(), TIFFTAG_COMPRESSION, &compression);
        if (w != width || h != height || sp != 1 || typeOf(path, b, f) != type)
            throw InputError(where + "differs in size or type from the first page");
        const bool tiled = TIFFIsTiled(tif.get());
        const uint32_t chunks = tiled ? TIFFNumberOfTiles(tif.get()) : TIFFNumberOfStrips(tif.get());
        uint64_t* offsets = nullptr;
        uint64_t* counts = nullptr;
        if (!TIFFGetField(tif.get(), tiled ? TIFFTAG_TILEOFFSETS : TIFFTAG_STRIPOFFSETS, &offsets) ||
            !TIFFGetField(tif.get(), tiled ? TIFFTAG_TILEBYTECOUNTS : TIFFTAG_STRIPBYTECOUNTS, &counts) || !offsets ||
            !counts || chunks == 0)
            throw InputError(where + "has no image data" + libtiffSays());
        std::uint64_t stored = 0;
        for (uint32_t i = 0; i < chunks; ++i) {
            if (offsets[i] > fileSize || counts[i] > fileSize - offsets[i])
                throw InputError(where + "is truncated: its data runs past the end of the file (" +
                                 std::to_string(fileSize) + " bytes)");
            stored += counts[i];
        }
        const std::uint64_t ratio = maxExpansion(compression);
        if (ratio != 0 && stored < (pageBytes + ratio - 1) / ratio)
            throw InputError(where + "is truncated: " + std::to_string(width) + " x " + std::to_string(height) +
                             " pixels of " + voxelTypeName(type) + " cannot come from " + std::to_string(stored) +
                             " stored bytes");
        if (ratio == 0) {
            // No known bound on what these bytes expand to: decode the start of the page's first
            // strip or tile before trusting the size it claims, so that a few bytes in a codec that
            // cannot read them do not make us allocate gigabytes first.
            const tmsize_t chunk = tiled ? TIFFTileSize(tif.get()) : TIFFStripSize(tif.get());
            std::vector<char> probe(static_cast<std::size_t>(std::clamp<tmsize_t>(chunk, 1, tmsize_t(1) << 20)));
            g_tiffError.clear();
            const tmsize_t got = chunk <= 0 ? -1
                                 : tiled ? TIFFReadEncodedTile(tif.get(), 0, probe.data(), tmsize_t(probe.size()))
                                         : TIFFReadEncodedStrip(tif.get(), 0, probe.data(), tmsize_t(probe.size()));
            if (got < 0)
                throw InputError(where + "cannot be decoded (compression " + std::to_string(compression) + ")" +
                                 libtiffSays());
        }
    }

    auto image = std::make_unique<MemoryImage>();
    try {
        image->allocate(type, {width, height, pages, 1, 1}, false);
    } catch (const std::bad_alloc&) {
        throw InputError(path + ": not enough memory to load it: " + std::to_string(pages) + " pages of " +
                         std::to_string(width) + " x " + std::to_string(height) + " " + voxelTypeName(type) +
                         " need " + std::to_string(pageBytes * pages) + " bytes");
    }
    const std::size_t rowBytes = std::size_t(width) * (bits / 8);
    char* base = static_cast<char*>(image->data());
    for (std::uint64_t page = 0; page < pages; ++page) {
        const std::string where = path + ": " + pageName(page, pages);
        if (page > 0) testPause("load");
        checkInterrupt();
        g_tiffError.clear();
        if (!TIFFSetDirectory(tif.get(), static_cast<tdir_t>(page)))
            throw InputError(where + "unreadable directory" + libtiffSays());
        char* plane = base + page * rowBytes * height;
        if (TIFFIsTiled(tif.get())) {
            uint32_t tw = 0, th = 0;
            TIFFGetField(tif.get(), TIFFTAG_TILEWIDTH, &tw);
            TIFFGetField(tif.get(), TIFFTAG_TILELENGTH, &th);
            const tmsize_t tileSize = TIFFTileSize(tif.get());
            if (tw == 0 || th == 0 || tileSize <= 0 || std::uint64_t(tileSize) < std::uint64_t(tw) * th * (bits / 8))
                throw InputError(where + "has unusable tiles (" + std::to_string(tw) + " x " + std::to_string(th) + ")");
            std::vector<char> tile(static_cast<std::size_t>(tileSize));
            const std::size_t bpp = bits / 8;
            for (uint32_t y = 0; y < height; y += th)
                for (uint32_t x = 0; x < width; x += tw) {
                    g_tiffError.clear();
                    if (TIFFReadTile(tif.get(), tile.data(), x, y, 0, 0) < 0)
                        throw InputError(where + "the tile at column " + std::to_string(x) + ", row " +
                                         std::to_string(y) + " is unreadable (the file is truncated or damaged)" +
                                         libtiffSays());
                    for (uint32_t r = 0; r < th && y + r < height; ++r) {
                        const uint32_t n = std::min(tw, width - x);
                        std::memcpy(plane + (std::size_t(y + r) * width + x) * bpp, tile.data() + std::size_t(r) * tw * bpp,
                                    n * bpp);
                    }
                }
        } else {
            if (TIFFScanlineSize64(tif.get()) != rowBytes)
                throw InputError(where + "has rows of an unexpected size");
            for (uint32_t y = 0; y < height; ++y) {
                g_tiffError.clear();
                if (TIFFReadScanline(tif.get(), plane + std::size_t(y) * rowBytes, y, 0) < 0)
                    throw InputError(where + "row " + std::to_string(y) +
                                     " is unreadable (the file is truncated or damaged)" + libtiffSays());
            }
        }
    }
    return image;
}

void writeTiff(OutputFile& out, const ImageModel& image) {
    installHandlers();
    const std::string& path = out.path();
    const auto* mem = dynamic_cast<const MemoryImage*>(&image);
    if (!mem) throw std::runtime_error(path + ": only images in memory can be saved as TIFF");
    const Extents e = image.extents();
    if (e[3] != 1 || e[4] != 1)
        throw OutputError(path + ": TIFF holds 2D images and 3D volumes; use .npy for more axes");
    uint16_t bits = static_cast<uint16_t>(8 * helper::getSizeOf(image.getVoxelType()));
    uint16_t format = SAMPLEFORMAT_UINT;
    switch (image.getVoxelType()) {
    case Int8: case Int16: case Int32: case Int64: format = SAMPLEFORMAT_INT; break;
    case Float: case Double: format = SAMPLEFORMAT_IEEEFP; break;
    default: break;
    }
    const int fd = out.open();
    const bool big = image.getSizeInBytes() > (std::uint64_t(1) << 31);
    g_tiffError.clear();
    errno = 0;
    TiffPtr tif(TIFFFdOpen(fd, out.temporaryName().c_str(), big ? "w8" : "w"));
    if (!tif) throwWriteError(path, errno);
    out.released();  // TIFFClose closes it
    // libtiff's own messages ("IO error writing tag data") hide the cause: errno tells it.
    auto check = [&](bool ok) {
        if (!ok) {
            const int err = errno;
            throw std::runtime_error(path + ": cannot write: " + (err ? std::strerror(err) : "libtiff failed") +
                                     libtiffSays());
        }
    };
    const std::size_t rowBytes = std::size_t(e[0]) * (bits / 8);
    const char* data = static_cast<const char*>(mem->data());
    for (std::uint64_t z = 0; z < e[2]; ++z) {
        errno = 0;
        check(TIFFSetField(tif.get(), TIFFTAG_IMAGEWIDTH, uint32_t(e[0])) &&
              TIFFSetField(tif.get(), TIFFTAG_IMAGELENGTH, uint32_t(e[1])) &&
              TIFFSetField(tif.get(), TIFFTAG_BITSPERSAMPLE, bits) && TIFFSetField(tif.get(), TIFFTAG_SAMPLEFORMAT, format) &&
              TIFFSetField(tif.get(), TIFFTAG_SAMPLESPERPIXEL, uint16_t(1)) &&
              TIFFSetField(tif.get(), TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK) &&
              TIFFSetField(tif.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
              TIFFSetField(tif.get(), TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif.get(), 0)));
        if (e[2] > 1)
            check(TIFFSetField(tif.get(), TIFFTAG_SUBFILETYPE, FILETYPE_PAGE) &&
                  TIFFSetField(tif.get(), TIFFTAG_PAGENUMBER, uint16_t(z), uint16_t(e[2])));
        for (std::uint64_t y = 0; y < e[1]; ++y)
            check(TIFFWriteScanline(tif.get(), const_cast<char*>(data + (z * e[1] + y) * rowBytes), uint32_t(y), 0) >= 0);
        errno = 0;
        check(TIFFWriteDirectory(tif.get()));
        testPause("write");
        checkInterrupt();
    }
    errno = 0;
    check(TIFFFlush(tif.get()));
    tif.reset();
    out.commit();
}

} // namespace io
} // namespace lyn
