#include "support/InputProbe.h"
#include "support/NetworkSandbox.h"
#include "support/WaitableList.h"

#include <CaptureFileWriter.h>
#include <kt/MyPrintf.h>

#include <gtest/gtest.h>

#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr uint32_t Host = fixture::Ipv4Address(10, 0, 0, 2);
constexpr uint32_t OtherHost = fixture::Ipv4Address(10, 0, 0, 3);
constexpr uint16_t Port = 5000;
constexpr size_t TagOffset = 14 + 20 + 8; // Ethernet, IPv4, UDP headers
constexpr uint8_t MarkerTag = 'M';
constexpr uint8_t DataTag = 'D';

// A UDP frame whose payload starts with a tag and a sequence number.
std::vector<uint8_t> Udp(uint32_t dstIp, uint16_t dstPort, uint8_t tag, uint32_t seq, size_t payload = 18)
{
    std::vector<uint8_t> body = fixture::Payload(payload, static_cast<uint8_t>(seq));
    body[0] = tag;
    std::memcpy(&body[1], &seq, sizeof seq);
    return fixture::EthernetFrame(0x0a0000000002, 0x0a0000000001, fixture::kEtherTypeIpv4,
                                  fixture::Ipv4Packet(fixture::Ipv4Address(10, 0, 0, 1), dstIp, fixture::kIpProtocolUdp,
                                                      fixture::UdpDatagram(4000, dstPort, body)));
}

std::vector<uint8_t> BytesOf(const Lyr::EthFrame& frame)
{
    const auto data = frame.GetData();
    return std::vector<uint8_t>(data.data, data.data + data.size);
}

uint8_t TagOf(const std::vector<uint8_t>& frame)
{
    return frame.size() > TagOffset ? frame[TagOffset] : 0;
}

unsigned long long WallMicros()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000 + now.tv_usec;
}

// Injects on the far end of the pair, so that frames arrive on the end that is captured.
class Wire {
public:
    ~Wire() { Close(); }
    bool Open()
    {
        Close();
        char errbuf[PCAP_ERRBUF_SIZE];
        handle = pcap_open_live(NetworkSandbox::Get().Second(), 9022, 0, 1, errbuf);
        return handle != nullptr;
    }
    void Close()
    {
        if (handle)
            pcap_close(handle);
        handle = nullptr;
    }
    bool Send(const std::vector<uint8_t>& frame)
    {
        return handle && pcap_inject(handle, frame.data(), frame.size()) == static_cast<int>(frame.size());
    }

private:
    pcap_t* handle = nullptr;
};

struct Seen {
    std::vector<uint8_t> bytes;
    unsigned long long timestamp;
};

size_t CountTagged(const std::vector<Seen>& frames, uint8_t tag)
{
    size_t count = 0;
    for (const Seen& seen : frames)
        count += TagOf(seen.bytes) == tag;
    return count;
}

// A subscriber that keeps copies of what it receives, for the test thread to wait on.
class Collector : public WaitableList<Seen> {
public:
    Kt::CFunctor<void(const Lyr::EthFrame&)> Functor()
    {
        return Subscriber([this](const Lyr::EthFrame& frame) { Add({BytesOf(frame), frame.GetTimestamp()}); });
    }
    size_t Count(uint8_t tag) { return CountTagged(Copy(), tag); }
    bool WaitFor(uint8_t tag, size_t count, Clock::duration timeout)
    {
        return WaitUntil([&](const std::vector<Seen>& frames) { return CountTagged(frames, tag) >= count; }, timeout);
    }
};

struct LogLine {
    Clock::time_point when;
    std::string text;
};

// Log lines with the moment they were printed, to be waited for.
class TimedLog : public WaitableList<LogLine> {
public:
    TimedLog()
    {
        previous = Kt::SetLogSink([this](const std::string& text) { Add({Clock::now(), text}); });
    }
    ~TimedLog() { Kt::SetLogSink(previous); }

    // Waits for `count` lines that begin with `prefix`, and returns those there are by then.
    std::vector<LogLine> WaitFor(const std::string& prefix, size_t count, Clock::duration timeout)
    {
        std::vector<LogLine> found;
        WaitUntil(
            [&](const std::vector<LogLine>& lines) {
                found.clear();
                for (const LogLine& line : lines)
                    if (line.text.rfind(prefix, 0) == 0)
                        found.push_back(line);
                return found.size() >= count;
            },
            timeout);
        return found;
    }

private:
    Kt::LogSink previous;
};

// How many threads of this process carry `name`.
int ThreadsNamed(const std::string& name)
{
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string text;
        std::getline(comm, text);
        count += text == name;
    }
    return count;
}

Kt::CIpAddress Address(uint32_t hostOrder)
{
    return Kt::CIpAddress(hostOrder);
}

class LiveInput : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!NetworkSandbox::Get().Ok())
            GTEST_SKIP() << NetworkSandbox::Get().Reason();
        ASSERT_TRUE(wire.Open());
    }

    const char* Device() const { return NetworkSandbox::Get().First(); }

    // The capture thread opens the device on its own time: send markers (matching `dstIp` and
    // `dstPort`) until one comes through, so that what the test sends next is captured.
    bool WaitUntilCapturing(uint32_t dstIp = Host, uint16_t dstPort = Port)
    {
        const size_t before = collector.Count(MarkerTag);
        for (auto deadline = Clock::now() + 5s; Clock::now() < deadline;) {
            wire.Send(Udp(dstIp, dstPort, MarkerTag, 0));
            if (collector.WaitFor(MarkerTag, before + 1, 20ms))
                return true;
        }
        return false;
    }

    Wire wire;
    Collector collector;
};

TEST_F(LiveInput, ConfigureStoresTheFilterFirstAndKeepsTheLastFoundDevice)
{
    TimedLog log;
    PcapNetInputIf input;
    // A first Configure that fails leaves no device.
    EXPECT_FALSE(input.Configure("nosuch0", Kt::CIpAddress::MinIpAddress, 0));
    EXPECT_EQ(PcapNetInputIfProbe::Device(input), "");

    EXPECT_TRUE(input.Configure(Device(), Address(Host), Port));
    EXPECT_EQ(PcapNetInputIfProbe::Filter(input), "dst host 10.0.0.2 && dst port 5000");
    EXPECT_EQ(PcapNetInputIfProbe::Device(input), Device());

    // Device names compare exactly, case included; the filter is replaced all the same.
    EXPECT_FALSE(input.Configure("LYRVETH0", Kt::CIpAddress::MinIpAddress, 80));
    EXPECT_EQ(PcapNetInputIfProbe::Filter(input), "dst port 80");
    EXPECT_EQ(PcapNetInputIfProbe::Device(input), Device());

    // libpcap refuses a port beyond 16 bits; the refused text stays, the device search is skipped.
    EXPECT_FALSE(input.Configure("nosuch0", Kt::CIpAddress::MinIpAddress, 70000));
    EXPECT_EQ(PcapNetInputIfProbe::Filter(input), "dst port 70000");
    EXPECT_EQ(PcapNetInputIfProbe::Device(input), Device());

    const auto lines = log.Take();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "Error attempting to configure interface(nosuch0). The selected interface could not be found.\n");
    EXPECT_EQ(lines[1].text, "Error attempting to configure interface(LYRVETH0). The selected interface could not be found.\n");
    EXPECT_EQ(lines[2].text.rfind("Couldn't install filter dst port 70000: ", 0), 0u) << lines[2].text;

    // An empty filter compiles too, and clears the earlier one.
    EXPECT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
    EXPECT_EQ(PcapNetInputIfProbe::Filter(input), "");
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(LiveInput, FramesArriveWholeInOrderStampedAndCounted)
{
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
    input.Subscribe(collector.Functor());
    input.Start();
    ASSERT_TRUE(WaitUntilCapturing());

    std::vector<std::vector<uint8_t>> sent;
    const unsigned long long sendStart = WallMicros();
    for (uint32_t i = 0; i < 200; ++i) {
        sent.push_back(Udp(i % 2 ? Host : OtherHost, static_cast<uint16_t>(Port + i % 3), DataTag, i, 18 + (i * 37) % 1454)); // up to a full 1514-byte frame
        ASSERT_TRUE(wire.Send(sent.back()));
    }
    ASSERT_TRUE(collector.WaitFor(DataTag, sent.size(), 5s));
    const unsigned long long receiveEnd = WallMicros();
    EXPECT_EQ(ThreadsNamed("LYR-PcapInIf"), 1);

    const NetInputCounters counters = input.GetCounters();
    const std::vector<Seen> seen = collector.Take();
    unsigned long long bytes = 0;
    for (const Seen& frame : seen)
        bytes += frame.bytes.size();
    EXPECT_EQ(counters.frameCount, seen.size()); // the markers count too
    EXPECT_EQ(counters.byteCount, bytes);
    EXPECT_EQ(counters.dropCount, 0u);

    std::vector<Seen> data;
    for (const Seen& frame : seen)
        if (TagOf(frame.bytes) == DataTag)
            data.push_back(frame);
    ASSERT_EQ(data.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        ASSERT_EQ(data[i].bytes, sent[i]) << "frame " << i;
        EXPECT_GE(data[i].timestamp + 1000000, sendStart);
        EXPECT_LE(data[i].timestamp, receiveEnd + 1000000);
        if (i > 0) {
            EXPECT_GE(data[i].timestamp, data[i - 1].timestamp);
        }
    }

    input.ResetCounters();
    const NetInputCounters reset = input.GetCounters();
    EXPECT_EQ(reset.frameCount + reset.byteCount + reset.dropCount, 0u);
    ASSERT_TRUE(wire.Send(sent[0]));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1, 5s));
    EXPECT_EQ(input.GetCounters().frameCount, 1u);
    EXPECT_EQ(input.GetCounters().byteCount, sent[0].size());

    // Once stopped there is no handle and so no figures, whatever the fields hold.
    input.Stop();
    EXPECT_EQ(ThreadsNamed("LYR-PcapInIf"), 0);
    const NetInputCounters stopped = input.GetCounters();
    EXPECT_EQ(stopped.frameCount + stopped.byteCount + stopped.dropCount, 0u);
}

TEST_F(LiveInput, AFilterLetsOnlyMatchingTrafficThroughUntilCleared)
{
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Address(Host), Port));
    input.Subscribe(collector.Functor());
    input.Start();
    ASSERT_TRUE(WaitUntilCapturing());

    // Frames keep their order on the pair: had the others passed, they would come first.
    ASSERT_TRUE(wire.Send(Udp(OtherHost, Port, DataTag, 1)));
    ASSERT_TRUE(wire.Send(Udp(Host, Port + 1, DataTag, 2)));
    ASSERT_TRUE(wire.Send(fixture::EthernetFrame(0xffffffffffff, 0x0a0000000001, fixture::kEtherTypeArp,
                                                 fixture::ArpPacket(1, 0x0a0000000001, OtherHost, 0, Host))));
    ASSERT_TRUE(wire.Send(Udp(Host, Port, DataTag, 3)));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1, 5s));
    std::vector<Seen> seen = collector.Take();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back().bytes, Udp(Host, Port, DataTag, 3));
    for (const Seen& frame : seen)
        EXPECT_NE(TagOf(frame.bytes), 0) << "a frame that the filter should have kept out";

    // A new configuration reaches the capture at the next open, not before.
    ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
    input.Start(); // started already: no new open
    ASSERT_TRUE(wire.Send(Udp(OtherHost, Port, DataTag, 4)));
    ASSERT_TRUE(wire.Send(Udp(Host, Port, DataTag, 5)));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1, 5s));
    seen = collector.Take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].bytes, Udp(Host, Port, DataTag, 5));

    input.Stop();
    input.Start();
    ASSERT_TRUE(WaitUntilCapturing(OtherHost, 9));
    ASSERT_TRUE(wire.Send(Udp(OtherHost, Port, DataTag, 6)));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1, 5s));
}

TEST_F(LiveInput, ARefusedFilterIsRetriedEverySecondAndStopCutsTheSleepShort)
{
    TimedLog log;
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
    EXPECT_FALSE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 70000));
    input.Start();
    const std::string refused = "Couldn't install filter dst port 70000: ";
    const auto attempts = log.WaitFor(refused, 3, 5s); // the trial's line and two opens
    ASSERT_EQ(attempts.size(), 3u);
    const auto pause = attempts[2].when - attempts[1].when;
    EXPECT_GT(pause, 900ms);
    EXPECT_LT(pause, 1500ms);

    // The failed open left its activated handle: the figures are there, with no message.
    const NetInputCounters counters = input.GetCounters();
    EXPECT_EQ(counters.frameCount + counters.dropCount, 0u);
    const auto stopStart = Clock::now();
    input.Stop();
    EXPECT_LT(Clock::now() - stopStart, 500ms);
    const auto lines = log.Take();
    EXPECT_EQ(lines.size(), 3u) << lines.back().text;
}

TEST_F(LiveInput, CaptureSurvivesTheDeviceVanishingAndResumesWithFreshCounters)
{
    TimedLog log;
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
    input.Subscribe(collector.Functor());
    input.Start();
    ASSERT_TRUE(WaitUntilCapturing());
    ASSERT_TRUE(wire.Send(Udp(Host, Port, DataTag, 1)));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1, 5s));

    wire.Close();
    ASSERT_TRUE(NetworkSandbox::Get().DeletePair());
    const auto failures = log.WaitFor("Failed to activate: ", 3, 6s);
    const bool bRecreated = NetworkSandbox::Get().CreatePair();
    ASSERT_TRUE(bRecreated);
    ASSERT_EQ(failures.size(), 3u);
    for (size_t i = 1; i < failures.size(); ++i) {
        EXPECT_GT(failures[i].when - failures[i - 1].when, 900ms);
        EXPECT_LT(failures[i].when - failures[i - 1].when, 1500ms);
    }
    EXPECT_NE(failures[0].text.find("No such device"), std::string::npos) << failures[0].text;

    ASSERT_TRUE(wire.Open());
    collector.Take();
    ASSERT_TRUE(WaitUntilCapturing());
    // Counted from the new open only: nothing from before the loss.
    const size_t markers = collector.Count(MarkerTag);
    EXPECT_GE(markers, 1u);
    EXPECT_LE(input.GetCounters().frameCount, markers);
    EXPECT_GE(input.GetCounters().frameCount, 1u);
}

TEST_F(LiveInput, StartAndStopInAnyOrderAndNothingArrivesAfterStop)
{
    {
        PcapNetInputIf input;
        input.Stop(); // never started
        ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
        input.Subscribe(collector.Functor());
        input.Start();
        input.Start();
        ASSERT_TRUE(WaitUntilCapturing());
        input.Stop();
        input.Stop();
        input.Start();
        ASSERT_TRUE(WaitUntilCapturing());
    } // destroyed while started

    // Traffic keeps flowing while Stop runs; once it has returned, no subscriber is called.
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
    std::atomic<bool> bStopped{false};
    std::atomic<int> late{0};
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) { late += bStopped.load(); }));
    input.Subscribe(collector.Functor());
    input.Start();
    ASSERT_TRUE(WaitUntilCapturing());
    std::atomic<bool> bSending{true};
    std::thread sender([&] {
        for (uint32_t i = 0; bSending; ++i)
            wire.Send(Udp(Host, Port, DataTag, i));
    });
    ASSERT_TRUE(collector.WaitFor(DataTag, 100, 5s));
    input.Stop();
    bStopped = true;
    const size_t delivered = collector.Count(DataTag);
    std::this_thread::sleep_for(100ms); // traffic that nobody may receive
    bSending = false;
    sender.join();
    EXPECT_EQ(late.load(), 0);
    EXPECT_EQ(collector.Count(DataTag), delivered);
}

TEST_F(LiveInput, SubscribersMayReadCountersButNotStopTheirOwnThread)
{
    TimedLog log;
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
    std::vector<unsigned long long> countsSeen;
    input.Subscribe(Subscriber([&](const Lyr::EthFrame& frame) {
        if (TagOf(BytesOf(frame)) != DataTag)
            return;
        countsSeen.push_back(input.GetCounters().frameCount);
        input.Stop();
    }));
    input.Subscribe(collector.Functor());
    input.Start();
    ASSERT_TRUE(WaitUntilCapturing());
    ASSERT_TRUE(wire.Send(Udp(Host, Port, DataTag, 1)));
    ASSERT_TRUE(wire.Send(Udp(Host, Port, DataTag, 2)));
    ASSERT_TRUE(collector.WaitFor(DataTag, 2, 5s)); // the capture went on after the refused Stop
    input.Stop();
    ASSERT_EQ(countsSeen.size(), 2u);
    EXPECT_EQ(countsSeen[1], countsSeen[0] + 1); // each includes the frame being delivered
    const auto refused = log.WaitFor("Stop called from the capture thread is refused", 2, 0s);
    EXPECT_EQ(refused.size(), 2u);
}

TEST_F(LiveInput, ASlowSubscriberMakesRealDropsAndTheBaselineWrapsUnclamped)
{
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    std::atomic<bool> bHold{false};
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) {
        if (bHold) {
            std::lock_guard<std::mutex> wait(gate); // held up until the burst is over
        }
    }));
    input.Subscribe(collector.Functor());
    input.Start();
    ASSERT_TRUE(WaitUntilCapturing());
    EXPECT_EQ(input.GetCounters().dropCount, 0u);

    // A burst several times the 2 MiB ring while the capture thread is held up.
    bHold = true;
    const uint32_t burst = 6000;
    for (uint32_t i = 0; i < burst; ++i)
        ASSERT_TRUE(wire.Send(Udp(Host, Port, DataTag, i, 1400)));
    bHold = false;
    closed.unlock();
    ASSERT_TRUE(WaitUntilCapturing());
    const NetInputCounters counters = input.GetCounters();
    EXPECT_GT(counters.dropCount, 0u);
    EXPECT_LT(collector.Count(DataTag), burst);

    // A baseline above libpcap's count (a reset whose pcap_stats failed on a new handle) wraps.
    PcapNetInputIfProbe::SetDropBaseline(input, 1ULL << 32); // above any 32-bit ps_drop
    const unsigned long long wrapped = input.GetCounters().dropCount;
    EXPECT_GE(wrapped, ~0ULL - 0xFFFFFFFFULL);
    input.ResetCounters();
    EXPECT_EQ(input.GetCounters().dropCount, 0u);
}

// Thousands of Start/Stop cycles with traffic flowing, a subscriber that reads the counters and
// a thread that reconfigures: Stop must land in every state of the capture thread (before the
// open, inside it, between open and reset, in pcap_loop) and always return. A cycle that opens
// the device costs tens of milliseconds (the kernel's socket close dominates), so only every
// 40th cycle waits for a frame; the others stop at once or after a short, random spin.
TEST_F(LiveInput, StartStopStormWithTrafficNeverHangs)
{
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0));
    std::atomic<bool> bStopped{true};
    std::atomic<int> late{0};
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) {
        late += bStopped.load();
        input.GetCounters();
    }));
    input.Subscribe(collector.Functor());

    std::atomic<bool> bRunning{true};
    std::thread sender([&] {
        for (uint32_t i = 0; bRunning; ++i) {
            wire.Send(Udp(Host, Port, DataTag, i));
            std::this_thread::sleep_for(50us);
        }
    });
    std::thread configurer([&] {
        while (bRunning) {
            input.Configure(Device(), Kt::CIpAddress::MinIpAddress, 0);
            input.ResetCounters();
            std::this_thread::sleep_for(2ms);
        }
    });

    std::mt19937 random(6);
    const int cycles = 2000;
    int waited = 0;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        bStopped = false;
        input.Start();
        if (cycle % 40 == 0) {
            waited += collector.WaitFor(DataTag, collector.Count(DataTag) + 1, 2s);
        } else {
            const auto spin = std::chrono::microseconds(random() % 100);
            for (auto until = Clock::now() + spin; Clock::now() < until;) {
            }
        }
        input.Stop();
        bStopped = true;
    }
    bRunning = false;
    sender.join();
    configurer.join();
    EXPECT_EQ(late.load(), 0);
    EXPECT_EQ(waited, cycles / 40);
}

} // namespace
