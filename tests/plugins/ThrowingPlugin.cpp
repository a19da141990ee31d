#include <stdexcept>

// A plug-in whose initialisation fails.
extern "C" __attribute__((visibility("default"))) void InitializePlugin()
{
    throw std::runtime_error("no licence for this host");
}
