#pragma once

#include <cstdint>
#include <string>

namespace Kt {

// An IPv4 address, kept in host byte order.
class CIpAddress {
public:
    CIpAddress() = default;
    ~CIpAddress();

    // The address that stands for "none": 0.0.0.0.
    static const CIpAddress MinIpAddress;

    // Dotted decimal; the flag asks for a zero-padded form ("010.000.000.001") when true.
    std::string GetIp(bool padded) const;
    bool IsMulticast() const { return (address >> 28) == 0xE; }
    bool operator!=(const CIpAddress& other) const { return address != other.address; }

#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for the framework, hosts and tests
    explicit CIpAddress(std::uint32_t hostOrder) : address(hostOrder) {}
    // Parses dotted decimal ("192.0.2.1"); false, leaving `result` alone, on anything else.
    static bool Parse(const std::string& text, CIpAddress& result);
    std::uint32_t ToUint32() const { return address; }
    bool operator==(const CIpAddress& other) const { return address == other.address; }
#endif

private:
    std::uint32_t address = 0;
};

} // namespace Kt
