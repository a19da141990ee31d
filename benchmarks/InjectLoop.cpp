// The baselines of transmit throughput: the frames of a capture file put on a device by a bare
// pcap_inject loop, with the handle opened as the output back-end opens its port.
//
// With --scheduled the loop is split as the output back-end must split it: this thread reads and
// copies each frame into one of 1024 slots and hands the scheduler a bare event (it allocates
// nothing) that injects it on the scheduler's thread, all frames due at once. What this costs
// against the bare loop is the price of transmitting on the scheduler's thread, before anything
// of the back-end's own.
//
// With --prescribed the split takes the steps that the back-end's contract prescribes for every
// frame, and nothing else: the frame in a buffer of the framework's pool, a count of pending
// frames raised by the sender and lowered by the event, and the event in its three layers (a
// std::function taking the scheduler's value by reference, owning one taking it by value, owning
// a std::bind of the transmit function with the slice), which allocate twice on the sender and
// free on the scheduler's thread. What this costs against --scheduled is the price of the
// contract's event, before any code of the back-end's.
#include <lyr/BufferPool.h>
#include <lyr/PreciseScheduler.h>

#include <pcap/pcap.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Slot {
    pcap_t* port;
    unsigned int size;
    unsigned char bytes[9022];
};

constexpr unsigned int SlotCount = 1024;
std::atomic<unsigned long long> done{0};
std::atomic<unsigned long long> failed{0};
std::atomic<unsigned long long> pendingFrames{0};
pcap_t* port = nullptr;

// What the event of --prescribed calls on the scheduler's thread, as the back-end's would.
void Transmit(const Kt::CSlice<unsigned char>& slice, unsigned long long)
{
    if (pcap_inject(port, slice.data, slice.size) < 1)
        failed.fetch_add(1, std::memory_order_relaxed);
    pendingFrames.fetch_sub(1);
    done.fetch_add(1, std::memory_order_release);
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc == 4 ? argv[3] : "";
    const bool bPrescribed = mode == "--prescribed";
    const bool bScheduled = mode == "--scheduled" || bPrescribed;
    if (argc != 3 && !bScheduled) {
        std::fprintf(stderr, "usage: bench-inject-loop FILE DEVICE [--scheduled | --prescribed]\n");
        return 2;
    }
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t* file = pcap_open_offline(argv[1], errbuf);
    port = file ? pcap_open_live(argv[2], 8192, 0, -1, errbuf) : nullptr;
    if (!port) {
        std::fprintf(stderr, "bench-inject-loop: %s\n", errbuf);
        return 1;
    }
    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    std::vector<Slot> slots(bScheduled && !bPrescribed ? SlotCount : 0);
    Lyr::BufferPool pool(bPrescribed ? SlotCount : 0, 9036);
    unsigned long long frames = 0, bytes = 0;
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    const auto start = std::chrono::steady_clock::now();
    while (pcap_next_ex(file, &header, &data) == 1) {
        if (!bScheduled) {
            if (pcap_inject(port, data, header->caplen) < 1)
                failed.fetch_add(1, std::memory_order_relaxed);
        } else {
            while (frames - done.load(std::memory_order_acquire) >= SlotCount)
                std::this_thread::yield(); // every slot in flight
            if (bPrescribed) {
                Kt::CSlice<unsigned char> buffer = pool.GetBuffer();
                std::memcpy(buffer.data, data, header->caplen);
                pendingFrames.fetch_add(1);
                std::function<void(unsigned long long)> transmit =
                    std::bind(&Transmit, buffer.Prefix(header->caplen), std::placeholders::_1);
                scheduler.ScheduleEvent(Lyr::PreciseScheduler::Event(std::move(transmit)), 0);
                ++frames;
                bytes += header->caplen;
                continue;
            }
            Slot* slot = &slots[frames % SlotCount];
            slot->port = port;
            slot->size = header->caplen;
            std::memcpy(slot->bytes, data, header->caplen);
            scheduler.ScheduleEvent(
                [slot](unsigned long long&) {
                    if (pcap_inject(slot->port, slot->bytes, slot->size) < 1)
                        failed.fetch_add(1, std::memory_order_relaxed);
                    done.fetch_add(1, std::memory_order_release);
                },
                0);
        }
        ++frames;
        bytes += header->caplen;
    }
    while (bScheduled && done.load(std::memory_order_acquire) != frames)
        std::this_thread::yield();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("frames: %llu, failures: %llu, %.6f s, %.0f frames/s, %.1f Mbit/s\n", frames, failed.load(), seconds,
                frames / seconds, bytes * 8 / seconds / 1e6);
    pcap_close(port);
    pcap_close(file);
    return 0;
}
