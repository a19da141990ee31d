// Position, duration and seek of a capture file being replayed.
#include "support/CaptureFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <thread>

namespace {

const std::string TooFar = "Seek time exceeds duration of pcap file.\n";

// Packets 0, 100, 199.999 and 300.900 ms into a present-day second: offsets count in whole ms,
// so the file lasts 300 ms and the third packet stands at 199. The 789 ns more of a nano file drop.
constexpr unsigned long long Offsets[] = {0, 100000, 199999, 300900};

constexpr unsigned long long StampOf(int packet)
{
    return Now * 1000000ULL + Offsets[packet];
}

std::vector<fixture::Record> FourPackets(fixture::Precision precision = fixture::Precision::Micro)
{
    std::vector<fixture::Record> records;
    for (int i = 0; i < 4; ++i)
        records.push_back(Whole(Now, precision == fixture::Precision::Nano ? Offsets[i] * 1000 + 789 : Offsets[i],
                                Frame(60 + i, uint8_t(i))));
    return records;
}

using Seek = CaptureFileTest;

} // namespace

TEST_F(Seek, PositionFollowsReadsAndSeeksConsumeThePacketAtTheTargetInEveryFormat)
{
    for (const char* name : {"micro.pcap", "nano.pcap", "micro.pcapng", "nano.pcapng"}) {
        SCOPED_TRACE(name);
        fixture::FileOptions options;
        options.precision = name[0] == 'n' ? fixture::Precision::Nano : fixture::Precision::Micro;
        ASSERT_TRUE(file.ConfigureFile(Write(name, FourPackets(options.precision), options), ReadMode, 0));
        EXPECT_EQ(file.GetPosition(), 0u);
        EXPECT_EQ(NextStamp(), StampOf(0));
        EXPECT_EQ(NextStamp(), StampOf(1));
        for (unsigned long long target : {300ULL, ULLONG_MAX}) { // at the duration or beyond: refused, nothing changes
            file.SeekBegin(target);
            EXPECT_EQ(log.Take(), std::vector<std::string>{TooFar});
            EXPECT_EQ(file.GetPosition(), 100u);
        }
        EXPECT_EQ(NextStamp(), StampOf(2));
        const struct {
            unsigned long long target, position, next; // next: the stamp the next Read delivers
        } cases[] = {{299, 300, 0},          {150, 199, StampOf(3)}, {199, 199, StampOf(3)}, {200, 300, 0},
                     {100, 100, StampOf(2)}, {1, 100, StampOf(2)},   {0, 0, StampOf(0)}};
        // Every seek starts again from the beginning, so the same one twice ends alike.
        for (const auto& c : cases)
            for (int again = 0; again < 2; ++again)
                ExpectSeek(c.target, c.position, c.next);
    }
    EXPECT_TRUE(log.Take().empty());
}

// Stamps near zero: the seek compares absolute times with the target.
TEST_F(Seek, ASeekAheadReadsOnWithoutTheFileAndOneThatStartsAgainNeedsItBack)
{
    std::vector<fixture::Record> records;
    for (int64_t usec : {0, 120000, 250000, 400000})
        records.push_back(Whole(0, usec, Frame(60)));
    const std::string path = Write("epoch.pcap", records), away = dir.File("away.pcap");
    ASSERT_TRUE(file.ConfigureFile(path, ReadMode, 0));
    EXPECT_EQ(NextStamp(), 0u);
    EXPECT_EQ(NextStamp(), 120000u);
    ASSERT_EQ(std::rename(path.c_str(), away.c_str()), 0);
    ExpectSeek(200, 250, 400000); // 120 ms is below the target: on from here, no reopen
    EXPECT_TRUE(log.Take().empty());
    file.SeekBegin(100); // 400 ms is above it: the reopen finds no file
    const auto lines = log.Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Error reading pcap file: ", 0), 0u);
    EXPECT_EQ(NextStamp(), 0u);
    EXPECT_TRUE(log.Take().empty()); // no handle: refused without a word
    EXPECT_EQ(file.GetPosition(), 400u);

    ASSERT_EQ(std::rename(away.c_str(), path.c_str()), 0);
    ExpectSeek(100, 120, 250000);
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(Seek, AFileCutOffMidRecordEndsAtItsLastWholePacket)
{
    std::vector<fixture::Record> records = FourPackets();
    records[3].data.resize(20); // the record claims 63 bytes, the file holds 20
    ASSERT_TRUE(file.ConfigureFile(Write("cut.pcap", records), ReadMode, 0));
    EXPECT_EQ(file.GetDuration(), 199u);
    for (int packet = 0; packet < 3; ++packet)
        EXPECT_EQ(NextStamp(), StampOf(packet));
    EXPECT_EQ(NextStamp(), 0u);
}

// SeekBegin reopens the handle while a Read on another thread may be inside it: the sanitizers
// watch the handle, the frames show that nothing mixed up.
TEST_F(Seek, ReadsOnAnotherThreadDuringSeeksGetWholeFramesOrNone)
{
    std::vector<fixture::Record> records;
    for (int i = 0; i < 200; ++i)
        records.push_back(Whole(Now, i * 1000, Frame(60 + i % 50, uint8_t(i)))); // one per millisecond
    ASSERT_TRUE(file.ConfigureFile(Write("many.pcap", records), ReadMode, 0));
    std::atomic<bool> bStop{false};
    std::atomic<int> delivered{0}, wrong{0};
    std::thread reader([&] {
        FrameBuffer own;
        while (!bStop) {
            if (!file.Read(own.frame))
                continue;
            const unsigned long long index = (own.frame.GetTimestamp() - Now * 1000000ULL) / 1000;
            ++(index < records.size() && Bytes(own.frame) == records[index].data ? delivered : wrong);
        }
    });
    // Seek on until the reader has had frames between seeks as well, within a generous deadline.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int round = 0; round < 400 || (delivered == 0 && std::chrono::steady_clock::now() < deadline); ++round) {
        file.SeekBegin(round % 150);
        std::this_thread::yield();
    }
    bStop = true;
    reader.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(delivered, 0);
    EXPECT_TRUE(log.Take().empty());
}
