#include "support/InputProbe.h"
#include "support/LogCapture.h"

#include "PcapCommon.h"

#include <gtest/gtest.h>

#include <stdexcept>

TEST(FilterExpression, AnAddressAloneMakesAFilterOfItsOwn)
{
    Kt::CIpAddress host;
    ASSERT_TRUE(Kt::CIpAddress::Parse("192.0.2.7", host));
    EXPECT_EQ(GenerateFilterExpression(host, 0), "dst host 192.0.2.7");
}

TEST(PacketDelivery, OnlyCompleteFramesAreCopiedStampedCountedAndDelivered)
{
    LogCapture log;
    PcapNetInputIf input;
    Collector collector;
    input.Subscribe(collector.Functor());
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) { // the frame being delivered is counted already
        EXPECT_EQ(PcapNetInputIfProbe::Frames(input), collector.Copy().size());
    }));
    const auto bytes = fixture::Payload(MaxFrameSize + 100, 3);
    const pcap_pkthdr headers[] = {
        {{Now, 250000}, MaxFrameSize, MaxFrameSize},   // the largest frame
        {{1, 999999}, 0, 0},                           // empty, but complete
        {{Now, 0}, MaxFrameSize + 1, MaxFrameSize + 1}, // one byte beyond a buffer
        {{Now, 0}, MaxFrameSize, 9500},                 // a jumbo frame cut at the snap length
        {{Now, 0}, 60, 64},                             // any frame captured short
        {{Now, 0}, 64, 60},
    };
    for (const pcap_pkthdr& header : headers)
        input.HandlePacket(&header, bytes.data());
    const pcap_pkthdr bad{{Now, 0}, 100000, 1};
    input.HandlePacket(&bad, nullptr); // the null guard comes before the header: no message

    const std::vector<Seen> seen = collector.Take();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].bytes, std::vector<uint8_t>(bytes.begin(), bytes.begin() + MaxFrameSize));
    EXPECT_EQ(seen[0].timestamp, Now * 1000000ULL + 250000);
    EXPECT_TRUE(seen[1].bytes.empty());
    EXPECT_EQ(seen[1].timestamp, 1999999ULL);
    EXPECT_EQ(PcapNetInputIfProbe::Frames(input), 2u);
    EXPECT_EQ(PcapNetInputIfProbe::Bytes(input), MaxFrameSize);
    EXPECT_EQ(log.Take(), std::vector<std::string>(4, InvalidSize));

    // A reset clears the fields even without a handle.
    input.ResetCounters();
    EXPECT_EQ(PcapNetInputIfProbe::Frames(input) + PcapNetInputIfProbe::Bytes(input), 0u);
    EXPECT_TRUE(log.Take().empty());
}

TEST(PacketDelivery, FramesKeptBeyondThePoolStayIntact)
{
    // Every pool buffer out: delivery goes on in one-off buffers, none sharing bytes with another.
    PcapNetInputIf input, unheard;
    std::vector<Lyr::EthFrame> kept;
    input.Subscribe(Subscriber([&](const Lyr::EthFrame& frame) { kept.push_back(frame); }));
    const pcap_pkthdr header{{Now, 0}, 64, 64};
    std::vector<std::vector<uint8_t>> packets;
    for (unsigned int i = 0; i < 1005; ++i) {
        packets.emplace_back(64, uint8_t(i));
        packets.back()[1] = uint8_t(i >> 8); // a pattern of its own for each frame
        input.HandlePacket(&header, packets.back().data());
    }
    ASSERT_EQ(kept.size(), packets.size());
    for (size_t i = 0; i < packets.size(); ++i)
        ASSERT_EQ(Bytes(kept[i]), packets[i]) << i;
    // Delivery without any subscriber still takes, counts and gives back a buffer.
    for (int i = 0; i < 2000; ++i)
        unheard.HandlePacket(&header, packets[0].data());
    EXPECT_EQ(PcapNetInputIfProbe::Frames(unheard), 2000u);
    EXPECT_EQ(PcapNetInputIfProbe::Bytes(unheard), 2000u * 64);
}

TEST(PacketDelivery, AThrowingSubscriberDoesNotReachLibpcapOrStopTheNextFrame)
{
    LogCapture log;
    PcapNetInputIf input;
    std::string calls;
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) { calls += 'a'; }));
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) {
        calls += 'b';
        if (calls == "ab") // on the first frame only
            throw std::runtime_error("subscriber broke");
    }));
    input.Subscribe(Subscriber([&](const Lyr::EthFrame&) { calls += 'c'; }));

    const auto bytes = fixture::Payload(60, 1);
    const pcap_pkthdr header{{Now, 0}, 60, 60};
    auto* user = reinterpret_cast<unsigned char*>(&input);
    PcapNetInputIf::PcapLoopHandler(user, &header, bytes.data());
    PcapNetInputIf::PcapLoopHandler(user, &header, bytes.data());

    // Subscribers run in the order they subscribed; the throw skips only those after it.
    EXPECT_EQ(calls, "ab" "abc");
    EXPECT_EQ(log.Take(), std::vector<std::string>{"A subscriber failed on a captured frame: subscriber broke\n"});
    EXPECT_EQ(PcapNetInputIfProbe::Frames(input), 2u);
}
