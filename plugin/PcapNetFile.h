#pragma once

#include <lyr/NetFile.h>

#include <pcap/pcap.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

// A capture file in libpcap's format: replayed as Ethernet frames (a capture of bare IP packets
// gets an Ethernet header on the way), positioned and sought by time, or recorded into.
class PcapNetFile : public Lyr::NetFile {
public:
    PcapNetFile();
    ~PcapNetFile() override;

    bool ConfigureFile(const std::string& path, NetFileMode_e newMode, unsigned long long knownDuration) override;
    unsigned long long GetParseProgress() const override;
    void StopParsingFile() override;
    unsigned long long GetDuration() const override;
    unsigned long long GetPosition() const override;
    void SeekBegin(unsigned long long targetMs) override;
    bool Read(Lyr::EthFrame& frame) override;
    void Write(const Lyr::EthFrame& frame) override;

private:
    void InitializeFileStats(unsigned long long knownDuration);
    void Close();
    void ReadEthernet(Lyr::EthFrame& frame, const unsigned char* packet, unsigned int len);
    void ReadRaw(Lyr::EthFrame& frame, const unsigned char* packet, unsigned int len);

    NetFileMode_e mode = NetFileMode_None;
    std::string fileName;
    pcap_t* pcapHandle = nullptr;
    pcap_dumper_t* pcapDumper = nullptr;
    std::unique_ptr<char[]> streamBuffer; // of pcapHandle's or pcapDumper's stream, freed after it
    unsigned long long durationMs = 0;
    timeval firstTimestamp{0, 0};
    timeval currentTimestamp{0, 0};
    unsigned long long flushedAtUs = 0;   // recording: the stamp of the frame at the last flush
    unsigned long long lastWrittenUs = 0; // recording: the stamp of the frame written last
    std::atomic<bool> bReadEnabled{true};
    // Raised by Read from before its bReadEnabled check until it is done with pcapHandle, so
    // that SeekBegin can wait for a Read in progress before it closes the handle.
    std::atomic<bool> bReading{false};
    unsigned int rawLinkType = 0;
    std::atomic<unsigned long long> parseProgress{0};
    std::atomic<bool> bParsing{false};
    std::mutex parseMutex;
    std::condition_variable parseFinished;
    bool bScanLoopEnded = true; // guarded by parseMutex: what StopParsingFile waits for
};
