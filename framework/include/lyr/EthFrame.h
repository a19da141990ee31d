#pragma once

#include <lyr/Export.h>

#include <kt/CSlice.h>

namespace Lyr {

// An Ethernet frame: a slice of bytes that holds the complete wire frame (header, then payload)
// and a timestamp in microseconds. The bytes are the truth: the getters read them. A header set
// through the setters is written into the bytes at once, and is kept so that it survives a later
// SetData: it is written again into a slice on another buffer, or into one that was too short to
// take it when it was set. A slice of the same buffer keeps what its bytes hold, so a frame
// reused for captured frames after built ones carries the captured headers unchanged.
class LYR_SHARED EthFrame {
public:
#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for hosts and tests
    EthFrame();
#endif
    EthFrame(const Kt::CSlice<unsigned char>& data, unsigned long long timestamp);
    EthFrame(const EthFrame&) = default;
    EthFrame& operator=(const EthFrame&) = default;
    ~EthFrame();

    Kt::CSlice<unsigned char>& GetData() { return data; }
    Kt::CSlice<unsigned char> GetData() const { return data; }
    void SetData(Kt::CSlice<unsigned char>& newData);
#ifndef LYR_CONTRACT_ONLY
    // The room of the frame's buffer: the size of the slice the buffer came in with. Narrowing
    // or widening a slice of the same buffer (same owner and start) keeps it.
    unsigned int GetCapacity() const { return capacity; }
#endif

    void SetTimestamp(unsigned long long microseconds) { timestamp = microseconds; }
    unsigned long long GetTimestamp() const { return timestamp; }

    void SetDstAddress(unsigned long long mac);
    void SetSrcAddress(unsigned long long mac);
    void SetVlanPresent(bool present);
    void SetLengthType(unsigned short lengthType);

#ifndef LYR_CONTRACT_ONLY
    void SetVlanTag(unsigned short tag); // priority, DEI and VLAN id, when the VLAN flag is set

    // The header as the bytes hold it (as set, while the bytes are too short to hold it).
    unsigned long long GetDstAddress() const;
    unsigned long long GetSrcAddress() const;
    bool GetVlanPresent() const;
    unsigned short GetVlanTag() const;
    unsigned short GetLengthType() const;
#endif

    // 14 bytes, or 18 with a VLAN tag.
    unsigned int GetHeaderSize() const;
    // The bytes behind the header, sharing the frame's buffer; empty when the frame is shorter.
    Kt::CSlice<unsigned char> GetPayload();

private:
    void WriteHeader();

    Kt::CSlice<unsigned char> data;
    unsigned int capacity = 0;
    unsigned long long timestamp = 0;
    unsigned long long dstAddress = 0;
    unsigned long long srcAddress = 0;
    unsigned short lengthType = 0;
    unsigned short vlanTag = 0;
    bool bVlanPresent = false;
    bool bHeaderSet = false;     // a setter was used: the header fields above are to be kept
    bool bHeaderPending = false; // set while the bytes had no room for it
};

} // namespace Lyr
