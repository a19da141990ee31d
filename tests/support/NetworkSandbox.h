#pragma once

#include <pcap/pcap.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// Live tests run in a network namespace of their own: the first use moves the process (its
// calling thread, and every thread it starts afterwards) into a fresh, unnamed namespace and
// makes a veth pair there, with IPv6 off and no addresses, so that only the test's own frames
// flow. The namespace and its devices vanish with the process, however the test ends.
class NetworkSandbox {
public:
    // The sandbox, set up on first use. Call it from the test's main thread.
    static NetworkSandbox& Get()
    {
        static NetworkSandbox sandbox;
        return sandbox;
    }

    bool Ok() const { return reason.empty(); }
    // Why the sandbox could not be made (not root, no veth support, ...), for GTEST_SKIP.
    const std::string& Reason() const { return reason; }

    // The two ends of the pair: what is sent on one arrives on the other.
    const char* First() const { return "lyrveth0"; }
    const char* Second() const { return "lyrveth1"; }

    // Removes the pair (a device that vanishes during capture) and makes it again.
    bool DeletePair() { return Run(std::string("ip link del ") + First()); }
    bool CreatePair()
    {
        const std::string a = First(), b = Second();
        // IPv6 off before the links come up, so that not even a router solicitation is sent.
        return Run("ip link add " + a + " type veth peer name " + b) && Run("sysctl -qw net.ipv6.conf." + a + ".disable_ipv6=1") &&
               Run("sysctl -qw net.ipv6.conf." + b + ".disable_ipv6=1") && Run("ip link set " + a + " up") &&
               Run("ip link set " + b + " up");
    }

private:
    NetworkSandbox()
    {
        if (geteuid() != 0) {
            reason = "live tests need root to make a network namespace";
            return;
        }
        if (unshare(CLONE_NEWNET) != 0) {
            reason = std::string("cannot make a network namespace: ") + std::strerror(errno);
            return;
        }
        Run("ip link set lo up");
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

    static bool Run(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

    std::string reason;
};
