#include "Devices.h"

#include <pcap/pcap.h>

// net/if.h before the kernel's headers, which would define its structures a second time.
#include <net/if.h>
#include <net/if_arp.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

// The largest frame that the back-ends take, with its Ethernet and VLAN headers.
constexpr int MaxFrameSize = 9022;
constexpr int LargestHeaders = 18;

// An interface request on a socket of the run's own network namespace; false when the system
// knows no such interface or refuses.
bool AskInterface(const std::string& device, unsigned long request, ifreq& question)
{
    if (device.size() >= IFNAMSIZ)
        return false;
    const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0)
        return false;
    std::strncpy(question.ifr_name, device.c_str(), IFNAMSIZ - 1);
    const bool bAnswered = ioctl(probe, request, &question) == 0;
    close(probe);
    return bAnswered;
}

// An ethtool setting that is on; false where the driver does not tell.
bool EthtoolOn(const std::string& device, std::uint32_t command, std::uint32_t mask)
{
    ethtool_value value{};
    value.cmd = command;
    ifreq question{};
    question.ifr_data = reinterpret_cast<char*>(&value);
    return AskInterface(device, SIOCETHTOOL, question) && (value.data & mask) != 0;
}

} // namespace

bool MayOpenDevice(const std::string& device, const std::string& command, bool bFramesOnly)
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t* handle = pcap_create(device.c_str(), errbuf);
    if (!handle)
        return true;
    const int activated = pcap_activate(handle);
    const bool bDenied = activated == PCAP_ERROR_PERM_DENIED;
    const int linkType = activated >= 0 ? pcap_datalink(handle) : DLT_EN10MB;
    const std::string reason = pcap_geterr(handle);
    pcap_close(handle);
    if (bFramesOnly && linkType != DLT_EN10MB) {
        const char* name = pcap_datalink_val_to_name(linkType);
        const char* description = pcap_datalink_val_to_description(linkType);
        std::fprintf(stderr,
                     "lyrcap %s: %s delivers packets of link type %s (%s, %d), not Ethernet frames: recorded as "
                     "Ethernet frames they would pass for what they are not; capture from a device of its own "
                     "('lyrcap list-devices' marks the others)\n",
                     command.c_str(), device.c_str(), name ? name : "?", description ? description : "?", linkType);
        return false;
    }
    if (!bDenied)
        return true;
    char program[4096] = "lyrcap";
    const ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
    program[length > 0 ? length : 6] = '\0';
    std::fprintf(stderr,
                 "lyrcap %s: cannot open %s: %s\n"
                 "lyrcap %s: opening a device needs the capability CAP_NET_RAW: run lyrcap as root (with --user USER "
                 "to give root up for the run), or give lyrcap that capability: setcap cap_net_raw+ep %s (see "
                 "'man lyrcap')\n",
                 command.c_str(), device.c_str(), reason.c_str(), command.c_str(), program);
    return false;
}

bool DeliversEthernetFrames(const std::string& device)
{
    // libpcap captures Ethernet frames from Ethernet devices and from the loopback device,
    // which the kernel gives Ethernet headers.
    ifreq question{};
    return AskInterface(device, SIOCGIFHWADDR, question) &&
           (question.ifr_hwaddr.sa_family == ARPHRD_ETHER || question.ifr_hwaddr.sa_family == ARPHRD_LOOPBACK);
}

std::string WhyFramesAreLarge(const std::string& device)
{
    const std::string offloads = device + " merges the packets it receives into larger ones (receive offloads); "
                                          "to capture them as they came: ethtool -K " + device + " gro off lro off";
    const bool bMerges = EthtoolOn(device, ETHTOOL_GGRO, 1) || EthtoolOn(device, ETHTOOL_GFLAGS, ETH_FLAG_LRO);
    ifreq question{};
    if (!AskInterface(device, SIOCGIFMTU, question) || question.ifr_mtu + LargestHeaders <= MaxFrameSize)
        return offloads; // where the offloads do not show, they are still the likely cause: some drivers do not tell
    const std::string mtu = device + "'s MTU of " + std::to_string(question.ifr_mtu) +
                            " lets such frames in; to keep them out: ip link set " + device + " mtu " +
                            std::to_string(MaxFrameSize - LargestHeaders);
    return bMerges ? offloads + "; " + mtu : mtu;
}
