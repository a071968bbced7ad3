// The compiled half of the `lyn` Python package: NumPy arrays wrapped as host images without
// copying, algorithms run on a worker thread while the calling thread (GIL released) watches for
// Ctrl-C, a cancel event and progress, and host exceptions turned into Python ones.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <limits>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include <pthread.h>
#include <tbb/global_control.h>

#include "host/Algorithms.h"
#include "host/Cpu.h"
#include "host/PluginLoader.h"
#include "python/src/Shapes.h"

namespace py = pybind11;

namespace lyn {
namespace python {

namespace {

// Python exception classes, created at import.
PyObject* g_error = nullptr;
PyObject* g_computationError = nullptr;
PyObject* g_ruleError = nullptr;
PyObject* g_cancelled = nullptr;

[[noreturn]] void valueError(const std::string& message) { throw py::value_error(message); }

// NumPy dtype -> host voxel type; false for a dtype the host does not serve.
bool voxelTypeOf(const py::dtype& dt, VoxelTypes& type) {
    const char kind = dt.kind();
    const auto size = dt.itemsize();
    if (kind == 'b' && size == 1) type = Binary;
    else if (kind == 'u' && size == 1) type = UInt8;
    else if (kind == 'u' && size == 2) type = UInt16;
    else if (kind == 'u' && size == 4) type = UInt32;
    else if (kind == 'u' && size == 8) type = UInt64;
    else if (kind == 'i' && size == 1) type = Int8;
    else if (kind == 'i' && size == 2) type = Int16;
    else if (kind == 'i' && size == 4) type = Int32;
    else if (kind == 'i' && size == 8) type = Int64;
    else if (kind == 'f' && size == 4) type = Float;
    else if (kind == 'f' && size == 8) type = Double;
    else return false;
    return true;
}

// (rows, cols), (plans, rows, cols), (axis3, plans, rows, cols), (axis4, axis3, plans, rows, cols).
Extents extentsOf(const py::array& a) {
    Extents e{1, 1, 1, 1, 1};
    const auto n = a.ndim();
    for (py::ssize_t i = 0; i < n; ++i) e[static_cast<std::size_t>(i)] = static_cast<std::uint64_t>(a.shape(n - 1 - i));
    return e;
}

bool isNativeCContiguous(const py::array& a) {
    return (a.flags() & py::array::c_style) && (a.flags() & py::detail::npy_api::NPY_ARRAY_ALIGNED_) && a.dtype().byteorder() != '>';
}

// The input as a C-contiguous, aligned, native-order array: itself when it already is (zero copy),
// else one copy. Checks its type and number of axes.
py::array checkedInput(const py::object& object, VoxelTypes& type) {
    if (!py::isinstance<py::array>(object))
        throw py::type_error("image: expected a numpy.ndarray, not " + std::string(py::str(object.get_type().attr("__name__"))));
    py::array a = py::reinterpret_borrow<py::array>(object);
    if (!voxelTypeOf(a.dtype(), type))
        throw py::type_error("image: dtype " + std::string(py::str(a.dtype())) +
                             " is not served (bool, uint8, uint16, uint32, uint64, int8, int16, int32, int64, float32, "
                             "float64)");
    if (a.ndim() < 2 || a.ndim() > 5)
        valueError("image: expected 2 to 5 axes ((rows, cols) ... (axis4, axis3, plans, rows, cols)), got " +
                   std::to_string(a.ndim()));
    if (isNativeCContiguous(a)) return a;
    py::module_ np = py::module_::import("numpy");
    py::dtype native = a.dtype().attr("newbyteorder")("=");
    return np.attr("ascontiguousarray")(a, native);
}

// `out`: C-contiguous, writeable, of the input's dtype and shape.
py::array checkedOutput(const py::object& object, const py::array& input) {
    if (!py::isinstance<py::array>(object))
        throw py::type_error("out: expected a numpy.ndarray, not " + std::string(py::str(object.get_type().attr("__name__"))));
    py::array out = py::reinterpret_borrow<py::array>(object);
    if (!out.dtype().equal(input.dtype()))
        valueError("out: dtype " + std::string(py::str(out.dtype())) + " differs from the image's " +
                   std::string(py::str(input.dtype())));
    bool sameShape = out.ndim() == input.ndim();
    for (py::ssize_t i = 0; sameShape && i < out.ndim(); ++i) sameShape = out.shape(i) == input.shape(i);
    if (!sameShape)
        valueError("out: shape " + std::string(py::str(out.attr("shape"))) + " differs from the image's " +
                   std::string(py::str(input.attr("shape"))));
    if (!isNativeCContiguous(out)) valueError("out: must be C-contiguous, aligned and in native byte order");
    if (!out.writeable()) valueError("out: is read-only");
    return out;
}

// An uninitialised C-contiguous array in memory the host allocates as it does its own images: on
// a vector boundary, so the plug-in writes rows with streaming stores (which spare the memory bus
// the reads ordinary stores of a large output cost), and large ones on 2 MiB boundaries with huge
// pages advised, so that a pass over them does not miss the TLB every 4 KiB.
py::array alignedEmpty(const py::dtype& dtype, const std::vector<py::ssize_t>& shape) {
    py::ssize_t count = 1;
    for (py::ssize_t n : shape) {
        if (n < 0) valueError("shape: extents must not be negative");
        count *= n;
    }
    const std::uint64_t bytes = static_cast<std::uint64_t>(count * dtype.itemsize());
    if (bytes == 0) return py::array(dtype, shape);
    auto block = std::make_unique<MemoryImage>();
    block->allocate(UInt8, Extents{bytes, 1, 1, 1, 1}, false);
    void* data = block->data();
    py::capsule owner(block.release(), [](void* p) { delete static_cast<MemoryImage*>(p); });
    return py::array(dtype, shape, data, owner);
}

// Counts voxels; zero when any axis is empty.
bool isEmpty(const py::array& a) { return a.size() == 0; }

class LatestProgress : public ProgressObserver {
public:
    void onProgress(double fraction) override {
        double seen = m_latest.load(std::memory_order_relaxed);
        while (fraction > seen && !m_latest.compare_exchange_weak(seen, fraction)) {
        }
    }
    double latest() const { return m_latest.load(std::memory_order_relaxed); }

private:
    std::atomic<double> m_latest{-1.0};
};

// A Python exception taken out of the interpreter (GIL held) so it can be raised again later.
struct PendingError {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    bool set() const { return type != nullptr; }
    void fetch() { PyErr_Fetch(&type, &value, &traceback); }
    [[noreturn]] void raise() {
        PyErr_Restore(type, value, traceback);
        type = value = traceback = nullptr;
        throw py::error_already_set();
    }
};

[[noreturn]] void raiseHostError(PyObject* cls, const Exception& e) {
    const Exception::ExceptionInfo info = e.getInfo(true);
    py::object error = py::reinterpret_borrow<py::object>(cls)(info.message);
    error.attr("kind") = e.kind();
    error.attr("file") = info.file;
    error.attr("line") = info.line;
    PyErr_SetObject(cls, error.ptr());
    throw py::error_already_set();
}

// Threads that run algorithms for calling Python threads, kept between calls: a thread made per
// call cost its creation and TBB's setup of a new thread on every call. A job waits only while
// every kept thread is busy, for as long as it takes to start one more.
//
// fork(): a child inherits none of the parent's threads but all of their locks' states, TBB's
// among them, so a TBB worker caught holding one would leave the child's first call waiting
// forever. Where no call is running, the kept threads and TBB's workers are ended before the
// fork (TBB starts new ones at the next call); the child starts its own set of kept threads.
class Workers {
public:
    static Workers& instance() {
        static const bool hooked =
            pthread_atfork([] { if (s_current) s_current->quiesce(); },
                           [] { if (s_current) s_current->resume(); },
                           [] { s_current = new Workers; }) == 0;
        (void)hooked;
        if (!s_current) s_current = new Workers;
        return *s_current;
    }
    // Runs `job` on a kept thread, then `done` once that thread counts as idle again, so that a
    // fork right after the call finds every kept thread idle.
    void submit(std::function<void()> job, std::function<void()> done) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_resumed.wait(lock, [&] { return !m_quit; });
        m_jobs.push_back({std::move(job), std::move(done)});
        if (m_jobs.size() > m_idle) m_threads.emplace_back([this] { loop(); });
        m_ready.notify_one();
    }

private:
    // Never destroyed: kept threads still wait on it while the interpreter exits, and a forked
    // child, which inherits none of them, starts a new set (the old one's lock may be held).
    static inline Workers* s_current = nullptr;

    struct Job {
        std::function<void()> run, done;
    };

    void loop() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_idle;
        for (;;) {
            m_ready.wait(lock, [&] { return !m_jobs.empty() || m_quit; });
            if (m_jobs.empty()) return;
            --m_idle;
            Job job = std::move(m_jobs.front());
            m_jobs.pop_front();
            lock.unlock();
            job.run();
            job.run = nullptr;
            lock.lock();
            ++m_idle;
            job.done();
        }
    }
    // Before a fork: where every kept thread is idle, ends them (joined, so that TBB has let go of
    // each) and then TBB's workers. Calls made meanwhile wait for resume().
    void quiesce() {
        std::vector<std::thread> ending;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_jobs.empty() || m_idle != m_threads.size()) return;  // a call is running: fork as is
            m_quit = true;
            ending.swap(m_threads);
        }
        m_ready.notify_all();
        for (std::thread& t : ending) t.join();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_idle = 0;
        }
        tbb::task_scheduler_handle handle{tbb::attach{}};
        (void)tbb::finalize(handle, std::nothrow);  // false where TBB is still in use: fork as is
    }
    void resume() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_quit = false;
        }
        m_resumed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_ready, m_resumed;
    std::deque<Job> m_jobs;
    std::vector<std::thread> m_threads;
    std::size_t m_idle = 0;
    bool m_quit = false;
};

// Runs `algo` on a kept worker thread. The calling thread releases the GIL and wakes every few
// milliseconds to check for signals (KeyboardInterrupt) and the cancel event and to hand progress
// to `progress`, so Python code only ever runs on the calling thread, never on the host's workers.
void execute(BaseAlgorithm& algo, const py::object& progress, const py::object& cancel) {
    LatestProgress observer;
    const bool wantsProgress = !progress.is_none();
    algo.setProgressObserver(&observer);
    std::mutex mutex;
    std::condition_variable finishedCv;
    bool finished = false;
    std::exception_ptr failure;
    PendingError pending;
    bool cancelledByEvent = false;
    double reported = -1.0;
    {
        py::gil_scoped_release release;
        Workers::instance().submit(
            [&] {
                try {
                    algo.execute();
                } catch (...) {
                    failure = std::current_exception();
                }
            },
            [&] {
                std::lock_guard<std::mutex> lock(mutex);
                finished = true;
                finishedCv.notify_all();
            });
        bool stopping = false;
        for (;;) {
            bool done;
            {
                std::unique_lock<std::mutex> lock(mutex);
                done = finishedCv.wait_for(lock, std::chrono::milliseconds(10), [&] { return finished; });
            }
            if (!stopping) {
                py::gil_scoped_acquire acquire;
                if (PyErr_CheckSignals() != 0) {
                    pending.fetch();
                    stopping = true;
                } else if (!cancel.is_none()) {
                    PyObject* isSet = PyObject_CallMethod(cancel.ptr(), "is_set", nullptr);
                    if (!isSet) {
                        pending.fetch();
                        stopping = true;
                    } else {
                        stopping = cancelledByEvent = PyObject_IsTrue(isSet) == 1;
                        Py_DECREF(isSet);
                    }
                }
                const double fraction = observer.latest();
                if (!stopping && wantsProgress && fraction > reported && (fraction < 1.0 || done)) {
                    reported = fraction;
                    PyObject* r = PyObject_CallFunction(progress.ptr(), "d", fraction);
                    if (!r) {
                        pending.fetch();
                        stopping = true;
                    }
                    Py_XDECREF(r);
                }
            }
            if (done) break;
            // Repeated until the worker ends: execute() clears the request when it starts.
            if (stopping) algo.cancelExecution();
        }
    }
    algo.setProgressObserver(nullptr);
    if (pending.set()) pending.raise();
    if (failure) {
        try {
            std::rethrow_exception(failure);
        } catch (const ExceptionCancelation& e) {
            if (cancelledByEvent) raiseHostError(g_cancelled, e);
            throw;  // cancelled with no Python reason: should not happen, but do not hide it
        } catch (const RuleException& e) {
            raiseHostError(g_ruleError, e);
        } catch (const Exception& e) {
            raiseHostError(g_computationError, e);
        } catch (const std::bad_alloc&) {
            PyErr_NoMemory();
            throw py::error_already_set();
        }
    }
    if (cancelledByEvent) {
        // The event was set after the last check the algorithm made: the result is whole, but the
        // caller asked to stop, so report it the same way.
        PyErr_SetString(g_cancelled, "The operation was cancelled.");
        throw py::error_already_set();
    }
    if (wantsProgress && reported < 1.0) progress(1.0);
}

void applyCommon(BaseAlgorithm& algo, int threads, bool generic) {
    if (threads > 0) algo.setMaxThreads(threads);
    if (generic) algo.setUsePlugin(false);
}

// `make(identity)` builds the algorithm once the image has been checked; identity: the result is the input.
template <class Make>
py::object runOnImage(Make make, const py::object& imageObject, const py::object& outObject, int threads, bool generic,
                      const py::object& progress, const py::object& cancel) {
    VoxelTypes type;
    py::array input = checkedInput(imageObject, type);
    const Extents extents = extentsOf(input);
    bool identity = false;
    auto algo = make(identity);
    py::array out;
    if (outObject.is_none()) out = alignedEmpty(input.dtype(), std::vector<py::ssize_t>(input.shape(), input.shape() + input.ndim()));
    else {
        out = checkedOutput(outObject, py::reinterpret_borrow<py::array>(imageObject));
        // An output that overlaps the input without being it would be read after being written.
        if (out.data() != input.data()) {
            py::module_ np = py::module_::import("numpy");
            if (np.attr("may_share_memory")(out, input).cast<bool>()) input = np.attr("array")(input);
        }
    }
    const bool inPlace = out.data() == input.data();
    if (isEmpty(input) || identity) {
        // Zero passes leave the output untouched, so the copy is ours.
        if (!inPlace) std::memcpy(out.mutable_data(), input.data(), static_cast<std::size_t>(input.nbytes()));
        if (!progress.is_none()) progress(1.0);
        return std::move(out);
    }
    MemoryImage in(const_cast<void*>(input.data()), type, extents);
    MemoryImage result(out.mutable_data(), type, extents);
    algo->setImages(&in, inPlace ? &in : &result);
    applyCommon(*algo, threads, generic);
    execute(*algo, progress, cancel);
    return std::move(out);
}

py::object runMorphology(bool dilate, const py::object& imageObject, const std::string& shape, const py::dict& options,
                      const py::object& outObject, int threads, bool generic, const py::object& progress,
                      const py::object& cancel) {
    return runOnImage([&](bool& identity) { return makeMorphology(shape, options, dilate, identity); }, imageObject,
                      outObject, threads, generic, progress, cancel);
}

py::object runComposite(const std::string& operation, const py::object& imageObject, const std::string& shape,
                        const py::dict& options, const py::object& outObject, int threads, bool generic,
                        const py::object& progress, const py::object& cancel) {
    using C = morphology::CompositeMorphology;
    const std::pair<const char*, C::Operation> ops[] = {
        {"open", C::Open}, {"close", C::Close}, {"gradient", C::Gradient}, {"tophat", C::TopHat}, {"blackhat", C::BlackHat}};
    const auto* op = std::find_if(std::begin(ops), std::end(ops), [&](const auto& o) { return operation == o.first; });
    if (op == std::end(ops)) valueError("operation: unknown operation '" + operation + "'");
    // The composite copies for an identity shape itself.
    return runOnImage([&](bool&) { return makeComposite(op->second, shape, options); }, imageObject, outObject,
                      threads, generic, progress, cancel);
}

py::object runExtrema(const py::object& imageObject, int mode, int threads, bool generic, const py::object& progress,
                   const py::object& cancel) {
    VoxelTypes type;
    py::array input = checkedInput(imageObject, type);
    const Extents extents = extentsOf(input);
    if (isEmpty(input)) valueError("image: is empty, it has no extrema");
    MemoryImage in(const_cast<void*>(input.data()), type, extents);
    analysis::IntensityExtrema algo;
    analysis::IntensityExtremaMsr msr;
    algo.inputImage = &in;
    algo.rangeMode = mode;
    algo.result = &msr;
    applyCommon(algo, threads, generic);
    execute(algo, progress, cancel);
    // The exact values, not the double arrays: a double cannot hold every 64-bit integer.
    const auto& shape = msr.minimum().shape();
    const std::vector<py::ssize_t> dims{py::ssize_t(shape[2]), py::ssize_t(shape[1]), py::ssize_t(shape[0])};
    const bool real = type == Float || type == Double;
    const bool isUnsigned = type == UInt8 || type == UInt16 || type == UInt32 || type == UInt64;
    // (axis4, axis3, plans) in C order, i.e. the measurement's own order with plans fastest.
    auto exact = [&](const std::vector<analysis::ExactValue>& values) -> py::array {
        if (real) {
            py::array_t<double> a(dims);
            std::transform(values.begin(), values.end(), a.mutable_data(), [](const auto& v) { return v.toDouble(); });
            return std::move(a);
        }
        if (std::any_of(values.begin(), values.end(), [](const auto& v) { return !v.hasValue(); }))
            valueError("image: an element of the measurement is empty, it has no extrema");
        if (isUnsigned) {
            py::array_t<std::uint64_t> a(dims);
            std::transform(values.begin(), values.end(), a.mutable_data(), [](const auto& v) { return v.asUnsigned(); });
            return std::move(a);
        }
        py::array_t<std::int64_t> a(dims);
        // Binary images hold 0 and 1, which the measurement reports as unsigned.
        std::transform(values.begin(), values.end(), a.mutable_data(), [](const auto& v) {
            return v.kind() == analysis::ExactValue::Kind::Unsigned ? std::int64_t(v.asUnsigned()) : v.asSigned();
        });
        return std::move(a);
    };
    return py::make_tuple(exact(msr.exactMinimum()), exact(msr.exactMaximum()));
}

py::dict info() {
    Plugin::ensureStarted();
    const devices::Cpu& cpu = devices::Cpu::getDevice();
    py::dict d;
    py::dict processor;
    processor["brand"] = cpu.brand();
    py::list features;
    std::string f = cpu.features();
    for (std::size_t i = 0; i < f.size();) {
        std::size_t j = f.find(' ', i);
        if (j == std::string::npos) j = f.size();
        if (j > i) features.append(f.substr(i, j - i));
        i = j + 1;
    }
    processor["features"] = features;
    processor["avx_level"] = cpu.getAVXLevel();
    processor["detected_avx_level"] = cpu.detectedAVXLevel();
    d["processor"] = processor;
    py::dict plugin;
    plugin["enabled"] = Plugin::isEnabled();
    plugin["loaded"] = Plugin::isLoaded();
    plugin["path"] = Plugin::isLoaded() ? py::object(py::str(Plugin::loadedPath())) : py::object(py::none());
    plugin["error"] = Plugin::isLoaded() || Plugin::lastError().empty() ? py::object(py::none())
                                                                         : py::object(py::str(Plugin::lastError()));
    d["plugin"] = plugin;
    py::dict runners;
    for (const char* name : algorithmClassNames()) {
        py::list list;
        if (AlgoInfo* algoInfo = AlgoRegistry::getClassInfo(name))
            for (Runnable* r : algoInfo->getRunners()) list.append(runnerName(r));
        runners[name] = list;
    }
    d["runners"] = runners;
    d["version"] = "0.1.0";
    return d;
}

} // namespace

} // namespace python
} // namespace lyn

PYBIND11_MODULE(_lyn, m) {
    using namespace lyn;
    using namespace lyn::python;
    m.doc() = "Compiled core of the lyn package; use the functions of `lyn` itself.";

    g_error = PyErr_NewExceptionWithDoc("lyn.Error", "A failure inside lyn's computation.", PyExc_RuntimeError, nullptr);
    g_computationError = PyErr_NewExceptionWithDoc("lyn.ComputationError",
                                                   "The host raised an error while computing.", g_error, nullptr);
    g_ruleError = PyErr_NewExceptionWithDoc("lyn.RuleError", "The host refused the request's parameters.", g_error,
                                            nullptr);
    g_cancelled = PyErr_NewExceptionWithDoc("lyn.Cancelled", "The computation was cancelled through `cancel`.",
                                            g_error, nullptr);
    m.add_object("Error", py::handle(g_error));
    m.add_object("ComputationError", py::handle(g_computationError));
    m.add_object("RuleError", py::handle(g_ruleError));
    m.add_object("Cancelled", py::handle(g_cancelled));

    m.def("morphology", &runMorphology, py::arg("dilate"), py::arg("image"), py::arg("shape"), py::arg("options"),
          py::arg("out"), py::arg("threads"), py::arg("generic"), py::arg("progress"), py::arg("cancel"));
    m.def("composite", &runComposite, py::arg("operation"), py::arg("image"), py::arg("shape"), py::arg("options"),
          py::arg("out"), py::arg("threads"), py::arg("generic"), py::arg("progress"), py::arg("cancel"));
    m.def("extrema", &runExtrema, py::arg("image"), py::arg("mode"), py::arg("threads"), py::arg("generic"),
          py::arg("progress"), py::arg("cancel"));
    m.def("info", &info);
    m.def("empty", &alignedEmpty, py::arg("dtype"), py::arg("shape"));
    m.def("shapes", &shapeTable, "Every shape: name -> (dimensions, options taken, options required, summary).");
    m.def("reach", &shapeReach, py::arg("shape"), py::arg("options"),
          "How far the shape reaches from a voxel along (plans, rows, cols).");
}
