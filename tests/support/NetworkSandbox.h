#pragma once

#include <string>

// Live tests run in a network namespace of their own: the first use moves the process (its
// calling thread, and every thread it starts afterwards) into a fresh, unnamed namespace and
// makes a veth pair there, with IPv6 off and no addresses, so that only the test's own frames
// flow. The namespace and its devices vanish with the process, however the test ends.
class NetworkSandbox {
public:
    // The sandbox, set up on first use. Call it from the test's main thread.
    static NetworkSandbox& Get();

    bool Ok() const { return reason.empty(); }
    // Why the sandbox could not be made (not root, no veth support, ...), for GTEST_SKIP.
    const std::string& Reason() const { return reason; }

    // The two ends of the pair: what is sent on one arrives on the other.
    const char* First() const { return "lyrveth0"; }
    const char* Second() const { return "lyrveth1"; }

    // Removes the pair (a device that vanishes during capture) and makes it again.
    bool DeletePair();
    bool CreatePair();

private:
    NetworkSandbox();
    std::string reason;
};

// Runs a shell command inside the sandbox; true when it exits 0.
bool RunInSandbox(const std::string& command);
