#pragma once
// Loading and unloading of the optimisation plug-in. Loading runs the plug-in's static
// initialisers, which register its runners; unloading removes them.
//
// The host loads the plug-in once, at the first execute() (or at Plugin::ensureStarted()), from
// LYN_PLUGIN if set, else from liblyn_avx2.so beside the host library, and unloads it at exit.
// LYN_NO_PLUGIN=1 (or Plugin::setEnabled(false)) makes the host use its generic code only.
#include <string>

namespace lyn {

class Plugin {
public:
    // Loads from `path`, or from defaultPath() when empty. False (see lastError) when it could not.
    static bool load(const std::string& path = "");
    // Unloads if loaded; runners are removed by the plug-in's static destructors.
    static void unload();
    static bool isLoaded();
    static std::string loadedPath();
    static std::string lastError();
    // LYN_PLUGIN if set, else the plug-in beside the host library.
    static std::string defaultPath();

    // Whether execute() consults registered runners at all (false: always the generic code).
    static void setEnabled(bool enabled);
    static bool isEnabled();

    // Loads once per process unless disabled (LYN_NO_PLUGIN) or already tried; unload is
    // scheduled for exit. Called by execute(); tools call it at start.
    static void ensureStarted();
};

} // namespace lyn
