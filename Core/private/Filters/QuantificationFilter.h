#pragma once
// Reduces an image region to a measurement: TBB splits the region into 3D blocks, each body folds
// its blocks into its own copy of the kernel (the accumulator), and the copies are joined.
#include <memory>

#include <tbb/parallel_reduce.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

#include "Core/private/Access/Caches.h"
#include "Core/private/Filters/FilterTags.h"
#include "host/PrivateImplementation.h"
#include "simd/AlignedAllocator.h"

namespace lyn {

template <class T, class Arch, class Kernel, class Tag>
class ImageToQuantificationFilter;


template <class Kernel, class Filter>
class TbbBody3DManyToManyImageFilterWithReduction {
public:
    explicit TbbBody3DManyToManyImageFilterWithReduction(Filter& filter) : m_filter(filter), m_kernel(filter.getKernel()) {}
    // A split body starts from a fresh accumulator; its result is joined into the body it was
    // split from, so any associative reduction works, not only idempotent ones.
    TbbBody3DManyToManyImageFilterWithReduction(TbbBody3DManyToManyImageFilterWithReduction& other, tbb::split)
        : m_filter(other.m_filter), m_kernel() {}

    void operator()(const access::Block3d& block) {
        m_kernel.run(block, m_filter);
        if (m_filter.isCancelled()) throw ExceptionCancelation();
        m_filter.addProgress(block.getNumOfVoxels());
    }
    void join(const TbbBody3DManyToManyImageFilterWithReduction& rhs) { m_kernel.join(rhs.m_kernel); }
    const Kernel& getKernel() const { return m_kernel; }

private:
    Filter& m_filter;
    Kernel m_kernel;
};

namespace details {

template <class Tag, class Kind>
struct DoRunManyToManyImageFilter;

template <>
struct DoRunManyToManyImageFilter<Filter3dTag, FilterWithReductionTag> {
    template <class Filter>
    static void run(Filter& filter) {
        const access::Region& region = filter.getProcessingRegion();
        filter.setMaxProgress(region.getNumOfVoxels());
        AbstractPartitionerPolicy::PartitionerGrainSizes grain;
        filter.getPartitionerGrainSizes(grain);
        // The loops run from each start index up to the count, not to start + count. Deliberate and
        // kept: the dispatcher always hands this filter sub-images starting at 0, where both agree.
        for (long s = region.sequenceBegin(); s < static_cast<long>(region.getNbSequencePlans()); ++s)
            for (long p = region.spectralSeriesBegin(); p < static_cast<long>(region.getNbSpectralSeries()); ++p) {
                access::Block3d range(region.plansBegin(), region.plansBegin() + long(region.getNbPlans()), grain.plans,
                                      region.rowsBegin(), region.rowsBegin() + long(region.getNbRows()), grain.rows,
                                      region.colsBegin(), region.colsBegin() + long(region.getNbCols()), grain.cols, s,
                                      p);
                using Kernel = std::decay_t<decltype(filter.getKernel())>;
                TbbBody3DManyToManyImageFilterWithReduction<Kernel, Filter> body(filter);
                tbb::task_group_context context;
                if (!range.empty()) tbb::parallel_reduce(range, body, tbb::auto_partitioner(), context);
                filter.getKernel() = body.getKernel();
                if (filter.isCancelled()) throw ExceptionCancelation();
                if (filter.hasTemporizedOutputs()) filter.writeTemporizedOutputs();
            }
    }
};

} // namespace details

template <class T, class Arch, class Kernel>
class ImageToQuantificationFilter<T, Arch, Kernel, Filter3dTag> : public BaseTbbAlgorithm {
public:
    using ViewT = access::View<T, SimdVec::AlignedAllocator<T, 32>>;

    explicit ImageToQuantificationFilter(BaseAlgorithm* owner, Kernel kernel = Kernel())
        : BaseTbbAlgorithm(owner), m_kernel(kernel) {}

    void setInputView(std::shared_ptr<const ViewT> view) { m_view = std::move(view); }
    const ViewT& getView() const { return *m_view; }
    Kernel& getKernel() { return m_kernel; }
    const Kernel& getKernel() const { return m_kernel; }

    void run() override { details::DoRunManyToManyImageFilter<Filter3dTag, FilterWithReductionTag>::run(*this); }

private:
    Kernel m_kernel;
    std::shared_ptr<const ViewT> m_view;
};

template <class T, class Arch, class Kernel>
using ImageToQuantificationFilter3d = ImageToQuantificationFilter<T, Arch, Kernel, Filter3dTag>;

} // namespace lyn
