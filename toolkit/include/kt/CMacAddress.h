#pragma once

#include <string>

namespace Kt {

// A 48-bit MAC address. As a number, the first byte on the wire is the most significant of the
// 48 bits: 01:00:5e:00:00:01 is 0x01005e000001.
class CMacAddress {
public:
    CMacAddress() = default; // 00:00:00:00:00:00
    ~CMacAddress();

    operator unsigned long long() const { return address; }

#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for the framework, hosts and tests
    explicit CMacAddress(unsigned long long value) : address(value & 0xFFFFFFFFFFFFULL) {}
    std::string ToString() const; // "01:00:5e:00:00:01"
    static bool Parse(const std::string& text, CMacAddress& result);
#endif

private:
    unsigned long long address = 0;
};

} // namespace Kt
