// Capture files: the scan, frames and seeks of one being read, files that the field's own tools
// made, and recording frames into one, with what libpcap makes of it.
#include "support/CaptureFiles.h"
#include "support/Descriptors.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <tuple>

namespace {

using CaptureFile = CaptureFileTest;
using Seek = CaptureFileTest;
using Interop = CaptureFileTest;
using Recording = CaptureFileTest;

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

const std::string NegativeInGetPosition = "GetPosition(): Negative time value, file could be corrupted.\n";

// Hands `bytes` to Write as a frame whose buffer has room behind them, which Write leaves out.
void Put(PcapNetFile& to, std::vector<uint8_t> bytes, unsigned long long stamp)
{
    const auto size = static_cast<unsigned int>(bytes.size());
    bytes.resize(size + 200);
    Lyr::EthFrame frame({nullptr, bytes.data(), size + 200}, stamp);
    Kt::CSlice<unsigned char> data = frame.GetData().Prefix(size);
    frame.SetData(data);
    to.Write(frame);
}

} // namespace

// Counts past 32 bits, which the 32-bit target must keep too: lengths past 2^32, 68 years in ms.
TEST_F(CaptureFile, ScanGivesProgressAndDurationPastThirtyTwoBitsAndStartsAtTheFirstPacket)
{
    const std::string path = Write("three.pcap", {Packet(Now, 0, 100, 100), Packet(Now, 200000, 200, 200),
                                                  Packet(Now, 300999, 300, 300)}); // 300.999 ms: whole ms only
    file.StopParsingFile(); // nothing running: returns at once
    // Before its first scan an object has made no progress, also once it reads a file whose
    // duration it was told.
    EXPECT_EQ(file.GetParseProgress(), 0u);
    ASSERT_TRUE(file.ConfigureFile(path, ReadMode, 12345));
    EXPECT_EQ(file.GetParseProgress(), 0u);
    ASSERT_TRUE(file.ConfigureFile(path, ReadMode, 0));
    EXPECT_EQ(file.GetParseProgress(), 500u); // the first packet is not in the count
    EXPECT_EQ(file.GetDuration(), 300u);
    // A duration the caller knows spares the scan and leaves the progress alone.
    ASSERT_TRUE(file.ConfigureFile(path, ReadMode, 12345));
    EXPECT_EQ(file.GetDuration(), 12345u);
    EXPECT_EQ(file.GetParseProgress(), 500u);

    const uint32_t huge = 0xF0000000u;
    const std::string wide = Write("wide.pcap", {Packet(1, 0, 60, huge), Packet(2, 0, 60, huge), Packet(INT32_MAX, 0, 60, huge)});
    ASSERT_TRUE(file.ConfigureFile(wide, ReadMode, 0));
    EXPECT_EQ(file.GetParseProgress(), 2ULL * huge);
    EXPECT_EQ(file.GetDuration(), (INT32_MAX - 1) * 1000ULL);
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(CaptureFile, EmptySingleAndBackwardsFilesLastNothingAndBadModesRead)
{
    ASSERT_TRUE(file.ConfigureFile(Write("empty.pcap", {}), ReadMode, 0));
    EXPECT_FALSE(file.Read(buffer.frame));
    ASSERT_TRUE(file.ConfigureFile(Write("single.pcap", {Whole(Now, 7, Frame(60))}), ReadMode, 0));
    EXPECT_EQ(file.GetDuration() + file.GetParseProgress(), 0u);
    file.SeekBegin(0); // one packet lasts nothing: even a seek to 0 is beyond it
    EXPECT_EQ(log.Take(), std::vector<std::string>{TooFar});

    const std::string backwards = Write("backwards.pcap", {Whole(Now, 500000, Frame(60)), Whole(Now, 100000, Frame(60))});
    EXPECT_TRUE(file.ConfigureFile(backwards, ReadMode, 0));
    EXPECT_EQ(log.Take(), std::vector<std::string>{"InitializeFileStats(): Negative time value, file could be corrupted.\n"});
    EXPECT_EQ(file.GetDuration(), 0u);

    for (auto mode : {Lyr::NetFile::NetFileMode_None, static_cast<Lyr::NetFile::NetFileMode_e>(3)}) {
        EXPECT_FALSE(file.ConfigureFile(backwards, mode, 0));
        EXPECT_FALSE(file.Read(buffer.frame));
        EXPECT_EQ(log.Take(), std::vector<std::string>{ReadOnly});
    }
}

TEST_F(CaptureFile, StopParsingFromAnotherThreadEndsTheScanEarly)
{
    const unsigned long long packets = 400000;
    const std::string path = dir.File("large.pcap");
    {
        fixture::CaptureFileWriter writer(path);
        const auto frame = Frame(60);
        for (unsigned long long i = 0; i < packets; ++i)
            writer.Add(Now + i / 1000, (i % 1000) * 1000, frame); // one per millisecond
    } // 30 MB: the writer's file sink flushes many times, and the full scan reads every record
    ASSERT_TRUE(file.ConfigureFile(path, ReadMode, 0));
    EXPECT_EQ(file.GetParseProgress(), (packets - 1) * 60);
    EXPECT_EQ(file.GetDuration(), packets - 1);
    int cutShort = 0;
    for (int round = 0; round < 3; ++round) {
        PcapNetFile scanned;
        std::atomic<bool> bConfigured{false};
        std::thread stopper([&] {
            while (scanned.GetParseProgress() == 0 && !bConfigured)
                std::this_thread::yield();
            scanned.StopParsingFile();
        });
        ASSERT_TRUE(scanned.ConfigureFile(path, ReadMode, 0));
        bConfigured = true;
        stopper.join();
        // One packet per millisecond: the duration covers exactly the packets scanned.
        const unsigned long long behindFirst = scanned.GetParseProgress() / 60;
        EXPECT_EQ(scanned.GetDuration(), behindFirst);
        cutShort += behindFirst < packets - 1;
    }
    EXPECT_GE(cutShort, 1) << "no scan was stopped before its end";
    // A scan that ends by itself while the request comes: no wait for ever.
    const std::string tiny = Write("tiny.pcap", std::vector<fixture::Record>(50, Whole(Now, 0, Frame(60))));
    for (int round = 0; round < 50; ++round) {
        PcapNetFile small;
        std::thread stopper([&small] {
            for (int i = 0; i < 1000; ++i)
                small.StopParsingFile();
        });
        EXPECT_TRUE(small.ConfigureFile(tiny, ReadMode, 0));
        stopper.join();
    }
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(CaptureFile, ReadDeliversCompleteFramesWholeAndRefusesTheRest)
{
    const auto good = Frame(60, 9), last = Frame(1000, 8);
    const std::string path = Write("mixed.pcap", {Whole(Now, 1, good),
                                                  Packet(Now, 2, 9023, 9023), // too large
                                                  Packet(Now, 3, 100, 200),   // cut short at capture
                                                  Packet(Now, 4, 9022, 9022), // the largest frame
                                                  Packet(Now, 5, 0, 0),       // empty, but complete
                                                  Whole(Now, 6, last)});
    ASSERT_TRUE(file.ConfigureFile(path, ReadMode, 0));
    ASSERT_TRUE(file.Read(buffer.frame));
    EXPECT_EQ(Bytes(buffer.frame), good);
    EXPECT_EQ(buffer.frame.GetTimestamp(), Now * 1000000ULL + 1); // absolute, not from the first packet
    for (int refused = 0; refused < 2; ++refused) {
        EXPECT_FALSE(file.Read(buffer.frame));
        EXPECT_EQ(log.Take(), std::vector<std::string>{InvalidSize});
        EXPECT_EQ(buffer.frame.GetTimestamp(), Now * 1000000ULL + 1); // frame left as it was
    }
    // Reading goes on; with room owed for the largest packet, a slice of 60, then 0, limits nothing.
    for (const auto& expected : {fixture::Payload(9022, 3), std::vector<uint8_t>(), last}) {
        ASSERT_TRUE(file.Read(buffer.frame));
        EXPECT_EQ(Bytes(buffer.frame), expected);
    }
    EXPECT_FALSE(file.Read(buffer.frame));
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(CaptureFile, RawPacketsBecomeEthernetFramesWithGroupAddresses)
{
    const auto udp = fixture::UdpDatagram(5000, 6000, fixture::Payload(10, 1));
    const auto toGroup = fixture::Ipv4Packet(fixture::Ipv4Address(10, 0, 0, 1), fixture::Ipv4Address(224, 0, 0, 1),
                                             fixture::kIpProtocolUdp, udp);
    const auto toHost = fixture::Ipv4Packet(fixture::Ipv4Address(10, 0, 0, 1), fixture::Ipv4Address(10, 0, 0, 2),
                                            fixture::kIpProtocolUdp, udp);
    const auto toBroadcast = fixture::Ipv4Packet(fixture::Ipv4Address(10, 0, 0, 1), fixture::Ipv4Address(255, 255, 255, 255),
                                                 fixture::kIpProtocolUdp, udp);
    // IPv6, whose source address has 224.0.0.1 where an IPv4 header keeps its destination.
    std::vector<uint8_t> ipv6(40, 0);
    ipv6[0] = 0x60;
    ipv6[6] = 59; // no next header
    ipv6[16] = 224, ipv6[19] = 1;
    fixture::FileOptions raw;
    raw.linkType = fixture::kLinkTypeRaw;
    ASSERT_TRUE(file.ConfigureFile(Write("raw.pcap", {Whole(Now, 0, toGroup), Whole(Now, 1, toHost), Packet(Now, 2, 9022, 9022),
                                                      Packet(Now, 3, 3, 3), // too short for an IP header
                                                      Whole(Now, 4, toBroadcast), Whole(Now, 5, ipv6)},
                                         raw),
                                   ReadMode, 0));
    ASSERT_TRUE(file.Read(buffer.frame));
    const auto wire = Bytes(buffer.frame);
    EXPECT_EQ(std::vector<uint8_t>(wire.begin() + 14, wire.end()), toGroup);
    EXPECT_EQ(buffer.frame.GetDstAddress(), 0x01005e000001ULL);
    // Any other packet gets no group address; the largest one makes a frame of 14 more bytes.
    for (size_t size : {14 + toHost.size(), size_t(14 + 9022), size_t(14 + 3), 14 + toBroadcast.size(), size_t(14 + 40)}) {
        EXPECT_EQ(buffer.frame.GetLengthType(), 0x0800);
        ASSERT_TRUE(file.Read(buffer.frame));
        EXPECT_EQ(buffer.frame.GetData().size, size);
        EXPECT_EQ(buffer.frame.GetDstAddress(), 0u) << size;
    }
    // An Ethernet capture afterwards is taken as frames again.
    ASSERT_TRUE(file.ConfigureFile(Write("ethernet.pcap", {Whole(Now, 0, Frame(60, 5))}), ReadMode, 0));
    ASSERT_TRUE(file.Read(buffer.frame));
    EXPECT_EQ(Bytes(buffer.frame), Frame(60, 5));
}

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

TEST_F(Interop, FilesWrittenByText2pcapReadWhole)
{
    // A hex dump as od writes it, one packet after another, each from offset 0.
    std::vector<std::vector<uint8_t>> sent;
    const std::string one = dir.File("frame.bin"), dump = dir.File("frames.txt"), made = dir.File("made.pcap");
    for (int i = 0; i < 5; ++i) {
        sent.push_back(Frame(60 + 100 * i, static_cast<uint8_t>(i)));
        fixture::WriteFile(one, sent.back());
        ASSERT_EQ(std::system(("od -Ax -tx1 -v " + one + " >>" + dump).c_str()), 0);
    }
    ASSERT_EQ(std::system(("text2pcap -q " + dump + " " + made + " >/dev/null 2>&1").c_str()), 0);
    std::vector<std::vector<uint8_t>> read;
    ASSERT_TRUE(file.ConfigureFile(made, ReadMode, 0));
    while (file.Read(buffer.frame))
        read.push_back(Bytes(buffer.frame));
    EXPECT_EQ(read, sent);
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(Recording, PositionAndDurationSpanTheFirstAndLastFrameWritten)
{
    ASSERT_TRUE(file.ConfigureFile(dir.File("a.pcap"), WriteMode, 0));
    Put(file, Frame(60), 0); // a frame at time 0 does not count as the first
    Put(file, Frame(60), 5000000);
    EXPECT_EQ(file.GetDuration(), 0u);
    Put(file, Frame(60), 7500000);
    EXPECT_EQ(file.GetDuration(), 2500u);
    EXPECT_EQ(file.GetPosition(), 2500u);

    // 999999 us is a time like any other, and the last frame written is the last in time.
    ASSERT_TRUE(file.ConfigureFile(dir.File("b.pcap"), WriteMode, 0));
    Put(file, Frame(60), 999999);
    Put(file, Frame(60), 3499999);
    EXPECT_EQ(file.GetDuration(), 2500u);
    Put(file, Frame(60), 999998);
    EXPECT_EQ(file.GetDuration(), 0u);
    EXPECT_EQ(log.Take(), std::vector<std::string>{NegativeInGetPosition});
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_EQ(log.Take(), std::vector<std::string>{NegativeInGetPosition});
}

// Far more than the streams' buffers hold, so that writing and reading both go through refills.
TEST_F(Recording, RecordedFramesReadBackWithTheirBytesAndStamps)
{
    const std::string path = dir.File("recorded.pcap");
    std::vector<fixture::Record> written = {
        Whole(Now, 123456, Frame(60, 1)),  Whole(Now, 999999, Frame(1514, 2)),
        Whole(Now + 1, 0, {}),             // an empty frame is a record too
        Whole(Now + 2, 5, Frame(9022, 3)), Whole(Now + 3, 7, Frame(9100, 4)), // above the snap length: written whole
        Whole(Now + 4, 0, Frame(64, 5)),
    };
    for (int i = 0; i < 400; ++i)
        written.push_back(Whole(Now + 5, i, Frame(60 + i * 37 % 1455, uint8_t(i))));
    size_t fileSize = 24;
    {
        PcapNetFile recorder;
        ASSERT_TRUE(recorder.ConfigureFile(path, WriteMode, 0));
        for (const fixture::Record& record : written) {
            Put(recorder, record.data, record.seconds * 1000000ULL + record.fraction);
            fileSize += 16 + record.data.size();
        }
    }
    EXPECT_EQ(std::filesystem::file_size(path), fileSize);

    const LibpcapView view = ReadWithLibpcap(path);
    EXPECT_EQ(view.snaplen, 9022);
    ASSERT_EQ(view.records.size(), written.size());
    for (size_t i = 0; i < written.size(); ++i) {
        const fixture::Record &read = view.records[i], &put = written[i];
        // libpcap cuts the oversized record down to the snap length.
        const std::vector<uint8_t> kept(put.data.begin(), put.data.begin() + std::min<size_t>(put.data.size(), 9022));
        EXPECT_EQ(std::tie(read.seconds, read.len, read.data), std::tie(put.seconds, put.caplen, kept)) << "record " << i;
        EXPECT_EQ(read.fraction, put.fraction * 1000) << "record " << i;
    }
    EXPECT_TRUE(log.Take().empty());

    // Read gives every frame back but the oversized one, from the start and after a seek back.
    ASSERT_TRUE(file.ConfigureFile(path, ReadMode, 0));
    for (int pass = 0; pass < 2; ++pass) {
        if (pass == 1)
            file.SeekBegin(0); // consumes nothing at 0
        for (size_t i = 0; i < written.size(); ++i) {
            const bool bWhole = written[i].data.size() <= 9022;
            ASSERT_EQ(file.Read(buffer.frame), bWhole) << "record " << i;
            if (bWhole) {
                EXPECT_EQ(Bytes(buffer.frame), written[i].data) << "record " << i;
            }
        }
        EXPECT_FALSE(file.Read(buffer.frame));
    }
    EXPECT_EQ(log.Take(), std::vector<std::string>(2, InvalidSize));
}

TEST_F(Recording, EachDirectionRefusesTheOtherWithItsMessage)
{
    EXPECT_FALSE(file.Read(buffer.frame)); // before any ConfigureFile
    Put(file, Frame(60), Now * 1000000ULL);
    file.SeekBegin(0);
    EXPECT_EQ(log.Take(), (std::vector<std::string>{ReadOnly, WriteOnly, SeekOnly}));
    {
        PcapNetFile writing;
        ASSERT_TRUE(writing.ConfigureFile(dir.File("out.pcap"), WriteMode, 0));
        Put(writing, Frame(60), Now * 1000000ULL);
        Put(writing, Frame(60), Now * 1000000ULL + 42000);
        EXPECT_FALSE(writing.Read(buffer.frame));
        writing.SeekBegin(0);
        EXPECT_EQ(log.Take(), (std::vector<std::string>{ReadOnly, SeekOnly}));
    } // the file is complete once closed

    ASSERT_TRUE(file.ConfigureFile(dir.File("out.pcap"), ReadMode, 0));
    ASSERT_TRUE(file.Read(buffer.frame));
    ASSERT_TRUE(file.Read(buffer.frame));
    Put(file, Frame(60), (Now + 9) * 1000000ULL);
    EXPECT_EQ(log.Take(), std::vector<std::string>{WriteOnly});
    EXPECT_EQ(file.GetPosition(), 42u); // nothing stored

    // A recording that could not be created takes frames without a word, and keeps nothing.
    PcapNetFile nowhere;
    EXPECT_FALSE(nowhere.ConfigureFile(dir.File("no/such/dir.pcap"), WriteMode, 0));
    Put(nowhere, Frame(60), Now * 1000000ULL);
    EXPECT_TRUE(log.Take().empty());
    EXPECT_EQ(nowhere.GetDuration(), 0u);
}

// One object through every change of file and direction, as a host keeps it: nothing of the last
// configuration, and no handle of it, survives, however often it is configured or seeks.
TEST_F(Recording, AReusedObjectKeepsNothingOfItsLastFileAndNoDescriptorOfIt)
{
    const size_t before = OpenDescriptors();
    const std::string twoSeconds = Write("read.pcap", {Whole(Now, 0, Frame(60, 1)), Whole(Now + 2, 0, Frame(60, 2))});
    ASSERT_TRUE(file.ConfigureFile(twoSeconds, ReadMode, 0) && file.Read(buffer.frame));
    // Recording after reading: the duration spans the frames recorded, not the file read.
    const std::string recorded = dir.File("recorded.pcap");
    ASSERT_TRUE(file.ConfigureFile(recorded, WriteMode, 0));
    Put(file, Frame(60, 7), (Now + 100) * 1000000ULL);
    Put(file, Frame(60, 8), (Now + 100) * 1000000ULL + 250000);
    EXPECT_EQ(file.GetDuration(), 250u);
    // Reading what it recorded: complete once the object is configured anew.
    ASSERT_TRUE(file.ConfigureFile(recorded, ReadMode, 0));
    EXPECT_EQ(std::make_pair(file.GetDuration(), file.GetPosition()), std::make_pair(250ULL, 0ULL));
    for (uint8_t seed : {7, 8}) {
        ASSERT_TRUE(file.Read(buffer.frame));
        EXPECT_EQ(Bytes(buffer.frame), Frame(60, seed));
    }
    ASSERT_TRUE(file.ConfigureFile(Write("one.pcap", {Whole(Now, 0, Frame(60))}), ReadMode, 0));
    EXPECT_EQ(file.GetDuration(), 0u) << "one packet lasts nothing, whatever the last file lasted";

    // Every seek to 0 reopens the file: a thousand of them hold one handle.
    ASSERT_TRUE(file.ConfigureFile(twoSeconds, ReadMode, 0));
    for (int i = 0; i < 1000; ++i)
        file.SeekBegin(i % 2 ? 0 : 1);
    EXPECT_EQ(NextStamp(), Now * 1000000ULL);
    EXPECT_EQ(OpenDescriptors(), before + 1);
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(file.ConfigureFile(dir.File("again.pcap"), WriteMode, 0) && file.ConfigureFile(twoSeconds, ReadMode, 1));
    EXPECT_EQ(OpenDescriptors(), before + 1);
    EXPECT_TRUE(log.Take().empty());
    // A configuration that fails closes the last file all the same; what follows is refused as
    // the failed direction refuses it.
    EXPECT_FALSE(file.ConfigureFile(dir.File("missing.pcap"), ReadMode, 0));
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(file.Read(buffer.frame));
    Put(file, Frame(60), Now * 1000000ULL);
    EXPECT_EQ(log.Take(),
              (std::vector<std::string>{"Error reading pcap file: " + dir.File("missing.pcap") + ": No such file or directory\n", WriteOnly}));
    EXPECT_FALSE(file.ConfigureFile(dir.File("no/such/dir.pcap"), WriteMode, 0));
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(file.Read(buffer.frame));
    file.SeekBegin(0);
    EXPECT_EQ(log.Take(), (std::vector<std::string>{ReadOnly, SeekOnly}));
}
