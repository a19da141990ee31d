#include <lyr/PluginLoader.h>

#include <dlfcn.h>

#include <exception>

namespace Lyr {

bool LoadPlugin(const std::string& path, std::string& error)
{
    // RTLD_LOCAL: the plug-in's other symbols stay private; the factory singletons are shared
    // all the same through their unique binding.
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) {
        const char* reason = dlerror();
        error = "cannot load plug-in " + path + ": " + (reason ? reason : "unknown error");
        return false;
    }
    void* entry = dlsym(module, "InitializePlugin");
    if (!entry) {
        error = "plug-in " + path + " has no InitializePlugin";
        return false; // stays mapped: harmless, and unloading could run foreign destructors
    }
    try {
        reinterpret_cast<void (*)()>(entry)();
    } catch (const std::exception& e) {
        error = "InitializePlugin of " + path + " failed: " + e.what();
        return false;
    } catch (...) {
        error = "InitializePlugin of " + path + " failed: unknown exception";
        return false;
    }
    return true;
}

} // namespace Lyr
