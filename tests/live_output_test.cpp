// The output port on real devices: a veth pair in a network namespace of the test's own. What
// the port puts on one end is read back on the other with libpcap.
#include "PcapNetOutputIf.h"
#include "support/CaptureFiles.h"
#include "support/CountingAllocator.h"
#include "support/LogCapture.h"
#include "support/NetworkSandbox.h"
#include "support/SchedulerProbe.h"
#include "support/TempDir.h"
#include "support/Wire.h"

#include <lyr/PreciseScheduler.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace {

using namespace std::chrono_literals;
using O = Lyr::NetOutputIf;
const char* const TestFrames = "ether proto 0x88b5";

// The port as the tests look into it, and TransmitData driven as its event drives it.
struct ProbeOutput : PcapNetOutputIf {
    void Transmit(const Kt::CSlice<unsigned char>& bytes, unsigned long long lateness)
    {
        pendingFrames.fetch_add(1); // what SendFrame does first
        TransmitData(bytes, lateness);
    }
    unsigned int Pending() const { return pendingFrames.load(); }
    // A reference, for a subscriber that still looks while the destructor runs.
    pcap_t* const& Handle() const { return pcapHandle; }
};

// A frame of `size` bytes of an experimental EtherType that nothing else sends, whose payload
// starts with `marker`, in a buffer of `pool`.
Lyr::EthFrame TestFrame(Lyr::BufferPool& pool, std::uint8_t marker, unsigned long long timestamp, std::size_t size = 60)
{
    std::vector<std::uint8_t> payload = fixture::Payload(size - 14, marker);
    payload[0] = marker;
    const std::vector<std::uint8_t> bytes = fixture::EthernetFrame(0x020000000002, 0x020000000001, 0x88B5, payload);
    Kt::CSlice<unsigned char> buffer = pool.GetBuffer();
    std::memcpy(buffer.data, bytes.data(), bytes.size());
    return Lyr::EthFrame(buffer.Prefix(static_cast<unsigned int>(bytes.size())), timestamp);
}

std::vector<int> Markers(const std::vector<Wire::Arrival>& arrivals)
{
    std::vector<int> markers;
    for (const auto& arrival : arrivals)
        markers.push_back(arrival.bytes.size() > 14 ? arrival.bytes[14] : -1);
    return markers;
}

unsigned long long Present()
{
    return Lyr::PreciseScheduler::GetInstance().GetPresentTimestamp();
}

int SendBufferOf(const ProbeOutput& output)
{
    int size = 0;
    socklen_t length = sizeof size;
    if (!output.Handle() || getsockopt(pcap_fileno(output.Handle()), SOL_SOCKET, SO_SNDBUF, &size, &length) != 0)
        return -1;
    return size;
}

class LiveOutput : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!NetworkSandbox::Get().Ok())
            GTEST_SKIP() << NetworkSandbox::Get().Reason();
        Lyr::PreciseScheduler::GetInstance().UseWallClock();
    }
    const char* First() { return NetworkSandbox::Get().First(); }
    const char* Second() { return NetworkSandbox::Get().Second(); }

    Lyr::BufferPool pool{64, 9036};
};

} // namespace

TEST_F(LiveOutput, ConfigureIfAnnouncesItsStatesAroundEveryOpenGoodOrFailed)
{
    LogCapture log;
    auto output = std::make_unique<ProbeOutput>();
    const O* port = output.get();
    pcap_t* const& handle = output->Handle();
    std::string seen; // per announcement: R(eady), C(onfiguring) or X (closing), and o when a port is open
    output->SubscribeConfigState(Kt::MakeFunctor<void(O::ConfigState_e)>([&seen, port, &handle](O::ConfigState_e state) {
        EXPECT_EQ(port->GetConfigState(), state); // stored before it is announced
        seen += std::string(1, "RCX"[state]) + (handle ? "o " : "- ");
    }));
    output->ConfigureIf(First()); // first call: nothing to close
    output->ConfigureIf(First()); // the same device: closed and opened again
    output->ConfigureIf("lyrnosuchdev0");
    output->ConfigureIf(Second()); // after a failure: nothing of it remains
    output.reset();
    EXPECT_EQ(seen, "C- Ro Co Ro Co R- C- Ro Xo ");
    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Failed to open port for transmitting: ", 0), 0u) << lines[0];
    EXPECT_GT(lines[0].size(), std::strlen("Failed to open port for transmitting: \n"));
    EXPECT_EQ(lines[0].back(), '\n');

    // Without subscribers the state is stored all the same; a port never configured closes at once.
    ProbeOutput quiet;
    quiet.ConfigureIf("lyrnosuchdev0");
    EXPECT_EQ(quiet.GetConfigState(), O::ConfigState_Ready);
    std::vector<O::ConfigState_e> closing;
    const auto start = std::chrono::steady_clock::now();
    {
        ProbeOutput never;
        never.SubscribeConfigState(Kt::MakeFunctor<void(O::ConfigState_e)>([&](O::ConfigState_e s) { closing.push_back(s); }));
    }
    EXPECT_EQ(closing, std::vector<O::ConfigState_e>{O::ConfigState_Closing});
    EXPECT_LT(std::chrono::steady_clock::now() - start, 100ms);
}

TEST_F(LiveOutput, TheSendBufferSizeTakesEffectAsStoredAtTheNextConfigureIf)
{
    long wmemMax = -1;
    std::ifstream("/proc/sys/net/core/wmem_max") >> wmemMax;
    ASSERT_GT(wmemMax, 40000);
    ProbeOutput output;
    output.ConfigureIf(First());
    const int systemDefault = SendBufferOf(output);
    ASSERT_GT(systemDefault, 0);

    output.SetSocketSendBufferSize(20000);
    EXPECT_EQ(SendBufferOf(output), systemDefault) << "the open socket keeps its buffer";
    output.ConfigureIf(First());
    EXPECT_EQ(SendBufferOf(output), 40000) << "Linux doubles the size it is given";
    output.ConfigureIf(First());
    EXPECT_EQ(SendBufferOf(output), 40000) << "the size stays in force";

    // A negative size is passed on: the kernel reads it as a huge unsigned number and grants its maximum.
    output.SetSocketSendBufferSize(-1);
    output.ConfigureIf(First());
    EXPECT_EQ(SendBufferOf(output), 2 * wmemMax);
    ASSERT_NE(2 * wmemMax, systemDefault);

    output.SetSocketSendBufferSize(0);
    output.ConfigureIf(First());
    EXPECT_EQ(SendBufferOf(output), systemDefault);
}

TEST_F(LiveOutput, PendingFramesHoldConfigureIfAndTheDestructorAndLeaveWholeOnTheOldPort)
{
    Wire onSecond(Second(), TestFrames), onFirst(First(), TestFrames);
    ASSERT_TRUE(onSecond.Ok() && onFirst.Ok()) << onSecond.Error() << onFirst.Error();
    auto output = std::make_unique<ProbeOutput>();
    output->SetTimeout(~0ULL); // what is tested here must leave, however loaded the machine
    output->ConfigureIf(First());

    std::vector<std::uint8_t> sent;
    {
        Lyr::BufferPool ownPool(1, 9036); // the frame and its pool end long before the frame's time
        const Lyr::EthFrame frame = TestFrame(ownPool, 1, Present() + 300000, 200);
        sent = Bytes(frame);
        output->SendFrame(frame);
    }
    auto start = std::chrono::steady_clock::now();
    output->ConfigureIf(Second());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 250ms);
    const auto arrivals = onSecond.Take(1); // frame 1 left through the first end
    ASSERT_EQ(arrivals.size(), 1u);
    EXPECT_EQ(arrivals[0].bytes, sent);

    output->SendFrame(TestFrame(pool, 2, Present() + 300000));
    start = std::chrono::steady_clock::now();
    output.reset();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 250ms);
    EXPECT_EQ(Markers(onFirst.Take(1)), std::vector<int>{2}) << "frame 2 left through the second end";
}

TEST_F(LiveOutput, TheLimitIsComparedFirstInAllSixtyFourBitsAsItStandsWhenTheEventRuns)
{
    Wire receiver(Second(), TestFrames);
    ASSERT_TRUE(receiver.Ok()) << receiver.Error();
    LogCapture log;
    const unsigned long long largest = ~0ULL;
    struct Case {
        int marker;
        bool bSetTimeout;
        unsigned long long timeout;
        unsigned long long lateness;
        bool bLeaves;
    } const cases[] = {
        {1, false, 0, 10000, true},        // the default limit, met exactly
        {2, false, 0, 10001, false},       // one above it
        {3, false, 0, 1ULL << 32, false},  // low 32 bits all 0
        {4, false, 0, 1ULL << 63, false},  // top bit set: huge, not negative
        {5, true, 0, 0, true},             // a limit of 0 lets only 0 through
        {6, true, 0, 1, false},
        {7, true, largest, largest, true}, // the largest limit: nothing is late
        {8, true, largest, 1ULL << 63, true},
    };
    ProbeOutput output;
    int late = 0;
    output.SubscribeTimeout(Kt::MakeFunctor<void()>([&late] { ++late; }));
    output.ConfigureIf(First());
    std::vector<int> leaving;
    for (const Case& c : cases) {
        if (c.bSetTimeout)
            output.SetTimeout(c.timeout);
        const int lateBefore = late;
        output.Transmit(TestFrame(pool, static_cast<std::uint8_t>(c.marker), 0).GetData(), c.lateness);
        EXPECT_EQ(late - lateBefore, c.bLeaves ? 0 : 1) << "frame " << c.marker;
        EXPECT_EQ(output.Pending(), 0u);
        if (c.bLeaves)
            leaving.push_back(c.marker);
    }
    EXPECT_EQ(Markers(receiver.Take(leaving.size() + 1, 500ms)), leaving);
    EXPECT_EQ(late, 4);

    // The limit that counts is the one set when the event runs: the gate holds the scheduler so
    // that each frame is 50 ms late at least, and the limit changes meanwhile.
    for (const unsigned long long limit : {largest, 1000ULL}) {
        {
            SchedulerGate gate;
            gate.Close();
            output.SendFrame(TestFrame(pool, 9, Present() - 50000));
            output.SetTimeout(limit);
        }
        output.WaitForPendingFrames();
    }
    EXPECT_EQ(late, 5);
    EXPECT_EQ(Markers(receiver.Take(2, 200ms)), std::vector<int>{9});

    // No port open: over the limit the delegate still fires; within it nothing happens at all.
    ProbeOutput unopened;
    int unopenedLate = 0;
    unopened.SubscribeTimeout(Kt::MakeFunctor<void()>([&] { ++unopenedLate; }));
    unopened.Transmit(TestFrame(pool, 10, 0).GetData(), 10001);
    EXPECT_EQ(unopenedLate, 1);
    unopened.Transmit(TestFrame(pool, 11, 0).GetData(), 0);
    unopened.SetTimeout(~0ULL);
    unopened.SendFrame(TestFrame(pool, 12, Present()));
    unopened.WaitForPendingFrames();
    EXPECT_EQ(unopenedLate, 1);
    EXPECT_EQ(unopened.Pending(), 0u);
    EXPECT_TRUE(receiver.Take(1, 200ms).empty());
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(LiveOutput, AFrameThatCannotLeaveOrBeScheduledIsReportedAndUncounted)
{
    Wire receiver(Second(), TestFrames);
    ASSERT_TRUE(receiver.Ok()) << receiver.Error();
    LogCapture log;
    ProbeOutput output;
    output.ConfigureIf(First());
    // Larger than the device's MTU, and empty: the kernel refuses both.
    output.Transmit(TestFrame(pool, 1, 0, 3000).GetData(), 0);
    output.Transmit(Kt::CSlice<unsigned char>(), 0);
    EXPECT_EQ(log.Lines(), std::vector<std::string>(2, "Failed to transmit data."));
    output.Transmit(TestFrame(pool, 2, 0).GetData(), 0); // the port stays open
    EXPECT_EQ(Markers(receiver.Take(2, 500ms)), std::vector<int>{2});

    // A subscriber of the delegate throws: the exception passes, the count still falls.
    output.SubscribeTimeout(Kt::MakeFunctor<void()>([] { throw std::runtime_error("subscriber"); }));
    EXPECT_THROW(output.Transmit(TestFrame(pool, 3, 0).GetData(), 20000), std::runtime_error);
    EXPECT_EQ(output.Pending(), 0u);

    // Memory runs out while the event is built: the exception passes, the count still falls.
    const Lyr::EthFrame frame = TestFrame(pool, 4, Present() + 1000000);
    for (long nth : {1, 2}) {
        countingAllocator::failAllocation = nth;
        EXPECT_THROW(output.SendFrame(frame), std::bad_alloc) << "allocation " << nth;
        countingAllocator::failAllocation = 0;
        EXPECT_EQ(output.Pending(), 0u);
    }
}

TEST_F(LiveOutput, ACaptureFileSentWithTheHostToolArrivesWholeInOrderWithItsGaps)
{
    TempDir dir;
    const std::string path = dir.File("gaps.pcap");
    std::vector<std::vector<std::uint8_t>> frames;
    std::vector<std::uint64_t> times;
    {
        fixture::CaptureFileWriter writer(path);
        std::uint64_t at = Now * 1000000ULL;
        for (int i = 0; i < 60; ++i) {
            at += 2000 + 1000 * (i % 7); // gaps of 2 to 8 ms
            frames.push_back(Bytes(TestFrame(pool, static_cast<std::uint8_t>(i), 0, 60 + (i * 97) % 1400)));
            times.push_back(at);
            writer.Add(static_cast<std::int64_t>(at / 1000000), static_cast<std::int64_t>(at % 1000000), frames.back());
        }
    }
    Wire receiver(Second(), TestFrames);
    ASSERT_TRUE(receiver.Ok()) << receiver.Error();
    // A generous limit: a loaded machine (or a sanitizer) may hold a frame back now and then.
    const std::string command =
        std::string(LYRCAP_PATH) + " --plugin " + LYR_PLUGIN_PATH + " send " + path + " " + First() + " --timeout 1000000 2>&1";
    std::string output;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char chunk[512];
        while (std::size_t n = fread(chunk, 1, sizeof chunk, pipe))
            output.append(chunk, n);
        EXPECT_EQ(pclose(pipe), 0) << output;
    }
    EXPECT_NE(output.find("frames sent: 60\n"), std::string::npos) << output;
    EXPECT_NE(output.find("dropped as late: 0\n"), std::string::npos) << output;

    const auto arrivals = receiver.Take(frames.size());
    ASSERT_EQ(arrivals.size(), frames.size());
    std::vector<long long> gapErrors;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(arrivals[i].bytes, frames[i]) << "frame " << i;
        if (i > 0)
            gapErrors.push_back(std::llabs(static_cast<long long>(arrivals[i].microseconds - arrivals[i - 1].microseconds) -
                                           static_cast<long long>(times[i] - times[i - 1])));
    }
    // Judged as a whole: the suite's other tests may hold up the sender or the receiver now and
    // then, but not most gaps, nor the run's end.
    std::sort(gapErrors.begin(), gapErrors.end());
    EXPECT_LT(gapErrors[gapErrors.size() / 2], 500) << "the median gap error";
    const long long span = static_cast<long long>(arrivals.back().microseconds - arrivals.front().microseconds);
    EXPECT_LT(std::llabs(span - static_cast<long long>(times.back() - times.front())), 20000) << "of a span of 300 ms";
}
