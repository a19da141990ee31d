#include "Host.h"

#include "Privileges.h"

#include <lyr/PluginLoader.h>
#include <lyr/PluginLookup.h>

#include <kt/CMacAddress.h>
#include <kt/MyPrintf.h>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace {

std::atomic<bool> bInterrupted{false};

void OnInterrupt(int signalNumber)
{
    if (bInterrupted.exchange(true)) {
        std::signal(signalNumber, SIG_DFL);
        std::raise(signalNumber);
    }
}

// The directory of the running executable, for finding what is installed beside it.
std::string ExecutableDirectory()
{
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return ".";
    std::string text(path, static_cast<std::size_t>(length));
    return text.substr(0, text.rfind('/'));
}

// The file at `relative` from this program's folder, as a plain path; "" when there is none.
// A file that is there but cannot be read is still the one meant: its error names it, where a
// fallback to the build tree would hide an installation that other users cannot use.
std::string Installed(const std::string& relative)
{
    char* resolved = realpath((ExecutableDirectory() + "/" + relative).c_str(), nullptr);
    if (!resolved)
        return "";
    std::string path = resolved;
    std::free(resolved);
    return path;
}

} // namespace

namespace {

std::string chosenPlugin; // --plugin, when given

// What a privileged run loads without --plugin: the plug-in of the installed folder, by the
// absolute path fixed at the build, since whoever starts a copy of the program elsewhere
// chooses what lies beside that copy.
std::string InstalledPlugin()
{
    return LYRCAP_PLUGIN_FOLDER "/" LYRCAP_PLUGIN_NAME;
}

std::string DefaultPluginPath()
{
    if (RunsPrivileged())
        return InstalledPlugin();
    if (const char* fromEnvironment = secure_getenv("LYRCAP_PLUGIN"))
        return fromEnvironment;
    // Installed: the framework's plug-in folder, reached from our own; the build tree runs
    // the plug-in of its own build.
    const std::string installed = Installed(LYRCAP_INSTALLED_PLUGIN);
    return installed.empty() ? LYRCAP_BUILD_PLUGIN : installed;
}

// The plug-in to load, or "" when a privileged run must not load the one asked for.
std::string PluginToLoad()
{
    if (!RunsPrivileged())
        return chosenPlugin.empty() ? DefaultPluginPath() : chosenPlugin;
    if (chosenPlugin.empty() && std::getenv("LYRCAP_PLUGIN"))
        std::cerr << "lyrcap: LYRCAP_PLUGIN is not read: lyrcap runs with more privilege than its user\n";
    if (chosenPlugin.empty())
        return InstalledPlugin();
    std::string why;
    if (IsTrustedPlugin(chosenPlugin, LYRCAP_PLUGIN_FOLDER, why))
        return chosenPlugin;
    std::cerr << "lyrcap: refusing to load the plug-in " << chosenPlugin << ": " << why
              << " (lyrcap runs with more privilege than its user, and then loads plug-ins only from "
              << LYRCAP_PLUGIN_FOLDER << " or from files and folders that only root can write)\n";
    return "";
}

} // namespace

void ChoosePlugin(const std::string& path)
{
    chosenPlugin = path;
}

std::string SamplePath(const std::string& name)
{
    if (RunsPrivileged())
        return LYRCAP_SAMPLES_FOLDER "/" + name;
    const std::string installed = Installed(LYRCAP_INSTALLED_SAMPLES "/" + name);
    return installed.empty() ? std::string(LYRCAP_SOURCE_SAMPLES) + "/" + name : installed;
}

bool BeginRun(const RunPrivileges& privileges, const std::string& command)
{
    if (!GiveUpPrivileges(privileges, command))
        return false;
    const std::string plugin = PluginToLoad();
    if (plugin.empty())
        return false;
    std::string error;
    if (Lyr::LoadPlugin(plugin, error))
        return true;
    std::cerr << "lyrcap: " << error << "\n";
    return false;
}

std::unique_ptr<Lyr::NetFile> CreateNetFile()
{
    auto file = Lyr::CreatePlugin<Lyr::NetFile>("pcap");
    if (!file)
        std::cerr << "lyrcap: the plug-in registered no capture-file back-end \"pcap\"\n";
    return file;
}

std::unique_ptr<Lyr::NetInputIf> CreateNetInputIf()
{
    auto input = Lyr::CreatePlugin<Lyr::NetInputIf>("pcap");
    if (!input)
        std::cerr << "lyrcap: the plug-in registered no live-input back-end \"pcap\"\n";
    return input;
}

void StartAtRealtimePriority(int priority, const std::string& what, const std::function<void()>& start)
{
    int policy = 0;
    sched_param previous{};
    pthread_getschedparam(pthread_self(), &policy, &previous);
    const int refused = priority > 0 ? SetRealtimePriority(priority) : 0;
    if (refused != 0)
        std::cerr << "lyrcap: realtime priority refused (" << std::strerror(refused) << "); " << what
                  << " at ordinary priority\n";
    start();
    if (priority > 0 && refused == 0)
        pthread_setschedparam(pthread_self(), policy, &previous);
}

int SetRealtimePriority(int priority)
{
    sched_param wanted{};
    wanted.sched_priority = priority;
    return pthread_setschedparam(pthread_self(), SCHED_FIFO, &wanted);
}

void InstallSignalHandlers()
{
    std::signal(SIGINT, OnInterrupt);
    std::signal(SIGTERM, OnInterrupt);
    // A closed terminal or a dropped ssh session ends the run as Ctrl-C does, unless the tool
    // was started to outlive it (nohup leaves SIGHUP ignored).
    if (std::signal(SIGHUP, OnInterrupt) == SIG_IGN)
        std::signal(SIGHUP, SIG_IGN);
    // A reader that goes away is told by the write that fails, to each command's own taste: the
    // status lines of a capture are given up, a replay's output ends the replay.
    std::signal(SIGPIPE, SIG_IGN);
}

bool StandardOutputWritten(const std::string& command)
{
    if (std::fflush(stdout) == 0 && !std::ferror(stdout))
        return true;
    std::fprintf(stderr, "lyrcap %s: writing standard output failed: %s\n", command.c_str(), std::strerror(errno));
    return false;
}

bool Interrupted()
{
    return bInterrupted.load();
}

namespace {
bool bQuiet = false;
}

void BeQuiet()
{
    bQuiet = true;
}

bool Quiet()
{
    return bQuiet;
}

LogWatch::LogWatch()
{
    Kt::SetLogSink([this](const std::string& text) {
        if (text.rfind("Failed to open port for transmitting", 0) == 0)
            ++portFailures;
        // One line per refused packet or lost frame (a device that merges packets refuses
        // thousands a second) would bury everything else; the summaries count them all.
        const bool bRefused = text.find("Invalid packet size") != std::string::npos;
        const bool bLost = text == "Failed to transmit data.";
        const std::uint64_t repeated = bRefused ? ++refused : bLost ? ++transmitFailures : 0;
        if (repeated > RepeatsShown)
            return;
        std::string line = text;
        if (line.empty() || line.back() != '\n')
            line += '\n';
        if (repeated == RepeatsShown)
            line += "(more lines like this are counted, not shown)\n";
        std::fputs(line.c_str(), stderr);
    });
}

LogWatch::~LogWatch()
{
    Kt::SetLogSink(nullptr);
}

std::string FormatMac(unsigned long long mac)
{
    return Kt::CMacAddress(mac).ToString();
}

std::string FormatBytes(double bytes)
{
    const char* units[] = {"B", "kB", "MB", "GB", "TB"};
    int unit = 0;
    while (bytes >= 1000 && unit < 4) {
        bytes /= 1000;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text;
}

int UsageError(const std::string& command, const std::string& message)
{
    std::cerr << "lyrcap " << command << ": " << message << "\n"
              << "Try 'lyrcap " << command << " --help'.\n";
    return ExitUsage;
}
