#include "host/PrivateImplementation.h"

#include <algorithm>

namespace lyn {
namespace algorithms {

AbstractPrivateImplementation::AbstractPrivateImplementation(BaseAlgorithm* publicInterface)
    : m_public(publicInterface) {}

AbstractPrivateImplementation::~AbstractPrivateImplementation() = default;

void AbstractPrivateImplementation::cancelExecution() { m_cancelled.store(true); }

BaseAlgorithm* AbstractPrivateImplementation::getPublicInterface() const {
    for (const AbstractPrivateImplementation* p = this; p; p = p->m_parent)
        if (p->m_public) return p->m_public;
    return nullptr;
}

bool AbstractPrivateImplementation::isCancelled() const {
    for (const AbstractPrivateImplementation* p = this; p; p = p->m_parent) {
        if (p->m_cancelled.load(std::memory_order_relaxed)) return true;
        if (p->m_public && p->m_public->isCancelRequested()) return true;
    }
    return false;
}

void AbstractPrivateImplementation::reportFraction(double fraction) {
    double steps = static_cast<double>(std::max<std::uint64_t>(1, m_nbSteps.load()));
    double done = static_cast<double>(std::max<std::uint64_t>(1, m_currentStep.load()) - 1);
    double overall = std::min(1.0, (done + std::clamp(fraction, 0.0, 1.0)) / steps);
    if (m_parent) m_parent->reportFraction(overall);
    else if (m_public) m_public->reportProgress(overall);
}

void AbstractPrivateImplementation::runChildAlgo(AbstractPrivateImplementation* child) {
    struct Detach {
        AbstractPrivateImplementation* child;
        ~Detach() { child->m_parent = nullptr; }
    } detach{child};
    child->m_parent = this;
    child->run();
    reportFraction(1.0);
    m_currentStep.fetch_add(1);
}

} // namespace algorithms

BaseTbbAlgorithm::BaseTbbAlgorithm(BaseAlgorithm* owner) : AbstractPrivateImplementation(owner) {}
BaseTbbAlgorithm::~BaseTbbAlgorithm() = default;

void BaseTbbAlgorithm::setProcessingRegion(const access::Region& region) {
    m_region = region;
    m_regionSet = true;
}

void BaseTbbAlgorithm::getPartitionerGrainSizes(AbstractPartitionerPolicy::PartitionerGrainSizes& sizes) const {
    const BaseAlgorithm* owner = getPublicInterface();
    sizes = owner ? owner->getGrainSizes() : AbstractPartitionerPolicy::fromSettings();
}

void BaseTbbAlgorithm::cancelExecution() {
    AbstractPrivateImplementation::cancelExecution();
    m_context.cancel_group_execution();
}

void BaseTbbAlgorithm::setMaxProgress(std::uint64_t total) {
    m_maxProgress.store(total);
    m_progress.store(0);
}

void BaseTbbAlgorithm::addProgress(std::uint64_t voxels) {
    std::uint64_t done = m_progress.fetch_add(voxels, std::memory_order_relaxed) + voxels;
    std::uint64_t total = m_maxProgress.load(std::memory_order_relaxed);
    if (total) reportFraction(static_cast<double>(done) / static_cast<double>(total));
}

} // namespace lyn
