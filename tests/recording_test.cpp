// Recording frames into a capture file, and what libpcap makes of the file.
#include "support/CaptureFiles.h"
#include "support/Descriptors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <tuple>

namespace {

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

using Recording = CaptureFileTest;

} // namespace

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
    const std::string ReadOnly = "Can only read from a file that is set to read.\n";
    const std::string WriteOnly = "Can only write to a file that is set to write.\n";
    const std::string SeekOnly = "Can only seek on a file that is set to read.\n";

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

// One object through every change of file and direction, as a host that keeps it does: each
// configuration starts from nothing of the last, and no handle outlives the one it replaced,
// however often the object is configured or seeks.
TEST_F(Recording, AReusedObjectKeepsNothingOfItsLastFileAndNoDescriptorOfIt)
{
    const size_t before = OpenDescriptors();
    const std::string twoSeconds = Write("read.pcap", {Whole(Now, 0, Frame(60, 1)), Whole(Now + 2, 0, Frame(60, 2))});
    ASSERT_TRUE(file.ConfigureFile(twoSeconds, ReadMode, 0));
    ASSERT_TRUE(file.Read(buffer.frame));

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
    ASSERT_TRUE(file.Read(buffer.frame));
    EXPECT_EQ(buffer.frame.GetTimestamp(), Now * 1000000ULL);
    EXPECT_EQ(OpenDescriptors(), before + 1);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(file.ConfigureFile(dir.File("again.pcap"), WriteMode, 0));
        ASSERT_TRUE(file.ConfigureFile(twoSeconds, ReadMode, 1));
    }
    EXPECT_EQ(OpenDescriptors(), before + 1);
    EXPECT_TRUE(log.Take().empty());

    // A configuration that fails closes the last file all the same, and what follows is refused
    // as the failed direction refuses it.
    EXPECT_FALSE(file.ConfigureFile(dir.File("missing.pcap"), ReadMode, 0));
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(file.Read(buffer.frame));
    Put(file, Frame(60), Now * 1000000ULL);
    EXPECT_EQ(log.Take(), (std::vector<std::string>{"Error reading pcap file: " + dir.File("missing.pcap") +
                                                        ": No such file or directory\n",
                                                    "Can only write to a file that is set to write.\n"}));
    EXPECT_FALSE(file.ConfigureFile(dir.File("no/such/dir.pcap"), WriteMode, 0));
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(file.Read(buffer.frame));
    file.SeekBegin(0);
    EXPECT_EQ(log.Take(), (std::vector<std::string>{"Can only read from a file that is set to read.\n",
                                                    "Can only seek on a file that is set to read.\n"}));
}
