// Recording frames into a capture file, and what other readers make of the file.
#include "PcapNetFile.h"
#include "support/CaptureFiles.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <sstream>

namespace {

using Mode = Lyr::NetFile::NetFileMode_e;
const std::string NegativeInGetPosition = "GetPosition(): Negative time value, file could be corrupted.\n";

struct Recorded {
    unsigned long long stamp;
    std::vector<uint8_t> bytes;
};

class Recording : public ::testing::Test {
protected:
    // Hands `bytes` to Write in a frame of a buffer with room for more than the largest frame.
    void Write(PcapNetFile& to, const std::vector<uint8_t>& bytes, unsigned long long stamp)
    {
        Kt::CSlice<unsigned char> data = buffer.Prefix(static_cast<unsigned int>(bytes.size()));
        if (!bytes.empty())
            std::memcpy(data.data, bytes.data(), bytes.size());
        frame.SetData(data);
        frame.SetTimestamp(stamp);
        to.Write(frame);
    }

    // Every record of `path` as libpcap reads it, with the record's caplen as bytes.
    static std::vector<Recorded> ReadWithLibpcap(const std::string& path, int& linkType, int& snaplen)
    {
        char errbuf[PCAP_ERRBUF_SIZE];
        pcap_t* handle = pcap_open_offline(path.c_str(), errbuf);
        std::vector<Recorded> records;
        if (!handle)
            return records;
        linkType = pcap_datalink(handle);
        snaplen = pcap_snapshot(handle);
        pcap_pkthdr header;
        while (const u_char* data = pcap_next(handle, &header))
            records.push_back({header.ts.tv_sec * 1000000ULL + header.ts.tv_usec,
                               std::vector<uint8_t>(data, data + header.caplen)});
        pcap_close(handle);
        return records;
    }

    TempDir dir;
    LogCapture log;
    Lyr::BufferPool pool{1, 9200};
    Lyr::EthFrame frame{pool.GetBuffer(), 0};
    Kt::CSlice<unsigned char> buffer = frame.GetData();
};

} // namespace

TEST_F(Recording, PositionAndDurationSpanTheFirstAndLastFrameWritten)
{
    PcapNetFile file;
    ASSERT_TRUE(file.ConfigureFile(dir.File("a.pcap"), Mode::NetFileMode_Write, 0));
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_EQ(file.GetDuration(), 0u);
    Write(file, Frame(60), 0); // a frame at time 0 does not count as the first
    Write(file, Frame(60), 5000000);
    EXPECT_EQ(file.GetDuration(), 0u);
    Write(file, Frame(60), 7500000);
    EXPECT_EQ(file.GetDuration(), 2500u);
    EXPECT_EQ(file.GetPosition(), 2500u);

    // 999999 us is a time like any other, and the last frame written is the last in time.
    ASSERT_TRUE(file.ConfigureFile(dir.File("b.pcap"), Mode::NetFileMode_Write, 0));
    Write(file, Frame(60), 999999);
    Write(file, Frame(60), 3499999);
    EXPECT_EQ(file.GetDuration(), 2500u);
    Write(file, Frame(60), 999998);
    EXPECT_EQ(file.GetDuration(), 0u);
    EXPECT_EQ(log.Take(), std::vector<std::string>{NegativeInGetPosition});
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_EQ(log.Take(), std::vector<std::string>{NegativeInGetPosition});
}

TEST_F(Recording, RecordedFramesReadBackWithTheirBytesAndStamps)
{
    const std::string path = dir.File("recorded.pcap");
    const std::vector<Recorded> written = {
        {Now * 1000000ULL + 123456, Frame(60, 1)},
        {Now * 1000000ULL + 999999, Frame(1514, 2)},
        {(Now + 1) * 1000000ULL, {}}, // an empty frame is a record too
        {(Now + 2) * 1000000ULL + 5, Frame(9022, 3)},
        {(Now + 3) * 1000000ULL + 7, Frame(9100, 4)}, // above the snap length: written whole
        {(Now + 4) * 1000000ULL, Frame(64, 5)},
    };
    {
        PcapNetFile file;
        ASSERT_TRUE(file.ConfigureFile(path, Mode::NetFileMode_Write, 0));
        for (const Recorded& record : written)
            Write(file, record.bytes, record.stamp);
    }
    struct stat info{};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    size_t expectedSize = 24;
    for (const Recorded& record : written)
        expectedSize += 16 + record.bytes.size();
    EXPECT_EQ(static_cast<size_t>(info.st_size), expectedSize);

    int linkType = 0, snaplen = 0;
    const auto records = ReadWithLibpcap(path, linkType, snaplen);
    EXPECT_EQ(linkType, DLT_EN10MB);
    EXPECT_EQ(snaplen, 9022);
    ASSERT_EQ(records.size(), written.size());
    for (size_t i = 0; i < written.size(); ++i) {
        EXPECT_EQ(records[i].stamp, written[i].stamp) << "record " << i;
        if (i != 4) { // libpcap cuts the oversized record down to the snap length
            EXPECT_EQ(records[i].bytes, written[i].bytes) << "record " << i;
        }
    }

    // Our own Read: the same frames, and the oversized one refused.
    PcapNetFile file;
    FrameBuffer reading;
    ASSERT_TRUE(file.ConfigureFile(path, Mode::NetFileMode_Read, 0));
    EXPECT_EQ(file.GetDuration(), 3876u); // 4.000000 s less 0.123456 s, whole milliseconds
    for (size_t i = 0; i < written.size(); ++i) {
        if (i == 4) {
            EXPECT_FALSE(file.Read(reading.frame));
            EXPECT_EQ(log.Take(), std::vector<std::string>{"Error reading packet from interface. Invalid packet size."});
            continue;
        }
        ASSERT_TRUE(file.Read(reading.frame)) << "record " << i;
        EXPECT_EQ(reading.frame.GetTimestamp(), written[i].stamp);
        EXPECT_EQ(Bytes(reading.frame), written[i].bytes);
    }
    EXPECT_FALSE(file.Read(reading.frame));

    // tcpdump sees every record with the same stamp to the microsecond.
    std::FILE* tcpdump = popen(("tcpdump -tt -nn -r '" + path + "' 2>/dev/null").c_str(), "r");
    ASSERT_NE(tcpdump, nullptr);
    std::vector<std::string> stamps;
    char line[512];
    while (std::fgets(line, sizeof line, tcpdump))
        stamps.push_back(std::string(line).substr(0, std::string(line).find(' ')));
    EXPECT_EQ(pclose(tcpdump), 0);
    ASSERT_EQ(stamps.size(), written.size());
    for (size_t i = 0; i < written.size(); ++i) {
        if (written[i].bytes.empty())
            continue; // tcpdump shows an empty record as an invalid header, without its time
        char expected[32];
        std::snprintf(expected, sizeof expected, "%llu.%06llu", written[i].stamp / 1000000, written[i].stamp % 1000000);
        EXPECT_EQ(stamps[i], expected);
    }
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Recording, EachDirectionRefusesTheOtherWithItsMessage)
{
    const std::string ReadOnly = "Can only read from a file that is set to read.\n";
    const std::string WriteOnly = "Can only write to a file that is set to write.\n";
    const std::string SeekOnly = "Can only seek on a file that is set to read.\n";
    FrameBuffer reading;

    PcapNetFile fresh; // before any ConfigureFile
    EXPECT_FALSE(fresh.Read(reading.frame));
    Write(fresh, Frame(60), Now * 1000000ULL);
    fresh.SeekBegin(0);
    EXPECT_EQ(log.Take(), (std::vector<std::string>{ReadOnly, WriteOnly, SeekOnly}));
    EXPECT_EQ(fresh.GetDuration(), 0u);
    EXPECT_EQ(fresh.GetPosition(), 0u);

    {
        PcapNetFile writing;
        ASSERT_TRUE(writing.ConfigureFile(dir.File("out.pcap"), Mode::NetFileMode_Write, 0));
        Write(writing, Frame(60), Now * 1000000ULL);
        Write(writing, Frame(60), Now * 1000000ULL + 42000);
        EXPECT_FALSE(writing.Read(reading.frame));
        writing.SeekBegin(0);
        EXPECT_EQ(log.Take(), (std::vector<std::string>{ReadOnly, SeekOnly}));
        EXPECT_EQ(writing.GetPosition(), 42u);
    } // the file is complete once closed

    PcapNetFile replaying;
    ASSERT_TRUE(replaying.ConfigureFile(dir.File("out.pcap"), Mode::NetFileMode_Read, 0));
    ASSERT_TRUE(replaying.Read(reading.frame));
    ASSERT_TRUE(replaying.Read(reading.frame));
    Write(replaying, Frame(60), (Now + 9) * 1000000ULL);
    EXPECT_EQ(log.Take(), std::vector<std::string>{WriteOnly});
    EXPECT_EQ(replaying.GetPosition(), 42u); // nothing stored

    // A recording that could not be created takes frames without a word, and keeps nothing.
    PcapNetFile nowhere;
    EXPECT_FALSE(nowhere.ConfigureFile(dir.File("no/such/dir.pcap"), Mode::NetFileMode_Write, 0));
    Write(nowhere, Frame(60), Now * 1000000ULL);
    EXPECT_TRUE(log.Take().empty());
    EXPECT_EQ(nowhere.GetDuration(), 0u);
}
