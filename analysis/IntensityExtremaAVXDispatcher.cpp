// Per-type intensity extrema: one parallel reduction per sub-image that the range mode selects.
#include "Core/private/Filters/QuantificationFilter.h"
#include "analysis/IntensityExtremaAVX.h"
#include "analysis/IntensityExtremaSIMDGeneric.h"
#include "Core/private/TmplDispatch/Visitor1Args.h"

namespace lyn {
namespace analysis {

template <class T>
void IntensityExtremaAVXDispatcher::run(std::pair<IntensityExtrema*, algorithms::AbstractPrivateImplementation*> args) {
    IntensityExtrema* algo = args.first;
    algorithms::AbstractPrivateImplementation* impl = args.second;
    IntensityExtremaMsr* result = algo->result.get();
    const int mode = algo->rangeMode.get();
    const bool perPlan = mode & IntensityExtrema::PerPlan, perSequence = mode & IntensityExtrema::PerSequence,
               perSpectral = mode & IntensityExtrema::PerSpectral;
    const ImageModel* input = algo->inputImage.get();
    std::uint64_t n[5];
    for (int a = 0; a < 5; ++a) n[a] = input->getNumOf(static_cast<Components>(a));

    object_model::TupleX shape = IntensityExtrema::resultShape(mode, *input);
    impl->m_nbSteps.store(shape[0] * shape[1] * shape[2]);
    impl->m_currentStep.store(1);
    result->minimum().setShape(shape);
    result->maximum().setShape(shape);

    for (std::uint64_t a = 0; a < shape[0]; ++a)
        for (std::uint64_t b = 0; b < shape[1]; ++b)
            for (std::uint64_t c = 0; c < shape[2]; ++c) {
                using Filter = ImageToQuantificationFilter3d<T, SimdVec::arch_256_tag, IntensityExtremaSIMDGeneric<T>>;
                Filter filter(nullptr);
                ImageModelSizeProxy proxy(input, 0, n[0], 0, n[1], perPlan ? a : 0, perPlan ? 1 : n[2], perSequence ? b : 0,
                                          perSequence ? 1 : n[3], perSpectral ? c : 0, perSpectral ? 1 : n[4]);
                auto view = Filter::ViewT::New(static_cast<const ImageModel*>(&proxy),
                                               access::ContinueBorderCondition<T>::New());
                filter.setInputView(view);
                filter.setProcessingRegion(view->getLargestPossibleRegion());
                impl->runChildAlgo(&filter);
                // Zero is reported as +0.0: which signed zero a scan meets first depends on the blocks.
                const double lo = static_cast<double>(filter.getKernel().getMinimum());
                const double hi = static_cast<double>(filter.getKernel().getMaximum());
                result->minimum().at(a, b, c) = lo == 0 ? 0.0 : lo;
                result->maximum().at(a, b, c) = hi == 0 ? 0.0 : hi;
            }
}

#define LYN_INSTANTIATE(T) \
    template void IntensityExtremaAVXDispatcher::run<T>(std::pair<IntensityExtrema*, algorithms::AbstractPrivateImplementation*>);
LYN_FOR_EACH_VOXEL_TYPE(LYN_INSTANTIATE)
#undef LYN_INSTANTIATE

} // namespace analysis
} // namespace lyn
