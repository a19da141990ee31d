#pragma once

// What the capture-file tests share: present-day stamps, recognisable frames, files in one call.

#include "PcapNetFile.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <pcap/pcap.h>

#include <CaptureFileWriter.h>
#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

constexpr int64_t Now = 1714564800; // 2024-05-01, a present-day stamp
constexpr auto ReadMode = Lyr::NetFile::NetFileMode_Read;
constexpr auto WriteMode = Lyr::NetFile::NetFileMode_Write;
// What the back-ends print for a packet that is not a complete frame, for a request that the
// file's direction refuses, and for a seek beyond the file's end.
const std::string InvalidSize = "Error reading packet from interface. Invalid packet size.";
const std::string ReadOnly = "Can only read from a file that is set to read.\n";
const std::string WriteOnly = "Can only write to a file that is set to write.\n";
const std::string SeekOnly = "Can only seek on a file that is set to read.\n";
const std::string TooFar = "Seek time exceeds duration of pcap file.\n";

// An IPv4 frame of `size` bytes whose payload is told apart by `seed`.
inline std::vector<uint8_t> Frame(size_t size, uint8_t seed = 1)
{
    return fixture::EthernetFrame(0x0a0000000002, 0x0a0000000001, fixture::kEtherTypeIpv4,
                                  fixture::Payload(size - 14, seed));
}

inline std::vector<uint8_t> Bytes(const Lyr::EthFrame& frame)
{
    const auto data = frame.GetData();
    return std::vector<uint8_t>(data.data, data.data + data.size);
}

// A record of `bytes` captured whole, or one whose lengths say what they like over filler.
inline fixture::Record Whole(int64_t seconds, int64_t fraction, const std::vector<uint8_t>& bytes)
{
    return {seconds, fraction, uint32_t(bytes.size()), uint32_t(bytes.size()), bytes};
}
inline fixture::Record Packet(int64_t seconds, int64_t fraction, uint32_t caplen, uint32_t len)
{
    return {seconds, fraction, caplen, len, fixture::Payload(caplen, 3)};
}

// A frame with a buffer for the largest packet and an Ethernet header in front of it.
struct FrameBuffer {
    Lyr::BufferPool pool{1, 9036};
    Lyr::EthFrame frame{pool.GetBuffer(), 0};
};

// Writes `records` into `path`, in pcapng when its name ends so, and returns the path.
inline std::string WriteRecords(const std::string& path, const std::vector<fixture::Record>& records,
                                const fixture::FileOptions& options = {})
{
    std::unique_ptr<fixture::RecordWriter> writer;
    if (path.size() > 7 && path.compare(path.size() - 7, 7, ".pcapng") == 0)
        writer = std::make_unique<fixture::PcapngWriter>(path, options);
    else
        writer = std::make_unique<fixture::CaptureFileWriter>(path, options);
    for (const fixture::Record& record : records)
        writer->Add(record);
    writer->Close();
    return path;
}

class CaptureFileTest : public ::testing::Test {
protected:
    // Writes the file `name` of the test's directory.
    std::string Write(const std::string& name, const std::vector<fixture::Record>& records,
                      const fixture::FileOptions& options = {})
    {
        return WriteRecords(dir.File(name), records, options);
    }

    // The time stamp of the frame the next Read delivers, or 0 when it delivers none.
    unsigned long long NextStamp() { return file.Read(buffer.frame) ? buffer.frame.GetTimestamp() : 0; }

    // Seeks to `target` and checks the position then and the stamp of the next frame read.
    void ExpectSeek(unsigned long long target, unsigned long long position, unsigned long long next)
    {
        file.SeekBegin(target);
        EXPECT_EQ(file.GetPosition(), position) << "seek to " << target;
        EXPECT_EQ(NextStamp(), next) << "seek to " << target;
    }

    TempDir dir;
    LogCapture log;
    PcapNetFile file;
    FrameBuffer buffer;
};

// A file as libpcap reads it, at nanosecond precision: micro- and nanosecond stamps come exactly.
struct LibpcapView {
    std::vector<fixture::Record> records; // fraction in nanoseconds
    int linkType = -1;
    int snaplen = -1;
    std::string error; // empty when reading ended cleanly at the end of the file
};

inline LibpcapView ReadWithLibpcap(const std::string& path)
{
    LibpcapView view;
    char errbuf[PCAP_ERRBUF_SIZE];
    pcap_t* handle = pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, errbuf);
    if (!handle) {
        view.error = errbuf;
        return view;
    }
    view.linkType = pcap_datalink(handle);
    view.snaplen = pcap_snapshot(handle);
    pcap_pkthdr* header;
    const u_char* data;
    int result;
    while ((result = pcap_next_ex(handle, &header, &data)) == 1)
        view.records.push_back({header->ts.tv_sec, header->ts.tv_usec, header->caplen, header->len, {data, data + header->caplen}});
    if (result == PCAP_ERROR)
        view.error = pcap_geterr(handle);
    pcap_close(handle);
    return view;
}
