#pragma once

#ifdef LYR_CONTRACT_ONLY
#error "host side only: a plug-in is loaded, it does not load"
#endif

#include <string>

namespace Lyr {

// Loads a plug-in and calls its InitializePlugin. A loaded plug-in stays mapped for the life of
// the process, since its registrars stand in the factories. On failure returns false and says
// why in `error`.
bool LoadPlugin(const std::string& path, std::string& error);

} // namespace Lyr
