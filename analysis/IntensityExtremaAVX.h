#pragma once
// Intensity extrema in the plug-in: the runner, its private implementation and the dispatcher.
#include <utility>

#include "host/Algorithms.h"
#include "host/PrivateImplementation.h"

namespace lyn {
namespace analysis {

class IntensityExtremaAVXRunner : public Runnable {
public:
    ~IntensityExtremaAVXRunner() override {}
    void run(BaseAlgorithm* algo) const override;
    bool isRunnable(BaseAlgorithm* algo) const override;
    int getOptimType() const override { return 2; }
};

class IntensityExtremaAVXPrivateImpl : public algorithms::AbstractPrivateImplementation {
public:
    explicit IntensityExtremaAVXPrivateImpl(IntensityExtrema* algo) : AbstractPrivateImplementation(algo), m_algo(algo) {}
    ~IntensityExtremaAVXPrivateImpl() override {}
    void run() override;

private:
    IntensityExtrema* m_algo;
};

struct IntensityExtremaAVXDispatcher {
    template <class T>
    static void run(std::pair<IntensityExtrema*, algorithms::AbstractPrivateImplementation*> args);
};

} // namespace analysis
} // namespace lyn
