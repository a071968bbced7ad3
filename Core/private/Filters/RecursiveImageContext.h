#pragma once
// What all blocks of one pass share: the source and target views and, per worker thread, the row
// and plan caches through which kernels read the source and write the target.
#include <xmmintrin.h>

#include <cstdint>
#include <memory>
#include <type_traits>

#include <tbb/enumerable_thread_specific.h>
#include <tbb/task_group.h>

#include "Core/private/Access/Caches.h"
#include "Core/private/Filters/FilterTags.h"
#include "host/PrivateImplementation.h"
#include "simd/AlignedAllocator.h"
#include "simd/Streaming.h"

namespace lyn {

template <class TIn, class TOut, class Arch, class Tag>
class RecursiveImageContext {
public:
    using InType = std::conditional_t<std::is_same_v<Tag, InputToOutput>, TIn, TOut>;
    using OutType = TOut;
    using InAlloc = SimdVec::AlignedAllocator<InType, 32>;
    using OutAlloc = SimdVec::AlignedAllocator<TOut, 32>;
    using InView = access::View<InType, InAlloc>;
    using OutView = access::View<TOut, OutAlloc>;
    using InRowCache = access::RowCacheRead<InView, InAlloc>;
    using OutRowCache = access::RowCacheReadWrite<OutView, OutAlloc>;
    using InPlanCache = access::PlanCacheRead<InView, InAlloc>;
    using OutPlanCache = access::PlanCacheReadWrite<OutView, OutAlloc>;

    RecursiveImageContext(std::shared_ptr<const InView> source, std::shared_ptr<OutView> target,
                          BaseTbbAlgorithm* filter = nullptr)
        : m_source(std::move(source)), m_target(std::move(target)), m_filter(filter),
          m_stream(SimdVec::streamingStores(m_target->getInterface()->getSizeInBytes())) {}

    const std::shared_ptr<const InView>& getInputView() const { return m_source; }
    const std::shared_ptr<OutView>& getOutputView() const { return m_target; }
    bool isInPlace() const { return m_source->getInterface() == m_target->getInterface(); }

    // Whether kernels computing output rows in place should write them with streaming stores: for
    // outputs too large to stay in the cache anyway.
    bool streamOutput() const { return m_stream; }

    // The calling thread's caches (empty until created).
    std::shared_ptr<InRowCache>& inputRowCache() { return m_inRows.local(); }
    std::shared_ptr<OutRowCache>& outputRowCache() { return m_outRows.local(); }
    std::shared_ptr<InPlanCache>& inputPlanCache() { return m_inPlans.local(); }
    std::shared_ptr<OutPlanCache>& outputPlanCache() { return m_outPlans.local(); }

    // A new cache of `n` rows or plans in the calling thread's slot, replacing what it held.
    std::shared_ptr<InRowCache> createInputRowCache(unsigned long n) { return m_inRows.local() = m_source->createRowCacheRead(n); }
    std::shared_ptr<OutRowCache> createOuputRowCache(unsigned long n) {
        return m_outRows.local() = m_target->createRowCacheReadWrite(n);
    }
    std::shared_ptr<InPlanCache> createInputPlanCache(unsigned long n) {
        return m_inPlans.local() = m_source->createPlanCacheRead(n);
    }
    std::shared_ptr<OutPlanCache> createOuputPlanCache(unsigned long n) {
        return m_outPlans.local() = m_target->createPlanCacheReadWrite(n);
    }

    // True once the pass should stop: its task group was cancelled or the filter was.
    bool isGroupCancelled() const {
        return tbb::is_current_task_group_canceling() || (m_filter && m_filter->isCancelled());
    }

private:
    std::shared_ptr<const InView> m_source;
    std::shared_ptr<OutView> m_target;
    tbb::enumerable_thread_specific<std::shared_ptr<InRowCache>> m_inRows;
    tbb::enumerable_thread_specific<std::shared_ptr<OutRowCache>> m_outRows;
    tbb::enumerable_thread_specific<std::shared_ptr<InPlanCache>> m_inPlans;
    tbb::enumerable_thread_specific<std::shared_ptr<OutPlanCache>> m_outPlans;
    BaseTbbAlgorithm* m_filter;
    bool m_stream;
};

namespace details {
// Parallel body: run the kernel on one block, then count its voxels or stop on cancellation.
template <class Op, class Context, class Block>
class RecursiveImageBody {
public:
    RecursiveImageBody(const Op* op, Context* context, BaseTbbAlgorithm* filter)
        : m_op(op), m_context(context), m_filter(filter) {}
    void operator()(const Block& block) const {
        m_op->run(block, *m_context);
        _mm_sfence();  // streaming stores of the block are visible before anyone reads them
        if (m_filter) {
            // A 2D block is one plan thick.
            if (!m_filter->isCancelled()) m_filter->addProgress(block.getNbRows() * block.getNbCols() * block.getNbPlans());
            else cancel();
        }
    }

private:
    [[noreturn]] __attribute__((cold, noinline)) static void cancel() { throw ExceptionCancelation(); }
    const Op* m_op;
    Context* m_context;
    BaseTbbAlgorithm* m_filter;
};
} // namespace details

template <class Op, class Context>
using TbbBodyRecursiveImage = details::RecursiveImageBody<Op, Context, access::Block2d>;
template <class Op, class Context>
using TbbBody3DRecursiveImage = details::RecursiveImageBody<Op, Context, access::Block3d>;

} // namespace lyn
