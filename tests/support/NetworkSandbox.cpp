#include "NetworkSandbox.h"

#include <pcap/pcap.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

bool RunInSandbox(const std::string& command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

NetworkSandbox& NetworkSandbox::Get()
{
    static NetworkSandbox sandbox;
    return sandbox;
}

NetworkSandbox::NetworkSandbox()
{
    if (geteuid() != 0) {
        reason = "live tests need root to make a network namespace";
        return;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        reason = std::string("cannot make a network namespace: ") + std::strerror(errno);
        return;
    }
    RunInSandbox("ip link set lo up");
    if (!CreatePair()) {
        reason = "cannot make a veth pair (is the veth module available? is 'ip' installed?)";
        return;
    }
    // The namespace can exist and still not capture: under qemu-user the emulator passes
    // unshare and the host's `ip` through, but not the ioctls and packet-ring options that
    // libpcap needs to activate a handle.
    char error[PCAP_ERRBUF_SIZE] = "";
    if (pcap_t* probe = pcap_create(First(), error)) {
        if (pcap_activate(probe) < 0)
            std::snprintf(error, sizeof error, "%s", pcap_geterr(probe));
        pcap_close(probe);
    }
    if (error[0] != '\0') {
#ifdef LYR_TEST_EMULATOR
        reason = std::string("live capture does not work under the emulator (" LYR_TEST_EMULATOR "): ") + error;
#else
        reason = std::string("libpcap cannot capture on the veth pair: ") + error;
#endif
    }
}

bool NetworkSandbox::DeletePair()
{
    return RunInSandbox(std::string("ip link del ") + First());
}

bool NetworkSandbox::CreatePair()
{
    const std::string a = First(), b = Second();
    // IPv6 off before the links come up, so that not even a router solicitation is sent.
    return RunInSandbox("ip link add " + a + " type veth peer name " + b) &&
           RunInSandbox("sysctl -qw net.ipv6.conf." + a + ".disable_ipv6=1") &&
           RunInSandbox("sysctl -qw net.ipv6.conf." + b + ".disable_ipv6=1") &&
           RunInSandbox("ip link set " + a + " up") && RunInSandbox("ip link set " + b + " up");
}
