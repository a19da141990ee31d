#pragma once

#include <pcap/pcap.h>

#include <lyr/EthFrame.h>

#include <string>

// A filter expression in libpcap's language, applied by the host to the frames that a back-end
// hands over, so that a command keeps exactly the packets that tcpdump keeps with the same
// expression. It is compiled for the link type of the packets as they were captured, and run on
// their own bytes: the frame that the back-end makes of a bare IP packet has an Ethernet header
// in front, which the filter does not see.
// Whether `expression` compiles for Ethernet frames (an empty one does); false with libpcap's
// reason. For a usage error before anything is read.
bool CheckFilter(const std::string& expression, std::string& error);

class FrameFilter {
public:
    FrameFilter() = default;
    ~FrameFilter();
    FrameFilter(const FrameFilter&) = delete;
    FrameFilter& operator=(const FrameFilter&) = delete;

    // An empty expression keeps everything. False, with libpcap's reason, when it does not compile.
    bool Compile(const std::string& expression, int linkType, std::string& error);
    bool Active() const { return bActive; }
    bool Keeps(const Lyr::EthFrame& frame) const;

private:
    bpf_program program{};
    bool bActive = false;
    unsigned int skipped = 0; // bytes of the frame in front of the captured packet
};
