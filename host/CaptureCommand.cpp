#include "CommandLine.h"
#include "Commands.h"
#include "Host.h"

#include <lyr/EthFrame.h>
#include <lyr/NetFile.h>
#include <lyr/NetInputIf.h>

#include <kt/CIpAddress.h>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;

const char* const Help = R"(Usage: lyrcap capture DEVICE [--host A] [--port P] [--count N] [--seconds S] [-w FILE]
                      [--priority P]

Captures the traffic of a network device through the live back-end, as the framework does:
the back-end's own thread opens the device (promiscuous, snap length 9022) and hands every
complete frame over; a device that goes away is opened again once a second until it is back.
A status line on standard error shows frames, bytes and drops (the back-end's counters, which
start again from 0 at every open) and the frame rate; a summary follows at the end.
The tool only listens: it never sends.

Options:
  --host A      keep only traffic to IPv4 address A ("dst host A")
  --port P      keep only traffic to port P, 1 to 65535 ("dst port P")
  --count N     stop after N frames
  --seconds S   stop after S seconds
  -w FILE       record every delivered frame into FILE (libpcap format, Ethernet, snap length
                9022) through the capture-file back-end; Ctrl-C leaves a complete file
  --priority P  the capture thread's realtime priority, 1 to 99 (default 10), or 0 for the
                ordinary one. The back-end hands packets over within a millisecond and its
                kernel buffer covers only a few milliseconds of a thread that is kept waiting,
                so on a busy machine an ordinary thread drops frames at low rates.
Run 'lyrcap list-devices' for the names of the devices.
)";

// What the subscriber hands the main thread. It runs on the capture thread.
struct Tally {
    std::mutex mutex;
    std::condition_variable done;
    std::atomic<unsigned long long> frames{0};
    std::atomic<unsigned long long> bytes{0};
    unsigned long long limit = std::numeric_limits<unsigned long long>::max();
    bool bLimitReached = false; // guarded by mutex
    Lyr::NetFile* file = nullptr;

    void Deliver(const Lyr::EthFrame& frame)
    {
        if (frames.load() >= limit)
            return; // frames after the last one wanted, until the main thread stops the capture
        if (file)
            file->Write(frame);
        bytes += frame.GetData().size;
        if (++frames == limit) {
            std::lock_guard<std::mutex> lock(mutex);
            bLimitReached = true;
            done.notify_all();
        }
    }
};

void PrintStatus(const NetInputCounters& counters, double rate, bool bTerminal)
{
    std::fprintf(stderr, "%s%llu frames, %s, %llu dropped, %.0f frames/s%s", bTerminal ? "\r" : "",
                 counters.frameCount, FormatBytes(static_cast<double>(counters.byteCount)).c_str(),
                 counters.dropCount, rate, bTerminal ? "   " : "\n");
}

} // namespace

int RunCapture(const std::vector<std::string>& args)
{
    CommandLine line(args, {"--host", "--port", "--count", "--seconds", "-w", "--priority"}, {});
    std::uint64_t port = 0;
    std::uint64_t priority = 10;
    std::uint64_t count = std::numeric_limits<std::uint64_t>::max();
    double seconds = 0;
    if (!line.Ok() || !line.Number("--port", 1, 65535, port) || !line.Number("--count", 1, count, count) ||
        !line.Decimal("--seconds", 0.001, 1e9, seconds) || !line.Number("--priority", 0, 99, priority))
        return UsageError("capture", line.Error());
    if (line.Has("--help")) {
        std::cout << Help;
        return ExitOk;
    }
    if (line.Positional().size() != 1)
        return UsageError("capture", "takes one device");
    Kt::CIpAddress host = Kt::CIpAddress::MinIpAddress;
    if (line.Has("--host") && !Kt::CIpAddress::Parse(line.Value("--host"), host))
        return UsageError("capture", "--host takes an IPv4 address, not '" + line.Value("--host") + "'");
    const std::string device = line.Positional()[0];

    LogWatch log;
    auto input = CreateNetInputIf();
    if (!input)
        return ExitFailure;
    if (!input->Configure(device, host, static_cast<unsigned int>(port)))
        return ExitFailure; // the back-end said why
    std::unique_ptr<Lyr::NetFile> file;
    if (line.Has("-w")) {
        file = CreateNetFile();
        if (!file || !file->ConfigureFile(line.Value("-w"), Lyr::NetFile::NetFileMode_Write, 0)) {
            std::cerr << "lyrcap capture: cannot write " << line.Value("-w") << "\n";
            return ExitFailure;
        }
    }

    Tally tally;
    tally.limit = count;
    tally.file = file.get();
    input->Subscribe(Kt::MakeFunctor<void(const Lyr::EthFrame&)>([&tally](const Lyr::EthFrame& frame) {
        tally.Deliver(frame);
    }));
    // The back-end's thread takes the scheduling of the thread that starts it.
    StartAtRealtimePriority(static_cast<int>(priority), "the capture thread runs",
                            [&input] { input->Start(); });
    std::cerr << "capturing on " << device << "\n";

    const bool bTerminal = isatty(STDERR_FILENO);
    const auto start = Clock::now();
    const auto deadline = seconds > 0 ? start + std::chrono::duration_cast<Clock::duration>(
                                                    std::chrono::duration<double>(seconds))
                                      : Clock::time_point::max();
    auto lastStatus = start;
    NetInputCounters last{0, 0, 0};
    NetInputCounters counters{0, 0, 0};
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(tally.mutex);
            tally.done.wait_for(lock, std::chrono::milliseconds(100), [&tally] { return tally.bLimitReached; });
            if (tally.bLimitReached)
                break;
        }
        const auto now = Clock::now();
        if (Interrupted() || now >= deadline)
            break;
        if (now - lastStatus >= std::chrono::seconds(1)) {
            counters = input->GetCounters();
            const double span = std::chrono::duration<double>(now - lastStatus).count();
            // The counters start again at every open: a rate across a reopen counts from 0.
            const unsigned long long delta =
                counters.frameCount >= last.frameCount ? counters.frameCount - last.frameCount : counters.frameCount;
            PrintStatus(counters, delta / span, bTerminal);
            last = counters;
            lastStatus = now;
        }
    }
    counters = input->GetCounters(); // drops are gone once the handle is closed
    input->Stop();
    file.reset(); // closes the recording: the file is complete from here on
    if (bTerminal)
        std::fputc('\n', stderr);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    std::fprintf(stderr, "%llu frames, %llu bytes captured in %.1f s, %llu dropped%s%s\n", tally.frames.load(),
                 tally.bytes.load(), elapsed, counters.dropCount, line.Has("-w") ? ", recorded to " : "",
                 line.Value("-w").c_str());
    return Interrupted() ? ExitInterrupted : ExitOk;
}
