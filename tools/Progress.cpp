#include "tools/Progress.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>

namespace lyn {
namespace tool {

ProgressBar::ProgressBar(std::string label, bool enabled)
    : m_label(std::move(label)), m_enabled(enabled && isatty(STDERR_FILENO)) {}

ProgressBar::~ProgressBar() { finish(); }

void ProgressBar::onProgress(double fraction) {
    if (!m_enabled) return;
    std::unique_lock<std::mutex> lock(m_mutex, std::try_to_lock);
    if (!lock.owns_lock()) return;  // another thread is drawing; the next update will show
    const int width = 30;
    int filled = static_cast<int>(fraction * width + 0.5);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(width - filled), ' ');
    std::fprintf(stderr, "\r%s [%s] %3d%%", m_label.c_str(), bar.c_str(), static_cast<int>(fraction * 100 + 0.5));
    std::fflush(stderr);
    m_drawn = true;
}

void ProgressBar::finish() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_drawn) std::fputs("\n", stderr);
    m_drawn = false;
}

namespace {
std::atomic<BaseAlgorithm*> g_algo{nullptr};
std::atomic<int> g_signal{0};
struct sigaction g_oldInt, g_oldTerm;

extern "C" void onSignal(int sig) {
    g_signal.store(sig);
    // cancelExecution only stores an atomic flag: safe in a signal handler.
    if (BaseAlgorithm* a = g_algo.load()) a->cancelExecution();
}
} // namespace

CancelOnSignal::CancelOnSignal(BaseAlgorithm& algo) {
    g_algo.store(&algo);
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, &g_oldInt);
    sigaction(SIGTERM, &sa, &g_oldTerm);
}

CancelOnSignal::~CancelOnSignal() {
    sigaction(SIGINT, &g_oldInt, nullptr);
    sigaction(SIGTERM, &g_oldTerm, nullptr);
    g_algo.store(nullptr);
}

bool CancelOnSignal::signalled() { return g_signal.load() != 0; }
int CancelOnSignal::signalNumber() { return g_signal.load(); }

} // namespace tool
} // namespace lyn
