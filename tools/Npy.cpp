#include "tools/Npy.h"
#include "host/DiskImage.h"
#include "tools/Output.h"
#include "tools/Signals.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

namespace lyn {
namespace io {

namespace {

struct TypeCode {
    const char* code;  // NumPy kind and size, without the byte-order character
    VoxelTypes type;
};
const TypeCode kCodes[] = {{"u1", UInt8}, {"u2", UInt16}, {"u4", UInt32}, {"u8", UInt64}, {"i1", Int8},
                           {"i2", Int16}, {"i4", Int32},  {"i8", Int64},  {"f4", Float},  {"f8", Double},
                           {"b1", Binary}};

std::string fail(const std::string& path, const std::string& what) { return path + ": " + what; }

// The header is a Python dict literal such as {'descr': '<f4', 'fortran_order': False, 'shape': (3, 4), }.
// A hand parser rather than <regex>: GCC 12 warns inside <regex> under the sanitizers, and
// warnings are errors.

// Position just after "'key':" (either quote style), or npos.
std::size_t valueOf(const std::string& header, const std::string& key) {
    for (const char q : {'\'', '"'}) {
        const std::size_t at = header.find(q + key + q);
        if (at == std::string::npos) continue;
        std::size_t i = header.find_first_not_of(" \t", at + key.size() + 2);
        if (i == std::string::npos || header[i] != ':') return std::string::npos;
        return header.find_first_not_of(" \t", i + 1);
    }
    return std::string::npos;
}

// The quoted string at `i`, or false.
bool quotedAt(const std::string& header, std::size_t i, std::string& out) {
    if (i == std::string::npos || (header[i] != '\'' && header[i] != '"')) return false;
    const std::size_t end = header.find(header[i], i + 1);
    if (end == std::string::npos) return false;
    out = header.substr(i + 1, end - i - 1);
    return true;
}

// The tuple of non-negative integers at `i`, such as "(3, 4)" or "(5,)", or false.
bool tupleAt(const std::string& header, std::size_t i, std::vector<std::uint64_t>& out) {
    if (i == std::string::npos || header[i] != '(') return false;
    const std::size_t end = header.find(')', i);
    if (end == std::string::npos) return false;
    bool needComma = false;
    for (std::size_t k = i + 1; k < end;) {
        const char c = header[k];
        if (c == ' ' || c == '\t') {
            ++k;
        } else if (c == ',' && needComma) {
            needComma = false;
            ++k;
        } else if (c >= '0' && c <= '9' && !needComma) {
            std::uint64_t v = 0;
            for (; k < end && header[k] >= '0' && header[k] <= '9'; ++k) {
                if (v > (UINT64_MAX - 9) / 10) return false;
                v = v * 10 + static_cast<std::uint64_t>(header[k] - '0');
            }
            out.push_back(v);
            needComma = true;
        } else {
            return false;
        }
    }
    return true;
}

void swapBytes(void* data, std::size_t count, std::size_t size) {
    if (size == 1) return;
    auto* p = static_cast<unsigned char*>(data);
    for (std::size_t i = 0; i < count; ++i, p += size) std::reverse(p, p + size);
}

} // namespace

void requireRegularFile(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) throw InputError(fail(path, std::string("cannot open: ") + std::strerror(errno)));
    if (S_ISDIR(st.st_mode)) throw InputError(fail(path, "is a directory, not an image file"));
}

std::string describeShape(const NpyHeader& h) {
    std::string s = "(";
    for (int i = h.axes - 1; i >= 0; --i) s += std::to_string(h.extents[i]) + (i ? ", " : "");
    return s + ") " + voxelTypeName(h.type);
}

NpyHeader readNpyHeader(const std::string& path) {
    requireRegularFile(path);
    std::ifstream in(path, std::ios::binary);
    if (!in) throw InputError(fail(path, std::string("cannot open: ") + std::strerror(errno)));
    in.seekg(0, std::ios::end);
    const auto fileSize = static_cast<std::uint64_t>(in.tellg());
    in.seekg(0);
    char magic[8];
    if (!in.read(magic, 8) || std::memcmp(magic, "\x93NUMPY", 6) != 0)
        throw InputError(fail(path, "not a NumPy .npy file"));
    const int major = static_cast<unsigned char>(magic[6]);
    std::size_t headerLen = 0;
    if (major == 1) {
        unsigned char b[2];
        if (!in.read(reinterpret_cast<char*>(b), 2)) throw InputError(fail(path, "truncated header"));
        headerLen = b[0] | (b[1] << 8);
    } else if (major == 2 || major == 3) {
        unsigned char b[4];
        if (!in.read(reinterpret_cast<char*>(b), 4)) throw InputError(fail(path, "truncated header"));
        headerLen = b[0] | (b[1] << 8) | (std::size_t(b[2]) << 16) | (std::size_t(b[3]) << 24);
    } else {
        throw InputError(fail(path, "unsupported .npy version " + std::to_string(major)));
    }
    if (headerLen > (1u << 20)) throw InputError(fail(path, "header too large"));
    std::string header(headerLen, '\0');
    if (!in.read(header.data(), static_cast<std::streamsize>(headerLen))) throw InputError(fail(path, "truncated header"));

    NpyHeader h;
    h.dataOffset = (major == 1 ? 10 : 12) + headerLen;
    std::string descr;
    if (!quotedAt(header, valueOf(header, "descr"), descr) || descr.size() < 2 ||
        std::string("<>|=").find(descr[0]) == std::string::npos)
        throw InputError(fail(path, "header has no readable 'descr'"));
    const std::string code = descr.substr(1);
    auto it = std::find_if(std::begin(kCodes), std::end(kCodes), [&](const TypeCode& c) { return code == c.code; });
    if (it == std::end(kCodes)) throw InputError(fail(path, "unsupported NumPy dtype '" + descr + "'"));
    h.type = it->type;
    h.bigEndian = descr[0] == '>';
    // The value must be the literal True or False: a quoted 'True' is not a boolean.
    const std::size_t fortran = valueOf(header, "fortran_order");
    const bool isTrue = fortran != std::string::npos && header.compare(fortran, 4, "True") == 0;
    const bool isFalse = fortran != std::string::npos && header.compare(fortran, 5, "False") == 0;
    if (!isTrue && !isFalse) throw InputError(fail(path, "header's 'fortran_order' is not True or False"));
    if (isTrue) throw InputError(fail(path, "Fortran-ordered arrays are not supported (save it in C order)"));
    std::vector<std::uint64_t> shape;
    if (!tupleAt(header, valueOf(header, "shape"), shape))
        throw InputError(fail(path, "header has no readable 'shape'"));
    if (shape.size() < 2 || shape.size() > 5)
        throw InputError(fail(path, "has " + std::to_string(shape.size()) + " axes; images have 2 to 5"));
    h.axes = static_cast<int>(shape.size());
    for (std::size_t i = 0; i < shape.size(); ++i) h.extents[i] = shape[shape.size() - 1 - i];

    // The header's claim is checked against the file before anything is allocated.
    std::uint64_t bytes = helper::getSizeOf(h.type);
    bool overflow = false;
    for (auto e : h.extents) {
        if (e != 0 && bytes > UINT64_MAX / e) overflow = true;
        bytes *= e;
    }
    if (overflow) throw InputError(fail(path, "header's shape " + describeShape(h) + " is impossibly large"));
    h.dataBytes = bytes;
    const std::uint64_t held = fileSize > h.dataOffset ? fileSize - h.dataOffset : 0;
    if (bytes > held)
        throw InputError(fail(path, "data is shorter than its shape says: " + describeShape(h) + " needs " +
                                        std::to_string(bytes) + " bytes, the file holds " + std::to_string(held)));
    return h;
}

std::unique_ptr<MemoryImage> readNpy(const std::string& path, int* axes) {
    NpyHeader h = readNpyHeader(path);
    auto image = std::make_unique<MemoryImage>();
    // An array with an axis of length 0 is an empty image.
    const bool empty = h.dataBytes == 0;
    try {
        image->allocate(h.type, empty ? Extents{0, 0, 0, 0, 0} : h.extents, false);
    } catch (const std::bad_alloc&) {
        throw InputError(fail(path, "not enough memory to load it: " + describeShape(h) + " needs " +
                                        std::to_string(h.dataBytes) + " bytes"));
    }
    std::ifstream in(path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(h.dataOffset));
    // In chunks, so that a signal is answered while gigabytes come in.
    constexpr std::uint64_t kChunk = std::uint64_t(64) << 20;
    char* dst = static_cast<char*>(image->data());
    for (std::uint64_t done = 0; done < h.dataBytes;) {
        const std::uint64_t n = std::min(kChunk, h.dataBytes - done);
        if (!in.read(dst + done, static_cast<std::streamsize>(n)))
            throw InputError(fail(path, "data is shorter than its shape says"));
        done += n;
        testPause("load");
        checkInterrupt();
    }
    if (h.bigEndian) swapBytes(image->data(), image->getNumOfVoxels(), helper::getSizeOf(h.type));
    if (axes) *axes = h.axes;
    return image;
}

namespace {
void writeAll(OutputFile& out, int fd, const char* p, std::uint64_t n, bool pause) {
    // In chunks, so that a signal is answered while gigabytes go out.
    constexpr std::uint64_t kChunk = std::uint64_t(64) << 20;
    while (n) {
        const ssize_t w = ::write(fd, p, static_cast<std::size_t>(std::min(n, kChunk)));
        if (w < 0) {
            if (errno == EINTR) {
                checkInterrupt();
                continue;
            }
            throwWriteError(out.path(), errno);
        }
        p += w;
        n -= static_cast<std::uint64_t>(w);
        if (pause) testPause("write");
        checkInterrupt();
    }
}
} // namespace

void writeNpy(OutputFile& out, const ImageModel& image, int axes) {
    const std::string& path = out.path();
    const auto* mem = dynamic_cast<const MemoryImage*>(&image);
    if (!mem) throw std::runtime_error(path + ": only images in memory can be saved as .npy");
    const std::string header = npyHeader(image.getVoxelType(), image.extents(), axes);
    const int fd = out.open();
    writeAll(out, fd, header.data(), header.size(), false);
    writeAll(out, fd, static_cast<const char*>(mem->data()), image.getSizeInBytes(), true);
    out.commit();
}

void writeNpy(const std::string& path, const ImageModel& image, int axes) {
    OutputFile out(path, true);
    writeNpy(out, image, axes);
}

} // namespace io
} // namespace lyn
