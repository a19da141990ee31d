#pragma once

#include <kt/CIpAddress.h>
#include <kt/CMacAddress.h>
#include <kt/CSlice.h>

namespace Lyr {

// A read-only look at an IPv4 packet in a slice. Never reads past the slice: fields that the
// bytes don't hold read as zero (the address as CIpAddress::MinIpAddress).
class IpPacket {
public:
    explicit IpPacket(const Kt::CSlice<unsigned char>& packet);
    ~IpPacket();

    Kt::CIpAddress GetDstAddress() const;
#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for hosts and tests
    bool IsValid() const; // version 4 and a whole 20-byte header
    Kt::CIpAddress GetSrcAddress() const;
#endif

private:
    Kt::CSlice<unsigned char> bytes;
};

// The Ethernet group address of an IPv4 multicast group: 01:00:5e and the low 23 bits.
Kt::CMacAddress GetMulticastMacAddress(const Kt::CIpAddress& group);

} // namespace Lyr
