#include "support/InputProbe.h"
#include "support/LogCapture.h"

#include "PcapCommon.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <vector>

namespace {

const std::string InvalidSize = "Error reading packet from interface. Invalid packet size.";

Kt::CIpAddress Ip(const char* text)
{
    Kt::CIpAddress address;
    EXPECT_TRUE(Kt::CIpAddress::Parse(text, address)) << text;
    return address;
}

pcap_pkthdr Header(unsigned int caplen, unsigned int len, long seconds = 1714564800, long micros = 250000)
{
    pcap_pkthdr header{};
    header.ts.tv_sec = seconds;
    header.ts.tv_usec = micros;
    header.caplen = caplen;
    header.len = len;
    return header;
}

std::vector<unsigned char> Bytes(size_t size)
{
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(i * 7 + 3);
    return bytes;
}

// What a subscriber saw of each frame.
struct Seen {
    std::vector<unsigned char> bytes;
    unsigned long long timestamp;
};

} // namespace

TEST(FilterExpression, HostComesFirstAndPortsAreNotLimitedTo16Bits)
{
    const Kt::CIpAddress none = Kt::CIpAddress::MinIpAddress;
    EXPECT_EQ(GenerateFilterExpression(none, 0), "");
    EXPECT_EQ(GenerateFilterExpression(none, 5000), "dst port 5000");
    EXPECT_EQ(GenerateFilterExpression(Ip("192.0.2.7"), 0), "dst host 192.0.2.7");
    EXPECT_EQ(GenerateFilterExpression(Ip("239.1.2.3"), 65535), "dst host 239.1.2.3 && dst port 65535");
    EXPECT_EQ(GenerateFilterExpression(none, 70000), "dst port 70000");
    EXPECT_EQ(GenerateFilterExpression(none, 4294967295u), "dst port 4294967295");
}

TEST(PacketDelivery, CompleteFramesAreCopiedStampedCountedAndDelivered)
{
    LogCapture log;
    PcapNetInputIf input;
    std::vector<Seen> seen;
    input.Subscribe(Subscriber([&](const Lyr::EthFrame& frame) {
        const auto data = frame.GetData();
        seen.push_back({std::vector<unsigned char>(data.data, data.data + data.size), frame.GetTimestamp()});
        // The frame being delivered is already counted.
        EXPECT_EQ(PcapNetInputIfProbe::Frames(input), seen.size());
    }));

    const auto largest = Bytes(MaxFrameSize);
    const pcap_pkthdr whole = Header(MaxFrameSize, MaxFrameSize);
    input.HandlePacket(&whole, largest.data());
    const pcap_pkthdr empty = Header(0, 0, 1, 999999);
    input.HandlePacket(&empty, largest.data());

    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].bytes, largest);
    EXPECT_EQ(seen[0].timestamp, 1714564800250000ULL);
    EXPECT_TRUE(seen[1].bytes.empty());
    EXPECT_EQ(seen[1].timestamp, 1999999ULL);
    EXPECT_EQ(PcapNetInputIfProbe::Frames(input), 2u);
    EXPECT_EQ(PcapNetInputIfProbe::Bytes(input), MaxFrameSize);
    EXPECT_TRUE(log.Lines().empty());

    // Without a handle there are no figures to report, and a reset clears the fields all the same.
    const NetInputCounters counters = input.GetCounters();
    EXPECT_EQ(counters.frameCount + counters.byteCount + counters.dropCount, 0u);
    input.ResetCounters();
    EXPECT_EQ(PcapNetInputIfProbe::Frames(input), 0u);
    EXPECT_EQ(PcapNetInputIfProbe::Bytes(input), 0u);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(PacketDelivery, IncompleteOrOversizedPacketsAreRefusedUncounted)
{
    LogCapture log;
    PcapNetInputIf input;
    int calls = 0;
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) { ++calls; }));
    const auto bytes = Bytes(MaxFrameSize + 100);

    const pcap_pkthdr refused[] = {
        Header(MaxFrameSize + 1, MaxFrameSize + 1), // one byte beyond a buffer
        Header(MaxFrameSize, 9500),                 // a jumbo frame cut at the snap length
        Header(60, 64),                             // any frame captured short
        Header(64, 60),
    };
    for (const pcap_pkthdr& header : refused)
        input.HandlePacket(&header, bytes.data());
    // The null guard comes before the header is looked at: no message.
    const pcap_pkthdr bad = Header(100000, 1);
    input.HandlePacket(&bad, nullptr);

    EXPECT_EQ(calls, 0);
    EXPECT_EQ(log.Lines(), std::vector<std::string>(4, InvalidSize));
    EXPECT_EQ(PcapNetInputIfProbe::Frames(input), 0u);
    EXPECT_EQ(PcapNetInputIfProbe::Bytes(input), 0u);
}

TEST(PacketDelivery, FramesKeptBeyondThePoolStayIntact)
{
    // Every pool buffer out: delivery goes on in one-off buffers, and no frame shares bytes
    // with another.
    PcapNetInputIf input;
    std::vector<Lyr::EthFrame> kept;
    input.Subscribe(Subscriber([&](const Lyr::EthFrame& frame) { kept.push_back(frame); }));
    const unsigned int frames = 1005;
    std::vector<unsigned char> packet(64);
    for (unsigned int i = 0; i < frames; ++i) {
        std::memcpy(packet.data(), &i, sizeof i);
        const pcap_pkthdr header = Header(64, 64);
        input.HandlePacket(&header, packet.data());
    }
    ASSERT_EQ(kept.size(), frames);
    for (unsigned int i = 0; i < frames; ++i) {
        unsigned int stamp = 0;
        ASSERT_EQ(kept[i].GetData().size, 64u);
        std::memcpy(&stamp, kept[i].GetData().data, sizeof stamp);
        ASSERT_EQ(stamp, i);
    }
    // Delivery without any subscriber still takes, counts and gives back a buffer.
    PcapNetInputIf unheard;
    const pcap_pkthdr header = Header(64, 64);
    for (int i = 0; i < 2000; ++i)
        unheard.HandlePacket(&header, packet.data());
    EXPECT_EQ(PcapNetInputIfProbe::Frames(unheard), 2000u);
    EXPECT_EQ(PcapNetInputIfProbe::Bytes(unheard), 2000u * 64);
}

TEST(PacketDelivery, AThrowingSubscriberDoesNotReachLibpcapOrStopTheNextFrame)
{
    LogCapture log;
    PcapNetInputIf input;
    std::vector<char> calls;
    bool bThrow = true;
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) { calls.push_back('a'); }));
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) {
        calls.push_back('b');
        if (bThrow)
            throw std::runtime_error("subscriber broke");
    }));
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) { calls.push_back('c'); }));

    const auto bytes = Bytes(60);
    const pcap_pkthdr header = Header(60, 60);
    auto* user = reinterpret_cast<unsigned char*>(&input);
    PcapNetInputIf::PcapLoopHandler(user, &header, bytes.data());
    bThrow = false;
    PcapNetInputIf::PcapLoopHandler(user, &header, bytes.data());

    // Subscribers run in the order they subscribed; the throw skips only those after it.
    EXPECT_EQ(std::string(calls.begin(), calls.end()), "ab" "abc");
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"A subscriber failed on a captured frame: subscriber broke\n"});
    EXPECT_EQ(PcapNetInputIfProbe::Frames(input), 2u);
}
