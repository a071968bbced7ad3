#include "tools/Signals.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "host/Exceptions.h"

namespace lyn {
namespace tool {

namespace {
std::atomic<BaseAlgorithm*> g_algo{nullptr};
std::atomic<int> g_signal{0};
// Cancellations in progress: the algorithm is not released while one may still touch it.
std::atomic<int> g_cancelling{0};

// Paths a second signal removes: fixed storage, since the handler may not allocate.
constexpr int kSlots = 8;
constexpr std::size_t kPathMax = 4096;
char g_paths[kSlots][kPathMax];
std::atomic<bool> g_used[kSlots];

extern "C" void onSignal(int sig) {
    if (g_signal.exchange(sig) != 0) {
        // Second signal: the run did not unwind in time (or is stuck in a system call).
        for (int i = 0; i < kSlots; ++i)
            if (g_used[i].load()) ::unlink(g_paths[i]);
        static const char msg[] = "lyn: cancelled\n";
        (void)!::write(STDERR_FILENO, msg, sizeof msg - 1);
        ::_exit(130);
    }
    // cancelExecution only stores an atomic flag: safe in a signal handler.
    g_cancelling.fetch_add(1);
    if (BaseAlgorithm* a = g_algo.load()) a->cancelExecution();
    g_cancelling.fetch_sub(1);
}
} // namespace

void installSignalHandlers() {
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
    // Every thread started from here on (the thread pool's included) inherits a mask that blocks
    // them, and one thread waits for them: a signal is then handled at once, whatever the other
    // threads do. A handler run on a pool thread asleep in a raw futex wait may otherwise wait as
    // long as that thread sleeps (ThreadSanitizer defers it so).
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, sig);
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return;  // the handlers above still serve
    std::thread([set] {
        for (;;) {
            int sig = 0;
            if (sigwait(&set, &sig) == 0) onSignal(sig);
        }
    }).detach();
}

bool signalled() { return g_signal.load() != 0; }

CancelOnSignal::CancelOnSignal(BaseAlgorithm& algo) {
    g_algo.store(&algo);
    // A signal that came before this point still cancels: execute() then stops at once.
    if (signalled()) algo.cancelExecution();
}

CancelOnSignal::~CancelOnSignal() {
    g_algo.store(nullptr);
    // The signal thread may have taken the pointer just before: the algorithm outlives this object.
    while (g_cancelling.load() != 0) std::this_thread::yield();
}

TemporaryPath::TemporaryPath(const std::string& path) : m_slot(-1) {
    if (path.size() >= kPathMax) return;
    for (int i = 0; i < kSlots; ++i) {
        if (g_used[i].load()) continue;
        std::memcpy(g_paths[i], path.c_str(), path.size() + 1);
        g_used[i].store(true);
        m_slot = i;
        return;
    }
}

TemporaryPath::~TemporaryPath() {
    if (m_slot >= 0) g_used[m_slot].store(false);
}

} // namespace tool

namespace io {

void checkInterrupt() {
    if (tool::signalled()) throw ExceptionCancelation();
}

void testPause(const char* phase) {
    static const char* const at = std::getenv("LYN_TEST_PAUSE_AT");
    static bool done = false;
    if (!at || done) return;
    const char* colon = std::strchr(at, ':');
    const std::size_t len = colon ? std::size_t(colon - at) : std::strlen(at);
    if (std::strlen(phase) != len || std::strncmp(at, phase, len) != 0) return;
    done = true;  // once per run
    const double seconds = colon ? std::atof(colon + 1) : 30.0;
    std::fprintf(stderr, "lyn: test pause at %s\n", phase);
    std::fflush(stderr);
    for (int i = 0; i < seconds * 100 && !tool::signalled(); ++i) ::usleep(10000);
    checkInterrupt();
}

} // namespace io
} // namespace lyn
