// Files made by the field's own tools read with the same packets and bytes.
#include "support/CaptureFiles.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// Every frame our reader delivers from `path`.
std::vector<std::vector<uint8_t>> ReadAll(const std::string& path)
{
    PcapNetFile file;
    FrameBuffer buffer;
    std::vector<std::vector<uint8_t>> frames;
    if (file.ConfigureFile(path, ReadMode, 0))
        while (file.Read(buffer.frame))
            frames.push_back(Bytes(buffer.frame));
    return frames;
}

using Interop = CaptureFileTest;

} // namespace

TEST_F(Interop, FilesWrittenByText2pcapAndTcpdumpReadWhole)
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
    EXPECT_EQ(ReadAll(made), sent);

    // The same rewritten by tcpdump, that is by libpcap's own writer.
    const std::string theirs = dir.File("theirs.pcap");
    ASSERT_EQ(std::system(("tcpdump -r " + made + " -w " + theirs + " >/dev/null 2>&1").c_str()), 0);
    EXPECT_EQ(ReadAll(theirs), sent);
    EXPECT_TRUE(log.Lines().empty());
}
