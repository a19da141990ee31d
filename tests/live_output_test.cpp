// The output port on a veth pair of the test's own network namespace, read back with libpcap.
#include "PcapNetOutputIf.h"
#include "support/CaptureFiles.h"
#include "support/CountingAllocator.h"
#include "support/Descriptors.h"
#include "support/NetworkSandbox.h"
#include "support/SchedulerProbe.h"
#include "support/Wire.h"

#include <lyr/PreciseScheduler.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace {

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

// Which frames arrive, by their markers: the `count` expected and any more.
std::vector<int> Arrived(Wire& wire, std::size_t count)
{
    std::vector<int> markers;
    for (const Wire::Arrival& arrival : wire.TakeExpected(count))
        markers.push_back(arrival.bytes.size() > 14 ? arrival.bytes[14] : -1);
    std::sort(markers.begin(), markers.end());
    return markers;
}

// The send buffer of a socket; -1 for none.
int SendBufferOf(int socket)
{
    int size = -1;
    socklen_t length = sizeof size;
    return socket >= 0 && getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 ? size : -1;
}

// The largest send buffer that Linux grants, twice net.core.wmem_max. Asked of a socket of our
// own: before 6.x kernels (Debian 12's among them) show that setting in the first network
// namespace only, not in the test's.
int LargestSendBuffer()
{
    const int probe = socket(AF_INET, SOCK_DGRAM, 0), size = INT_MAX;
    const int largest = setsockopt(probe, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) == 0 ? SendBufferOf(probe) : -1;
    if (probe >= 0)
        close(probe);
    return largest;
}

// Each test has the log, a port open on the first end, and the wire of the second end.
class LiveOutput : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!NetworkSandbox::Get().Ok())
            GTEST_SKIP() << NetworkSandbox::Get().Reason();
        ASSERT_TRUE(receiver.Ok()) << receiver.Error();
        Lyr::PreciseScheduler::GetInstance().UseWallClock();
        output.ConfigureIf(First());
    }
    static const char* First() { return NetworkSandbox::Get().First(); }
    static const char* Second() { return NetworkSandbox::Get().Second(); }
    static unsigned long long Present() { return Lyr::PreciseScheduler::GetInstance().GetPresentTimestamp(); }

    Wire receiver{Second(), TestFrames}; // an error, not a skip, only where the sandbox is made
    LogCapture log;
    Lyr::BufferPool pool{64, 9036};
    ProbeOutput output;
};

} // namespace

// Frames due 300 ms ahead, pending while ConfigureIf replaces the port and while the port ends:
// both wait until the frames' time has passed and they have left whole by the port they were sent to.
TEST_F(LiveOutput, ConfigureIfAndTheEndAnnounceTheirStatesAndLetPendingFramesLeaveFirst)
{
    Wire onFirst(First(), TestFrames);
    ASSERT_TRUE(onFirst.Ok()) << onFirst.Error();
    auto tested = std::make_unique<ProbeOutput>();
    const O* port = tested.get();
    pcap_t* const& handle = tested->Handle();
    std::string seen; // per announcement: R(eady), C(onfiguring) or X (closing), and o when a port is open
    tested->SubscribeConfigState(Kt::MakeFunctor<void(O::ConfigState_e)>([&seen, port, &handle](O::ConfigState_e state) {
        EXPECT_EQ(port->GetConfigState(), state); // stored before it is announced
        seen += std::string(1, "RCX"[state]) + (handle ? "o " : "- ");
    }));
    tested->SetTimeout(~0ULL); // the frames must leave, however loaded the machine
    tested->ConfigureIf(First()); // first call: nothing to close
    tested->ConfigureIf(First()); // the same device: closed and opened again
    std::vector<std::uint8_t> sent;
    unsigned long long due = Present() + 300000;
    {
        Lyr::BufferPool ownPool(1, 9036); // the frame and its pool end long before the frame's time
        const Lyr::EthFrame frame = TestFrame(ownPool, 1, due, 200);
        sent = Bytes(frame);
        tested->SendFrame(frame);
    }
    tested->ConfigureIf("lyrnosuchdev0");
    EXPECT_GE(Present(), due);
    const auto arrivals = receiver.Take(1);
    ASSERT_EQ(arrivals.size(), 1u);
    EXPECT_EQ(arrivals[0].bytes, sent);
    tested->ConfigureIf(Second()); // after a failure: nothing of it remains
    due = Present() + 300000;
    tested->SendFrame(TestFrame(pool, 2, due));
    tested.reset();
    EXPECT_GE(Present(), due);
    EXPECT_EQ(Arrived(onFirst, 1), std::vector<int>{2});
    EXPECT_EQ(seen, "C- Ro Co Ro Co R- C- Ro Xo ");
    const std::string failed = "Failed to open port for transmitting: "; // and why, on one line
    const std::vector<std::string> lines = log.Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].rfind(failed, 0) == 0 && lines[0].size() > failed.size() + 1 && lines[0].back() == '\n') << lines[0];
}

// The port holds one socket however often it is configured, none once a configuration failed,
// and none once it has ended.
TEST_F(LiveOutput, APortConfiguredAgainAndAgainHoldsOneSocketAndNoneAtTheEnd)
{
    const std::size_t before = OpenDescriptors();
    {
        PcapNetOutputIf port;
        port.ConfigureIf(First());
        const std::size_t open = OpenDescriptors();
        EXPECT_GT(open, before);
        for (int i = 0; i < 50; ++i)
            port.ConfigureIf(i % 2 ? First() : Second());
        EXPECT_EQ(OpenDescriptors(), open);
        port.ConfigureIf("lyrnosuchdev0");
        EXPECT_EQ(OpenDescriptors(), before);
        port.ConfigureIf(Second());
        EXPECT_EQ(OpenDescriptors(), open);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(LiveOutput, TheSendBufferSizeTakesEffectAsStoredAtTheNextConfigureIf)
{
    auto inForce = [this] { return SendBufferOf(output.Handle() ? pcap_fileno(output.Handle()) : -1); };
    const int largest = LargestSendBuffer(), systemDefault = inForce();
    ASSERT_TRUE(largest > 80000 && systemDefault > 0 && systemDefault != largest) << largest << " " << systemDefault;
    // The size stored, the ConfigureIf calls that follow, and the buffer then in force: the open
    // socket keeps its buffer; the size is in force at every ConfigureIf, doubled by Linux; a
    // negative size is passed on, and the kernel reads it as a huge unsigned number and grants its maximum.
    const struct {
        int size, configures, expected;
    } steps[] = {{20000, 0, systemDefault}, {20000, 2, 40000}, {-1, 1, largest}, {0, 1, systemDefault}};
    for (const auto& step : steps) {
        output.SetSocketSendBufferSize(step.size);
        for (int i = 0; i < step.configures; ++i)
            output.ConfigureIf(First());
        EXPECT_EQ(inForce(), step.expected) << step.size << " and " << step.configures << " ConfigureIf";
    }
}

// A frame's event, driven directly with a given lateness and through the scheduler: the frame
// leaves, is dropped as late or is reported, and leaves the count of pending frames either way.
TEST_F(LiveOutput, AFrameLeavesIsDroppedAsLateOrIsReportedAndIsUncountedEitherWay)
{
    int late = 0;
    output.SubscribeTimeout(Kt::MakeFunctor<void()>([&late] { ++late; }));
    // Frame 1 + i meets the limit and lateness of cases[i], the first four the port's default
    // limit; the limit is compared first, in all 64 bits.
    const unsigned long long largest = ~0ULL, cases[][2] = {
        {10000, 10000}, {10000, 10001}, {10000, 1ULL << 32}, {10000, 1ULL << 63}, // low 32 bits 0; top bit set
        {0, 0}, {0, 1}, {largest, largest}, {largest, 1ULL << 63}};
    for (int i = 0; i < 8; ++i) {
        if (i >= 4)
            output.SetTimeout(cases[i][0]);
        output.Transmit(TestFrame(pool, static_cast<std::uint8_t>(1 + i), 0).GetData(), cases[i][1]);
        EXPECT_EQ(output.Pending(), 0u);
    }
    EXPECT_EQ(Arrived(receiver, 4), (std::vector<int>{1, 5, 7, 8}));
    EXPECT_EQ(late, 4);

    // The limit that counts is the one set when the event runs: the gate holds the scheduler
    // while a frame 50 ms late when queued waits, and the limit falls from the largest meanwhile.
    {
        SchedulerGate gate;
        gate.Close();
        output.SendFrame(TestFrame(pool, 9, Present() - 50000));
        output.SetTimeout(1000);
    }
    output.WaitForPendingFrames();
    // No port open: over the limit the delegate still fires; within it nothing happens at all.
    ProbeOutput unopened;
    unopened.SubscribeTimeout(Kt::MakeFunctor<void()>([&late] { ++late; }));
    unopened.Transmit(TestFrame(pool, 11, 0).GetData(), 10001);
    unopened.Transmit(TestFrame(pool, 12, 0).GetData(), 0);
    EXPECT_EQ(unopened.Pending(), 0u);
    EXPECT_EQ(late, 6);
    EXPECT_TRUE(log.Take().empty());

    // Larger than the device's MTU, and empty: the kernel refuses both, and the port stays open.
    output.Transmit(TestFrame(pool, 13, 0, 3000).GetData(), 0);
    output.Transmit(Kt::CSlice<unsigned char>(), 0);
    EXPECT_EQ(log.Take(), std::vector<std::string>(2, "Failed to transmit data."));
    output.Transmit(TestFrame(pool, 14, 0).GetData(), 0);
    EXPECT_EQ(Arrived(receiver, 1), std::vector<int>{14}) << "nor any frame dropped since";

    // A subscriber of the delegate throws, or memory runs out while the event is built: the
    // exception passes, the count still falls.
    output.SubscribeTimeout(Kt::MakeFunctor<void()>([] { throw std::runtime_error("subscriber"); }));
    EXPECT_THROW(output.Transmit(TestFrame(pool, 15, 0).GetData(), largest), std::runtime_error);
    EXPECT_EQ(output.Pending(), 0u);
    const Lyr::EthFrame frame = TestFrame(pool, 16, Present() + 1000000);
    for (long nth : {1, 2}) {
        countingAllocator::failAllocation = nth;
        EXPECT_THROW(output.SendFrame(frame), std::bad_alloc) << "allocation " << nth;
        countingAllocator::failAllocation = 0;
        EXPECT_EQ(output.Pending(), 0u);
    }
}

// A file whose stamps lie seconds apart, one before the first, sent at 200 times its speed
// twice over. Frames are matched on the wire by their marker and compared whole; the kernel's
// receive stamps show that none left before its time.
TEST_F(LiveOutput, TheHostToolSendsEachFrameOncePerPassInFileOrderAndNoneBeforeItsTime)
{
    TempDir dir;
    const int count = 20, backwards = 12;
    auto second = [](int i) { return i == backwards ? -5 : 3 * i + i % 2; }; // from the first stamp: gaps of 2 and 4 s
    auto frame = [this](int i) { return Bytes(TestFrame(pool, static_cast<std::uint8_t>(i), 0, 60 + (i * 97) % 1400)); };
    {
        fixture::CaptureFileWriter writer(dir.File("gaps.pcap"));
        for (int i = 0; i < count; ++i)
            writer.Add(Now + second(i), 0, frame(i));
    }
    const auto start = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch());
    const std::string command = "timeout 120 " + std::string(LYRCAP_PATH) + " --plugin " + LYR_PLUGIN_PATH + " send " +
                                dir.File("gaps.pcap") + " " + First() + " --speed 200 --loop 2 --timeout 18446744073709551615 >" +
                                dir.File("out") + " 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0);
    std::ifstream file(dir.File("out"));
    const std::string summary{std::istreambuf_iterator<char>(file), {}};
    EXPECT_NE(summary.find("frames sent: 40\ndropped as late: 0\n"), std::string::npos) << summary;

    const auto arrivals = receiver.Take(2 * count);
    ASSERT_EQ(arrivals.size(), 2u * count);
    std::vector<int> passes(count, 0);
    int previous = -1; // as pass * count + index
    for (const Wire::Arrival& arrival : arrivals) {
        const int i = arrival.bytes.size() > 14 ? arrival.bytes[14] : -1;
        ASSERT_TRUE(i >= 0 && i < count && arrival.bytes == frame(i)) << "frame " << i;
        const int pass = passes[i]++;
        if (i == backwards)
            continue; // due before its pass begins, so it leaves whenever it is handed over
        EXPECT_GT(pass * count + i, previous) << "frame " << i << " of pass " << pass << " out of order";
        previous = pass * count + i;
        const long long due = start.count() + (pass * second(count - 1) + second(i)) * 1000000LL / 200;
        EXPECT_GE(static_cast<long long>(arrival.microseconds), due) << "frame " << i << " of pass " << pass << " left early";
    }
    EXPECT_EQ(std::count(passes.begin(), passes.end(), 2), count);
}
