#include "tools/Npy.h"

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

NpyHeader readNpyHeader(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw InputError(fail(path, std::string("cannot open: ") + std::strerror(errno)));
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
    const std::size_t fortran = valueOf(header, "fortran_order");
    if (fortran != std::string::npos && header.compare(fortran, 4, "True") == 0)
        throw InputError(fail(path, "Fortran-ordered arrays are not supported (save it in C order)"));
    std::vector<std::uint64_t> shape;
    if (!tupleAt(header, valueOf(header, "shape"), shape))
        throw InputError(fail(path, "header has no readable 'shape'"));
    if (shape.size() < 2 || shape.size() > 5)
        throw InputError(fail(path, "has " + std::to_string(shape.size()) + " axes; images have 2 to 5"));
    h.axes = static_cast<int>(shape.size());
    for (std::size_t i = 0; i < shape.size(); ++i) h.extents[i] = shape[shape.size() - 1 - i];
    return h;
}

std::unique_ptr<MemoryImage> readNpy(const std::string& path, int* axes) {
    NpyHeader h = readNpyHeader(path);
    auto image = std::make_unique<MemoryImage>();
    try {
        image->allocate(h.type, h.extents);
    } catch (const std::bad_alloc&) {
        throw InputError(fail(path, "not enough memory to load it (" + std::to_string(h.extents[0]) + " columns)"));
    }
    std::ifstream in(path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(h.dataOffset));
    const std::size_t bytes = image->getSizeInBytes();
    if (!in.read(static_cast<char*>(image->data()), static_cast<std::streamsize>(bytes)))
        throw InputError(fail(path, "data is shorter than its shape says"));
    if (h.bigEndian) swapBytes(image->data(), image->getNumOfVoxels(), helper::getSizeOf(h.type));
    if (axes) *axes = h.axes;
    return image;
}

TemporaryFile createBeside(const std::string& path) {
    std::string dir = ".", base = path;
    if (auto slash = path.rfind('/'); slash != std::string::npos) {
        dir = slash == 0 ? "/" : path.substr(0, slash);
        base = path.substr(slash + 1);
    }
    std::string tmp = dir + "/." + base + ".partial-XXXXXX";
    std::vector<char> name(tmp.begin(), tmp.end());
    name.push_back('\0');
    int fd = mkstemp(name.data());
    if (fd < 0) throw std::runtime_error(path + ": cannot create a file in " + dir + ": " + std::strerror(errno));
    return {fd, std::string(name.data())};
}

void writeFileAtomically(const std::string& path, const std::string& header, const void* data, std::size_t bytes) {
    const TemporaryFile file = createBeside(path);
    const int fd = file.fd;
    std::vector<char> name(file.name.begin(), file.name.end());
    name.push_back('\0');
    auto writeAll = [&](const void* p, std::size_t n) {
        const char* c = static_cast<const char*>(p);
        while (n) {
            ssize_t w = ::write(fd, c, std::min<std::size_t>(n, 1 << 30));
            if (w < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            c += w;
            n -= static_cast<std::size_t>(w);
        }
        return true;
    };
    bool ok = writeAll(header.data(), header.size()) && writeAll(data, bytes) && ::fsync(fd) == 0;
    int err = errno;
    ::fchmod(fd, 0644);
    ::close(fd);
    if (!ok || std::rename(name.data(), path.c_str()) != 0) {
        if (ok) err = errno;
        ::unlink(name.data());
        throw std::runtime_error(path + ": cannot write: " + std::strerror(err));
    }
}

void writeNpy(const std::string& path, const ImageModel& image, int axes) {
    const auto* mem = dynamic_cast<const MemoryImage*>(&image);
    if (!mem) throw std::runtime_error(path + ": only images in memory can be saved as .npy");
    auto it = std::find_if(std::begin(kCodes), std::end(kCodes),
                           [&](const TypeCode& c) { return c.type == image.getVoxelType(); });
    if (it == std::end(kCodes)) throw std::runtime_error(path + ": no NumPy dtype for this voxel type");
    const Extents e = image.extents();
    std::string shape;
    for (int i = axes - 1; i >= 0; --i) shape += std::to_string(e[i]) + ", ";
    if (axes == 1) shape.pop_back();
    else shape.erase(shape.size() - 2);
    std::string dict = std::string("{'descr': '") + (helper::getSizeOf(it->type) == 1 ? "|" : "<") + it->code +
                       "', 'fortran_order': False, 'shape': (" + shape + "), }";
    // Pad with spaces so the data starts on a 64-byte boundary, newline last.
    std::size_t total = 10 + dict.size() + 1;
    std::size_t padded = (total + 63) / 64 * 64;
    dict.append(padded - total, ' ');
    dict.push_back('\n');
    std::string header = "\x93NUMPY";
    header.push_back(1);
    header.push_back(0);
    header.push_back(static_cast<char>(dict.size() & 0xff));
    header.push_back(static_cast<char>((dict.size() >> 8) & 0xff));
    header += dict;
    writeFileAtomically(path, header, mem->data(), static_cast<std::size_t>(image.getSizeInBytes()));
}

} // namespace io
} // namespace lyn
