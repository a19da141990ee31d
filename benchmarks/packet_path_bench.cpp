// The live input's packet path against a bare copy: pcap_loop over an in-memory capture file,
// once calling PcapNetInputIf::PcapLoopHandler (pool buffer, frame, counters, one subscriber
// that keeps nothing) and once a handler that only copies each packet into one fixed buffer.
// A third loop does what the input's contract prescribes for every packet and nothing more: the
// frame on a slice, the slice copied and narrowed and set back, the copy, the stamp and the two
// counter additions, on one fixed buffer without pool or subscriber. It shows how near to the
// bare copy the prescribed reference counting lets any implementation come. A fourth adds the two
// prescribed steps that the third leaves out, both the framework's: the buffer taken from a pool
// of the framework's (and given back when the frame ends), and the fire of a delegate with one
// subscriber, which copies the subscriber's functor (two more reference-count steps) before it
// calls it. Against the fourth, what remains is the plug-in's own code.
// Prints ns per packet, the ratios of the rates, and the heap allocations made during the loops.
//
//   packet_path_bench [--packets N] [--rounds R]

#include "PcapCommon.h"
#include "PcapNetInputIf.h"

#include <CaptureFileWriter.h>

#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>
#include <kt/CDelegate.h>

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

// What the input's contract prescribes for a packet once the frame has its buffer.
void FillFrame(Lyr::EthFrame& frame, const pcap_pkthdr* header, const unsigned char* packet)
{
    const unsigned int caplen = header->caplen;
    Kt::CSlice<unsigned char> bytes = frame.GetData();
    bytes = bytes.Prefix(caplen);
    std::memcpy(bytes.data, packet, caplen);
    frame.SetData(bytes);
    frame.SetTimestamp(TimeValToMicroseconds(header->ts));
    floorFrames += 1;
    floorBytes += caplen;
}

void FloorHandler(unsigned char*, const pcap_pkthdr* header, const unsigned char* packet)
{
    if (!packet || !IsCompleteFrame(header->caplen, header->len))
        return;
    floorOwner.refCount = 1;
    Lyr::EthFrame frame(Kt::CSlice<unsigned char>::Adopt(&floorOwner, floorBuffer, MaxFrameSize), 0);
    FillFrame(frame, header, packet);
}

// The prescribed steps with the framework's pool and a delegate fire, as the input's are made.
Lyr::BufferPool* prescribedPool = nullptr;
Kt::CDelegate<void(const Lyr::EthFrame&)>* prescribedDelegate = nullptr;

void PrescribedHandler(unsigned char*, const pcap_pkthdr* header, const unsigned char* packet)
{
    if (!packet || !IsCompleteFrame(header->caplen, header->len))
        return;
    Lyr::EthFrame frame(prescribedPool->GetBuffer(), 0);
    FillFrame(frame, header, packet);
    prescribedDelegate->Fire(frame);
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
    auto subscriber = Kt::MakeFunctor<void(const Lyr::EthFrame&)>([&delivered](const Lyr::EthFrame&) { ++delivered; });
    input.Subscribe(subscriber);
    Lyr::BufferPool pool(1000, MaxFrameSize);
    Kt::CDelegate<void(const Lyr::EthFrame&)> delegate;
    delegate.functors.push_front(subscriber);
    prescribedPool = &pool;
    prescribedDelegate = &delegate;

    std::printf("%-6s %9s %9s %11s %9s   %-9s %-9s %-11s %s\n", "frame", "bare", "floor", "prescribed", "input",
                "input /", "floor /", "input /", "allocations");
    std::printf("%-6s %9s %9s %11s %9s   %-9s %-9s %-11s %s\n", "", "ns/pkt", "ns/pkt", "ns/pkt", "ns/pkt", "bare",
                "bare", "prescribed", "bare/input");
    for (size_t frameSize : {64u, 1500u}) {
        std::vector<uint8_t> file = MakeCapture(packets, frameSize);
        // Rounds alternate between the loops so that all meet the same machine state; the best
        // round of each counts.
        Loop bare{1e300, 0}, floor{1e300, 0}, prescribed{1e300, 0}, ours{1e300, 0};
        auto keepBest = [](Loop& best, const Loop& round) {
            if (round.nsPerPacket < best.nsPerPacket)
                best = round;
        };
        for (int round = 0; round < rounds; ++round) {
            keepBest(bare, RunLoop(file, packets, &BareHandler, nullptr));
            keepBest(floor, RunLoop(file, packets, &FloorHandler, nullptr));
            keepBest(prescribed, RunLoop(file, packets, &PrescribedHandler, nullptr));
            keepBest(ours, RunLoop(file, packets, &PcapNetInputIf::PcapLoopHandler, reinterpret_cast<unsigned char*>(&input)));
        }
        std::printf("%-6zu %9.1f %9.1f %11.1f %9.1f   %-9.2f %-9.2f %-11.2f %llu/%llu\n", frameSize, bare.nsPerPacket,
                    floor.nsPerPacket, prescribed.nsPerPacket, ours.nsPerPacket, bare.nsPerPacket / ours.nsPerPacket,
                    bare.nsPerPacket / floor.nsPerPacket, prescribed.nsPerPacket / ours.nsPerPacket, bare.allocations,
                    ours.allocations);
    }
    std::printf("(ratios of packet rates; floor: the prescribed per-packet steps on one fixed buffer; prescribed: "
                "those with the framework's pool and a delegate fire; %u packets a loop, %llu delivered)\n",
                packets, delivered);
    return bareBytes == 0 || floorBytes.load() == 0;
}
