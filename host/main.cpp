#include "CommandLine.h"
#include "Commands.h"
#include "Host.h"

#include <algorithm>
#include <cstring>
#include <iostream>

const std::vector<Command>& AllCommands()
{
    static const std::vector<Command> commands = {
        {"info", "what capture files hold: link type, packets, bytes, duration", RunInfo},
        {"replay", "print the frames of a capture file as the back-end delivers them", RunReplay},
        {"send", "put the frames of a capture file on the wire of a device, keeping their times", RunSend},
        {"convert", "record the frames of a capture file into a new Ethernet capture", RunConvert},
        {"capture", "capture a device's traffic through the live back-end, optionally into a file", RunCapture},
        {"list-devices", "the network devices that libpcap finds", RunListDevices},
    };
    return commands;
}

namespace {

void PrintUsage(std::ostream& out)
{
    out << "Usage: lyrcap [--plugin PATH] COMMAND [ARGS]\n"
           "  or:  lyrcap --help | --version\n\n"
           "Drives the pcap back-ends of the plug-in as the host framework does: it loads the\n"
           "plug-in, calls InitializePlugin and takes its back-ends from the factories.\n\n"
           "Commands:\n";
    for (const Command& command : AllCommands())
        out << "  " << command.name << std::string(14 - std::strlen(command.name), ' ') << command.summary << "\n";
    out << "\nOptions:\n"
           "  --plugin PATH   the plug-in to load; default: $LYRCAP_PLUGIN, else the installed one,\n"
           "                  " LYRCAP_INSTALLED_PLUGIN "\n"
           "                  from this program's folder. Run with more privilege than its user\n"
           "                  (file capabilities, setuid), lyrcap reads no $LYRCAP_PLUGIN and loads\n"
           "                  only " LYRCAP_PLUGIN_FOLDER "/" LYRCAP_PLUGIN_NAME "\n"
           "                  or a file that only root can write, in folders that only root can write\n"
           "  --help          this text; 'lyrcap COMMAND --help' for a command\n"
           "  --version       the version of lyrcap\n\n"
           "Exit status: 0 done, 1 failed, 2 usage error, 3 the input was damaged (read up to the damage),\n"
           "130 interrupted (Ctrl-C, SIGTERM, SIGHUP).\n";
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> words(argv + 1, argv + argc);
    // Options before the command belong to the tool itself.
    while (!words.empty() && words[0].rfind("-", 0) == 0) {
        if (words[0] == "--help" || words[0] == "-h") {
            PrintUsage(std::cout);
            return ExitOk;
        }
        if (words[0] == "--version") {
            std::cout << "lyrcap " LYRCAP_VERSION "\n";
            return ExitOk;
        }
        if (words[0] == "--plugin" && words.size() > 1) {
            ChoosePlugin(words[1]);
            words.erase(words.begin(), words.begin() + 2);
        } else if (words[0].rfind("--plugin=", 0) == 0) {
            ChoosePlugin(words[0].substr(9));
            words.erase(words.begin());
        } else {
            std::cerr << "lyrcap: " << (words[0] == "--plugin" ? "option --plugin needs a value" : "unknown option " + words[0])
                      << "\n";
            PrintUsage(std::cerr);
            return ExitUsage;
        }
    }
    if (words.empty()) {
        PrintUsage(std::cerr);
        return ExitUsage;
    }
    for (const Command& command : AllCommands()) {
        if (words[0] != command.name)
            continue;
        InstallSignalHandlers();
        // Each command gives up privilege and loads the plug-in once it knows what it needs.
        return command.run(std::vector<std::string>(words.begin() + 1, words.end()));
    }
    std::cerr << "lyrcap: unknown command '" << words[0] << "'\n";
    PrintUsage(std::cerr);
    return ExitUsage;
}
