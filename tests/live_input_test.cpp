#include "support/InputProbe.h"
#include "support/LogCapture.h"
#include "support/NetworkSandbox.h"
#include "support/Wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr uint32_t Host = fixture::Ipv4Address(10, 0, 0, 2);
constexpr uint32_t OtherHost = fixture::Ipv4Address(10, 0, 0, 3);
constexpr uint16_t Port = 5000;
constexpr uint8_t MarkerTag = 'M';
constexpr uint8_t DataTag = 'D';
const Kt::CIpAddress Any = Kt::CIpAddress::MinIpAddress;

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

// The tag behind the Ethernet, IPv4 and UDP headers; 0 for a frame too short to carry one.
uint8_t TagOf(const std::vector<uint8_t>& frame)
{
    return frame.size() > 42 ? frame[42] : 0;
}

std::vector<Seen> Tagged(const std::vector<Seen>& frames, uint8_t tag)
{
    std::vector<Seen> tagged;
    for (const Seen& seen : frames)
        if (TagOf(seen.bytes) == tag)
            tagged.push_back(seen);
    return tagged;
}

struct TagCollector : Collector {
    size_t Count(uint8_t tag) { return Tagged(Copy(), tag).size(); }
    bool WaitFor(uint8_t tag, size_t count, Clock::duration timeout)
    {
        return WaitUntil([&](const std::vector<Seen>& frames) { return Tagged(frames, tag).size() >= count; }, timeout);
    }
};

unsigned long long WallMicros()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

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

class LiveInput : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!NetworkSandbox::Get().Ok())
            GTEST_SKIP() << NetworkSandbox::Get().Reason();
        wire.emplace(NetworkSandbox::Get().Second());
        ASSERT_TRUE(wire->Ok()) << wire->Error();
    }

    const char* Device() const { return NetworkSandbox::Get().First(); }

    // The capture thread opens the device on its own time: send markers (matching `dstIp` and
    // `dstPort`) until one comes through, so that what the test sends next is captured.
    bool WaitUntilCapturing(uint32_t dstIp = Host, uint16_t dstPort = Port)
    {
        const size_t before = collector.Count(MarkerTag);
        for (auto deadline = Clock::now() + 30s; Clock::now() < deadline;) {
            wire->Send(Udp(dstIp, dstPort, MarkerTag, 0));
            if (collector.WaitFor(MarkerTag, before + 1, 20ms))
                return true;
        }
        return false;
    }

    // Subscribes the collector (after any subscriber of the test's own) and starts the capture.
    bool Capture(PcapNetInputIf& input)
    {
        input.Subscribe(collector.Functor());
        input.Start();
        return WaitUntilCapturing();
    }

    std::optional<Wire> wire; // the far end, which sends to the captured one
    TagCollector collector;
};

} // namespace

TEST_F(LiveInput, ConfigureStoresTheFilterFirstKeepsTheLastFoundDeviceAndARefusedFilterIsRetriedEverySecond)
{
    LogCapture log;
    PcapNetInputIf input;
    const std::string missing = "The selected interface could not be found.\n";
    const std::string refused = "Couldn't install filter dst port 70000: ";
    // Device, address, port; whether Configure succeeds, the filter and the device it leaves, and
    // the start of its message. Names compare exactly, case included; a refused filter skips the
    // device search; the filter is stored either way.
    const struct {
        std::string device;
        Kt::CIpAddress address;
        unsigned int port;
        bool bOk;
        std::string filter, deviceLeft, message;
    } cases[] = {
        {"nosuch0", Any, 0, false, "", "", "Error attempting to configure interface(nosuch0). " + missing},
        {Device(), Kt::CIpAddress(Host), Port, true, "dst host 10.0.0.2 && dst port 5000", Device(), ""},
        {"LYRVETH0", Any, 80, false, "dst port 80", Device(), "Error attempting to configure interface(LYRVETH0). " + missing},
        {"nosuch0", Any, 70000, false, "dst port 70000", Device(), refused},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.device + " " + c.filter);
        EXPECT_EQ(input.Configure(c.device, c.address, c.port), c.bOk);
        EXPECT_EQ(PcapNetInputIfProbe::Filter(input), c.filter);
        EXPECT_EQ(PcapNetInputIfProbe::Device(input), c.deviceLeft);
        const auto lines = log.Take();
        ASSERT_EQ(lines.size(), c.message.empty() ? 0u : 1u);
        if (!c.message.empty()) {
            EXPECT_EQ(lines[0].rfind(c.message, 0), 0u) << lines[0];
        }
    }

    // Started so, the capture thread tries again after a pause of a second each time, and Stop
    // cuts that pause short: it returns well before the pause that has just begun would end.
    input.Start();
    const auto attempts = log.WaitFor(refused, 2, 30s);
    ASSERT_EQ(attempts.size(), 2u);
    EXPECT_GE(attempts[1].when - attempts[0].when, 1s);
    // The failed open left its activated handle: the figures are there, with no message.
    const NetInputCounters counters = input.GetCounters();
    EXPECT_EQ(counters.frameCount + counters.dropCount, 0u);
    input.Stop();
    EXPECT_LT(Clock::now() - attempts[1].when, 900ms);
    EXPECT_EQ(log.Take().size(), 2u);

    // An empty filter compiles too, and clears the earlier one.
    EXPECT_TRUE(input.Configure(Device(), Any, 0));
    EXPECT_EQ(PcapNetInputIfProbe::Filter(input), "");
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(LiveInput, FramesArriveWholeInOrderStampedAndCounted)
{
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Any, 0));
    ASSERT_TRUE(Capture(input));

    std::vector<std::vector<uint8_t>> sent;
    const unsigned long long sendStart = WallMicros();
    for (uint32_t i = 0; i < 200; ++i) { // sizes up to a full 1514-byte frame
        sent.push_back(Udp(i % 2 ? Host : OtherHost, static_cast<uint16_t>(Port + i % 3), DataTag, i, 18 + (i * 37) % 1454));
        ASSERT_TRUE(wire->Send(sent.back()));
        // Ten at a time: the kernel's ring holds only milliseconds of traffic for a capture
        // thread that a busy machine keeps waiting, and this test is not about drops.
        if (i % 10 == 9) {
            ASSERT_TRUE(collector.WaitFor(DataTag, i + 1, 30s));
        }
    }
    ASSERT_TRUE(collector.WaitFor(DataTag, sent.size(), 30s));
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

    const std::vector<Seen> data = Tagged(seen, DataTag);
    ASSERT_EQ(data.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        ASSERT_EQ(data[i].bytes, sent[i]) << "frame " << i;
        EXPECT_GE(data[i].timestamp + 1000000, sendStart);
        EXPECT_LE(data[i].timestamp, receiveEnd + 1000000);
        EXPECT_GE(data[i].timestamp, i > 0 ? data[i - 1].timestamp : 0);
    }

    input.ResetCounters();
    const NetInputCounters reset = input.GetCounters();
    EXPECT_EQ(reset.frameCount + reset.byteCount + reset.dropCount, 0u);
    ASSERT_TRUE(wire->Send(sent[0]));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1, 30s));
    EXPECT_EQ(input.GetCounters().frameCount, 1u);
    EXPECT_EQ(input.GetCounters().byteCount, sent[0].size());

    // Once stopped there is no handle and so no figures, whatever the fields hold.
    input.Stop();
    EXPECT_EQ(ThreadsNamed("LYR-PcapInIf"), 0);
    const NetInputCounters stopped = input.GetCounters();
    EXPECT_EQ(stopped.frameCount + stopped.byteCount + stopped.dropCount, 0u);
}

TEST_F(LiveInput, StartAndStopInAnyOrderAndAFilterLetsOnlyMatchingTrafficThroughUntilTheNextOpen)
{
    PcapNetInputIf input;
    input.Stop(); // never started
    ASSERT_TRUE(input.Configure(Device(), Kt::CIpAddress(Host), Port));
    ASSERT_TRUE(Capture(input));

    // Frames keep their order on the pair: had the others passed, they would come first.
    ASSERT_TRUE(wire->Send(Udp(OtherHost, Port, DataTag, 1)));
    ASSERT_TRUE(wire->Send(Udp(Host, Port + 1, DataTag, 2)));
    ASSERT_TRUE(wire->Send(fixture::EthernetFrame(0xffffffffffff, 0x0a0000000001, fixture::kEtherTypeArp,
                                                  fixture::ArpPacket(1, 0x0a0000000001, OtherHost, 0, Host))));
    ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, 3)));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1, 30s));
    std::vector<Seen> seen = collector.Take();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back().bytes, Udp(Host, Port, DataTag, 3));
    for (const Seen& frame : seen)
        EXPECT_NE(TagOf(frame.bytes), 0) << "a frame that the filter should have kept out";

    // A new configuration reaches the capture at the next open, not before.
    ASSERT_TRUE(input.Configure(Device(), Any, 0));
    input.Start(); // started already: no new open
    ASSERT_TRUE(wire->Send(Udp(OtherHost, Port, DataTag, 4)));
    ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, 5)));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1, 30s));
    seen = collector.Take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].bytes, Udp(Host, Port, DataTag, 5));

    input.Stop();
    input.Stop();
    input.Start();
    ASSERT_TRUE(WaitUntilCapturing(OtherHost, 9));
    ASSERT_TRUE(wire->Send(Udp(OtherHost, Port, DataTag, 6)));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1, 30s));
} // destroyed while started

TEST_F(LiveInput, CaptureSurvivesTheDeviceVanishingAndResumesWithFreshCounters)
{
    LogCapture log;
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Any, 0));
    ASSERT_TRUE(Capture(input));

    wire.reset();
    ASSERT_TRUE(NetworkSandbox::Get().DeletePair());
    const auto failures = log.WaitFor("Failed to activate: ", 3, 30s);
    ASSERT_TRUE(NetworkSandbox::Get().CreatePair());
    ASSERT_EQ(failures.size(), 3u);
    for (size_t i = 1; i < failures.size(); ++i) // a pause between attempts, not a busy retry
        EXPECT_GE(failures[i].when - failures[i - 1].when, 1s);
    EXPECT_NE(failures[0].text.find("No such device"), std::string::npos) << failures[0].text;

    wire.emplace(NetworkSandbox::Get().Second());
    ASSERT_TRUE(wire->Ok()) << wire->Error();
    collector.Take();
    ASSERT_TRUE(WaitUntilCapturing());
    // Counted from the new open only: nothing from before the loss.
    const size_t markers = collector.Count(MarkerTag);
    EXPECT_GE(markers, 1u);
    EXPECT_LE(input.GetCounters().frameCount, markers);
    EXPECT_GE(input.GetCounters().frameCount, 1u);
}

TEST_F(LiveInput, SubscribersMayReadCountersButNotStopTheirOwnThreadAndASlowOneMakesRealDrops)
{
    LogCapture log;
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Any, 0));
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    std::atomic<bool> bHold{false};
    std::vector<unsigned long long> countsSeen; // of the first two data frames
    input.Subscribe(Subscriber([&](const Lyr::EthFrame& frame) {
        if (bHold) {
            std::lock_guard<std::mutex> wait(gate); // held up until the burst is over
        } else if (TagOf(Bytes(frame)) == DataTag && countsSeen.size() < 2) {
            countsSeen.push_back(input.GetCounters().frameCount);
            input.Stop();
        }
    }));
    ASSERT_TRUE(Capture(input));
    ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, 1)));
    ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, 2)));
    ASSERT_TRUE(collector.WaitFor(DataTag, 2, 30s)); // the capture went on after the refused Stop
    ASSERT_EQ(countsSeen.size(), 2u);
    EXPECT_EQ(countsSeen[1], countsSeen[0] + 1); // each includes the frame being delivered
    EXPECT_EQ(log.WaitFor("Stop called from the capture thread is refused", 2, 0s).size(), 2u);
    EXPECT_EQ(input.GetCounters().dropCount, 0u);

    // A burst several times the 2 MiB ring while the capture thread is held up.
    collector.Take();
    bHold = true;
    const uint32_t burst = 6000;
    for (uint32_t i = 0; i < burst; ++i)
        ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, i, 1400)));
    bHold = false;
    closed.unlock();
    ASSERT_TRUE(WaitUntilCapturing());
    EXPECT_GT(input.GetCounters().dropCount, 0u);
    EXPECT_LT(collector.Count(DataTag), burst);

    // A baseline above libpcap's count (a reset whose pcap_stats failed on a new handle) wraps.
    PcapNetInputIfProbe::SetDropBaseline(input, 1ULL << 32); // above any 32-bit ps_drop
    EXPECT_GE(input.GetCounters().dropCount, ~0ULL - 0xFFFFFFFFULL);
    input.ResetCounters();
    EXPECT_EQ(input.GetCounters().dropCount, 0u);
}

// Start/Stop cycles with traffic flowing, a subscriber reading the counters and a thread that
// reconfigures, so that Stop lands in every state of the capture thread: it must always return,
// and once it has, no subscriber may run. An open costs tens of milliseconds, so only every 40th
// cycle waits for a frame.
TEST_F(LiveInput, StartStopStormWithTrafficNeverHangsNorDeliversAfterStop)
{
    PcapNetInputIf input;
    ASSERT_TRUE(input.Configure(Device(), Any, 0));
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
            wire->Send(Udp(Host, Port, DataTag, i));
            std::this_thread::sleep_for(50us);
        }
    });
    std::thread configurer([&] {
        while (bRunning) {
            input.Configure(Device(), Any, 0);
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
            waited += collector.WaitFor(DataTag, collector.Count(DataTag) + 1, 30s);
        } else { // stop at once or after a short, random spin
            for (auto until = Clock::now() + std::chrono::microseconds(random() % 100); Clock::now() < until;) {
            }
        }
        input.Stop();
        bStopped = true;
    }
    std::this_thread::sleep_for(100ms); // traffic that nobody may receive
    bRunning = false;
    sender.join();
    configurer.join();
    EXPECT_EQ(late.load(), 0);
    EXPECT_EQ(waited, cycles / 40);
}

// A subscriber that deletes its input: the subscribers whose turn has come later still get the
// frame in hand, no later frame reaches anyone, and the capture thread ends on its own. Several
// rounds, so that the delete lands in different states of libpcap's batch; AddressSanitizer
// and ThreadSanitizer watch the object's memory and the handle.
TEST_F(LiveInput, ASubscriberMayDeleteItsInputAndTheCaptureEndsBehindIt)
{
    for (int round = 0; round < 5; ++round) {
        auto* input = new PcapNetInputIf;
        ASSERT_TRUE(input->Configure(Device(), Any, 0));
        std::atomic<bool> bDeleted{false};
        input->Subscribe(Subscriber([&bDeleted, input](const Lyr::EthFrame& frame) {
            if (TagOf(Bytes(frame)) == DataTag && !bDeleted.exchange(true))
                delete input;
        }));
        ASSERT_TRUE(Capture(*input));
        for (uint32_t i = 0; !bDeleted && i < 100000; ++i)
            ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, i)));
        ASSERT_TRUE(bDeleted);
        for (auto deadline = Clock::now() + 30s; ThreadsNamed("LYR-PcapInIf") != 0 && Clock::now() < deadline;)
            std::this_thread::sleep_for(10ms);
        EXPECT_EQ(ThreadsNamed("LYR-PcapInIf"), 0);
        for (uint32_t i = 0; i < 20; ++i)
            ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, i)));
        EXPECT_EQ(collector.Count(DataTag), 1u);
        collector.Take();
    }
}
