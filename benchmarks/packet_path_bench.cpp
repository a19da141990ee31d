// The live input's packet path against a bare copy: pcap_loop over an in-memory capture file,
// once calling PcapNetInputIf::PcapLoopHandler (pool buffer, frame, counters, one subscriber
// that keeps nothing) and once a handler that only copies each packet into one fixed buffer.
// A third loop does what the input's contract prescribes for every packet and nothing more: the
// frame on a slice, the slice copied and narrowed and set back, the copy, the stamp and the two
// counter additions, on one fixed buffer without pool or subscriber. It shows how near to the
// bare copy the prescribed reference counting lets any implementation come.
// Prints ns per packet, the ratios of the rates, and the heap allocations made during the loops.
//
//   packet_path_bench [--packets N] [--rounds R]

#include "PcapCommon.h"
#include "PcapNetInputIf.h"

#include <CaptureFileWriter.h>

#include <lyr/EthFrame.h>

#include <pcap/pcap.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Every malloc, calloc and realloc of the process is counted while `bCounting` is set, whoever
// calls it (operator new included, since it allocates through malloc).
extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);

namespace {
std::atomic<bool> bCounting{false};
std::atomic<unsigned long long> allocations{0};
void Count()
{
    if (bCounting.load(std::memory_order_relaxed))
        allocations.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

extern "C" void* malloc(size_t size)
{
    Count();
    return __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size)
{
    Count();
    return __libc_calloc(count, size);
}
extern "C" void* realloc(void* pointer, size_t size)
{
    Count();
    return __libc_realloc(pointer, size);
}

namespace {

using Clock = std::chrono::steady_clock;

unsigned char bareBuffer[MaxFrameSize];
unsigned long long bareBytes = 0;

void BareHandler(unsigned char*, const pcap_pkthdr* header, const unsigned char* packet)
{
    std::memcpy(bareBuffer, packet, header->caplen);
    bareBytes += header->caplen;
}

// The prescribed steps, on one buffer whose count block never ends. It is handed over as the
// pool hands out a buffer, with its first reference counted.
Kt::CPtrRef floorOwner{0, [](Kt::CPtrRef*) {}};
unsigned char floorBuffer[MaxFrameSize];
std::atomic<unsigned long long> floorFrames{0}, floorBytes{0};

void FloorHandler(unsigned char*, const pcap_pkthdr* header, const unsigned char* packet)
{
    const unsigned int caplen = header->caplen;
    if (!packet || !IsCompleteFrame(caplen, header->len))
        return;
    floorOwner.refCount = 1;
    Lyr::EthFrame frame(Kt::CSlice<unsigned char>::Adopt(&floorOwner, floorBuffer, MaxFrameSize), 0);
    Kt::CSlice<unsigned char> bytes = frame.GetData();
    bytes = bytes.Prefix(caplen);
    std::memcpy(bytes.data, packet, caplen);
    frame.SetData(bytes);
    frame.SetTimestamp(TimeValToMicroseconds(header->ts));
    floorFrames += 1;
    floorBytes += caplen;
}

struct Loop {
    double nsPerPacket;
    unsigned long long allocations;
};

// One pass of pcap_loop over the file held in `file`; only the loop itself is timed and counted.
Loop RunLoop(std::vector<uint8_t>& file, unsigned int packets, pcap_handler handler, unsigned char* user)
{
    FILE* stream = fmemopen(file.data(), file.size(), "rb");
    char errbuf[PCAP_ERRBUF_SIZE];
    pcap_t* handle = stream ? pcap_fopen_offline(stream, errbuf) : nullptr;
    if (!handle) {
        std::fprintf(stderr, "cannot open the generated capture\n");
        std::exit(1);
    }
    allocations = 0;
    bCounting = true;
    const auto start = Clock::now();
    pcap_loop(handle, -1, handler, user);
    const auto end = Clock::now();
    bCounting = false;
    pcap_close(handle);
    return {std::chrono::duration<double, std::nano>(end - start).count() / packets, allocations.load()};
}

std::vector<uint8_t> MakeCapture(unsigned int packets, size_t frameSize)
{
    std::vector<uint8_t> bytes;
    fixture::FileOptions options;
    options.snaplen = MaxFrameSize;
    fixture::CaptureFileWriter writer(bytes, options);
    const auto payload = fixture::Payload(frameSize - 42, 7);
    const auto frame = fixture::EthernetFrame(
        0x0a0000000002, 0x0a0000000001, fixture::kEtherTypeIpv4,
        fixture::Ipv4Packet(fixture::Ipv4Address(10, 0, 0, 1), fixture::Ipv4Address(10, 0, 0, 2),
                            fixture::kIpProtocolUdp, fixture::UdpDatagram(4000, 5000, payload)));
    for (unsigned int i = 0; i < packets; ++i)
        writer.Add(1714564800 + i / 1000000, i % 1000000, frame);
    writer.Close();
    return bytes;
}

} // namespace

int main(int argc, char** argv)
{
    unsigned int packets = 1000000;
    int rounds = 7;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::string(argv[i]) == "--packets")
            packets = static_cast<unsigned int>(std::strtoul(argv[i + 1], nullptr, 10));
        else if (std::string(argv[i]) == "--rounds")
            rounds = std::atoi(argv[i + 1]);
    }
    PcapNetInputIf input;
    unsigned long long delivered = 0;
    input.Subscribe(Kt::MakeFunctor<void(const Lyr::EthFrame&)>([&delivered](const Lyr::EthFrame&) { ++delivered; }));

    std::printf("%-7s %12s %12s %12s %8s %12s %12s %13s\n", "frame", "bare ns/pkt", "floor ns/pkt", "input ns/pkt",
                "ratio", "floor ratio", "allocs bare", "allocs input");
    for (size_t frameSize : {64u, 1500u}) {
        std::vector<uint8_t> file = MakeCapture(packets, frameSize);
        // Rounds alternate between the two so that both meet the same machine state; the best
        // round of each counts.
        Loop bare{1e300, 0}, floor{1e300, 0}, ours{1e300, 0};
        for (int round = 0; round < rounds; ++round) {
            const Loop b = RunLoop(file, packets, &BareHandler, nullptr);
            const Loop f = RunLoop(file, packets, &FloorHandler, nullptr);
            const Loop o = RunLoop(file, packets, &PcapNetInputIf::PcapLoopHandler,
                                   reinterpret_cast<unsigned char*>(&input));
            if (b.nsPerPacket < bare.nsPerPacket)
                bare = b;
            if (f.nsPerPacket < floor.nsPerPacket)
                floor = f;
            if (o.nsPerPacket < ours.nsPerPacket)
                ours = o;
        }
        std::printf("%-7zu %12.1f %12.1f %12.1f %8.2f %12.2f %12llu %13llu\n", frameSize, bare.nsPerPacket,
                    floor.nsPerPacket, ours.nsPerPacket, bare.nsPerPacket / ours.nsPerPacket,
                    bare.nsPerPacket / floor.nsPerPacket, bare.allocations, ours.allocations);
    }
    std::printf("(ratio: the input's packet rate over the bare rate; floor ratio: the prescribed steps alone over "
                "the bare rate; %u packets a loop, %llu delivered)\n",
                packets, delivered);
    return bareBytes == 0 || floorBytes.load() == 0;
}
