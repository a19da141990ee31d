// Files made by the field's own tools read with the same packets and bytes.
#include "support/CaptureFiles.h"

#include <gtest/gtest.h>

#include <cstdlib>

using Interop = CaptureFileTest;

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
