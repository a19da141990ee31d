#include <lyr/IpPacket.h>

namespace Lyr {

namespace {

constexpr unsigned int MinIpv4HeaderSize = 20;

} // namespace

IpPacket::IpPacket(const Kt::CSlice<unsigned char>& packet) : bytes(packet) {}

IpPacket::~IpPacket() = default;

bool IpPacket::IsValid() const
{
    return bytes.data && bytes.size >= MinIpv4HeaderSize && (bytes.data[0] >> 4) == 4;
}

static Kt::CIpAddress AddressAt(const unsigned char* at)
{
    return Kt::CIpAddress((std::uint32_t(at[0]) << 24) | (std::uint32_t(at[1]) << 16) | (std::uint32_t(at[2]) << 8) |
                          std::uint32_t(at[3]));
}

Kt::CIpAddress IpPacket::GetSrcAddress() const
{
    return IsValid() ? AddressAt(bytes.data + 12) : Kt::CIpAddress::MinIpAddress;
}

Kt::CIpAddress IpPacket::GetDstAddress() const
{
    return IsValid() ? AddressAt(bytes.data + 16) : Kt::CIpAddress::MinIpAddress;
}

Kt::CMacAddress GetMulticastMacAddress(const Kt::CIpAddress& group)
{
    return Kt::CMacAddress(0x01005E000000ULL | (group.ToUint32() & 0x7FFFFFu));
}

} // namespace Lyr
