// Position, duration and seek of a capture file being replayed.
#include "PcapNetFile.h"
#include "support/CaptureFiles.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <memory>
#include <thread>

namespace {

using Mode = Lyr::NetFile::NetFileMode_e;
const std::string TooFar = "Seek time exceeds duration of pcap file.\n";

struct Format {
    const char* name;
    bool bPcapng;
    fixture::Precision precision;
};

// Packets at 0, 100, 200 and 300 ms after a present-day second. Nanosecond files carry 789 ns
// more, which the microsecond stamps drop.
void WriteFourPackets(const std::string& path, const Format& format = {"pcap", false, fixture::Precision::Micro})
{
    fixture::FileOptions options;
    options.precision = format.precision;
    std::unique_ptr<fixture::RecordWriter> writer;
    if (format.bPcapng)
        writer = std::make_unique<fixture::PcapngWriter>(path, options);
    else
        writer = std::make_unique<fixture::CaptureFileWriter>(path, options);
    const bool bNano = format.precision == fixture::Precision::Nano;
    for (int i = 0; i < 4; ++i)
        writer->Add(Now, bNano ? i * 100000000LL + 789 : i * 100000LL, Frame(60 + i, uint8_t(i)));
}

constexpr unsigned long long StampOf(int packet)
{
    return Now * 1000000ULL + packet * 100000ULL;
}

class Seek : public ::testing::Test {
protected:
    // The time stamp of the frame the next Read delivers, or 0 when it delivers none.
    unsigned long long NextStamp()
    {
        return file.Read(buffer.frame) ? buffer.frame.GetTimestamp() : 0;
    }

    TempDir dir;
    LogCapture log;
    PcapNetFile file;
    FrameBuffer buffer;
};

class SeekInEveryFormat : public Seek, public ::testing::WithParamInterface<Format> {};

} // namespace

TEST_P(SeekInEveryFormat, PositionFollowsReadsAndSeeksConsumeThePacketAtTheTarget)
{
    const std::string path = dir.File("four");
    WriteFourPackets(path, GetParam());
    ASSERT_TRUE(file.ConfigureFile(path, Mode::NetFileMode_Read, 0));
    EXPECT_EQ(file.GetDuration(), 300u);
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_EQ(NextStamp(), StampOf(0));
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_EQ(NextStamp(), StampOf(1));
    EXPECT_EQ(file.GetPosition(), 100u);

    struct Case {
        unsigned long long target, position;
        int next; // the packet the next Read delivers, -1 for none
    };
    const Case cases[] = {{299, 300, -1}, {150, 200, 3}, {200, 200, 3}, {1, 100, 2}, {0, 0, 0}};
    for (const Case& c : cases) {
        // Every seek starts again from the beginning, so the same one twice ends alike.
        for (int again = 0; again < 2; ++again) {
            file.SeekBegin(c.target);
            EXPECT_EQ(file.GetPosition(), c.position) << "target " << c.target;
            EXPECT_EQ(NextStamp(), c.next < 0 ? 0 : StampOf(c.next)) << "target " << c.target;
        }
    }
    EXPECT_TRUE(log.Lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Formats, SeekInEveryFormat,
                         ::testing::Values(Format{"pcap", false, fixture::Precision::Micro},
                                           Format{"pcap_nano", false, fixture::Precision::Nano},
                                           Format{"pcapng", true, fixture::Precision::Micro},
                                           Format{"pcapng_nano", true, fixture::Precision::Nano}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Seek, TargetsAtTheDurationOrBeyondAreRefusedAndChangeNothing)
{
    const std::string path = dir.File("four.pcap");
    WriteFourPackets(path);
    ASSERT_TRUE(file.ConfigureFile(path, Mode::NetFileMode_Read, 0));
    EXPECT_EQ(NextStamp(), StampOf(0));
    for (unsigned long long target : {300ULL, ULLONG_MAX}) {
        file.SeekBegin(target);
        EXPECT_EQ(log.Take(), std::vector<std::string>{TooFar});
        EXPECT_EQ(file.GetPosition(), 0u);
    }
    EXPECT_EQ(NextStamp(), StampOf(1));

    // One packet lasts nothing: even a seek to 0 is refused.
    const std::string single = dir.File("single.pcap");
    {
        fixture::CaptureFileWriter writer(single);
        writer.Add(Now, 0, Frame(60));
    }
    ASSERT_TRUE(file.ConfigureFile(single, Mode::NetFileMode_Read, 0));
    file.SeekBegin(0);
    EXPECT_EQ(log.Take(), std::vector<std::string>{TooFar});
    EXPECT_EQ(NextStamp(), Now * 1000000ULL);
}

TEST_F(Seek, OffsetsAreWholeMillisecondsTruncated)
{
    const std::string path = dir.File("fractions.pcap");
    {
        fixture::CaptureFileWriter writer(path);
        writer.Add(Now, 0, Frame(60, 0));
        writer.Add(Now, 199999, Frame(60, 1)); // 199.999 ms does not reach 200
        writer.Add(Now, 300900, Frame(60, 2)); // 300.900 ms lasts 300
    }
    ASSERT_TRUE(file.ConfigureFile(path, Mode::NetFileMode_Read, 0));
    EXPECT_EQ(file.GetDuration(), 300u);
    file.SeekBegin(300);
    EXPECT_EQ(log.Take(), std::vector<std::string>{TooFar});
    file.SeekBegin(200);
    EXPECT_EQ(file.GetPosition(), 300u);
    EXPECT_EQ(NextStamp(), 0u);
    file.SeekBegin(199);
    EXPECT_EQ(file.GetPosition(), 199u);
    EXPECT_EQ(NextStamp(), Now * 1000000ULL + 300900);
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Seek, StampsNearZeroReadOnFromWhereTheReplayStands)
{
    const std::string path = dir.File("epoch.pcap");
    {
        fixture::CaptureFileWriter writer(path);
        for (int64_t usec : {0, 120000, 250000, 400000})
            writer.Add(0, usec, Frame(60));
    }
    ASSERT_TRUE(file.ConfigureFile(path, Mode::NetFileMode_Read, 0));
    ASSERT_TRUE(file.Read(buffer.frame));
    EXPECT_EQ(buffer.frame.GetTimestamp(), 0u);
    EXPECT_EQ(NextStamp(), 120000u);
    // With the file gone, only a seek that does not start again can succeed.
    ASSERT_EQ(std::remove(path.c_str()), 0);
    file.SeekBegin(200); // 120 ms absolute is below the target: no reopen
    EXPECT_TRUE(log.Take().empty());
    EXPECT_EQ(file.GetPosition(), 250u);
    EXPECT_EQ(NextStamp(), 400000u);
    file.SeekBegin(100); // 400 ms is above it: the reopen finds no file
    const auto lines = log.Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Error reading pcap file: ", 0), 0u);
}

TEST_F(Seek, AVanishedFileStopsReadingUntilASeekFindsItAgain)
{
    const std::string path = dir.File("four.pcap"), away = dir.File("away.pcap");
    WriteFourPackets(path);
    ASSERT_TRUE(file.ConfigureFile(path, Mode::NetFileMode_Read, 0));
    EXPECT_EQ(NextStamp(), StampOf(0));
    EXPECT_EQ(NextStamp(), StampOf(1));
    ASSERT_EQ(std::rename(path.c_str(), away.c_str()), 0);
    file.SeekBegin(250);
    auto lines = log.Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Error reading pcap file: ", 0), 0u);
    EXPECT_EQ(NextStamp(), 0u);
    EXPECT_TRUE(log.Take().empty()); // no handle: refused without a word
    EXPECT_EQ(file.GetPosition(), 100u);

    ASSERT_EQ(std::rename(away.c_str(), path.c_str()), 0);
    file.SeekBegin(100);
    EXPECT_EQ(file.GetPosition(), 100u);
    EXPECT_EQ(NextStamp(), StampOf(2));
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Seek, AFileCutOffMidRecordEndsAtItsLastWholePacket)
{
    const std::string path = dir.File("cut.pcap");
    WriteFourPackets(path);
    fixture::TruncateFile(path, 24 + 3 * 16 + 60 + 61 + 62 + 16 + 20); // 20 of the fourth packet's 63 bytes
    ASSERT_TRUE(file.ConfigureFile(path, Mode::NetFileMode_Read, 0));
    EXPECT_EQ(file.GetDuration(), 200u);
    for (int packet = 0; packet < 3; ++packet)
        EXPECT_EQ(NextStamp(), StampOf(packet));
    EXPECT_EQ(NextStamp(), 0u);
    file.SeekBegin(199);
    EXPECT_EQ(file.GetPosition(), 200u);
    EXPECT_EQ(NextStamp(), 0u);
    file.SeekBegin(50);
    EXPECT_EQ(NextStamp(), StampOf(2));
}

// SeekBegin closes and reopens the handle while a Read on another thread may be inside it: the
// Read must either find reading disabled or finish before the handle goes. ThreadSanitizer (and
// AddressSanitizer, for a use after free) watch the handle; the frames show that nothing mixed up.
TEST_F(Seek, ReadsOnAnotherThreadDuringSeeksGetWholeFramesOrNone)
{
    const std::string path = dir.File("many.pcap");
    const int packets = 200;
    std::vector<std::vector<uint8_t>> frames;
    {
        fixture::CaptureFileWriter writer(path);
        for (int i = 0; i < packets; ++i) {
            frames.push_back(Frame(60 + i % 50, uint8_t(i)));
            writer.Add(Now, i * 1000, frames.back()); // one per millisecond
        }
    }
    ASSERT_TRUE(file.ConfigureFile(path, Mode::NetFileMode_Read, 0));
    std::atomic<bool> bStop{false};
    std::atomic<int> delivered{0}, wrong{0};
    std::thread reader([&] {
        FrameBuffer own;
        while (!bStop) {
            if (!file.Read(own.frame))
                continue;
            const unsigned long long index = (own.frame.GetTimestamp() - Now * 1000000ULL) / 1000;
            if (index < frames.size() && Bytes(own.frame) == frames[index])
                ++delivered;
            else
                ++wrong;
        }
    });
    // Go on seeking until the reader has had frames between seeks as well, within a generous
    // deadline for a slow, busy machine.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int round = 0; round < 400 || (delivered == 0 && std::chrono::steady_clock::now() < deadline); ++round) {
        file.SeekBegin(round % 150);
        std::this_thread::yield();
    }
    bStop = true;
    reader.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(delivered, 0);
    EXPECT_TRUE(log.Lines().empty());
}
