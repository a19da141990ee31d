#include "CommandLine.h"
#include "Commands.h"
#include "Devices.h"
#include "FrameFilter.h"
#include "Host.h"
#include "Json.h"
#include "Privileges.h"
#include "Recorder.h"

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
#include <iterator>
#include <limits>
#include <mutex>
#include <sstream>

namespace {

using Clock = std::chrono::steady_clock;

const char* const Help = R"(Usage: lyrcap capture DEVICE [EXPRESSION] [--host A] [--port P] [-c N] [--seconds S]
                      [-w FILE [-C MB] [-G S] [-W N]] [--priority P] [-Z USER] [-q] [--json]
       lyrcap capture -i DEVICE ...

Captures the traffic of a network device through the live back-end, as the framework does:
the back-end's own thread opens the device (promiscuous, snap length 9022) and hands every
complete frame over; a device that goes away is opened again once a second until it is back.
A status line on standard error shows frames, bytes and drops (the back-end's counters, which
start again from 0 at every open), the frames refused as larger than 9022 bytes, and the
frame rate; a summary follows at the end, and says why frames were that large (a device that
merges packets, or an MTU that lets them in) and how to stop it. A device whose frames are
not Ethernet frames ("any" among them) is refused. The tool only listens: it never sends.

Options:
  -i, --interface DEVICE
                the device, as DEVICE is
  EXPRESSION    keep only the frames that this libpcap filter keeps ('tcp port 80 or icmp');
                the words after DEVICE. "dst host A", "dst port P" and the two joined by
                "and" are set in the kernel by the back-end, as --host and --port are; any
                other expression runs on the frames that the back-end hands over
  --host A      keep only traffic to IPv4 address A ("dst host A")
  --port P      keep only traffic to port P, 1 to 65535 ("dst port P")
  -c, --count N stop after N frames
  --seconds S   stop after S seconds
  -w, --write FILE
                record every frame kept into FILE (libpcap format, Ethernet, snap length
                9022) through the capture-file back-end; Ctrl-C leaves a complete file, and a
                kill or a power cut loses at most a quarter of a second of frames. Should
                writing fail (a full disk), the capture stops within about a second, says why
                and how many frames were lost, and exits 1; the file stays readable up to its
                last whole frame. A FILE that ends in .pcapng is refused: it is no pcapng file.
                FILE "-" is standard output, where the frames go out as they come (within a
                quarter of a second), and a FIFO is written likewise; a reader that goes away
                ends the capture as a full disk does
  -C, --file-size MB
                record into a ring of files instead, each a complete capture of at most MB
                megabytes (10^6 bytes), named with a number before the extension
                (ring.pcap: ring_00001.pcap, ring_00002.pcap, ...)
  -G, --file-seconds S
                record into a ring of files, each holding at most S seconds of frames by
                their time stamps (alone, or with -C: whichever bound comes first)
  -W, --files N keep only the newest N files of the ring, removing the oldest as the next
                one starts
  --priority P  the capture thread's realtime priority, 1 to 99 (default 10), or 0 for the
                ordinary one. The back-end hands packets over within a millisecond and its
                kernel buffer covers only a few milliseconds of a thread that is kept waiting,
                so on a busy machine an ordinary thread drops frames at low rates.
  -Z, --user USER
                run as USER (its group and groups) from the start, keeping only the
                capabilities to open devices (CAP_NET_RAW, so that a device that goes away
                is opened again) and, with a realtime priority, CAP_SYS_NICE; FILE is created
                by USER. Needs root
  -q, --quiet   no status lines
  --json        the summary as one JSON object on standard output at the end (fields:
                'docs/host-tool.md'); not with -w -
A root run without --user still gives up every capability but those and the one to
override file permissions. Without the permission to capture, the run ends at once with
the reason. Ctrl-C, SIGTERM and SIGHUP end the capture with its summary (exit status 130);
a reader of the status lines that goes away costs the capture nothing.
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
    Recorder* recorder = nullptr;
    const FrameFilter* filter = nullptr;
    std::atomic<unsigned long long> filtered{0};
    std::atomic<bool> bWriteFailed{false};

    void Deliver(const Lyr::EthFrame& frame)
    {
        if (frames.load() >= limit || bWriteFailed)
            return; // frames after the last one wanted, until the main thread stops the capture
        if (!filter->Keeps(frame)) {
            ++filtered;
            return;
        }
        if (recorder && !recorder->Write(frame)) {
            bWriteFailed = true;
            return;
        }
        bytes += frame.GetData().size;
        if (++frames == limit) {
            std::lock_guard<std::mutex> lock(mutex);
            bLimitReached = true;
            done.notify_all();
        }
    }
};

// False once the line could not be written: its reader has gone, and the capture goes on
// without status lines.
bool PrintStatus(const NetInputCounters& counters, std::uint64_t refused, double rate, bool bTerminal)
{
    return std::fprintf(stderr, "%s%llu frames, %s, %llu dropped, %llu refused, %.0f frames/s%s", bTerminal ? "\r" : "",
                        counters.frameCount, FormatBytes(static_cast<double>(counters.byteCount)).c_str(),
                        counters.dropCount, static_cast<unsigned long long>(refused), rate,
                        bTerminal ? "   " : "\n") >= 0;
}

// The back-end's own filter, which it sets in the kernel, where an expression says no more than it
// can: "dst host A" (an IPv4 address), "dst port P" (a number), or both joined by "and" or "&&".
// The back-end compiles the same words, so the frames kept are the same.
struct BackendFilter {
    bool bHost = false, bPort = false;
    Kt::CIpAddress host = Kt::CIpAddress::MinIpAddress;
    unsigned int port = 0;

    bool Parse(const std::string& expression)
    {
        std::istringstream words(expression);
        const std::vector<std::string> tokens{std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
        if ((tokens.size() != 3 && tokens.size() != 7) || (tokens.size() == 7 && tokens[3] != "and" && tokens[3] != "&&"))
            return false;
        for (std::size_t i = 0; i < tokens.size(); i += 4) {
            const std::string& value = tokens[i + 2];
            if (tokens[i] != "dst")
                return false;
            if (tokens[i + 1] == "host" && !bHost)
                bHost = Kt::CIpAddress::Parse(value, host);
            else if (tokens[i + 1] == "port" && !bPort && !value.empty() && value.size() <= 5 &&
                     value.find_first_not_of("0123456789") == std::string::npos && std::stoul(value) >= 1 &&
                     std::stoul(value) <= 65535)
                bPort = (port = static_cast<unsigned int>(std::stoul(value))) != 0;
            else
                return false;
            if (!bHost && !bPort)
                return false;
        }
        return tokens.size() == 3 ? bHost || bPort : bHost && bPort;
    }
};

} // namespace

int RunCapture(const std::vector<std::string>& args)
{
    CommandLine line(args, {"--host", "--port", "--count", "--seconds", "--write", "--priority", "--file-size",
                            "--file-seconds", "--files", "--user", "--interface", "--quiet", "--json"});
    std::uint64_t port = 0;
    std::uint64_t priority = 10;
    std::uint64_t count = std::numeric_limits<std::uint64_t>::max();
    double seconds = 0;
    Recorder::Ring ring;
    std::uint64_t fileSeconds = 0;
    if (!line.Ok() || !line.Number("--port", 1, 65535, port) || !line.Number("--count", 1, count, count) || !line.Decimal("--seconds", 0.001, 1e9, seconds) ||
        !line.Number("--priority", 0, 99, priority) || !line.Number("--file-size", 1, 1000000000, ring.fileBytes) ||
        !line.Number("--file-seconds", 1, 1000000000, fileSeconds) || !line.Number("--files", 1, 1000000000, ring.files))
        return UsageError("capture", line.Error());
    ring.fileBytes *= 1000000;
    ring.fileUs = fileSeconds * 1000000;
    if (line.Has("--help")) {
        std::cout << Help;
        return ExitOk;
    }
    const std::string device = line.Take("--interface");
    if (device.empty())
        return UsageError("capture", "takes a device");
    const std::string output = line.Value("--write");
    const bool bRing = line.Has("--file-size") || line.Has("--file-seconds");
    if ((bRing || line.Has("--files")) && !line.Has("--write"))
        return UsageError("capture", "--file-size, --file-seconds and --files need -w FILE");
    if (line.Has("--files") && !bRing)
        return UsageError("capture", "--files needs --file-size or --file-seconds");
    if (bRing && Recorder::IsStandardOutput(output))
        return UsageError("capture", "a ring of files cannot be standard output");
    if (line.Has("--write") && !Recorder::RefuseName(output).empty())
        return UsageError("capture", Recorder::RefuseName(output));
    const bool bJson = line.Has("--json");
    if (bJson && line.Has("--write") && Recorder::IsStandardOutput(output))
        return UsageError("capture", "--json prints on standard output, where -w - records");
    Kt::CIpAddress host = Kt::CIpAddress::MinIpAddress;
    if (line.Has("--host") && !Kt::CIpAddress::Parse(line.Value("--host"), host))
        return UsageError("capture", "--host takes an IPv4 address, not '" + line.Value("--host") + "'");
    std::string expression = line.Rest();
    std::string error;
    if (!CheckFilter(expression, error))
        return UsageError("capture", "the filter expression '" + expression + "' does not compile (libpcap: " + error + ")");
    // An expression that the back-end's own filter can say goes to the kernel with it; any other
    // runs here, on the frames that the back-end hands over.
    BackendFilter inKernel;
    if (inKernel.Parse(expression) && !(inKernel.bHost && line.Has("--host")) && !(inKernel.bPort && line.Has("--port"))) {
        host = inKernel.bHost ? inKernel.host : host;
        port = inKernel.bPort ? inKernel.port : port;
        expression.clear();
    }
    FrameFilter filter;
    filter.Compile(expression, DLT_EN10MB, error);
    RunPrivileges privileges{line.Value("--user"), true, priority > 0};
    if (line.Has("--user") && !UserExists(privileges.user))
        return UsageError("capture", "--user: no user '" + privileges.user + "'");
    if (line.Has("--quiet") || bJson)
        BeQuiet();
    if (!BeginRun(privileges, "capture") || !MayOpenDevice(device, "capture", true))
        return ExitFailure;

    LogWatch log;
    auto input = CreateNetInputIf();
    if (!input)
        return ExitFailure;
    if (!input->Configure(device, host, static_cast<unsigned int>(port)))
        return ExitFailure; // the back-end said why
    std::unique_ptr<Recorder> recorder;
    if (line.Has("--write")) {
        recorder = std::make_unique<Recorder>(output, ring, "capture");
        if (!recorder->Open())
            return ExitFailure;
    }

    Tally tally;
    tally.limit = count;
    tally.recorder = recorder.get();
    tally.filter = &filter;
    input->Subscribe(Kt::MakeFunctor<void(const Lyr::EthFrame&)>([&tally](const Lyr::EthFrame& frame) {
        tally.Deliver(frame);
    }));
    // The back-end's thread takes the scheduling of the thread that starts it.
    StartAtRealtimePriority(static_cast<int>(priority), "the capture thread runs",
                            [&input] { input->Start(); });
    std::cerr << "capturing on " << device << "\n";

    const bool bTerminal = isatty(STDERR_FILENO);
    bool bShowStatus = !Quiet();
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
        if (Interrupted() || now >= deadline || tally.bWriteFailed)
            break;
        if (now - lastStatus >= std::chrono::seconds(1)) {
            counters = input->GetCounters();
            const double span = std::chrono::duration<double>(now - lastStatus).count();
            // The counters start again at every open: a rate across a reopen counts from 0.
            const unsigned long long delta =
                counters.frameCount >= last.frameCount ? counters.frameCount - last.frameCount : counters.frameCount;
            if (bShowStatus)
                bShowStatus = PrintStatus(counters, log.RefusedPackets(), delta / span, bTerminal);
            last = counters;
            lastStatus = now;
        }
    }
    counters = input->GetCounters(); // drops are gone once the handle is closed
    input->Stop();
    if (bTerminal && bShowStatus)
        std::fputc('\n', stderr);
    // Closing the recording completes its file, and tells whether frames were lost on the way.
    const bool bRecorded = !recorder || recorder->Close();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const std::vector<std::string> written = !recorder ? std::vector<std::string>()
                                             : Recorder::IsStandardOutput(output) ? std::vector<std::string>{recorder->Name()}
                                                                                   : recorder->Files();
    std::string files;
    for (const std::string& name : written)
        files += (files.empty() ? ", recorded to " : ", ") + name;
    if (recorder && recorder->Removed() != 0)
        files += " (the " + std::to_string(recorder->Removed()) + " older files of the ring removed)";
    const std::uint64_t refused = log.RefusedPackets();
    const std::string leftOut = filter.Active() ? ", " + std::to_string(tally.filtered.load()) + " left out by the filter" : "";
    std::fprintf(stderr, "%llu frames, %llu bytes captured in %.1f s, %llu dropped, %llu refused%s%s\n",
                 tally.frames.load(), tally.bytes.load(), elapsed, counters.dropCount,
                 static_cast<unsigned long long>(refused), leftOut.c_str(), files.c_str());
    // The live handle takes at most 9022 bytes of a packet, so a packet refused as incomplete was
    // larger than that: the device hands over what no Ethernet wire carried, or lets jumbo frames in.
    if (refused != 0)
        std::fprintf(stderr, "lyrcap capture: %llu %s larger than 9022 bytes and %s refused: %s\n",
                     static_cast<unsigned long long>(refused), refused == 1 ? "frame was" : "frames were",
                     refused == 1 ? "was" : "were", WhyFramesAreLarge(device).c_str());
    if (bJson) {
        JsonObject summary;
        summary.Add("device", device).Add("frames", std::uint64_t(tally.frames.load()))
            .Add("bytes", std::uint64_t(tally.bytes.load()))
            .Add("seconds", elapsed)
            .Add("dropped", std::uint64_t(counters.dropCount))
            .Add("refused", std::uint64_t(refused))
            .Add("filtered_out", std::uint64_t(tally.filtered.load()));
        summary.Add("files", written).Add("files_removed", std::uint64_t(recorder ? recorder->Removed() : 0))
            .Add("recorded", bRecorded)
            .Add("interrupted", Interrupted());
        std::printf("%s\n", summary.Text().c_str());
        if (!StandardOutputWritten("capture"))
            return ExitFailure;
    }
    if (!bRecorded)
        return ExitFailure;
    return Interrupted() ? ExitInterrupted : ExitOk;
}
