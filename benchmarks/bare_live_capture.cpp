// The baseline of the live benchmark: pcap_loop on a device with exactly the live input's
// settings (snap length 9022, promiscuous, 1 ms read timeout, 2 MiB kernel buffer) and a handler
// that only counts. What it drops is owed to those settings, not to the plug-in's packet path.
//
//   bare_live_capture DEVICE        (runs until SIGINT or SIGTERM)

#include <pcap/pcap.h>

#include <csignal>
#include <cstdio>

namespace {

pcap_t* handle = nullptr;
unsigned long long packets = 0;

void Count(unsigned char*, const pcap_pkthdr*, const unsigned char*)
{
    ++packets;
}

void Break(int)
{
    pcap_breakloop(handle);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: bare_live_capture DEVICE\n");
        return 2;
    }
    char errbuf[PCAP_ERRBUF_SIZE];
    handle = pcap_create(argv[1], errbuf);
    if (!handle || pcap_set_snaplen(handle, 9022) || pcap_set_promisc(handle, 1) || pcap_set_timeout(handle, 1) ||
        pcap_set_buffer_size(handle, 2097152) || pcap_activate(handle)) {
        std::fprintf(stderr, "cannot open %s: %s\n", argv[1], handle ? pcap_geterr(handle) : errbuf);
        return 1;
    }
    std::signal(SIGINT, Break);
    std::signal(SIGTERM, Break);
    pcap_loop(handle, -1, Count, nullptr);
    pcap_stat stats{};
    pcap_stats(handle, &stats);
    std::fprintf(stderr, "%llu packets captured, %u dropped\n", packets, stats.ps_drop);
    pcap_close(handle);
    return 0;
}
