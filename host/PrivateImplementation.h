#pragma once
// Implementation objects behind a public algorithm: progress in steps, nested child runs whose
// progress and cancellation belong to their parent, and the TBB-parallel filter base.
#include <atomic>
#include <cstdint>

#include <tbb/task_group.h>

#include "host/Region.h"
#include "host/Algorithm.h"

namespace lyn {
namespace algorithms {

class AbstractPrivateImplementation {
public:
    explicit AbstractPrivateImplementation(BaseAlgorithm* publicInterface);
    virtual ~AbstractPrivateImplementation();
    AbstractPrivateImplementation(const AbstractPrivateImplementation&) = delete;
    AbstractPrivateImplementation& operator=(const AbstractPrivateImplementation&) = delete;

    virtual void cancelExecution();
    virtual void run() = 0;

    // Runs `child` as the current step of this implementation: the child's progress fills that
    // step, the child sees this implementation's cancellation, and the step advances after it.
    void runChildAlgo(AbstractPrivateImplementation* child);

    // The public algorithm: this implementation's own, else its parent's.
    BaseAlgorithm* getPublicInterface() const;
    // Cancelled here, in a parent, or on the public algorithm.
    bool isCancelled() const;
    // Progress of this implementation's current step, as a fraction; forwarded up the chain.
    void reportFraction(double fraction);

    // Number of steps this implementation's work is cut into, and the current one (from 1).
    std::atomic<std::uint64_t> m_nbSteps{1};
    std::atomic<std::uint64_t> m_currentStep{1};

protected:
    BaseAlgorithm* m_public;
    AbstractPrivateImplementation* m_parent = nullptr;
    std::atomic<bool> m_cancelled{false};
};

} // namespace algorithms

// Base of the parallel filters: a processing region, grain sizes, a voxel progress counter and a
// TBB task group context that cancellation stops.
class BaseTbbAlgorithm : public algorithms::AbstractPrivateImplementation {
public:
    explicit BaseTbbAlgorithm(BaseAlgorithm* owner);
    ~BaseTbbAlgorithm() override;

    void setProcessingRegion(const access::Region& region);
    const access::Region& getProcessingRegion() const { return m_region; }
    bool isProcessingRegionSet() const { return m_regionSet; }

    // The owner's grain sizes (through the parent chain), else the settings' policy.
    void getPartitionerGrainSizes(AbstractPartitionerPolicy::PartitionerGrainSizes& sizes) const;

    void cancelExecution() override;
    tbb::task_group_context& getTaskGroupContext() { return m_context; }

    // Voxel progress: the total, then atomic additions from the parallel bodies.
    void setMaxProgress(std::uint64_t total);
    void addProgress(std::uint64_t voxels);
    std::uint64_t getProgress() const { return m_progress.load(); }
    std::uint64_t getMaxProgress() const { return m_maxProgress.load(); }

    // Called after each reduction; a filter overrides it to flush outputs it kept aside.
    virtual void writeTemporizedOutputs() {}
    virtual bool hasTemporizedOutputs() const { return false; }

protected:
    access::Region m_region;
    bool m_regionSet = false;
    tbb::task_group_context m_context;
    std::atomic<std::uint64_t> m_progress{0};
    std::atomic<std::uint64_t> m_maxProgress{0};
};

} // namespace lyn
