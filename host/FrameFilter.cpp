#include "FrameFilter.h"

bool CheckFilter(const std::string& expression, std::string& error)
{
    FrameFilter filter;
    return filter.Compile(expression, DLT_EN10MB, error);
}

FrameFilter::~FrameFilter()
{
    if (bActive)
        pcap_freecode(&program);
}

bool FrameFilter::Compile(const std::string& expression, int linkType, std::string& error)
{
    if (expression.empty())
        return true;
    // A dead handle with the snap length that libpcap gives files of most link types.
    pcap_t* handle = pcap_open_dead(linkType, 262144);
    if (!handle) {
        error = "libpcap cannot compile filters";
        return false;
    }
    if (pcap_compile(handle, &program, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
        error = pcap_geterr(handle);
        pcap_close(handle);
        return false;
    }
    pcap_close(handle);
    bActive = true;
    skipped = linkType == pcap_datalink_name_to_val("RAW") ? 14 : 0;
    return true;
}

bool FrameFilter::Keeps(const Lyr::EthFrame& frame) const
{
    if (!bActive)
        return true;
    const Kt::CSlice<unsigned char>& bytes = const_cast<Lyr::EthFrame&>(frame).GetData();
    if (bytes.size < skipped)
        return false;
    pcap_pkthdr header{};
    header.caplen = header.len = bytes.size - skipped;
    return pcap_offline_filter(&program, &header, bytes.data + skipped) != 0;
}
