#pragma once
// The readers take a path: each input is written to one in-memory file, opened through /proc.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace lyn {
namespace fuzz {

inline const std::string& asFile(const std::uint8_t* data, std::size_t size) {
    static const int fd = ::memfd_create("lyn-fuzz-input", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (fd < 0 || ::ftruncate(fd, 0) != 0) std::abort();
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = ::pwrite(fd, data + done, size - done, static_cast<off_t>(done));
        if (n <= 0) std::abort();
        done += static_cast<std::size_t>(n);
    }
    return path;
}

} // namespace fuzz
} // namespace lyn
