#include <lyr/NetFile.h>
#include <lyr/NetInputIf.h>
#include <lyr/NetOutputIf.h>
#include <lyr/PluginFactory.h>

// The framework owns the factories of its three interface kinds: their singletons are defined
// (with unique binding) here, and hosts and plug-ins that compile the same templates bind to them.
namespace Lyr {

template class PluginFactory<NetFile>;
template class PluginFactory<NetInputIf>;
template class PluginFactory<NetOutputIf>;

} // namespace Lyr
