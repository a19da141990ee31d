#include "FrameReader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

namespace {

// Shows the scan's progress from a second thread, and turns Ctrl-C into StopParsingFile: the scan
// runs inside ConfigureFile on the caller's thread and can be stopped only from another one.
class ScanMonitor {
public:
    ScanMonitor(Lyr::NetFile& scanned, const std::string& path, bool bShow) : file(scanned), bShowProgress(bShow)
    {
        struct stat info{};
        if (stat(path.c_str(), &info) == 0)
            fileSize = static_cast<double>(info.st_size);
        monitor = std::thread([this] { Run(); });
    }

    ~ScanMonitor()
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
                file.StopParsingFile();
                return;
            }
            // Quick scans stay quiet; long ones show what they have read so far.
            if (!bShowProgress || std::chrono::steady_clock::now() - start < std::chrono::milliseconds(300))
                continue;
            const double scanned = static_cast<double>(file.GetParseProgress());
            if (fileSize > 0)
                std::fprintf(stderr, "\rscanning: %s of about %s (%.0f%%)\033[K", FormatBytes(scanned).c_str(),
                             FormatBytes(fileSize).c_str(), scanned < fileSize ? 100.0 * scanned / fileSize : 99.0);
            else
                std::fprintf(stderr, "\rscanning: %s\033[K", FormatBytes(scanned).c_str());
            bShown = true;
        }
    }

    Lyr::NetFile& file;
    const bool bShowProgress;
    double fileSize = 0;
    bool bShown = false;
    bool bDone = false;
    std::mutex mutex;
    std::condition_variable wake;
    std::thread monitor;
};

} // namespace

bool FrameReader::Open(const std::string& filePath, bool bShowProgress)
{
    path = filePath;
    file = CreateNetFile();
    if (!file)
        return false;
    ScanMonitor monitor(*file, path, bShowProgress && isatty(STDERR_FILENO));
    return file->ConfigureFile(path, Lyr::NetFile::NetFileMode_Read, 0);
}

bool FrameRange::Parse(CommandLine& line, const std::string& seekOption)
{
    bSeek = line.Has(seekOption);
    return line.Number("--count", 1, UINT64_MAX, count) && line.Number(seekOption, 0, UINT64_MAX, startMs);
}

bool FrameReader::OpenRange(const std::string& filePath, const FrameRange& range, const char* command)
{
    if (!Open(filePath, true)) {
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
        if (file->Read(frame))
            return &frame;
        if (watch.RefusedPackets() == refusedBefore)
            return nullptr; // the end of the file, or a read error: the back-end tells them apart by nothing
    }
}
