#pragma once
// What the processor can do, found with CPUID and the operating system's register-state support.
#include <string>

namespace lyn {
namespace devices {

class Cpu {
public:
    static const Cpu& getDevice();

    // True when AVX instructions are usable (processor and operating system).
    bool hasAVX() const { return getAVXLevel() >= 1; }
    // 0: no AVX, 1: AVX, 2: AVX2, 3: AVX-512F. An override (tests, LYN_CPU_AVX_LEVEL) wins.
    int getAVXLevel() const;
    // What the hardware reports, ignoring any override.
    int detectedAVXLevel() const { return m_detectedLevel; }
    bool isLevelOverridden() const;
    const std::string& brand() const { return m_brand; }
    // Space-separated feature names found ("sse4.2 avx avx2 fma ...").
    const std::string& features() const { return m_features; }

    // Reports `level` instead of the detected one; a negative level restores detection.
    static void overrideAVXLevel(int level);

private:
    Cpu();
    int m_detectedLevel = 0;
    std::string m_brand;
    std::string m_features;
};

} // namespace devices
} // namespace lyn
