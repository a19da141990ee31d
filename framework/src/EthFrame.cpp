#include <lyr/EthFrame.h>

namespace Lyr {

namespace {

constexpr unsigned int EthHeaderSize = 14;
constexpr unsigned int VlanTagSize = 4;
constexpr unsigned short VlanTpid = 0x8100;

void PutMac(unsigned char* to, unsigned long long mac)
{
    for (int i = 0; i < 6; ++i)
        to[i] = static_cast<unsigned char>(mac >> (8 * (5 - i)));
}

unsigned long long GetMac(const unsigned char* from)
{
    unsigned long long mac = 0;
    for (int i = 0; i < 6; ++i)
        mac = (mac << 8) | from[i];
    return mac;
}

void PutShort(unsigned char* to, unsigned short value)
{
    to[0] = static_cast<unsigned char>(value >> 8);
    to[1] = static_cast<unsigned char>(value);
}

unsigned short GetShort(const unsigned char* from)
{
    return static_cast<unsigned short>((from[0] << 8) | from[1]);
}

bool HasVlanTag(const Kt::CSlice<unsigned char>& bytes)
{
    return bytes.data && bytes.size >= EthHeaderSize + VlanTagSize && GetShort(bytes.data + 12) == VlanTpid;
}

} // namespace

EthFrame::EthFrame() = default;

EthFrame::EthFrame(const Kt::CSlice<unsigned char>& bytes, unsigned long long microseconds)
    : data(bytes), capacity(bytes.size), timestamp(microseconds)
{
}

EthFrame::~EthFrame() = default;

void EthFrame::SetData(Kt::CSlice<unsigned char>& newData)
{
    const bool bOtherBuffer = newData.owner != data.owner || newData.data != data.data;
    if (bOtherBuffer)
        capacity = newData.size;
    data = newData;
    if (bHeaderSet && (bOtherBuffer || bHeaderPending))
        WriteHeader();
}

void EthFrame::SetDstAddress(unsigned long long mac)
{
    dstAddress = mac;
    bHeaderSet = true;
    WriteHeader();
}

void EthFrame::SetSrcAddress(unsigned long long mac)
{
    srcAddress = mac;
    bHeaderSet = true;
    WriteHeader();
}

void EthFrame::SetVlanPresent(bool present)
{
    bVlanPresent = present;
    bHeaderSet = true;
    WriteHeader();
}

void EthFrame::SetVlanTag(unsigned short tag)
{
    vlanTag = tag;
    bHeaderSet = true;
    WriteHeader();
}

void EthFrame::SetLengthType(unsigned short type)
{
    lengthType = type;
    bHeaderSet = true;
    WriteHeader();
}

void EthFrame::WriteHeader()
{
    // A slice too short for the header gets it at its next SetData.
    bHeaderPending = !data.data || data.size < (bVlanPresent ? EthHeaderSize + VlanTagSize : EthHeaderSize);
    if (bHeaderPending)
        return;
    unsigned char* at = data.data;
    PutMac(at, dstAddress);
    PutMac(at + 6, srcAddress);
    at += 12;
    if (bVlanPresent) {
        PutShort(at, VlanTpid);
        PutShort(at + 2, vlanTag);
        at += VlanTagSize;
    }
    PutShort(at, lengthType);
}

unsigned long long EthFrame::GetDstAddress() const
{
    if (!data.data || data.size < 6)
        return dstAddress;
    return GetMac(data.data);
}

unsigned long long EthFrame::GetSrcAddress() const
{
    if (!data.data || data.size < 12)
        return srcAddress;
    return GetMac(data.data + 6);
}

bool EthFrame::GetVlanPresent() const
{
    if (!data.data || data.size < EthHeaderSize)
        return bVlanPresent;
    return HasVlanTag(data);
}

unsigned short EthFrame::GetVlanTag() const
{
    if (!data.data || data.size < EthHeaderSize)
        return vlanTag;
    return HasVlanTag(data) ? GetShort(data.data + 14) : 0;
}

unsigned short EthFrame::GetLengthType() const
{
    if (!data.data || data.size < EthHeaderSize)
        return lengthType;
    return HasVlanTag(data) ? GetShort(data.data + 16) : GetShort(data.data + 12);
}

unsigned int EthFrame::GetHeaderSize() const
{
    return GetVlanPresent() ? EthHeaderSize + VlanTagSize : EthHeaderSize;
}

Kt::CSlice<unsigned char> EthFrame::GetPayload()
{
    unsigned int header = GetHeaderSize();
    if (!data.data || data.size < header)
        return Kt::CSlice<unsigned char>(data.owner, data.data ? data.data + header : nullptr, 0);
    return Kt::CSlice<unsigned char>(data.owner, data.data + header, data.size - header);
}

} // namespace Lyr
