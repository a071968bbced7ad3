#pragma once
// The 8-connected 3x3 square in 2D as a separable reduction: each input row is reduced across
// three columns once (H), and each output row folds three consecutive H rows, upper first. Two H
// rows are carried in per-thread scratch rows: 4 functor steps per vector instead of 8.
#include <memory>
#include <utility>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

#include "Core/private/Filters/RecursiveImageContext.h"
#include "morphology/Functors.h"

LYN_AVX2_BEGIN
namespace lyn {
namespace morphology {

template <class Functor, class T, class Arch>
class Neighborhood8ColumnsReductionSimd {
public:
    using Scratch = tbb::enumerable_thread_specific<std::vector<T, SimdVec::AlignedAllocator<T, 32>>>;

    Neighborhood8ColumnsReductionSimd(std::shared_ptr<Scratch> a, std::shared_ptr<Scratch> b)
        : m_a(std::move(a)), m_b(std::move(b)) {}

    template <class Context>
    void run(const access::Block2d& block, Context& ctx) const {
        using Ops = SimdVec::Ops<T>;
        constexpr long L = long(Ops::N);
        const long n = long(block.getNbCols()), m = long(block.getNbRows());
        const unsigned long w = static_cast<unsigned long>(n + 2);

        auto& inCache = ctx.inputRowCache();
        if (!inCache) ctx.createInputRowCache(1);
        auto& outCache = ctx.outputRowCache();
        if (!outCache) ctx.createOuputRowCache(1);
        auto& av = m_a->local();
        auto& bv = m_b->local();
        if (static_cast<std::size_t>(n) > av.size()) {
            av.resize(static_cast<std::size_t>(n));
            bv.resize(static_cast<std::size_t>(n));
        }
        T* a = av.data();
        T* b = bv.data();

        const T* in = inCache->fetchRowInBlock(0, w, block, -1, -1, 0, 0, 0).data();
        for (long x = 0; x < n; x += L) Ops::store(a + x, horizontal(in, x));
        in = inCache->fetchRowInBlock(0, w, block, -1, 0, 0, 0, 0).data();
        for (long x = 0; x < n; x += L) Ops::store(b + x, horizontal(in, x));

        const bool inPlace = ctx.isInPlace();
        const access::OverlapBorder overlap(1, 1, 1, 1, 0, 0);
        // Rows are computed straight into an output held in memory when nothing is deferred; the
        // overlapping last vector then keeps every store inside the row.
        auto& outView = *ctx.getOutputView();
        const bool direct = !inPlace && n >= L;
        const long full = n >= L ? n / L * L : L;
        const long t = n - L;
        const bool tail = n > L && n % L != 0;
        for (long y = 0; y < m; ++y) {
            T* out = direct ? outView.directRowWrite(block.colsBegin(), block.rowsBegin() + y, block.plansBegin(),
                                                     block.sequenceBegin(), block.spectralSeriesBegin(),
                                                     static_cast<unsigned long>(n))
                            : nullptr;
            typename std::decay_t<decltype(*outCache)>::Row* row = nullptr;
            if (!out) {
                row = &outCache->getRowInBlock(0, static_cast<unsigned long>(n), block, 0, y, 0, 0, 0);
                out = row->data();
            }
            in = inCache->fetchRowInBlock(0, w, block, -1, y + 1, 0, 0, 0).data();
            // The overlapping last vector first: it must read A before the main loop replaces it.
            typename Ops::V th{};
            if (tail) {
                th = horizontal(in, t);
                const auto acc = Functor::template step<T>(Ops::load(a + t), Ops::load(b + t));
                Ops::store(out + t, Functor::template step<T>(acc, th));
            }
            for (long x = 0; x < full; x += L) {
                const auto h = horizontal(in, x);
                auto acc = Functor::template step<T>(Ops::load(a + x), Ops::load(b + x));
                Ops::store(out + x, Functor::template step<T>(acc, h));
                Ops::store(a + x, h);
            }
            if (tail) Ops::store(a + t, th);
            if (row) {
                if (inPlace) row->writeRow(block, overlap);
                else row->writeRow(block);
            }
            std::swap(a, b);
        }
    }

private:
    // H(row) = f(f(left, centre), right), from a row fetched one column left of the block.
    static LYN_INLINE typename SimdVec::Ops<T>::V horizontal(const T* in, long x) {
        using Ops = SimdVec::Ops<T>;
        auto h = Ops::load(in + x);
        h = Functor::template step<T>(h, Ops::load(in + x + 1));
        return Functor::template step<T>(h, Ops::load(in + x + 2));
    }

    std::shared_ptr<Scratch> m_a;
    std::shared_ptr<Scratch> m_b;
};

} // namespace morphology
} // namespace lyn
LYN_AVX2_END
