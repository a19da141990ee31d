// Runs as a host: its own copy of the factory templates, no link to the plug-in, none of its types.
#include <lyr/NetFile.h>
#include <lyr/PluginLoader.h>
#include <lyr/PluginLookup.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <sstream>

namespace {

// The binding and visibility of `symbol` in the dynamic symbol table of `path`; "" when absent.
std::string BindingOf(const std::string& path, const std::string& symbol)
{
    const std::string command = "readelf -W --dyn-syms '" + path + "' 2>/dev/null | awk '$8 == \"" + symbol + "\"{print $5, $6}'";
    char line[256] = "";
    if (FILE* table = popen(command.c_str(), "r")) {
        if (!std::fgets(line, sizeof line, table))
            line[0] = '\0';
        pclose(table);
    }
    return std::string(line, std::strcspn(line, "\n"));
}

} // namespace

TEST(PluginAbi, FactorySingletonsAreUniqueAndTheEntryPointPlain)
{
    ASSERT_EQ(BindingOf(LYR_PLUGIN_PATH, "InitializePlugin"), "GLOBAL DEFAULT");
    std::istringstream kinds(LYR_PLUGIN_KINDS);
    for (std::string kind; kinds >> kind;) {
        const std::string mangled = "ZN3Lyr13PluginFactoryINS_" + std::to_string(kind.size()) + kind + "EE8InstanceEvE8instance";
        EXPECT_EQ(BindingOf(LYR_PLUGIN_PATH, "_Z" + mangled), "UNIQUE DEFAULT") << kind;
        EXPECT_EQ(BindingOf(LYR_PLUGIN_PATH, "_ZGV" + mangled), "UNIQUE DEFAULT") << kind << " guard";
    }
}

TEST(PluginAbi, HostFindsThePlugInThroughItsOwnCopyOfTheFactory)
{
    auto& files = Lyr::PluginFactory<Lyr::NetFile>::Instance().registrars;
    EXPECT_TRUE(files.empty());
    std::string error;
    ASSERT_TRUE(Lyr::LoadPlugin(LYR_PLUGIN_PATH, error)) << error;
    ASSERT_EQ(files.size(), 1u);
    Lyr::IPluginRegistrar<Lyr::NetFile>* const registered = files.at("pcap");
    EXPECT_TRUE(Lyr::CreatePlugin<Lyr::NetFile>("pcap")); // lyrcap, a host as well, reads files through it

    // A second initialisation changes nothing.
    ASSERT_TRUE(Lyr::LoadPlugin(LYR_PLUGIN_PATH, error)) << error;
    EXPECT_EQ(files.size(), 1u);
    EXPECT_EQ(files.at("pcap"), registered);
}

TEST(PluginAbi, BrokenPlugInsAreRefusedWithTheReason)
{
    std::string error;
    EXPECT_FALSE(Lyr::LoadPlugin("/nonexistent/libnothing.so", error));
    EXPECT_EQ(error.rfind("cannot load plug-in /nonexistent/libnothing.so: ", 0), 0u) << error;
    EXPECT_FALSE(Lyr::LoadPlugin(LYR_NO_ENTRY_PLUGIN, error));
    EXPECT_EQ(error, std::string("plug-in ") + LYR_NO_ENTRY_PLUGIN + " has no InitializePlugin");
    EXPECT_FALSE(Lyr::LoadPlugin(LYR_THROWING_PLUGIN, error));
    EXPECT_EQ(error, std::string("InitializePlugin of ") + LYR_THROWING_PLUGIN + " failed: no licence for this host");
}
