// Runs as a host: its own copy of the factory templates, no link to the plug-in, none of its types.
#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>
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

struct Stand : Lyr::NetFile {
    bool ConfigureFile(const std::string&, NetFileMode_e, unsigned long long) override { return false; }
    unsigned long long GetParseProgress() const override { return 0; }
    void StopParsingFile() override {}
    unsigned long long GetDuration() const override { return 0; }
    unsigned long long GetPosition() const override { return 0; }
    void SeekBegin(unsigned long long) override {}
    bool Read(Lyr::EthFrame&) override { return false; }
    void Write(const Lyr::EthFrame&) override {}
};

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
    // A back-end that stood under "pcap" before the plug-in came is replaced by it.
    static Lyr::PluginRegistrar<Lyr::NetFile, Stand> earlier("pcap");
    auto& files = Lyr::PluginFactory<Lyr::NetFile>::Instance().registrars;
    const auto sizeBefore = files.size();
    Lyr::IPluginRegistrar<Lyr::NetFile>* const before = files.at("pcap");

    std::string error;
    ASSERT_TRUE(Lyr::LoadPlugin(LYR_PLUGIN_PATH, error)) << error;
    EXPECT_EQ(files.size(), sizeBefore);
    Lyr::IPluginRegistrar<Lyr::NetFile>* const registered = files.at("pcap");
    EXPECT_NE(registered, before);

    // A second initialisation changes nothing.
    ASSERT_TRUE(Lyr::LoadPlugin(LYR_PLUGIN_PATH, error)) << error;
    EXPECT_EQ(files.size(), sizeBefore);
    EXPECT_EQ(files.at("pcap"), registered);

    auto file = Lyr::CreatePlugin<Lyr::NetFile>("pcap");
    ASSERT_TRUE(file);
    ASSERT_TRUE(file->ConfigureFile(LYR_SAMPLE_PATH, Lyr::NetFile::NetFileMode_Read, 0));
    Lyr::BufferPool pool(1, 9036);
    Lyr::EthFrame frame(pool.GetBuffer(), 0);
    EXPECT_TRUE(file->Read(frame));
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
