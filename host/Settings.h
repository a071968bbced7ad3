#pragma once
// Process-wide settings, read from environment variables and overridable in code.
// Keys (see docs/settings.md): LYN_RECURSIVITY_TMP_DISK_IMAGE, LYN_MEMORY_BUDGET, LYN_PLUGIN,
// LYN_NO_PLUGIN, LYN_NUM_THREADS, LYN_GRAIN_SIZES, LYN_CPU_AVX_LEVEL, LYN_STREAMING_STORES_MIN_BYTES,
// LYN_TEMPORARY_RETAIN_BYTES.
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include "host/Exceptions.h"

namespace lyn {

class Settings {
public:
    // The value set in code, else the environment variable of that name, else nothing.
    std::optional<String> find(const String& key) const;

    // Accepts 1/0, true/false, yes/no, on/off (any case); anything else is a RuleException naming the key.
    bool getValueAsBool(const String& key, bool defaultValue) const;
    long long getValueAsInt(const String& key, long long defaultValue) const;
    // A byte count with an optional K, M, G or T suffix (powers of 1024).
    std::uint64_t getValueAsBytes(const String& key, std::uint64_t defaultValue) const;
    String getValue(const String& key, const String& defaultValue) const;

    void setValue(const String& key, const String& value);
    void unsetValue(const String& key);

private:
    mutable std::mutex m_mutex;
    std::map<String, String> m_overrides;
};

Settings* globalSettings();

// Parses "123", "64K", "1.5G": used by the settings and the command line.
std::uint64_t parseByteCount(const String& text, const String& what);

// Physical memory of this machine in bytes (0 when unknown).
std::uint64_t physicalMemoryBytes();
// Memory this process could still take: the kernel's MemAvailable, lowered to what the control
// group's limit leaves (cgroup v2 or v1). 0 when unknown.
std::uint64_t availableMemoryBytes();

} // namespace lyn
