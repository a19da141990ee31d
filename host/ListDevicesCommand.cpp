#include "CommandLine.h"
#include "Commands.h"
#include "Devices.h"
#include "Privileges.h"
#include "Host.h"

#include <pcap/pcap.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <iostream>
#include <string>

namespace {

const char* const Help = R"(Usage: lyrcap list-devices

Lists the network devices that libpcap finds, with their state and IPv4 addresses. These
are the names that the live back-end's Configure accepts; 'lyrcap capture' takes those that
deliver Ethernet frames, and refuses those marked "not Ethernet" ("any" among them).
)";

std::string StateOf(const pcap_if_t& device)
{
    std::string state = device.flags & PCAP_IF_UP ? "up" : "down";
    if (device.flags & PCAP_IF_RUNNING)
        state += ", running";
    if (device.flags & PCAP_IF_LOOPBACK)
        state += ", loopback";
    if (!DeliversEthernetFrames(device.name))
        state += ", not Ethernet";
    return state;
}

std::string Ipv4AddressesOf(const pcap_if_t& device)
{
    std::string text;
    for (const pcap_addr_t* address = device.addresses; address; address = address->next) {
        if (!address->addr || address->addr->sa_family != AF_INET)
            continue;
        char buffer[INET_ADDRSTRLEN];
        const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(address->addr);
        if (inet_ntop(AF_INET, &ipv4->sin_addr, buffer, sizeof buffer))
            text += std::string(text.empty() ? "" : " ") + buffer;
    }
    return text;
}

} // namespace

int RunListDevices(const std::vector<std::string>& args)
{
    CommandLine line(args, {});
    if (!line.Ok())
        return UsageError("list-devices", line.Error());
    if (line.Has("--help")) {
        std::cout << Help;
        return ExitOk;
    }
    if (!line.Positional().empty())
        return UsageError("list-devices", "takes no arguments");
    if (!BeginRun({}, "list-devices"))
        return ExitFailure;
    pcap_if_t* devices = nullptr;
    char errbuf[PCAP_ERRBUF_SIZE];
    errbuf[0] = '\0';
    if (pcap_findalldevs(&devices, errbuf) == -1) {
        std::cerr << "lyrcap list-devices: " << errbuf << "\n";
        return ExitFailure;
    }
    for (const pcap_if_t* device = devices; device; device = device->next) {
        std::cout << device->name << "  (" << StateOf(*device) << ")";
        const std::string addresses = Ipv4AddressesOf(*device);
        if (!addresses.empty())
            std::cout << "  " << addresses;
        if (device->description)
            std::cout << "  " << device->description;
        std::cout << "\n";
    }
    pcap_freealldevs(devices);
    return StandardOutputWritten("list-devices") ? ExitOk : ExitFailure;
}
