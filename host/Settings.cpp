#include "host/Settings.h"

#include <fstream>
#include <string>
#include <utility>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>

namespace lyn {

Settings* globalSettings() {
    static Settings settings;
    return &settings;
}

std::optional<String> Settings::find(const String& key) const {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_overrides.find(key);
        if (it != m_overrides.end()) return it->second;
    }
    if (const char* env = std::getenv(key.c_str())) return String(env);
    return std::nullopt;
}

bool Settings::getValueAsBool(const String& key, bool defaultValue) const {
    auto value = find(key);
    if (!value || value->empty()) return defaultValue;
    String v = *value;
    std::transform(v.begin(), v.end(), v.begin(), [](unsigned char c) { return std::tolower(c); });
    if (v == "1" || v == "true" || v == "yes" || v == "on") return true;
    if (v == "0" || v == "false" || v == "no" || v == "off") return false;
    raise<RuleException>("Setting " + key + " must be a boolean (1/0, true/false, yes/no, on/off), not \"" + *value +
                             "\"",
                         "host/Settings", __LINE__);
}

long long Settings::getValueAsInt(const String& key, long long defaultValue) const {
    auto value = find(key);
    if (!value || value->empty()) return defaultValue;
    char* end = nullptr;
    long long v = std::strtoll(value->c_str(), &end, 10);
    if (end == value->c_str() || *end != '\0')
        raise<RuleException>("Setting " + key + " must be an integer, not \"" + *value + "\"", "host/Settings",
                             __LINE__);
    return v;
}

std::uint64_t Settings::getValueAsBytes(const String& key, std::uint64_t defaultValue) const {
    auto value = find(key);
    if (!value || value->empty()) return defaultValue;
    return parseByteCount(*value, "Setting " + key);
}

String Settings::getValue(const String& key, const String& defaultValue) const {
    auto value = find(key);
    return value ? *value : defaultValue;
}

void Settings::setValue(const String& key, const String& value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_overrides[key] = value;
}

void Settings::unsetValue(const String& key) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_overrides.erase(key);
}

std::uint64_t parseByteCount(const String& text, const String& what) {
    // Decimal digits, an optional decimal fraction, then the unit: no sign, exponent, hex or octal.
    std::size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
    std::size_t number = digits;
    if (digits > 0 && number < text.size() && text[number] == '.') {
        std::size_t frac = number + 1;
        while (frac < text.size() && std::isdigit(static_cast<unsigned char>(text[frac]))) ++frac;
        if (frac > number + 1) number = frac;
    }
    if (digits == 0)
        raise<RuleException>(what + " must be a byte count such as 512M or 2G, not \"" + text + "\"",
                             "host/Settings", __LINE__);
    const char* end = text.c_str() + number;
    double v = std::strtod(text.substr(0, number).c_str(), nullptr);
    String suffix(end);
    std::transform(suffix.begin(), suffix.end(), suffix.begin(), [](unsigned char c) { return std::toupper(c); });
    if (!suffix.empty() && suffix.back() == 'B') suffix.pop_back();
    if (suffix.size() == 2 && suffix[1] == 'I') suffix.pop_back();  // KiB, MiB, ...
    double scale = 1;
    if (suffix == "K") scale = 1024.0;
    else if (suffix == "M") scale = 1024.0 * 1024;
    else if (suffix == "G") scale = 1024.0 * 1024 * 1024;
    else if (suffix == "T") scale = 1024.0 * 1024 * 1024 * 1024;
    else if (!suffix.empty())
        raise<RuleException>(what + " has an unknown unit in \"" + text + "\" (use K, M, G or T)", "host/Settings",
                             __LINE__);
    double bytes = v * scale;
    if (bytes >= 1.8e19)
        raise<RuleException>(what + " is too large: \"" + text + "\"", "host/Settings", __LINE__);
    return static_cast<std::uint64_t>(bytes);
}

std::uint64_t physicalMemoryBytes() {
    long pages = sysconf(_SC_PHYS_PAGES);
    long size = sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || size <= 0) return 0;
    return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(size);
}

namespace {
// The first number in a file (a "max" or a missing file gives nothing).
std::optional<std::uint64_t> numberIn(const char* path) {
    std::ifstream in(path);
    std::uint64_t v = 0;
    if (in >> v) return v;
    return std::nullopt;
}
} // namespace

std::uint64_t availableMemoryBytes() {
    std::uint64_t available = 0;
    {
        std::ifstream meminfo("/proc/meminfo");
        std::string key;
        std::uint64_t kib = 0;
        std::string unit;
        while (meminfo >> key >> kib) {
            std::getline(meminfo, unit);
            if (key == "MemAvailable:") {
                available = kib * 1024;
                break;
            }
        }
    }
    const std::pair<const char*, const char*> groups[] = {
        {"/sys/fs/cgroup/memory.max", "/sys/fs/cgroup/memory.current"},
        {"/sys/fs/cgroup/memory/memory.limit_in_bytes", "/sys/fs/cgroup/memory/memory.usage_in_bytes"}};
    for (const auto& [limitPath, usagePath] : groups) {
        const auto limit = numberIn(limitPath);
        const auto usage = numberIn(usagePath);
        if (!limit || !usage) continue;
        const std::uint64_t left = *limit > *usage ? *limit - *usage : 0;
        if (available == 0 || left < available) available = left;
        break;
    }
    return available;
}

} // namespace lyn
