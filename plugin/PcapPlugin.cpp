#include "PcapNetFile.h"
#include "PcapNetOutputIf.h"
#include "PcapNetInputIf.h"

#include <lyr/PluginFactory.h>

// The one entry point the host looks up by name. Everything it registers is a function-local
// static, so loading the library registers nothing; a repeated call finds them standing.
extern "C" LYR_SHARED void InitializePlugin()
{
    static bool bInitialized = false;
    if (bInitialized)
        return;
    static Lyr::PluginRegistrar<Lyr::NetFile, PcapNetFile> pcapNetFile("pcap");
    static Lyr::PluginRegistrar<Lyr::NetOutputIf, PcapNetOutputIf> pcapNetOutputIf("pcap");
    static Lyr::PluginRegistrar<Lyr::NetInputIf, PcapNetInputIf> pcapNetInputIf("pcap");
    bInitialized = true;
}
