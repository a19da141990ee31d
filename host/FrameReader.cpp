#include "FrameReader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
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

} // namespace

FrameReader::FrameReader() = default;
FrameReader::~FrameReader() = default;

bool FrameReader::Open(const std::string& filePath, bool bScan, bool bShowReading)
{
    path = filePath;
    file = CreateNetFile();
    if (!file)
        return false;
    const bool bTerminal = isatty(STDERR_FILENO);
    if (bScan) {
        Lyr::NetFile& scanned = *file;
        // Ctrl-C stops the scan even where its progress is not shown.
        ProgressMonitor monitor("scanning", path, bTerminal, [&scanned] { return scanned.GetParseProgress(); },
                                [&scanned] { scanned.StopParsingFile(); });
        if (!file->ConfigureFile(path, Lyr::NetFile::NetFileMode_Read, 0))
            return false;
    } else if (!file->ConfigureFile(path, Lyr::NetFile::NetFileMode_Read, UnaskedDuration)) {
        return false;
    }
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

bool FrameReader::OpenRange(const std::string& filePath, const FrameRange& range, const char* command,
                            bool bShowReading)
{
    if (!Open(filePath, range.bSeek, bShowReading)) {
        std::fprintf(stderr, "lyrcap %s: cannot read %s\n", command, filePath.c_str());
        return false;
    }
    if (!range.bSeek)
        return true;
    if (range.startMs >= file->GetDuration()) {
        std::fprintf(stderr, "lyrcap %s: cannot seek to %llu ms: %s lasts %llu ms\n", command,
                     static_cast<unsigned long long>(range.startMs), path.c_str(), file->GetDuration());
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
            return &frame;
        }
        if (watch.RefusedPackets() == refusedBefore) {
            readMonitor.reset();
            return nullptr; // the end of the file, or a read error: the back-end tells them apart by nothing
        }
    }
}
