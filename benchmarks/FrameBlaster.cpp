// The live benchmark's traffic generator: exactly N Ethernet/IPv4/UDP frames of one size at a
// given rate on a device, faster than tcpreplay can at small frames, so that the receivers meet
// their limit before the sender does. The frames are make-fixture's bench frames (host A to
// host B, locally administered MACs, UDP checksum 0), each with its sequence number in the first
// four payload bytes, so a receiver can count them and tell them apart.
//
// Frames go out through sendmmsg on an AF_PACKET socket that bypasses the device's queueing
// discipline, in batches; each batch waits for its due time, counted from the start on
// CLOCK_MONOTONIC, so a late wake is made up by the batches after it and the rate is exact on
// average. A batch covers about 200 us of the rate (at most 256 frames): small enough that a
// burst is nothing to a receiver's kernel buffer, large enough that a wake per batch keeps up.
// A frame that the device refuses (the peer's backlog full) is sent again, and counted.
//
//   bench-frame-blaster DEVICE --frames N --size BYTES [--rate FRAMES_PER_S]   (0 or none: flat out)
//
// prints one line on standard output:
//   sent N frames of S bytes in T s, R frames/s, asked A frames/s, F refused and sent again
// It floods the device it is given, so it refuses to run in a network namespace that holds any
// device but veth and loopback ones: a benchmark's namespace of its own, from which no frame leaves.

#include <CaptureFileWriter.h>

#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

constexpr std::size_t EthernetHeader = 14;
constexpr std::size_t UdpOverhead = 20 + 8;
constexpr std::size_t SequenceOffset = EthernetHeader + UdpOverhead;
constexpr std::size_t MinFrame = SequenceOffset + 4;
constexpr std::size_t MaxFrame = EthernetHeader + 1500; // a veth pair's default MTU
constexpr unsigned int MaxBatch = 256;
constexpr std::uint64_t BatchPeriodNs = 200000;
constexpr std::uint64_t NsPerSecond = 1000000000;

std::uint64_t NowNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::uint64_t(now.tv_sec) * NsPerSecond + std::uint64_t(now.tv_nsec);
}

void SleepUntilNs(std::uint64_t due)
{
    const timespec until{time_t(due / NsPerSecond), long(due % NsPerSecond)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

// When frame `index` is due: integer nanoseconds from the start, exact for any count.
std::uint64_t DueNs(std::uint64_t start, std::uint64_t index, std::uint64_t rate)
{
    return start + index / rate * NsPerSecond + index % rate * NsPerSecond / rate;
}

// The driver's name of a device, through the ethtool ioctl; empty where it has none.
std::string DriverOf(int sock, const char* name)
{
    ethtool_drvinfo info{};
    info.cmd = ETHTOOL_GDRVINFO;
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    request.ifr_data = reinterpret_cast<char*>(&info);
    return ioctl(sock, SIOCETHTOOL, &request) == 0 ? std::string(info.driver) : std::string();
}

// Whether this network namespace holds nothing but loopback and veth devices, as a benchmark's
// own does: then no frame sent here can leave the machine, whatever device it is sent on.
bool OnlyVethAndLoopback(int sock)
{
    struct if_nameindex* devices = if_nameindex();
    if (!devices)
        return false;
    bool bContained = true;
    for (const struct if_nameindex* device = devices; device->if_index != 0 && bContained; ++device) {
        ifreq request{};
        std::strncpy(request.ifr_name, device->if_name, IFNAMSIZ - 1);
        const bool bLoopback = ioctl(sock, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_LOOPBACK);
        bContained = bLoopback || DriverOf(sock, device->if_name) == "veth";
    }
    if_freenameindex(devices);
    return bContained;
}

bool ParseCount(const char* text, std::uint64_t& value)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long parsed = std::strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || text[0] == '-')
        return false;
    value = parsed;
    return true;
}

std::vector<std::uint8_t> BenchFrame(std::size_t size)
{
    using namespace fixture;
    const auto payload = std::vector<std::uint8_t>(size - SequenceOffset, 0);
    const auto packet = Ipv4Packet(Ipv4Address(10, 0, 0, 1), Ipv4Address(10, 0, 0, 2), 17,
                                   UdpDatagram(40000, 5000, payload));
    return EthernetFrame(0x020000000002, 0x020000000001, 0x0800, packet);
}

int Usage()
{
    std::fprintf(stderr, "usage: bench-frame-blaster DEVICE --frames N --size BYTES [--rate FRAMES_PER_S]\n"
                         "       BYTES from %zu to %zu; rate 0 or none: as fast as it can\n",
                 MinFrame, MaxFrame);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return Usage();
    const char* device = argv[1];
    std::uint64_t frames = 0, size = 0, rate = 0;
    for (int i = 2; i < argc; i += 2) {
        const std::string option = argv[i];
        std::uint64_t* target = option == "--frames" ? &frames : option == "--size" ? &size : option == "--rate" ? &rate : nullptr;
        if (!target || i + 1 >= argc || !ParseCount(argv[i + 1], *target))
            return Usage();
    }
    if (frames == 0 || size < MinFrame || size > MaxFrame)
        return Usage();
    const int sock = socket(AF_PACKET, SOCK_RAW, 0); // protocol 0: it receives nothing
    const unsigned int index = if_nametoindex(device);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = int(index);
    const int one = 1;
    if (sock < 0 || index == 0 || bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::fprintf(stderr, "bench-frame-blaster: cannot send on %s: %s\n", device, std::strerror(errno));
        return 1;
    }
    if (!OnlyVethAndLoopback(sock)) {
        std::fprintf(stderr, "bench-frame-blaster: refused: this network namespace holds devices other than "
                             "veth and loopback; run it in a benchmark's own (unshare -n, ip netns exec)\n");
        return 1;
    }
    // Straight to the driver: no queueing discipline, and no copy to the device's own taps.
    if (setsockopt(sock, SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof one) != 0)
        std::fprintf(stderr, "bench-frame-blaster: no PACKET_QDISC_BYPASS (%s); through the queue\n", std::strerror(errno));

    const unsigned int batch =
        rate == 0 ? MaxBatch : unsigned(std::clamp<std::uint64_t>(rate * BatchPeriodNs / NsPerSecond, 1, MaxBatch));
    const std::vector<std::uint8_t> model = BenchFrame(size);
    std::vector<std::uint8_t> slots(model.size() * batch);
    std::vector<iovec> vectors(batch);
    std::vector<mmsghdr> messages(batch);
    for (unsigned int i = 0; i < batch; ++i) {
        std::copy(model.begin(), model.end(), slots.begin() + long(i * model.size()));
        vectors[i] = {&slots[i * model.size()], model.size()};
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }

    std::uint64_t sent = 0, refused = 0;
    const std::uint64_t start = NowNs();
    while (sent < frames) {
        if (rate != 0) {
            const std::uint64_t due = DueNs(start, sent, rate);
            if (NowNs() < due)
                SleepUntilNs(due);
        }
        const unsigned int count = unsigned(std::min<std::uint64_t>(batch, frames - sent));
        for (unsigned int i = 0; i < count; ++i) {
            std::uint8_t* sequence = &slots[i * model.size() + SequenceOffset];
            const std::uint64_t number = sent + i;
            for (int b = 0; b < 4; ++b)
                sequence[b] = std::uint8_t(number >> (24 - 8 * b));
        }
        // sendmmsg stops at the first frame the device refuses (and says why only when it was
        // the first of the call); the rest of the batch goes in the next call, that frame first.
        unsigned int done = 0;
        while (done < count) {
            const int result = sendmmsg(sock, &messages[done], count - done, 0);
            if (result < 0 && errno != ENOBUFS && errno != EAGAIN && errno != EINTR) {
                std::fprintf(stderr, "bench-frame-blaster: sending on %s failed: %s\n", device, std::strerror(errno));
                return 1;
            }
            done += result > 0 ? unsigned(result) : 0;
            if (done < count) {
                if (++refused > frames + 1000000) {
                    std::fprintf(stderr, "bench-frame-blaster: %s refuses every frame\n", device);
                    return 1;
                }
                sched_yield();
            }
        }
        // Sequence numbers are stamped from the batch's start, so a batch is only ever whole.
        sent += count;
    }
    const double seconds = double(NowNs() - start) / double(NsPerSecond);
    close(sock);
    std::printf("sent %llu frames of %llu bytes in %.6f s, %.0f frames/s, asked %llu frames/s, %llu refused and sent again\n",
                static_cast<unsigned long long>(sent), static_cast<unsigned long long>(size), seconds,
                double(sent) / seconds, static_cast<unsigned long long>(rate), static_cast<unsigned long long>(refused));
    return 0;
}
