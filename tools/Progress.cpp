#include "tools/Progress.h"

#include <unistd.h>

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

} // namespace tool
} // namespace lyn
