#include "support/CaptureFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using CaptureFile = CaptureFileTest;

// Counts past 32 bits, which the 32-bit target must keep too: lengths past 2^32, 68 years in ms.
TEST_F(CaptureFile, ScanGivesProgressAndDurationPastThirtyTwoBitsAndStartsAtTheFirstPacket)
{
    const std::string path = Write("three.pcap", {Packet(Now, 0, 100, 100), Packet(Now, 200000, 200, 200),
                                                  Packet(Now, 300999, 300, 300)}); // 300.999 ms: whole ms only
    file.StopParsingFile(); // nothing running: returns at once
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
    EXPECT_EQ(log.Take(), std::vector<std::string>{"Seek time exceeds duration of pcap file.\n"});

    const std::string backwards = Write("backwards.pcap", {Whole(Now, 500000, Frame(60)), Whole(Now, 100000, Frame(60))});
    EXPECT_TRUE(file.ConfigureFile(backwards, ReadMode, 0));
    EXPECT_EQ(log.Take(), std::vector<std::string>{"InitializeFileStats(): Negative time value, file could be corrupted.\n"});
    EXPECT_EQ(file.GetDuration(), 0u);

    for (auto mode : {Lyr::NetFile::NetFileMode_None, static_cast<Lyr::NetFile::NetFileMode_e>(3)}) {
        EXPECT_FALSE(file.ConfigureFile(backwards, mode, 0));
        EXPECT_FALSE(file.Read(buffer.frame));
        EXPECT_EQ(log.Take(), std::vector<std::string>{"Can only read from a file that is set to read.\n"});
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
