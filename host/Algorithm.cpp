#include "host/Algorithm.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <thread>

#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/task_arena.h>

#include "host/PluginLoader.h"
#include "host/Settings.h"

namespace lyn {

Runnable::~Runnable() = default;
ProgressObserver::~ProgressObserver() = default;

std::string runnerName(const Runnable* runner) {
    if (!runner) return "generic";
    const char* mangled = typeid(*runner).name();
    int status = 0;
    char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string name = status == 0 && demangled ? demangled : mangled;
    std::free(demangled);
    return name;
}

// ---------------------------------------------------------------------------------------------
AlgoInfo::AlgoInfo(std::string className) : m_className(std::move(className)) {}

void AlgoInfo::addRunner(Runnable* runner) {
    if (!runner) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (std::find(m_runners.begin(), m_runners.end(), runner) == m_runners.end()) m_runners.push_back(runner);
}

void AlgoInfo::removeRunner(Runnable* runner) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto end = std::remove(m_runners.begin(), m_runners.end(), runner);
    if (end == m_runners.end()) return;
    m_runners.erase(end, m_runners.end());
    // A plug-in leaves its runners allocated when it unloads. Keeping them listed, for the life of
    // the process, lets leak checkers tell them from lost memory without symbolising the stacks of
    // a library that is gone.
    static std::mutex retiredMutex;
    static auto* retired = new std::vector<Runnable*>;
    std::lock_guard<std::mutex> retiredLock(retiredMutex);
    retired->push_back(runner);
}

std::vector<Runnable*> AlgoInfo::getRunners() const {
    std::vector<Runnable*> runners;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        runners = m_runners;
    }
    std::stable_sort(runners.begin(), runners.end(),
                     [](const Runnable* a, const Runnable* b) { return a->getOptimType() > b->getOptimType(); });
    return runners;
}

namespace {
struct Registry {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<AlgoInfo>> infos;
    std::set<std::string> unavailable;
};
Registry& registry() {
    static Registry r;
    return r;
}
} // namespace

AlgoInfo* AlgoRegistry::getClassInfo(const std::string& className) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.unavailable.count(className)) return nullptr;
    auto& slot = r.infos[className];
    if (!slot) slot = std::make_unique<AlgoInfo>(className);
    return slot.get();
}

std::vector<AlgoInfo*> AlgoRegistry::all() {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::vector<AlgoInfo*> out;
    for (auto& [name, info] : r.infos)
        if (!r.unavailable.count(name)) out.push_back(info.get());
    return out;
}

void AlgoRegistry::setClassAvailable(const std::string& className, bool available) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (available) r.unavailable.erase(className);
    else r.unavailable.insert(className);
}

// ---------------------------------------------------------------------------------------------
PropertyBase::PropertyBase(BaseAlgorithm* owner, const char* name) : m_name(name) {
    if (owner) owner->m_properties.push_back(this);
}
PropertyBase::~PropertyBase() = default;

AbstractPartitionerPolicy::PartitionerGrainSizes AbstractPartitionerPolicy::defaults() {
    PartitionerGrainSizes g;
    g.plans = 1;
    g.rows = 8;
    g.cols = 1UL << 40;
    return g;
}

AbstractPartitionerPolicy::PartitionerGrainSizes AbstractPartitionerPolicy::fromSettings() {
    String text = globalSettings()->getValue("LYN_GRAIN_SIZES", "");
    if (text.empty()) return defaults();
    PartitionerGrainSizes g;
    unsigned long v[3];
    char tail = 0;
    if (std::sscanf(text.c_str(), "%lu,%lu,%lu%c", &v[0], &v[1], &v[2], &tail) != 3 || !v[0] || !v[1] || !v[2])
        raise<RuleException>("Setting LYN_GRAIN_SIZES must be three positive integers \"plans,rows,cols\", not \"" +
                                 text + "\"",
                             "host/Algorithm", __LINE__);
    g.plans = v[0];
    g.rows = v[1];
    g.cols = v[2];
    return g;
}

// ---------------------------------------------------------------------------------------------
BaseAlgorithm::BaseAlgorithm() = default;
BaseAlgorithm::~BaseAlgorithm() = default;

int BaseAlgorithm::getMaxThreads() const {
    int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    int t = m_maxThreads;
    if (t <= 0) t = static_cast<int>(globalSettings()->getValueAsInt("LYN_NUM_THREADS", 0));
    if (t <= 0) t = tbb::info::default_concurrency();
    return std::max(1, std::min(t, 4 * cores));
}

void BaseAlgorithm::setGrainSizes(const AbstractPartitionerPolicy::PartitionerGrainSizes& sizes) {
    if (!sizes.plans || !sizes.rows || !sizes.cols)
        raise<RuleException>("Grain sizes must be positive", "host/Algorithm", __LINE__);
    m_grain = sizes;
    m_grainSet = true;
}

AbstractPartitionerPolicy::PartitionerGrainSizes BaseAlgorithm::getGrainSizes() const {
    return m_grainSet ? m_grain : AbstractPartitionerPolicy::fromSettings();
}

std::uint64_t BaseAlgorithm::getMaximumExtraMemoryUsageInBytes() const {
    if (m_memoryBudget >= 0) return static_cast<std::uint64_t>(m_memoryBudget);
    return globalSettings()->getValueAsBytes("LYN_MEMORY_BUDGET", physicalMemoryBytes() / 2);
}

void BaseAlgorithm::flushImages() const {
    for (const PropertyBase* p : m_properties)
        if (const ImageModel* image = p->asImage()) image->flushWrites();
}

bool BaseAlgorithm::hasPropertyImageOnDisk() const {
    for (const PropertyBase* p : m_properties)
        if (const ImageModel* image = p->asImage())
            if (image->getStorageType() != 0) return true;
    return false;
}

void BaseAlgorithm::reportProgress(double fraction) {
    if (!m_observer) return;
    int permille = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 1000.0);
    // Cheap rejection first: most reports from the workers add nothing new.
    if (permille <= m_lastPermille.load(std::memory_order_relaxed)) return;
    // Observers need not be thread-safe: deliver under a lock, and only what rises.
    std::lock_guard<std::mutex> lock(m_progressMutex);
    if (permille <= m_lastPermille.load(std::memory_order_relaxed)) return;
    m_lastPermille.store(permille, std::memory_order_relaxed);
    m_observer->onProgress(permille / 1000.0);
}

const Runnable* BaseAlgorithm::selectRunner() {
    if (!m_usePlugin) return nullptr;
    Plugin::ensureStarted();
    if (!Plugin::isEnabled()) return nullptr;
    AlgoInfo* info = getAlgoInfo();
    if (!info) return nullptr;
    for (Runnable* r : info->getRunners())
        if (r->isRunnable(this)) return r;
    return nullptr;
}

void BaseAlgorithm::execute() {
    // A cancellation asked for before the run stops it at once; the request is spent when the run
    // ends, however it ends, so that the next execute() starts afresh.
    struct SpendCancel {
        std::atomic<bool>& flag;
        ~SpendCancel() { flag.store(false); }
    } spend{m_cancelRequested};
    if (isCancelRequested()) throw ExceptionCancelation();
    checkProperties();
    prepareOutputs();
    m_lastPermille.store(-1);
    const Runnable* runner = selectRunner();
    m_lastRunner = runner;
    // Rows written outside the run, on this thread, must be in place before its threads read them.
    flushImages();
    // More threads than TBB allows would only earn a warning on stderr from TBB, not more workers.
    const int allowed =
        static_cast<int>(tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism));
    tbb::task_arena arena(std::max(1, std::min(getMaxThreads(), allowed)));
    try {
        arena.execute([&] {
            if (runner) runner->run(this);
            else runGeneric();
        });
    } catch (...) {
        // What was written before a failure or a cancellation still reaches the images.
        try {
            flushImages();
        } catch (const Exception&) {
        }
        throw;
    }
    flushImages();
    arena.execute([&] { finishRun(); });
    reportProgress(1.0);
}

} // namespace lyn
