#include "PcapNetFile.h"

#include "AsymmetricFence.h"
#include "PcapCommon.h"

#include <lyr/EthFrame.h>
#include <lyr/IpPacket.h>

#include <kt/CMacAddress.h>
#include <kt/MyPrintf.h>

#include <stdio_ext.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

namespace {

// libpcap reads and writes a capture file through a stdio stream, which we set up to suit it.
// The default buffer of 4 KiB costs a system call every few packets, more than the packets
// themselves (at 1500 bytes a bare pcap_next loop runs five times faster with ours). And stdio
// locks a stream around every call, two per packet, in case threads share it; ours never do at
// the same time (one thread records on an object, and Read and SeekBegin keep each other off the
// handle, see Read), so the stream goes without. The buffer (`bufferSize` bytes, none for 0) is
// returned: it must outlive the stream, so it is freed only after the handle is closed.
constexpr long StreamBufferSize = 256 * 1024;

// A recording that ends at once (a kill, a power cut) loses what the stream's buffer holds, so
// the buffer never holds more than a quarter of a second of frames by their own stamps, and a
// frame that comes after a pause goes to the file at once: below twenty frames a second a write
// per frame costs nothing, while bulk recording still writes once per full buffer.
constexpr unsigned long long FlushEveryUs = 250000;
constexpr unsigned long long FlushPauseUs = 50000;

std::unique_ptr<char[]> PrepareStream(FILE* stream, long bufferSize)
{
    if (!stream)
        return nullptr;
    __fsetlocking(stream, FSETLOCKING_BYCALLER);
    if (bufferSize == 0)
        return nullptr;
    std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(bufferSize)]);
    if (setvbuf(stream, buffer.get(), _IOFBF, static_cast<std::size_t>(bufferSize)) != 0)
        buffer.reset();
    return buffer;
}

// libpcap opens nanosecond files in microsecond precision by default, so every time stamp that
// reaches us is in microseconds. libpcap has read the file's header when the buffer is changed:
// glibc then seeks back over what the old buffer held beyond it, which only a regular file
// allows (from a pipe those bytes would be lost), and a file smaller than the default buffer
// gains nothing.
pcap_t* OpenOffline(const std::string& path, std::unique_ptr<char[]>& streamBuffer)
{
    streamBuffer.reset(); // the caller has closed the stream that used it
    char errbuf[PCAP_ERRBUF_SIZE];
    errbuf[0] = '\0';
    pcap_t* handle = pcap_open_offline(path.c_str(), errbuf);
    if (!handle) {
        Kt::MyPrintf("Error reading pcap file: %s\n", errbuf);
        return nullptr;
    }
    FILE* stream = pcap_file(handle);
    struct stat info{};
    const bool bWorthBuffer =
        stream && fstat(fileno(stream), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > BUFSIZ;
    streamBuffer = PrepareStream(stream, bWorthBuffer ? std::min<long>(StreamBufferSize, info.st_size) : 0);
    return handle;
}

} // namespace

PcapNetFile::PcapNetFile() = default;

PcapNetFile::~PcapNetFile()
{
    Close();
}

bool PcapNetFile::ConfigureFile(const std::string& path, NetFileMode_e newMode, unsigned long long knownDuration)
{
    Close();
    mode = newMode;
    if (mode == NetFileMode_Read) {
        fileName = path;
        pcapHandle = OpenOffline(fileName, streamBuffer);
        if (!pcapHandle)
            return false;
        bReadEnabled = true;
        InitializeFileStats(knownDuration);
        rawLinkType = pcap_datalink(pcapHandle) == pcap_datalink_name_to_val("RAW") ? 1 : 0;
        return true;
    }
    if (mode == NetFileMode_Write) {
        pcapHandle = pcap_open_dead(DLT_EN10MB, MaxFrameSize);
        if (!pcapHandle)
            return false;
        pcapDumper = pcap_dump_open(pcapHandle, path.c_str());
        if (!pcapDumper)
            return false;
        // The file header waits in the old buffer, which glibc flushes before the change.
        streamBuffer = PrepareStream(pcap_dump_file(pcapDumper), StreamBufferSize);
        firstTimestamp = timeval{0, 0};
        currentTimestamp = timeval{0, 0};
        flushedAtUs = 0;
        lastWrittenUs = 0;
        return true;
    }
    return false;
}

void PcapNetFile::InitializeFileStats(unsigned long long knownDuration)
{
    // A handle of its own, so that pcapHandle stays in front of the first packet.
    std::unique_ptr<char[]> scanBuffer;
    pcap_t* scan = OpenOffline(fileName, scanBuffer);
    durationMs = 0;
    if (!scan)
        return;

    pcap_pkthdr firstHeader{};
    pcap_pkthdr lastHeader{};
    const bool bHaveFirst = pcap_next(scan, &firstHeader) != nullptr;
    bool bHaveLast = false;

    if (knownDuration != 0) {
        durationMs = knownDuration;
    } else {
        parseProgress = 0;
        {
            std::lock_guard<std::mutex> lock(parseMutex);
            bScanLoopEnded = false;
        }
        bParsing = true;
        if (bHaveFirst) {
            // Only this loop writes parseProgress, so a plain store of a running total is enough
            // for GetParseProgress to see it whole; an atomic add would lock the bus per packet.
            // The request to stop needs no ordering either: the hand-over below is under the lock.
            unsigned long long progress = 0;
            pcap_pkthdr header;
            while (pcap_next(scan, &header)) {
                lastHeader = header;
                bHaveLast = true;
                progress += header.len;
                parseProgress.store(progress, std::memory_order_relaxed);
                if (!bParsing.load(std::memory_order_relaxed))
                    break;
            }
        }
        {
            // Under the lock, so that a StopParsingFile that saw the scan running either finds the
            // loop ended when it takes the lock or is already waiting for this notification.
            std::lock_guard<std::mutex> lock(parseMutex);
            bParsing = false;
            bScanLoopEnded = true;
        }
        parseFinished.notify_all();

        // One packet (or none) lasts 0 ms; headers that no read filled are never used.
        if (bHaveLast) {
            timeval difference = CalculateTimeDiff(lastHeader.ts, firstHeader.ts);
            if (IsNegative(difference))
                PrintNegativeTime("InitializeFileStats");
            else
                durationMs = TimeValToMilliseconds(difference);
        }
    }

    if (bHaveFirst) {
        firstTimestamp = firstHeader.ts;
        currentTimestamp = firstHeader.ts;
    }
    pcap_close(scan);
}

unsigned long long PcapNetFile::GetParseProgress() const
{
    return parseProgress;
}

void PcapNetFile::StopParsingFile()
{
    if (!bParsing)
        return;
    std::unique_lock<std::mutex> lock(parseMutex);
    bParsing = false;
    // The predicate covers spurious wake-ups and a scan that ended on its own just before we took
    // the lock.
    parseFinished.wait(lock, [this] { return bScanLoopEnded; });
}

void PcapNetFile::Close()
{
    if (pcapHandle) {
        pcap_close(pcapHandle);
        pcapHandle = nullptr;
    }
    if (pcapDumper) {
        pcap_dump_close(pcapDumper);
        pcapDumper = nullptr;
    }
    streamBuffer.reset();
}

bool PcapNetFile::Read(Lyr::EthFrame& frame)
{
    if (mode != NetFileMode_Read) {
        Kt::MyPrintf("Can only read from a file that is set to read.\n");
        return false;
    }
    // bReadEnabled alone cannot keep us off a handle that SeekBegin closes: a seek may begin just
    // after the check. So Read announces itself first and checks second, and SeekBegin clears
    // the flag first and waits for the announcement to go second, with a fence between store and
    // load on each side: at least one of them sees the other's store, so either this Read finds
    // reading disabled, or the seek waits until this Read is done with the handle. The fences
    // are asymmetric, since a full one here would cost a fifth of a small packet's time.
    bReading.store(true, std::memory_order_relaxed);
    struct ReadingGuard {
        std::atomic<bool>& bFlag;
        ~ReadingGuard() { bFlag.store(false, std::memory_order_release); }
    } guard{bReading};
    LightFence();
    if (!bReadEnabled.load(std::memory_order_acquire) || !pcapHandle)
        return false;
    // The caller owes a buffer for the largest packet, and the slice's size before the call says
    // nothing of the room behind it (a frame often comes back narrowed to its last packet). A
    // frame without any buffer is refused before a packet is consumed, so it is not lost.
    if (!frame.GetData().data) {
        Kt::MyPrintf("Can only read into a frame that holds a buffer.\n");
        return false;
    }
    pcap_pkthdr header;
    const unsigned char* packet = pcap_next(pcapHandle, &header);
    if (!packet)
        return false;
    if (!IsCompleteFrame(header.caplen, header.len)) {
        Kt::MyPrintf("%s", InvalidPacketSizeMessage);
        return false;
    }
    if (rawLinkType == 1)
        ReadRaw(frame, packet, header.len);
    else
        ReadEthernet(frame, packet, header.len);
    frame.SetTimestamp(TimeValToMicroseconds(header.ts));
    currentTimestamp = header.ts;
    return true;
}

void PcapNetFile::ReadEthernet(Lyr::EthFrame& frame, const unsigned char* packet, unsigned int len)
{
    // The frame's own slice, narrowed in place: a copy and a prefix would end alike, but would
    // cost two atomic increments and two decrements of the buffer's count on every packet.
    Kt::CSlice<unsigned char>& bytes = frame.GetData();
    bytes.size = len;
    if (len != 0)
        std::memmove(bytes.data, packet, len);
    frame.SetData(bytes);
}

void PcapNetFile::ReadRaw(Lyr::EthFrame& frame, const unsigned char* packet, unsigned int len)
{
    frame.SetDstAddress(Kt::CMacAddress());
    frame.SetSrcAddress(Kt::CMacAddress());
    frame.SetVlanPresent(false);
    frame.SetLengthType(0x0800);
    const unsigned int total = frame.GetHeaderSize() + len;
    Kt::CSlice<unsigned char> whole = frame.GetData().Prefix(total);
    frame.SetData(whole);
    {
        Kt::CSlice<unsigned char> payload = frame.GetPayload();
        if (len != 0)
            std::memmove(payload.data, packet, len);
    }
    Lyr::IpPacket ip(frame.GetPayload());
    Kt::CIpAddress destination = ip.GetDstAddress();
    if (destination.IsMulticast())
        frame.SetDstAddress(Lyr::GetMulticastMacAddress(destination));
}

unsigned long long PcapNetFile::GetPosition() const
{
    timeval difference = CalculateTimeDiff(currentTimestamp, firstTimestamp);
    if (IsNegative(difference)) {
        PrintNegativeTime("GetPosition");
        return 0;
    }
    return TimeValToMilliseconds(difference);
}

unsigned long long PcapNetFile::GetDuration() const
{
    if (mode == NetFileMode_Read)
        return durationMs;
    if (mode == NetFileMode_Write)
        return GetPosition();
    return 0;
}

void PcapNetFile::SeekBegin(unsigned long long targetMs)
{
    if (mode != NetFileMode_Read) {
        Kt::MyPrintf("Can only seek on a file that is set to read.\n");
        return;
    }
    if (durationMs <= targetMs) {
        Kt::MyPrintf("Seek time exceeds duration of pcap file.\n");
        return;
    }
    bReadEnabled.store(false, std::memory_order_relaxed);
    HeavyFence();
    // A Read on another thread that passed its check before the store above is still using the
    // handle; it holds it for one packet only, so a short wait is enough.
    while (bReading.load(std::memory_order_acquire))
        std::this_thread::yield();
    // Compares the absolute time with a target counted from the first packet: captures with
    // present-day stamps always start again from the beginning. A lost handle (the file went
    // away at an earlier seek) is reopened as well, since there is nothing to read on from.
    if (TimeValToMilliseconds(currentTimestamp) > targetMs || !pcapHandle) {
        if (pcapHandle) {
            pcap_close(pcapHandle);
            pcapHandle = nullptr;
        }
        pcapHandle = OpenOffline(fileName, streamBuffer);
        if (!pcapHandle)
            return;
        currentTimestamp = firstTimestamp;
    }
    if (targetMs != 0) {
        pcap_pkthdr header;
        while (pcap_next(pcapHandle, &header)) {
            currentTimestamp = header.ts;
            timeval difference = CalculateTimeDiff(currentTimestamp, firstTimestamp);
            if (IsNegative(difference)) {
                PrintNegativeTime("SeekBegin");
                break;
            }
            if (targetMs <= TimeValToMilliseconds(difference))
                break;
        }
    }
    bReadEnabled = true;
}

void PcapNetFile::Write(const Lyr::EthFrame& frame)
{
    if (mode != NetFileMode_Write) {
        Kt::MyPrintf("Can only write to a file that is set to write.\n");
        return;
    }
    if (!pcapDumper)
        return;
    const unsigned long long t = frame.GetTimestamp();
    // The frame's own slice, read in place: the caller holds the frame, and so its buffer, for
    // the whole call, and a copy (which GetData() const makes) would cost an atomic increment
    // and decrement of the buffer's count on every frame. Nothing here changes the frame.
    const Kt::CSlice<unsigned char>& bytes = const_cast<Lyr::EthFrame&>(frame).GetData();
    pcap_pkthdr header;
    header.caplen = bytes.size;
    header.len = bytes.size;
    header.ts.tv_sec = static_cast<decltype(header.ts.tv_sec)>(t / 1000000);
    header.ts.tv_usec = static_cast<decltype(header.ts.tv_usec)>(t % 1000000);
    if (firstTimestamp.tv_sec == 0 && firstTimestamp.tv_usec == 0)
        firstTimestamp = header.ts;
    currentTimestamp = header.ts;
    pcap_dump(reinterpret_cast<u_char*>(pcapDumper), &header, bytes.data);
    // Unsigned differences: a stamp that goes back flushes too.
    if (t - flushedAtUs >= FlushEveryUs || t - lastWrittenUs >= FlushPauseUs) {
        pcap_dump_flush(pcapDumper);
        flushedAtUs = t;
    }
    lastWrittenUs = t;
}
