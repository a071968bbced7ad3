// What moving a page-cached file's bytes costs, the ways an image on disk could: positioned reads
// and writes, or mappings faulted in bulk and then touched. Two unnamed files of SIZE MiB in DIR,
// first written in PIECE KiB pieces (which decides the page cache's folio sizes).
// Run: build/bin/page_cache_io 1024 256 /var/tmp
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22
#define MADV_POPULATE_WRITE 23
#endif

namespace {
using Clock = std::chrono::steady_clock;
double since(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }
} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s SIZE_MIB PIECE_KIB DIR\n", argv[0]);
        return 2;
    }
    const std::size_t n = std::size_t(std::atol(argv[1])) << 20, piece = std::size_t(std::atol(argv[2])) << 10;
    const int in = ::open(argv[3], O_TMPFILE | O_RDWR, 0600), out = ::open(argv[3], O_TMPFILE | O_RDWR, 0600);
    if (in < 0 || out < 0 || !n || !piece || n % piece || ::posix_fallocate(in, 0, off_t(n)) ||
        ::posix_fallocate(out, 0, off_t(n))) {
        std::perror("setup");
        return 1;
    }
    std::vector<char> buffer(n, 1);
    for (std::size_t o = 0; o < n; o += piece)
        if (::pwrite(in, buffer.data() + o, piece, off_t(o)) != ssize_t(piece) ||
            ::pwrite(out, buffer.data() + o, piece, off_t(o)) != ssize_t(piece))
            return 1;
    std::printf("%zu MiB written in %zu KiB pieces, ms:\n", n >> 20, piece >> 10);
    for (int rep = 0; rep < 3; ++rep) {
        auto t = Clock::now();
        for (std::size_t o = 0; o < n; o += 1 << 20)
            if (::pread(in, buffer.data() + o, 1 << 20, off_t(o)) < 0) return 1;
        const double read = since(t);
        t = Clock::now();
        for (std::size_t o = 0; o < n; o += 256 << 10)
            if (::pwrite(out, buffer.data() + o, 256 << 10, off_t(o)) < 0) return 1;
        const double written = since(t);
        t = Clock::now();
        char* src = static_cast<char*>(::mmap(nullptr, n, PROT_READ, MAP_SHARED, in, 0));
        char* dst = static_cast<char*>(::mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_SHARED, out, 0));
        if (src == MAP_FAILED || dst == MAP_FAILED || ::madvise(src, n, MADV_POPULATE_READ) ||
            ::madvise(dst, n, MADV_POPULATE_WRITE)) {
            std::perror("mapping");
            return 1;
        }
        const double populated = since(t);
        t = Clock::now();
        std::memcpy(dst, src, n);
        const double copied = since(t);
        t = Clock::now();
        ::munmap(src, n);
        ::munmap(dst, n);
        std::printf("pread %.0f  pwrite %.0f  map+populate %.0f  first copy %.0f  unmap %.0f\n", read, written,
                    populated, copied, since(t));
    }
    return 0;
}
