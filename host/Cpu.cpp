#include "host/Cpu.h"

#include <atomic>
#include <cpuid.h>
#include <cstdint>
#include <cstring>

#include "host/Settings.h"

namespace lyn {
namespace devices {

namespace {
std::atomic<int> g_override{-2};  // -2: not yet read from the settings, -1: none

std::uint64_t readXcr0() {
    std::uint32_t eax = 0, edx = 0;
    // xgetbv with ecx = 0; encoded as bytes so no -mxsave is needed.
    __asm__ volatile(".byte 0x0f, 0x01, 0xd0" : "=a"(eax), "=d"(edx) : "c"(0));
    return (static_cast<std::uint64_t>(edx) << 32) | eax;
}
} // namespace

Cpu::Cpu() {
    unsigned a = 0, b = 0, c = 0, d = 0;
    unsigned maxLeaf = __get_cpuid_max(0, nullptr);
    bool avx = false, avx2 = false, avx512 = false;
    auto add = [this](bool has, const char* name) {
        if (has) m_features += (m_features.empty() ? "" : " ") + std::string(name);
    };
    if (maxLeaf >= 1 && __get_cpuid(1, &a, &b, &c, &d)) {
        bool osxsave = c & (1u << 27);
        std::uint64_t xcr0 = osxsave ? readXcr0() : 0;
        bool ymmState = (xcr0 & 0x6) == 0x6;                 // SSE and AVX state saved by the OS
        bool zmmState = ymmState && (xcr0 & 0xe0) == 0xe0;   // opmask and ZMM state
        add(d & (1u << 26), "sse2");
        add(c & (1u << 19), "sse4.1");
        add(c & (1u << 20), "sse4.2");
        avx = (c & (1u << 28)) && ymmState;
        add(avx, "avx");
        add((c & (1u << 12)) && ymmState, "fma");
        if (maxLeaf >= 7) {
            __cpuid_count(7, 0, a, b, c, d);
            avx2 = avx && (b & (1u << 5));
            avx512 = avx2 && zmmState && (b & (1u << 16));
            add(avx2, "avx2");
            add(avx512, "avx512f");
        }
    }
    m_detectedLevel = avx512 ? 3 : avx2 ? 2 : avx ? 1 : 0;

    unsigned ext = __get_cpuid_max(0x80000000, nullptr);
    if (ext >= 0x80000004) {
        char brand[49] = {};
        for (unsigned i = 0; i < 3; ++i) {
            __get_cpuid(0x80000002 + i, &a, &b, &c, &d);
            std::memcpy(brand + 16 * i, &a, 4);
            std::memcpy(brand + 16 * i + 4, &b, 4);
            std::memcpy(brand + 16 * i + 8, &c, 4);
            std::memcpy(brand + 16 * i + 12, &d, 4);
        }
        m_brand = brand;
        auto first = m_brand.find_first_not_of(' ');
        m_brand = first == std::string::npos ? std::string() : m_brand.substr(first);
    }
}

const Cpu& Cpu::getDevice() {
    static const Cpu cpu;
    return cpu;
}

int Cpu::getAVXLevel() const {
    int o = g_override.load(std::memory_order_relaxed);
    if (o == -2) {
        long long v = globalSettings()->getValueAsInt("LYN_CPU_AVX_LEVEL", -1);
        o = v < 0 ? -1 : static_cast<int>(v);
        int expected = -2;
        g_override.compare_exchange_strong(expected, o);
        o = g_override.load();
    }
    return o >= 0 ? o : m_detectedLevel;
}

bool Cpu::isLevelOverridden() const { return getAVXLevel() != m_detectedLevel || g_override.load() >= 0; }

void Cpu::overrideAVXLevel(int level) { g_override.store(level < 0 ? -1 : level); }

} // namespace devices
} // namespace lyn
