// Recording frames into a capture file, and what libpcap makes of the file.
#include "support/CaptureFiles.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>

namespace {

const std::string NegativeInGetPosition = "GetPosition(): Negative time value, file could be corrupted.\n";

class Recording : public CaptureFileTest {
protected:
    // Hands `bytes` to Write in a frame of a buffer with room for more than the largest frame.
    void Put(PcapNetFile& to, const std::vector<uint8_t>& bytes, unsigned long long stamp)
    {
        Kt::CSlice<unsigned char> data = room.Prefix(static_cast<unsigned int>(bytes.size()));
        if (!bytes.empty())
            std::memcpy(data.data, bytes.data(), bytes.size());
        frame.SetData(data);
        frame.SetTimestamp(stamp);
        to.Write(frame);
    }

    Lyr::BufferPool pool{1, 9200};
    Lyr::EthFrame frame{pool.GetBuffer(), 0};
    Kt::CSlice<unsigned char> room = frame.GetData();
};

} // namespace

TEST_F(Recording, PositionAndDurationSpanTheFirstAndLastFrameWritten)
{
    ASSERT_TRUE(file.ConfigureFile(dir.File("a.pcap"), WriteMode, 0));
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_EQ(file.GetDuration(), 0u);
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

TEST_F(Recording, RecordedFramesReadBackWithTheirBytesAndStamps)
{
    const std::string path = dir.File("recorded.pcap");
    const std::vector<fixture::Record> written = {
        Whole(Now, 123456, Frame(60, 1)),
        Whole(Now, 999999, Frame(1514, 2)),
        Whole(Now + 1, 0, {}), // an empty frame is a record too
        Whole(Now + 2, 5, Frame(9022, 3)),
        Whole(Now + 3, 7, Frame(9100, 4)), // above the snap length: written whole
        Whole(Now + 4, 0, Frame(64, 5)),
    };
    {
        PcapNetFile recorder;
        ASSERT_TRUE(recorder.ConfigureFile(path, WriteMode, 0));
        for (const fixture::Record& record : written)
            Put(recorder, record.data, record.seconds * 1000000ULL + record.fraction);
    }
    struct stat info{};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    size_t expectedSize = 24;
    for (const fixture::Record& record : written)
        expectedSize += 16 + record.data.size();
    EXPECT_EQ(static_cast<size_t>(info.st_size), expectedSize);

    const LibpcapView view = ReadWithLibpcap(path);
    EXPECT_EQ(view.linkType, DLT_EN10MB);
    EXPECT_EQ(view.snaplen, 9022);
    ASSERT_EQ(view.records.size(), written.size());
    for (size_t i = 0; i < written.size(); ++i) {
        EXPECT_EQ(view.records[i].seconds, written[i].seconds) << "record " << i;
        EXPECT_EQ(view.records[i].fraction, written[i].fraction * 1000) << "record " << i;
        EXPECT_EQ(view.records[i].len, written[i].data.size()) << "record " << i;
        if (i != 4) { // libpcap cuts the oversized record down to the snap length
            EXPECT_EQ(view.records[i].data, written[i].data) << "record " << i;
        }
    }
    EXPECT_TRUE(log.Lines().empty());
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
    EXPECT_EQ(file.GetDuration(), 0u);
    EXPECT_EQ(file.GetPosition(), 0u);

    {
        PcapNetFile writing;
        ASSERT_TRUE(writing.ConfigureFile(dir.File("out.pcap"), WriteMode, 0));
        Put(writing, Frame(60), Now * 1000000ULL);
        Put(writing, Frame(60), Now * 1000000ULL + 42000);
        EXPECT_FALSE(writing.Read(buffer.frame));
        writing.SeekBegin(0);
        EXPECT_EQ(log.Take(), (std::vector<std::string>{ReadOnly, SeekOnly}));
        EXPECT_EQ(writing.GetPosition(), 42u);
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
