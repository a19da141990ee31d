// Files made by the field's own tools read with the same packets and bytes.
#include "PcapNetFile.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <CaptureFileWriter.h>
#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace {

struct Summary {
    unsigned long long packets = 0, bytes = 0;
    std::vector<std::vector<unsigned char>> frames;
};

Summary ReadAll(const std::string& path)
{
    PcapNetFile file;
    Summary summary;
    if (!file.ConfigureFile(path, Lyr::NetFile::NetFileMode_Read, 0))
        return summary;
    Lyr::BufferPool pool(1, 9036);
    Lyr::EthFrame frame(pool.GetBuffer(), 0);
    while (file.Read(frame)) {
        const auto data = frame.GetData();
        ++summary.packets;
        summary.bytes += data.size;
        summary.frames.emplace_back(data.data, data.data + data.size);
    }
    return summary;
}

int RunQuietly(const std::string& command)
{
    return std::system((command + " >/dev/null 2>&1").c_str());
}

} // namespace

TEST(Interop, Text2pcapCaptureReadsWhole)
{
    TempDir dir;
    LogCapture log;
    std::ofstream dump(dir.File("frames.txt"));
    std::vector<std::vector<unsigned char>> sent;
    for (int i = 0; i < 5; ++i) {
        auto frame = fixture::EthernetFrame(0x0200000000aa, 0x0200000000bb, fixture::kEtherTypeIpv4,
                                            fixture::Payload(46 + 100 * i, static_cast<uint8_t>(i)));
        char line[24];
        for (size_t at = 0; at < frame.size(); ++at) {
            if (at % 16 == 0) {
                std::snprintf(line, sizeof line, "%s%04zx ", at ? "\n" : "", at);
                dump << line;
            }
            std::snprintf(line, sizeof line, " %02x", frame[at]);
            dump << line;
        }
        dump << "\n\n";
        sent.push_back(frame);
    }
    dump.close();
    ASSERT_EQ(RunQuietly("text2pcap -q " + dir.File("frames.txt") + " " + dir.File("made.pcap")), 0) << "text2pcap missing?";
    const Summary read = ReadAll(dir.File("made.pcap"));
    EXPECT_EQ(read.packets, sent.size());
    EXPECT_EQ(read.frames, sent);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(Interop, TcpdumpRewrittenCaptureReadsWhole)
{
    TempDir dir;
    {
        fixture::CaptureFileWriter writer(dir.File("ours.pcap"));
        for (int i = 0; i < 20; ++i)
            writer.Add(1714564800 + i, i * 1000, fixture::EthernetFrame(1, 2, 0x0800, fixture::Payload(50 + i * 40, 7)));
    }
    ASSERT_EQ(RunQuietly("tcpdump -r " + dir.File("ours.pcap") + " -w " + dir.File("theirs.pcap")), 0) << "tcpdump missing?";
    const Summary ours = ReadAll(dir.File("ours.pcap")), theirs = ReadAll(dir.File("theirs.pcap"));
    EXPECT_EQ(theirs.packets, 20u);
    EXPECT_EQ(theirs.bytes, ours.bytes);
    EXPECT_EQ(theirs.frames, ours.frames);
}
