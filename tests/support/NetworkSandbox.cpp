#include "NetworkSandbox.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
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
    if (!CreatePair())
        reason = "cannot make a veth pair (is the veth module available? is 'ip' installed?)";
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
