#pragma once

#ifdef LYR_CONTRACT_ONLY
#error "host side only: a plug-in is loaded, it does not load"
#endif

#include <lyr/PluginFactory.h>

#include <memory>
#include <string>

namespace Lyr {

// Host side: the registrar entered under `name` in the factory of T, or null.
template <typename T> IPluginRegistrar<T>* FindRegistrar(const std::string& name)
{
    auto& registrars = PluginFactory<T>::Instance().registrars;
    auto entry = registrars.find(name);
    return entry == registrars.end() ? nullptr : entry->second;
}

// Host side: a new instance of the back-end `name`, or null when no plug-in registered it.
template <typename T> std::unique_ptr<T> CreatePlugin(const std::string& name)
{
    IPluginRegistrar<T>* registrar = FindRegistrar<T>(name);
    return std::unique_ptr<T>(registrar ? registrar->GetPlugin() : nullptr);
}

} // namespace Lyr
