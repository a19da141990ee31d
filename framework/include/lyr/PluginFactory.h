#pragma once

#include <kt/CUncopyable.h>

#include <map>
#include <string>

#include <lyr/Export.h>

namespace Lyr {

template <typename T> class LYR_SHARED IPluginRegistrar : private Kt::CUncopyable {
public:
    virtual T* GetPlugin() = 0;

protected:
    IPluginRegistrar() = default;
    ~IPluginRegistrar() = default; // nobody destroys a registrar through its interface
};

// One per interface kind and process: back-end names to the registrars that make them.
template <typename T> class LYR_SHARED PluginFactory {
public:
    std::map<std::string, IPluginRegistrar<T>*> registrars; // not owning

    static PluginFactory& Instance()
    {
        static PluginFactory instance;
        return instance;
    }

    // The last registration under a name wins, silently.
    void RegisterPlugin(std::string name, IPluginRegistrar<T>* registrar) { registrars[name] = registrar; }
};

// Enters itself under a name when constructed; makes a new Impl for each GetPlugin().
template <typename Base, typename Impl> class LYR_SHARED PluginRegistrar : private IPluginRegistrar<Base> {
public:
    explicit PluginRegistrar(const std::string& name) { PluginFactory<Base>::Instance().RegisterPlugin(name, this); }
    ~PluginRegistrar() = default; // leaves its entry behind: nothing unregisters

    Base* GetPlugin() override { return new Impl(); }
};

} // namespace Lyr
