#pragma once
// Algorithm objects: typed properties, the runner registry of each algorithm class, and the
// execution that hands a request to the first runner that accepts it, else to the host's own code.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/Image.h"

namespace lyn {

class BaseAlgorithm;

// An alternative implementation of one algorithm class, registered by a plug-in.
class Runnable {
public:
    virtual ~Runnable();
    virtual void run(BaseAlgorithm* algo) const = 0;
    virtual bool isRunnable(BaseAlgorithm* algo) const = 0;
    // Higher values are asked first; runners of equal value are asked in registration order.
    virtual int getOptimType() const = 0;
};

// Demangled class name of a runner, for reports.
std::string runnerName(const Runnable* runner);

// The runner list of one algorithm class. Owned by the host; runners are not owned.
class AlgoInfo {
public:
    explicit AlgoInfo(std::string className);
    void addRunner(Runnable* runner);
    void removeRunner(Runnable* runner);
    // Snapshot in the order the host asks them: by getOptimType descending, then registration order.
    std::vector<Runnable*> getRunners() const;
    const std::string& getClassName() const { return m_className; }

private:
    std::string m_className;
    mutable std::mutex m_mutex;
    std::vector<Runnable*> m_runners;
};

// Every algorithm class of the host, by name.
class AlgoRegistry {
public:
    // The class's AlgoInfo, or null when the class has been made unavailable.
    static AlgoInfo* getClassInfo(const std::string& className);
    static std::vector<AlgoInfo*> all();
    // Marks a class unavailable (its getClassInfo returns null), e.g. to test registration paths.
    static void setClassAvailable(const std::string& className, bool available);
};

// Receives progress as a fraction in [0, 1], rising, one call at a time, from whichever worker
// thread finished the work it reports.
class ProgressObserver {
public:
    virtual ~ProgressObserver();
    virtual void onProgress(double fraction) = 0;
};

class PropertyBase {
public:
    PropertyBase(BaseAlgorithm* owner, const char* name);
    virtual ~PropertyBase();
    PropertyBase(const PropertyBase&) = delete;
    PropertyBase& operator=(const PropertyBase&) = delete;
    const char* getName() const { return m_name; }
    // The image held by an image property, else null.
    virtual const ImageModel* asImage() const { return nullptr; }
    virtual std::string toString() const = 0;

private:
    const char* m_name;
};

template <class T>
class Property : public PropertyBase {
public:
    Property(BaseAlgorithm* owner, const char* name, T initial = T{}) : PropertyBase(owner, name), m_value(initial) {}
    T get() const { return m_value; }
    operator T() const { return m_value; }
    void set(T value) { m_value = value; }
    Property& operator=(T value) {
        m_value = value;
        return *this;
    }
    const ImageModel* asImage() const override {
        if constexpr (std::is_convertible_v<T, const ImageModel*>) return m_value;
        else return nullptr;
    }
    std::string toString() const override {
        if constexpr (std::is_arithmetic_v<T>) return std::to_string(m_value);
        else if constexpr (std::is_convertible_v<T, const ImageModel*>)
            return m_value ? m_value->describe() : std::string("(none)");
        else return m_value ? std::string("(set)") : std::string("(none)");
    }

private:
    T m_value;
};

struct PartitionerGrainSizesValue {
    unsigned long plans = 1;
    unsigned long rows = 1;
    unsigned long cols = 1;
};

class AbstractPartitionerPolicy {
public:
    using PartitionerGrainSizes = PartitionerGrainSizesValue;
    // Grain sizes used when neither the algorithm nor LYN_GRAIN_SIZES says otherwise: blocks are
    // never cut across columns (whole rows keep the vector loops long), rows and plans split freely.
    static PartitionerGrainSizes defaults();
    // LYN_GRAIN_SIZES="plans,rows,cols" if set, else defaults().
    static PartitionerGrainSizes fromSettings();
};

class BaseAlgorithm {
public:
    BaseAlgorithm();
    virtual ~BaseAlgorithm();
    BaseAlgorithm(const BaseAlgorithm&) = delete;
    BaseAlgorithm& operator=(const BaseAlgorithm&) = delete;

    // The class's runner registry (null when the class is unavailable) and its name.
    virtual AlgoInfo* getAlgoInfo() const = 0;
    virtual const char* getClassName() const = 0;

    // Validates the properties, then runs the first registered runner that accepts, else the host's
    // generic implementation. Exceptions propagate; ExceptionCancelation after cancelExecution().
    void execute();
    // The runner that served the last execute(), or null when the generic code did.
    const Runnable* getLastRunner() const { return m_lastRunner; }
    // The runner execute() would choose now (null: generic).
    const Runnable* selectRunner();

    const std::vector<PropertyBase*>& getProperties() const { return m_properties; }

    // Whether execute() may hand the request to a plug-in runner (default true).
    void setUsePlugin(bool use) { m_usePlugin = use; }
    bool getUsePlugin() const { return m_usePlugin; }
    // At most this many worker threads (0: the default, LYN_NUM_THREADS or all cores).
    void setMaxThreads(int threads) { m_maxThreads = threads; }
    int getMaxThreads() const;
    void setGrainSizes(const AbstractPartitionerPolicy::PartitionerGrainSizes& sizes);
    AbstractPartitionerPolicy::PartitionerGrainSizes getGrainSizes() const;
    // Extra memory the algorithm may use beyond its images (temporary images); default
    // LYN_MEMORY_BUDGET, else half the physical memory.
    void setMaximumExtraMemoryUsageInBytes(std::uint64_t bytes) { m_memoryBudget = static_cast<std::int64_t>(bytes); }
    std::uint64_t getMaximumExtraMemoryUsageInBytes() const;
    // Whether any image property is stored on disk.
    bool hasPropertyImageOnDisk() const;

    void setProgressObserver(ProgressObserver* observer) { m_observer = observer; }
    // Thread-safe; forwards increases of at least 1/1000 to the observer.
    void reportProgress(double fraction);
    // May be called from any thread, before or while execute() runs: execute() then throws
    // ExceptionCancelation (at once when the request came first).
    void cancelExecution() { m_cancelRequested.store(true, std::memory_order_relaxed); }
    bool isCancelRequested() const { return m_cancelRequested.load(std::memory_order_relaxed); }

protected:
    friend class PropertyBase;
    // Raises RuleException for a property value the algorithm cannot work with.
    virtual void checkProperties() const = 0;
    // Shapes the output images before anything runs (same type and extents as the input).
    virtual void prepareOutputs() {}
    // The host's own implementation.
    virtual void runGeneric() = 0;
    // After either implementation succeeded: what the class adds to every run's results.
    virtual void finishRun() {}

private:
    // Makes the writes held back by image properties (on disk) visible, after the run's threads.
    void flushImages() const;

    std::vector<PropertyBase*> m_properties;
    const Runnable* m_lastRunner = nullptr;
    bool m_usePlugin = true;
    int m_maxThreads = 0;
    bool m_grainSet = false;
    AbstractPartitionerPolicy::PartitionerGrainSizes m_grain;
    std::int64_t m_memoryBudget = -1;
    ProgressObserver* m_observer = nullptr;
    std::atomic<int> m_lastPermille{-1};
    std::mutex m_progressMutex;  // one observer call at a time, in rising order
    std::atomic<bool> m_cancelRequested{false};
};

// Common class plumbing: static getClassInfo() and the name.
#define LYN_ALGORITHM_CLASS(Name, QualifiedName)                                  \
public:                                                                           \
    static AlgoInfo* getClassInfo() { return AlgoRegistry::getClassInfo(QualifiedName); } \
    AlgoInfo* getAlgoInfo() const override { return getClassInfo(); }             \
    const char* getClassName() const override { return QualifiedName; }

} // namespace lyn
