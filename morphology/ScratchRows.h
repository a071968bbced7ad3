#pragma once
// Per-thread scratch rows of the reduction kernels: two or three rows per worker thread, shared by every copy
// of the kernel object, grown to the widest block seen and then reused without allocating.
#include <array>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

#include "simd/AlignedAllocator.h"

namespace lyn {
namespace morphology {
namespace details {

template <class T>
class ScratchRows {
public:
    using Scratch = tbb::enumerable_thread_specific<std::vector<T, SimdVec::AlignedAllocator<T, 32>>>;

    ScratchRows(std::shared_ptr<Scratch> a, std::shared_ptr<Scratch> b) : m_a(std::move(a)), m_b(std::move(b)) {}

    // The calling thread's two rows, at least `n` voxels each.
    std::pair<T*, T*> local(std::size_t n) const {
        auto& a = m_a->local();
        auto& b = m_b->local();
        if (n > a.size()) {
            a.resize(n);
            b.resize(n);
        }
        return {a.data(), b.data()};
    }
    // Three rows of at least `n` voxels, each starting on a 32-byte boundary.
    std::array<T*, 3> local3(std::size_t n) const {
        const std::size_t stride = (n + 32 - 1) / 32 * 32;
        auto& a = m_a->local();
        auto& b = m_b->local();
        if (2 * stride > a.size()) a.resize(2 * stride);
        if (stride > b.size()) b.resize(stride);
        return {a.data(), a.data() + stride, b.data()};
    }

private:
    std::shared_ptr<Scratch> m_a;
    std::shared_ptr<Scratch> m_b;
};

} // namespace details
} // namespace morphology
} // namespace lyn
