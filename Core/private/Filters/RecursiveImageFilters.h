#pragma once
// Applies one neighbourhood operator a given number of times, each pass reading what the previous
// one wrote: through one temporary image when it fits the allowed extra memory (ping-pong, the
// last pass landing in the output), otherwise in place on the output.
#include <memory>

#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>

#include "Core/private/Filters/RecursiveImageContext.h"
#include "host/Settings.h"
#include "host/TemporaryImage.h"

namespace lyn {

template <class Tag>
struct DoRunRecursiveImage;

template <class TIn, class TOut, class Arch, class Op, class Tag>
class RecursiveImageFilter : public BaseTbbAlgorithm {
public:
    using InView = access::View<TIn, SimdVec::AlignedAllocator<TIn, 32>>;
    using OutView = access::View<TOut, SimdVec::AlignedAllocator<TOut, 32>>;

    RecursiveImageFilter(BaseAlgorithm* owner, Op op) : BaseTbbAlgorithm(owner), m_op(std::move(op)) {}

    void setInput(const ImageModel* image, std::shared_ptr<access::BorderCondition<TIn>> border) {
        m_input = InView::New(image, std::move(border));
        if (!isProcessingRegionSet()) m_region = m_input->getLargestPossibleRegion();
    }
    void setOutput(ImageModel* image, std::shared_ptr<access::BorderCondition<TOut>> border) {
        m_outputBorder = border;
        m_output = OutView::New(image, std::move(border));
        if (!isProcessingRegionSet()) m_region = m_output->getLargestPossibleRegion();
    }
    void setIterations(unsigned long iterations) { m_iterations = iterations; }

    void run() override { DoRunRecursiveImage<Tag>::run(*this); }
    // Deferred rows are flushed inside run, after each pass.
    void writeTemporizedOutputs() override {}

    const std::shared_ptr<const InView>& inputView() const { return m_input; }
    const std::shared_ptr<OutView>& outputView() const { return m_output; }
    const std::shared_ptr<access::BorderCondition<TOut>>& outputBorder() const { return m_outputBorder; }
    const Op& op() const { return m_op; }
    unsigned long iterations() const { return m_iterations; }

private:
    std::shared_ptr<const InView> m_input;
    std::shared_ptr<OutView> m_output;
    Op m_op;
    unsigned long m_iterations = 0;
    std::shared_ptr<access::BorderCondition<TOut>> m_outputBorder;
};

template <class TIn, class TOut, class Arch, class Op>
class RecursiveImageFilter2d : public RecursiveImageFilter<TIn, TOut, Arch, Op, Filter2dTag> {
    using RecursiveImageFilter<TIn, TOut, Arch, Op, Filter2dTag>::RecursiveImageFilter;
};
template <class TIn, class TOut, class Arch, class Op>
class RecursiveImageFilter3d : public RecursiveImageFilter<TIn, TOut, Arch, Op, Filter3dTag> {
    using RecursiveImageFilter<TIn, TOut, Arch, Op, Filter3dTag>::RecursiveImageFilter;
};

} // namespace lyn

#include "Core/private/Filters/RecursiveImageFilters.impl"
