#include "support/InputProbe.h"
#include "support/LogCapture.h"
#include "support/NetworkSandbox.h"
#include "support/Wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <tuple>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr uint32_t Host = fixture::Ipv4Address(10, 0, 0, 2);
constexpr uint32_t OtherHost = fixture::Ipv4Address(10, 0, 0, 3);
constexpr uint16_t Port = 5000;
constexpr uint8_t MarkerTag = 'M';
constexpr uint8_t DataTag = 'D';
const Kt::CIpAddress Any = Kt::CIpAddress::MinIpAddress;
const std::string CaptureThread = "LYR-PcapInIf";

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

std::vector<Seen> Tagged(std::vector<Seen> frames, uint8_t tag)
{
    frames.erase(std::remove_if(frames.begin(), frames.end(), [tag](const Seen& seen) { return TagOf(seen.bytes) != tag; }),
                 frames.end());
    return frames;
}

struct TagCollector : Collector {
    size_t Count(uint8_t tag) { return Tagged(Copy(), tag).size(); }
    bool WaitFor(uint8_t tag, size_t count, Clock::duration timeout = 30s)
    {
        return WaitUntil([&](const std::vector<Seen>& frames) { return Tagged(frames, tag).size() >= count; }, timeout);
    }
};

// All three figures, to compare at once.
std::tuple<unsigned long long, unsigned long long, unsigned long long> Figures(const NetInputCounters& counters)
{
    return {counters.frameCount, counters.byteCount, counters.dropCount};
}

unsigned long long WallMicros()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// How many threads of this process carry `name`.
int ThreadsNamed(const std::string& name)
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::count_if(begin(tasks), end(tasks), [&name](const std::filesystem::directory_entry& task) {
        std::string text;
        std::getline(std::ifstream(task.path() / "comm"), text);
        return text == name;
    }));
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

    // Sends `frames` in order; false at the first that could not be sent.
    bool Send(std::initializer_list<std::vector<uint8_t>> frames)
    {
        return std::all_of(frames.begin(), frames.end(), [this](const std::vector<uint8_t>& frame) { return wire->Send(frame); });
    }

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

    // Configures the device, subscribes the collector (after any subscriber of the test's own)
    // and starts the capture.
    bool Capture(PcapNetInputIf& input, const Kt::CIpAddress& address = Any, unsigned int port = 0)
    {
        if (!input.Configure(Device(), address, port))
            return false;
        input.Subscribe(collector.Functor());
        input.Start();
        return WaitUntilCapturing();
    }

    LogCapture log;
    std::optional<Wire> wire; // the far end, which sends to the captured one
    TagCollector collector;
};

} // namespace

TEST_F(LiveInput, ConfigureStoresTheFilterFirstKeepsTheLastFoundDeviceAndARefusedFilterIsRetriedEverySecond)
{
    PcapNetInputIf input;
    const std::string missing = "The selected interface could not be found.\n", refused = "Couldn't install filter dst port 70000: ";
    // Device, address, port; whether Configure succeeds, the filter and the device it leaves, and
    // the start of its message. Names compare exactly, case included; a refused filter skips the
    // device search; the filter is stored either way.
    struct Case {
        std::string device;
        Kt::CIpAddress address;
        unsigned int port;
        bool bOk;
        std::string filter, deviceLeft, message;
    };
    auto check = [&](const Case& c) {
        SCOPED_TRACE(c.device + " " + c.filter);
        EXPECT_EQ(input.Configure(c.device, c.address, c.port), c.bOk);
        EXPECT_EQ(PcapNetInputIfProbe::Filter(input), c.filter);
        EXPECT_EQ(PcapNetInputIfProbe::Device(input), c.deviceLeft);
        const auto lines = log.Take();
        ASSERT_EQ(lines.size(), c.message.empty() ? 0u : 1u);
        EXPECT_TRUE(lines.empty() || lines[0].rfind(c.message, 0) == 0) << lines[0];
    };
    check({"nosuch0", Any, 0, false, "", "", "Error attempting to configure interface(nosuch0). " + missing});
    check({Device(), Kt::CIpAddress(Host), Port, true, "dst host 10.0.0.2 && dst port 5000", Device(), ""});
    check({"LYRVETH0", Any, 80, false, "dst port 80", Device(), "Error attempting to configure interface(LYRVETH0). " + missing});
    check({"nosuch0", Any, 70000, false, "dst port 70000", Device(), refused});

    // Started so, the capture thread tries again after a pause of a second each time, and Stop
    // cuts that pause short: it returns well before the pause that has just begun would end.
    input.Start();
    const auto attempts = log.WaitFor(refused, 2, 30s);
    ASSERT_EQ(attempts.size(), 2u);
    EXPECT_GE(attempts[1].when - attempts[0].when, 1s);
    // The failed open left its activated handle: the figures are there, with no message.
    EXPECT_EQ(Figures(input.GetCounters()), Figures({}));
    input.Stop();
    EXPECT_LT(Clock::now() - attempts[1].when, 900ms);
    EXPECT_EQ(log.Take().size(), 2u);

    check({Device(), Any, 0, true, "", Device(), ""}); // an empty filter compiles too, and clears the earlier one
}

TEST_F(LiveInput, FramesArriveWholeInOrderStampedAndCounted)
{
    PcapNetInputIf input;
    ASSERT_TRUE(Capture(input));
    std::vector<std::vector<uint8_t>> sent;
    const unsigned long long sendStart = WallMicros();
    for (uint32_t i = 0; i < 200; ++i) { // sizes up to a full 1514-byte frame
        sent.push_back(Udp(i % 2 ? Host : OtherHost, static_cast<uint16_t>(Port + i % 3), DataTag, i, 18 + (i * 37) % 1454));
        // Ten at a time: the kernel's ring holds only milliseconds of traffic for a capture
        // thread that a busy machine keeps waiting, and this test is not about drops.
        ASSERT_TRUE(wire->Send(sent.back()) && (i % 10 < 9 || collector.WaitFor(DataTag, i + 1))) << "frame " << i;
    }
    const unsigned long long receiveEnd = WallMicros();
    EXPECT_EQ(ThreadsNamed(CaptureThread), 1);

    const NetInputCounters counters = input.GetCounters();
    const std::vector<Seen> seen = collector.Take();
    unsigned long long bytes = 0;
    for (const Seen& frame : seen)
        bytes += frame.bytes.size();
    EXPECT_EQ(Figures(counters), Figures({seen.size(), bytes, 0})); // the markers count too
    const std::vector<Seen> data = Tagged(seen, DataTag);
    ASSERT_EQ(data.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        ASSERT_EQ(data[i].bytes, sent[i]) << "frame " << i;
        EXPECT_GE(data[i].timestamp + 1000000, sendStart);
        EXPECT_LE(data[i].timestamp, receiveEnd + 1000000);
        EXPECT_GE(data[i].timestamp, i > 0 ? data[i - 1].timestamp : 0);
    }

    input.ResetCounters();
    EXPECT_EQ(Figures(input.GetCounters()), Figures({}));
    ASSERT_TRUE(wire->Send(sent[0]) && collector.WaitFor(DataTag, 1));
    EXPECT_EQ(Figures(input.GetCounters()), Figures({1, sent[0].size(), 0}));

    // Once stopped there is no handle and so no figures, whatever the fields hold.
    input.Stop();
    EXPECT_EQ(ThreadsNamed(CaptureThread), 0);
    EXPECT_EQ(Figures(input.GetCounters()), Figures({}));
}

// How many holders keep the device promiscuous, as the kernel counts them: a veth pair delivers
// frames for any address, so only this count shows that the capture asked for promiscuous mode.
int Promiscuity(const std::string& device)
{
    std::FILE* shown = popen(("ip -d link show dev " + device + " 2>/dev/null").c_str(), "r");
    int count = -1;
    char word[64];
    while (shown && std::fscanf(shown, "%63s", word) == 1)
        if (std::strcmp(word, "promiscuity") == 0 && std::fscanf(shown, "%d", &count) != 1)
            count = -1;
    if (shown)
        pclose(shown);
    return count;
}

TEST_F(LiveInput, OpensTheDevicePromiscuousAndHandsEachFrameOverAtOnce)
{
    ASSERT_EQ(Promiscuity(Device()), 0);
    {
        PcapNetInputIf input;
        ASSERT_TRUE(Capture(input));
        EXPECT_EQ(Promiscuity(Device()), 1);
        // Each frame reaches the subscriber before the next one is sent. The back-end asks the
        // kernel to hand a batch over after a millisecond at most; a quarter of a second leaves
        // room for a loaded machine, and a batch held back for anything near a second (the
        // usual read timeouts) fails nearly every frame.
        int prompt = 0;
        for (uint32_t i = 0; i < 10; ++i) {
            ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, i)));
            prompt += collector.WaitFor(DataTag, i + 1, 250ms);
            ASSERT_TRUE(collector.WaitFor(DataTag, i + 1)) << "frame " << i;
        }
        EXPECT_GE(prompt, 8) << "of 10 frames, within 250 ms each";
    }
    EXPECT_EQ(Promiscuity(Device()), 0) << "given up with the handle";
}

TEST_F(LiveInput, StartAndStopInAnyOrderAndAFilterLetsOnlyMatchingTrafficThroughUntilTheNextOpen)
{
    PcapNetInputIf input;
    input.Stop(); // never started
    ASSERT_TRUE(Capture(input, Kt::CIpAddress(Host), Port));

    // Frames keep their order on the pair: had the others passed, they would come first.
    ASSERT_TRUE(Send({Udp(OtherHost, Port, DataTag, 1), Udp(Host, Port + 1, DataTag, 2),
                      fixture::EthernetFrame(0xffffffffffff, 0x0a0000000001, fixture::kEtherTypeArp,
                                             fixture::ArpPacket(1, 0x0a0000000001, OtherHost, 0, Host)),
                      Udp(Host, Port, DataTag, 3)}));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1));
    std::vector<Seen> seen = collector.Take(); // not empty: the wait found one
    EXPECT_EQ(seen.back().bytes, Udp(Host, Port, DataTag, 3));
    EXPECT_EQ(Tagged(seen, MarkerTag).size(), seen.size() - 1) << "a frame that the filter should have kept out";

    // A new configuration reaches the capture at the next open, not before.
    ASSERT_TRUE(input.Configure(Device(), Any, 0));
    input.Start(); // started already: no new open
    ASSERT_TRUE(Send({Udp(OtherHost, Port, DataTag, 4), Udp(Host, Port, DataTag, 5)}));
    ASSERT_TRUE(collector.WaitFor(DataTag, 1));
    seen = collector.Take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].bytes, Udp(Host, Port, DataTag, 5));

    input.Stop();
    input.Stop();
    input.Start();
    ASSERT_TRUE(WaitUntilCapturing(OtherHost, 9));
    ASSERT_TRUE(Send({Udp(OtherHost, Port, DataTag, 6)}) && collector.WaitFor(DataTag, 1));
} // destroyed while started

TEST_F(LiveInput, CaptureSurvivesTheDeviceVanishingAndResumesWithFreshCounters)
{
    PcapNetInputIf input;
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
    // Counted from the new open only: nothing from before the loss. The count is read first, as
    // a marker still on its way may reach both figures in between.
    const unsigned long long frames = input.GetCounters().frameCount;
    EXPECT_GE(frames, 1u);
    EXPECT_LE(frames, collector.Count(MarkerTag));
}

TEST_F(LiveInput, SubscribersMayReadCountersButNotStopTheirOwnThreadAndASlowOneMakesRealDrops)
{
    PcapNetInputIf input;
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
    ASSERT_TRUE(Send({Udp(Host, Port, DataTag, 1), Udp(Host, Port, DataTag, 2)}));
    ASSERT_TRUE(collector.WaitFor(DataTag, 2)); // the capture went on after the refused Stop
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
        // Stop at once or after a short, random spin.
        const auto spinUntil = Clock::now() + std::chrono::microseconds(cycle % 40 ? random() % 100 : 0);
        if (cycle % 40 == 0)
            waited += collector.WaitFor(DataTag, collector.Count(DataTag) + 1);
        while (Clock::now() < spinUntil) {
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
        std::atomic<bool> bDeleted{false};
        input->Subscribe(Subscriber([&bDeleted, input](const Lyr::EthFrame& frame) {
            if (TagOf(Bytes(frame)) == DataTag && !bDeleted.exchange(true))
                delete input;
        }));
        ASSERT_TRUE(Capture(*input));
        for (uint32_t i = 0; !bDeleted && i < 100000; ++i)
            ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, i)));
        ASSERT_TRUE(bDeleted);
        // A reading of /proc/self/task while another thread exits can miss a thread, so the
        // capture thread counts as ended once two readings in a row find none.
        int emptyReadings = 0;
        for (auto deadline = Clock::now() + 30s; emptyReadings < 2 && Clock::now() < deadline;) {
            std::this_thread::sleep_for(10ms);
            emptyReadings = ThreadsNamed(CaptureThread) == 0 ? emptyReadings + 1 : 0;
        }
        EXPECT_EQ(emptyReadings, 2) << "the capture thread did not end";
        for (uint32_t i = 0; i < 20; ++i)
            ASSERT_TRUE(wire->Send(Udp(Host, Port, DataTag, i)));
        EXPECT_EQ(collector.Count(DataTag), 1u);
        collector.Take();
    }
}
