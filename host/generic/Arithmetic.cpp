// Voxel-by-voxel copy and subtraction of images of one type and extents, row by row in parallel.
// Rows of images held in memory are used in place; others go through a per-thread buffer.
#include <algorithm>
#include <atomic>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>

#include "host/generic/Generic.h"

namespace lyn {
namespace generic {

namespace {

// Where one image's rows are: directly addressable, or read and written through copies.
struct RowSource {
    MemoryLayout layout;
    bool direct = false;

    RowSource() = default;
    RowSource(const ImageModel& image, std::size_t elementSize) {
        direct = image.getMemoryLayout(layout) && layout.strides[0] == static_cast<std::int64_t>(elementSize);
    }
    char* row(const std::array<long, 4>& at) const {
        return layout.base + at[0] * layout.strides[1] + at[1] * layout.strides[2] + at[2] * layout.strides[3] +
               at[3] * layout.strides[4];
    }
};

// Calls rowOp(dst, srcs...) for every row, dst and srcs holding `cols` voxels of T; dst may alias a source.
template <class T, std::size_t N, class RowOp>
void forEachRow(const std::array<const ImageModel*, N>& sources, ImageModel& target,
                algorithms::AbstractPrivateImplementation& step, RowOp rowOp) {
    const Extents e = target.extents();
    const long cols = long(e[0]);
    const std::uint64_t rows = e[1] * e[2] * e[3] * e[4];
    if (!cols || !rows) return;
    std::array<RowSource, N + 1> where;
    for (std::size_t k = 0; k < N; ++k) where[k] = RowSource(*sources[k], sizeof(T));
    where[N] = RowSource(target, sizeof(T));
    tbb::enumerable_thread_specific<std::vector<T>> buffers;
    std::atomic<std::uint64_t> done{0};
    std::atomic<bool> refused{false};
    const std::uint64_t grain = std::max<std::uint64_t>(1, 16384 / std::uint64_t(cols));

    tbb::parallel_for(tbb::blocked_range<std::uint64_t>(0, rows, grain), [&](const tbb::blocked_range<std::uint64_t>& r) {
        if (step.isCancelled() || refused.load(std::memory_order_relaxed)) return;
        std::vector<T>& buffer = buffers.local();
        buffer.resize(std::size_t(cols) * (N + 1));
        for (std::uint64_t i = r.begin(); i != r.end(); ++i) {
            const std::array<long, 4> at{long(i % e[1]), long(i / e[1] % e[2]), long(i / e[1] / e[2] % e[3]),
                                         long(i / e[1] / e[2] / e[3])};
            std::array<const T*, N> src;
            for (std::size_t k = 0; k < N; ++k) {
                if (where[k].direct) {
                    src[k] = reinterpret_cast<const T*>(where[k].row(at));
                } else {
                    T* copy = buffer.data() + k * cols;
                    sources[k]->readRaw(copy, cols, 0, at[0], at[1], at[2], at[3]);
                    src[k] = copy;
                }
            }
            T* dst = where[N].direct ? reinterpret_cast<T*>(where[N].row(at)) : buffer.data() + N * cols;
            rowOp(dst, src, cols);
            if (!where[N].direct && !target.writeRaw(dst, cols, 0, at[0], at[1], at[2], at[3])) {
                refused.store(true);
                return;
            }
        }
        const std::uint64_t now = done.fetch_add(r.size(), std::memory_order_relaxed) + r.size();
        step.reportFraction(double(now) / double(rows));
    });
    if (step.isCancelled()) throw ExceptionCancelation();
    if (refused.load())
        raise<RuntimeError>("The output image refused a row: " + target.describe(), "host/generic/Arithmetic",
                            __LINE__);
}

template <class Traits>
typename Traits::type saturatingDifference(typename Traits::type a, typename Traits::type b) {
    using T = typename Traits::type;
    if constexpr (std::is_floating_point_v<T>) {
        return a - b;
    } else if constexpr (sizeof(T) < 8) {
        // Exact in 64 bits; clamped to the type's range (0..1 for binary images).
        const std::int64_t d = std::int64_t(a) - std::int64_t(b);
        return T(std::clamp<std::int64_t>(d, std::int64_t(Traits::lowest()), std::int64_t(Traits::highest())));
    } else {
        T d;
        if (__builtin_sub_overflow(a, b, &d)) return a > b ? Traits::highest() : Traits::lowest();
        return d;
    }
}

void checkSame(const ImageModel& a, const ImageModel& b) {
    if (a.getVoxelType() != b.getVoxelType() || !a.hasSameExtents(b))
        raise<RuleException>("Images of different types or extents: " + a.describe() + " and " + b.describe(),
                             "host/generic/Arithmetic", __LINE__);
}

} // namespace

void copyImage(const ImageModel& source, ImageModel& target, algorithms::AbstractPrivateImplementation& step) {
    if (&source == &target) return;
    checkSame(source, target);
    dispatchVoxelType(source.getVoxelType(), [&](auto traits) {
        using T = typename decltype(traits)::type;
        forEachRow<T, 1>({&source}, target, step, [](T* dst, const std::array<const T*, 1>& src, long n) {
            if (dst != src[0]) std::copy(src[0], src[0] + n, dst);
        });
    });
}

void subtract(const ImageModel& minuend, const ImageModel& subtrahend, ImageModel& target,
              algorithms::AbstractPrivateImplementation& step) {
    checkSame(minuend, subtrahend);
    checkSame(minuend, target);
    dispatchVoxelType(minuend.getVoxelType(), [&](auto traits) {
        using Traits = decltype(traits);
        using T = typename Traits::type;
        forEachRow<T, 2>({&minuend, &subtrahend}, target, step,
                         [](T* dst, const std::array<const T*, 2>& src, long n) {
                             const T* a = src[0];
                             const T* b = src[1];
                             for (long x = 0; x < n; ++x) dst[x] = saturatingDifference<Traits>(a[x], b[x]);
                         });
    });
}

} // namespace generic
} // namespace lyn
