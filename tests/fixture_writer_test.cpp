// The fixture writer against libpcap, so that our reader is never judged by our own files only.
#include "support/CaptureFiles.h"

#include <gtest/gtest.h>

#include <tuple>

using namespace fixture;

namespace {

// Odd sizes exercise pcapng padding; the last record is cut by the snaplen (caplen < len).
std::vector<Record> Records(Precision precision)
{
    const int64_t ns[] = {5, 123456789, 999999999};
    const uint32_t caplen[] = {61, 1499, 101}, len[] = {61, 1499, 1514};
    std::vector<Record> records;
    for (int i = 0; i < 3; ++i)
        records.push_back({Now + i, precision == Precision::Nano ? ns[i] : ns[i] / 1000, caplen[i], len[i], Payload(caplen[i], i)});
    return records;
}

auto Fields(const Record& r, int64_t fractionScale)
{
    return std::make_tuple(r.seconds, r.fraction * fractionScale, r.caplen, r.len, r.data);
}

} // namespace

TEST(FixtureWriter, FilesReadBackThroughLibpcap)
{
    const auto micro = Precision::Micro, nano = Precision::Nano;
    const auto little = ByteOrder::Little, big = ByteOrder::Big;
    const struct {
        const char* name;
        FileOptions options;
        int dlt;
    } cases[] = {
        {"nano.pcap", {nano, little, 65535, kLinkTypeEthernet}, DLT_EN10MB},
        {"big.pcap", {nano, big, 9000, kLinkTypeRaw}, DLT_RAW},
        {"micro.pcapng", {micro, big, 65535, kLinkTypeEthernet}, DLT_EN10MB},
        {"nano.pcapng", {nano, little, 2000, kLinkTypeRaw}, DLT_RAW},
    };
    TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto records = Records(c.options.precision);
        const LibpcapView read = ReadWithLibpcap(WriteRecords(dir.File(c.name), records, c.options));
        ASSERT_EQ(read.error, "");
        EXPECT_EQ(read.linkType, c.dlt);
        EXPECT_EQ(read.snaplen, int(c.options.snaplen));
        ASSERT_EQ(read.records.size(), records.size());
        const int64_t toNs = c.options.precision == nano ? 1 : 1000;
        for (size_t i = 0; i < records.size(); ++i)
            EXPECT_EQ(Fields(read.records[i], 1), Fields(records[i], toNs)) << "record " << i;
    }
}

TEST(FixtureWriter, BuiltPacketsMatchLibpcapFilterAndChecksum)
{
    auto ip = Ipv4Packet(Ipv4Address(10, 0, 0, 1), Ipv4Address(224, 0, 0, 1), kIpProtocolUdp, UdpDatagram(1234, 5678, Payload(11, 3)));
    auto frame = EthernetFrame(0x0a0b0c0d0e0f, 0x010203040506, kEtherTypeIpv4, ip);
    ASSERT_EQ(frame.size(), 14u + 20 + 8 + 11);

    const char* filter = "ether src 01:02:03:04:05:06 and ether dst 0a:0b:0c:0d:0e:0f and "
                         "src host 10.0.0.1 and dst host 224.0.0.1 and udp src port 1234 and "
                         "udp dst port 5678 and ip[2:2] = 39 and udp[4:2] = 19";
    pcap_t* dead = pcap_open_dead(DLT_EN10MB, 65535);
    bpf_program prog;
    ASSERT_EQ(pcap_compile(dead, &prog, filter, 1, PCAP_NETMASK_UNKNOWN), 0) << pcap_geterr(dead);
    const pcap_pkthdr hdr{{}, uint32_t(frame.size()), uint32_t(frame.size())};
    EXPECT_NE(pcap_offline_filter(&prog, &hdr, frame.data()), 0);
    pcap_freecode(&prog);
    pcap_close(dead);

    uint32_t sum = 0; // a correct IPv4 header sums to 0xffff in ones' complement
    for (size_t i = 0; i < 20; i += 2)
        sum += ip[i] << 8 | ip[i + 1];
    EXPECT_EQ((sum & 0xffff) + (sum >> 16), 0xffffu);
    EXPECT_NE(Payload(64, 3), Payload(64, 4));
}
