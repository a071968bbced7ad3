#include "host/PluginLoader.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "host/Algorithms.h"
#include "host/Settings.h"

namespace lyn {

namespace {
std::mutex g_mutex;
void* g_handle = nullptr;
std::string g_path;
std::string g_error;
std::atomic<bool> g_enabled{true};
std::once_flag g_started;

void unloadAtExit() { Plugin::unload(); }

std::size_t registeredRunners() {
    std::size_t n = 0;
    for (const char* name : algorithmClassNames())
        if (AlgoInfo* info = AlgoRegistry::getClassInfo(name)) n += info->getRunners().size();
    return n;
}
} // namespace

std::string Plugin::defaultPath() {
    std::string env = globalSettings()->getValue("LYN_PLUGIN", "");
    if (!env.empty()) return env;
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&Plugin::defaultPath), &info) && info.dli_fname) {
        std::string self = info.dli_fname;
        auto slash = self.rfind('/');
        std::string dir = slash == std::string::npos ? "." : self.substr(0, slash);
        return dir + "/liblyn_avx2.so";
    }
    return "liblyn_avx2.so";
}

bool Plugin::load(const std::string& path) {
    std::lock_guard<std::mutex> lock(g_mutex);
    std::string p = path.empty() ? defaultPath() : path;
    if (g_handle) {
        if (p == g_path) return true;
        g_error = "another plug-in is already loaded from " + g_path;
        return false;
    }
    const std::size_t before = registeredRunners();
    void* handle = dlopen(p.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* e = dlerror();
        g_error = e ? e : ("cannot load " + p);
        return false;
    }
    // Our plug-in registers its runners as it loads: a library that registers none is something else.
    if (registeredRunners() == before) {
        dlclose(handle);
        g_error = p + " registers no runner: it is not a lyn plug-in";
        return false;
    }
    g_handle = handle;
    g_path = p;
    g_error.clear();
    return true;
}

void Plugin::unload() {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_handle) return;
    dlclose(g_handle);
    g_handle = nullptr;
    g_path.clear();
}

bool Plugin::isLoaded() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_handle != nullptr;
}

std::string Plugin::loadedPath() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_path;
}

std::string Plugin::lastError() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_error;
}

void Plugin::setEnabled(bool enabled) { g_enabled.store(enabled); }

bool Plugin::isEnabled() { return g_enabled.load() && !globalSettings()->getValueAsBool("LYN_NO_PLUGIN", false); }

void Plugin::ensureStarted() {
    std::call_once(g_started, [] {
        if (!isEnabled()) return;
        if (load()) std::atexit(unloadAtExit);
    });
}

} // namespace lyn
