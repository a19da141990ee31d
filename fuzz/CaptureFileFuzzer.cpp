// Feeds arbitrary bytes to the capture-file back-end as a capture file: the scan, a replay to the
// end, seeks and positions must neither crash nor hang nor touch memory they do not own.
#include "PcapNetFile.h"

#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>

#include <kt/MyPrintf.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// One file per fuzzing process, rewritten for every input: libpcap only reads from files.
const std::string& InputPath()
{
    static const std::string path = [] {
        char pattern[] = "/tmp/lyrfuzz.XXXXXX";
        const int fd = mkstemp(pattern);
        if (fd < 0)
            std::abort();
        close(fd);
        std::atexit([] { unlink(InputPath().c_str()); });
        return std::string(pattern);
    }();
    return path;
}

bool WriteInput(const uint8_t* data, size_t size)
{
    std::FILE* out = std::fopen(InputPath().c_str(), "wb");
    if (!out)
        return false;
    const bool bWritten = std::fwrite(data, 1, size, out) == size;
    return std::fclose(out) == 0 && bWritten;
}

// Reads to the end, with a bound well above what any input of libFuzzer's size can hold.
void ReadAll(PcapNetFile& file, Lyr::EthFrame& frame)
{
    for (int i = 0; i < 1000000 && file.Read(frame); ++i)
        ;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The back-end's messages about damaged files are expected by the thousand; keep them quiet.
    static const bool bQuiet = (Kt::SetLogSink([](const std::string&) {}), true);
    (void)bQuiet;
    if (!WriteInput(data, size))
        return 0;

    static Lyr::BufferPool pool(1, 9036);
    Lyr::EthFrame frame(pool.GetBuffer(), 0);
    PcapNetFile file;
    if (!file.ConfigureFile(InputPath(), Lyr::NetFile::NetFileMode_Read, 0))
        return 0;
    ReadAll(file, frame);
    const unsigned long long duration = file.GetDuration();
    for (unsigned long long target : {0ULL, duration / 2, duration - 1, duration, 1ULL}) {
        file.SeekBegin(target);
        (void)file.GetPosition();
        if (file.Read(frame))
            ReadAll(file, frame);
    }
    // The same bytes with a duration given by the caller: no scan, and seeks run into the end.
    if (file.ConfigureFile(InputPath(), Lyr::NetFile::NetFileMode_Read, 1000)) {
        file.SeekBegin(999);
        (void)file.GetPosition();
        ReadAll(file, frame);
    }
    return 0;
}
