#pragma once
// Allocator of all pixel storage in the plug-in: 32-byte aligned blocks with at least one spare
// vector after the last element, so a row can always be processed in whole vectors.
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

namespace lyn {
namespace SimdVec {

// Selects the 256-bit (AVX2) implementation of the kernels.
struct arch_256_tag {};

template <class T, std::size_t Align = 32>
class AlignedAllocator {
    static_assert(Align == 32, "the block layout below assumes 32-byte alignment");

public:
    using value_type = T;
    template <class U>
    struct rebind {
        using other = AlignedAllocator<U, Align>;
    };

    AlignedAllocator() noexcept = default;
    template <class U>
    AlignedAllocator(const AlignedAllocator<U, Align>&) noexcept {}

    // malloc(n * sizeof(T) + 64); the result is raw + 32 rounded down to 32, and the raw pointer is
    // kept in the 8 bytes before it.
    T* allocate(std::size_t n) {
        if (n > (std::numeric_limits<std::size_t>::max() - 64) / sizeof(T)) throw std::bad_alloc();
        void* raw = std::malloc(n * sizeof(T) + 64);
        if (!raw) throw std::bad_alloc();
        auto aligned = (reinterpret_cast<std::uintptr_t>(raw) + 32) & ~std::uintptr_t(31);
        reinterpret_cast<void**>(aligned)[-1] = raw;
        return reinterpret_cast<T*>(aligned);
    }
    void deallocate(T* p, std::size_t) noexcept {
        if (p) std::free(reinterpret_cast<void**>(p)[-1]);
    }

    template <class U>
    bool operator==(const AlignedAllocator<U, Align>&) const noexcept {
        return true;
    }
    template <class U>
    bool operator!=(const AlignedAllocator<U, Align>&) const noexcept {
        return false;
    }
};

// Voxels in one 256-bit vector.
template <class T>
constexpr unsigned long lanes() {
    return 32 / sizeof(T);
}

// Start of the last vector of a row of `cols` voxels: rows are walked at 0, N, 2N, ... and end with
// a vector at cols - N that overlaps the one before it, so nothing is written past the row (min and
// max are idempotent: a voxel computed twice gets the same value). A row narrower than one vector
// is one padded vector at 0.
constexpr long lastVectorStart(long cols, long n) { return cols > n ? cols - n : 0; }

} // namespace SimdVec
} // namespace lyn
