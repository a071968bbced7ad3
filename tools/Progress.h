#pragma once
// Progress bar on standard error for the command-line tool.
#include <mutex>
#include <string>

#include "host/Algorithm.h"

namespace lyn {
namespace tool {

// Draws "label [#####     ]  42%" on a terminal; silent when disabled or stderr is not a terminal.
class ProgressBar : public ProgressObserver {
public:
    ProgressBar(std::string label, bool enabled);
    ~ProgressBar() override;
    void onProgress(double fraction) override;
    void finish();

private:
    std::string m_label;
    bool m_enabled;
    bool m_drawn = false;
    std::mutex m_mutex;
};

} // namespace tool
} // namespace lyn
