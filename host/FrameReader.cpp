#include "FrameReader.h"

#include <pcap/pcap.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <cstdio>
#include <mutex>
#include <thread>

// Shows how far a long pass over a file has got, from a second thread, and calls `stop` on
// Ctrl-C: the back-end's scan runs inside ConfigureFile on the caller's thread and can be stopped
// only from another one.
class ProgressMonitor {
public:
    ProgressMonitor(const char* verb, const std::string& path, bool bShowProgress,
                    std::function<unsigned long long()> progress, std::function<void()> stop)
        : what(verb), bShow(bShowProgress), done(std::move(progress)), onInterrupt(std::move(stop))
    {
        struct stat info{};
        if (stat(path.c_str(), &info) == 0)
            fileSize = static_cast<double>(info.st_size);
        monitor = std::thread([this] { Run(); });
    }

    ~ProgressMonitor()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            bDone = true;
        }
        wake.notify_all();
        monitor.join();
        if (bShown)
            std::fputs("\r\033[K", stderr);
    }

private:
    void Run()
    {
        const auto start = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> lock(mutex);
        while (!wake.wait_for(lock, std::chrono::milliseconds(100), [this] { return bDone; })) {
            if (Interrupted()) {
                onInterrupt();
                return;
            }
            // Quick passes stay quiet; long ones show what they have read so far.
            if (!bShow || std::chrono::steady_clock::now() - start < std::chrono::milliseconds(300))
                continue;
            const double bytes = static_cast<double>(done());
            if (fileSize > 0)
                std::fprintf(stderr, "\r%s: %s of about %s (%.0f%%)\033[K", what, FormatBytes(bytes).c_str(),
                             FormatBytes(fileSize).c_str(), bytes < fileSize ? 100.0 * bytes / fileSize : 99.0);
            else
                std::fprintf(stderr, "\r%s: %s\033[K", what, FormatBytes(bytes).c_str());
            bShown = true;
        }
    }

    const char* const what;
    const bool bShow;
    const std::function<unsigned long long()> done;
    const std::function<void()> onInterrupt;
    double fileSize = 0;
    bool bShown = false;
    bool bDone = false;
    std::mutex mutex;
    std::condition_variable wake;
    std::thread monitor;
};

namespace {

// What ConfigureFile is told of a file's duration by readers that never ask for it: any value
// but 0 spares the back-end's scan, a whole extra pass over the file.
constexpr unsigned long long UnaskedDuration = ~0ULL;

// A record's header in the file, beside the frame's bytes: what reading a frame moves through.
constexpr unsigned long long RecordHeaderSize = 16;

// The first four bytes of the file, which tell its format.
std::uint32_t MagicOf(const std::string& path)
{
    std::uint32_t magic = 0;
    if (std::FILE* stream = std::fopen(path.c_str(), "rbe")) {
        if (std::fread(&magic, sizeof magic, 1, stream) != 1)
            magic = 0;
        std::fclose(stream);
    }
    return magic;
}

// The file's link type as libpcap reads it from the header (the back-end does not tell it).
int LinkTypeOf(const std::string& path)
{
    char errbuf[PCAP_ERRBUF_SIZE];
    pcap_t* handle = pcap_open_offline(path.c_str(), errbuf);
    if (!handle)
        return -1;
    const int type = pcap_datalink(handle);
    pcap_close(handle);
    return type;
}

} // namespace

FrameReader::FrameReader() = default;
FrameReader::~FrameReader() = default;

bool FrameReader::Open(const std::string& name, const char* command, bool bScan, bool bShowReading)
{
    if (!input.Open(name, command))
        return false;
    path = input.Path();
    const std::string& filePath = path;
    magic = MagicOf(path);
    linkType = LinkTypeOf(path);
    file = CreateNetFile();
    if (!file)
        return false;
    const bool bTerminal = isatty(STDERR_FILENO) && !Quiet();
    bool bConfigured = false;
    if (bScan) {
        Lyr::NetFile& scanned = *file;
        // Ctrl-C stops the scan even where its progress is not shown.
        ProgressMonitor monitor("scanning", path, bTerminal, [&scanned] { return scanned.GetParseProgress(); },
                                [&scanned] { scanned.StopParsingFile(); });
        bConfigured = file->ConfigureFile(path, Lyr::NetFile::NetFileMode_Read, 0);
    } else {
        bConfigured = file->ConfigureFile(path, Lyr::NetFile::NetFileMode_Read, UnaskedDuration);
    }
    if (!bConfigured) {
        std::fprintf(stderr, "lyrcap %s: cannot read %s\n", command, Name().c_str());
        return false;
    }
    // Only a walk tells where a pcapng file's blocks end, and it takes a third of the time that
    // reading takes: it goes on beside the reading instead of after it.
    if (magic == 0x0A0D0D0A)
        earlyWalk = std::async(std::launch::async, [filePath] { return WalkRecords(filePath); });
    if (bShowReading && bTerminal)
        readMonitor = std::make_unique<ProgressMonitor>(
            "reading", path, true, [this] { return bytesRead.load(std::memory_order_relaxed); }, [] {});
    return true;
}

bool FrameRange::Parse(CommandLine& line, const std::string& seekOption)
{
    bSeek = line.Has(seekOption);
    return line.Number("--count", 1, UINT64_MAX, count) && line.Number(seekOption, 0, UINT64_MAX, startMs);
}

bool FrameReader::OpenRange(const std::string& name, const FrameRange& range, const char* command, bool bShowReading)
{
    if (!Open(name, command, range.bSeek, bShowReading))
        return false;
    if (!range.bSeek)
        return true;
    // The back-end's seek passes packets that this reader never counts.
    bSeeked = range.startMs != 0;
    if (range.startMs >= file->GetDuration()) {
        std::fprintf(stderr, "lyrcap %s: cannot seek to %llu ms: %s lasts %llu ms\n", command,
                     static_cast<unsigned long long>(range.startMs), Name().c_str(), file->GetDuration());
        return false;
    }
    file->SeekBegin(range.startMs);
    return true;
}

const Lyr::EthFrame* FrameReader::Next()
{
    for (;;) {
        const std::uint64_t refusedBefore = watch.RefusedPackets();
        if (file->Read(frame)) {
            bytesRead.store(bytesRead.load(std::memory_order_relaxed) + RecordHeaderSize + frame.GetData().size,
                            std::memory_order_relaxed);
            ++recordsPassed;
            ++framesPassed;
            if (filter.Keeps(frame))
                return &frame;
            ++filtered;
            continue;
        }
        const std::uint64_t refused = watch.RefusedPackets() - refusedBefore;
        if (refused == 0) {
            readMonitor.reset();
            bAtEnd = true;
            return nullptr; // the end of the file, or a read error: the back-end tells them apart by nothing
        }
        recordsPassed += refused;
    }
}

const RecordWalk& FrameReader::Walk()
{
    if (bWalked)
        return walk;
    bWalked = true;
    const std::uint64_t fineLimit = bSeeked ? UINT64_MAX : recordsPassed;
    const bool bEarly = earlyWalk.valid();
    if (bEarly)
        walk = earlyWalk.get();
    // The early walk counted fine stamps in every record; a reading that stopped short needs them
    // counted again, in those it passed.
    if (!bEarly || walk.packets > fineLimit)
        walk = WalkRecords(path, fineLimit);
    return walk;
}

bool FrameReader::EndedWhole(const char* command)
{
    if (!bAtEnd || bEndChecked)
        return true;
    bEndChecked = true;
    // A classic file whose frames, with their record headers, fill it to the last byte has been
    // read whole: the usual case costs nothing. Otherwise a walk over the records settles it where
    // they are whole up to the end of the file and the back-end has passed all of them. Anything
    // else, libpcap reads the file to its end.
    struct stat info{};
    const bool bClassic = magic == 0xa1b2c3d4 || magic == 0xa1b23c4d || magic == 0xd4c3b2a1 || magic == 0x4d3cb2a1;
    const std::uint64_t linkHeaders = HoldsFrames() && linkType != DLT_EN10MB ? 14 * framesPassed : 0;
    if (bClassic && !bSeeked && recordsPassed == framesPassed && stat(path.c_str(), &info) == 0 &&
        static_cast<std::uint64_t>(info.st_size) == 24 + bytesRead.load() - linkHeaders)
        return true;
    const RecordWalk& records = Walk();
    if (records.bKnownFormat && records.bWhole && !bSeeked && records.packets == recordsPassed)
        return true;
    if (!FindDamage(path, records, damage))
        return true;
    bDamaged = true;
    std::fprintf(stderr, "lyrcap %s: %s %s at byte %llu, after %llu frame%s: %s\n", command, Name().c_str(),
                 damage.bCut ? "is cut short: it ends inside the record" : "is damaged: libpcap cannot read the record",
                 static_cast<unsigned long long>(damage.offset), static_cast<unsigned long long>(framesPassed),
                 framesPassed == 1 ? "" : "s", damage.reason.c_str());
    return false;
}

bool FrameReader::MayHoldFineStamps() const
{
    return magic == 0x0A0D0D0A || magic == 0xa1b23c4d || magic == 0x4d3cb2a1;
}

bool FrameReader::HoldsFrames() const
{
    return linkType == DLT_EN10MB || linkType == pcap_datalink_name_to_val("RAW");
}

void FrameReader::SayIfNotFrames(const char* command) const
{
    if (!HoldsFrames())
        std::fprintf(stderr,
                     "lyrcap %s: %s holds packets of link type %s, not Ethernet frames: they are read as frames "
                     "all the same, so their addresses and types are not what they seem\n",
                     command, Name().c_str(), LinkTypeText().c_str());
}

void FrameReader::DescribeDamage(JsonObject& summary) const
{
    if (!bDamaged) {
        summary.AddNull("damage");
        return;
    }
    summary.Add("damage", JsonObject()
                              .Add("offset", std::uint64_t(damage.offset))
                              .Add("cut_short", damage.bCut)
                              .Add("frames_before", std::uint64_t(framesPassed))
                              .Add("reason", damage.reason));
}

bool FrameReader::SetFilter(const std::string& expression, std::string& error)
{
    return filter.Compile(expression, linkType, error);
}

std::string FrameReader::LinkTypeName() const
{
    const char* name = linkType < 0 ? nullptr : pcap_datalink_val_to_name(linkType);
    return name ? name : "";
}

std::string FrameReader::LinkTypeText() const
{
    if (linkType < 0)
        return "unknown";
    const char* name = pcap_datalink_val_to_name(linkType);
    const char* description = pcap_datalink_val_to_description(linkType);
    return std::string(name ? name : "?") + " (" + (description ? description : "?") + ", " +
           std::to_string(linkType) + ")";
}
