// The baseline of transmit throughput: the frames of a capture file put on a device by a bare
// pcap_inject loop, with the handle opened as the output back-end opens its port.
#include <pcap/pcap.h>

#include <chrono>
#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench-inject-loop FILE DEVICE\n");
        return 2;
    }
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t* file = pcap_open_offline(argv[1], errbuf);
    pcap_t* port = file ? pcap_open_live(argv[2], 8192, 0, -1, errbuf) : nullptr;
    if (!port) {
        std::fprintf(stderr, "bench-inject-loop: %s\n", errbuf);
        return 1;
    }
    unsigned long long frames = 0, bytes = 0, failures = 0;
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    const auto start = std::chrono::steady_clock::now();
    while (pcap_next_ex(file, &header, &data) == 1) {
        if (pcap_inject(port, data, header->caplen) < 1)
            ++failures;
        ++frames;
        bytes += header->caplen;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("frames: %llu, failures: %llu, %.6f s, %.0f frames/s, %.1f Mbit/s\n", frames, failures, seconds,
                frames / seconds, bytes * 8 / seconds / 1e6);
    pcap_close(port);
    pcap_close(file);
    return 0;
}
