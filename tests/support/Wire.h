#pragma once

#include <pcap/pcap.h>
#include <poll.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

// One end of a veth pair as libpcap sees it: what is sent here arrives on the other end, and
// what arrives here (matching `filter`) shows what the other end put on the wire. Capture runs
// from construction, so nothing sent afterwards is missed.
class Wire {
public:
    struct Arrival {
        std::vector<std::uint8_t> bytes;
        std::uint64_t microseconds; // the kernel's receive time stamp
    };

    Wire(const char* device, const char* filter = "")
    {
        char errbuf[PCAP_ERRBUF_SIZE] = "";
        handle = pcap_create(device, errbuf);
        bpf_program program{};
        if (!handle || pcap_set_snaplen(handle, 65535) != 0 || pcap_set_promisc(handle, 1) != 0 ||
            pcap_set_immediate_mode(handle, 1) != 0 || pcap_set_timeout(handle, 10) != 0 ||
            pcap_set_buffer_size(handle, 32 << 20) != 0 || pcap_activate(handle) < 0 ||
            pcap_compile(handle, &program, filter, 1, PCAP_NETMASK_UNKNOWN) != 0) {
            error = handle ? pcap_geterr(handle) : errbuf;
            return;
        }
        // Only what comes in: a capture also sees what this end itself sends. Non-blocking, with
        // our own poll, since a blocking read may wait for a frame past its timeout.
        if (pcap_setfilter(handle, &program) != 0 || pcap_setdirection(handle, PCAP_D_IN) != 0 ||
            pcap_setnonblock(handle, 1, errbuf) != 0)
            error = pcap_geterr(handle);
        pcap_freecode(&program);
    }
    ~Wire()
    {
        if (handle)
            pcap_close(handle);
    }
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    bool Ok() const { return error.empty(); }
    const std::string& Error() const { return error; }

    bool Send(const std::vector<std::uint8_t>& frame)
    {
        return Ok() && pcap_inject(handle, frame.data(), frame.size()) == static_cast<int>(frame.size());
    }

    // What arrives until `count` frames are in or `limit` has passed. The default limit is
    // generous: it only matters when frames are missing.
    std::vector<Arrival> Take(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(30))
    {
        std::vector<Arrival> arrivals;
        const auto end = std::chrono::steady_clock::now() + limit;
        while (Ok() && arrivals.size() < count && std::chrono::steady_clock::now() < end) {
            pcap_pkthdr* header = nullptr;
            const u_char* data = nullptr;
            if (pcap_next_ex(handle, &header, &data) != 1) {
                pollfd ready{pcap_get_selectable_fd(handle), POLLIN, 0};
                poll(&ready, 1, 10);
                continue;
            }
            arrivals.push_back({std::vector<std::uint8_t>(data, data + header->caplen),
                                std::uint64_t(header->ts.tv_sec) * 1000000 + std::uint64_t(header->ts.tv_usec)});
        }
        return arrivals;
    }

    // The `count` frames expected, and any more that a brief look afterwards finds: a slow
    // machine can make that look miss a frame that should not have come, never invent one.
    std::vector<Arrival> TakeExpected(std::size_t count)
    {
        std::vector<Arrival> arrivals = Take(count), more = Take(1, std::chrono::milliseconds(200));
        arrivals.insert(arrivals.end(), more.begin(), more.end());
        return arrivals;
    }

private:
    pcap_t* handle = nullptr;
    std::string error;
};
