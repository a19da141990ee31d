#include "CommandLine.h"
#include "Commands.h"
#include "Devices.h"
#include "FrameFilter.h"
#include "FrameReader.h"
#include "Host.h"
#include "Json.h"
#include "Privileges.h"

#include <lyr/NetOutputIf.h>
#include <lyr/PluginLookup.h>
#include <lyr/PreciseScheduler.h>

#include <kt/CFunctor.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <thread>

namespace {

const char* const Help = R"(Usage: lyrcap send FILE DEVICE [EXPRESSION] [--speed X | --topspeed] [--loop N] [-c N]
                   [--timeout US] [--sndbuf BYTES] [--priority P] [--spin] [-Z USER] [-q] [--json]
       lyrcap send -r FILE -i DEVICE ...

Puts the frames of a capture file on the wire of DEVICE at the times the file gives them,
through the pcap output back-end. The first frame leaves shortly after the start and the
file's gaps between frames are kept. A capture of bare IP packets goes out as Ethernet frames.
Frames that would leave later than the limit are dropped and counted. Ctrl-C stops the
sending; frames already handed over still leave. FILE "-" is standard input, read whole
before the first frame leaves.

Options:
  -r, --read FILE the file, as FILE is
  -i, --interface DEVICE
                  the device, as DEVICE is
  EXPRESSION      send only the packets that this libpcap filter keeps, as tcpdump does
                  ('udp port 5000'), at their own times; the words after FILE and DEVICE
  --speed X       play X times as fast (0.5 is half speed)
  --topspeed      send as fast as the port takes them; no frame counts as late
  --loop N        send the file N times, each pass right behind the last
  -c, --count N   hand over at most N frames in all
  --timeout US    drop frames that would leave more than US microseconds late
                  (default 10000; with --topspeed, no limit)
  --sndbuf BYTES  the socket's send buffer (default: the system's)
  --priority P    the scheduler thread's realtime priority, 1 to 99 (default 10), or 0 for
                  the ordinary priority; where the system refuses, the tool says so and
                  sends at ordinary priority, which keeps time only on a quiet machine
  --spin          the scheduler thread spins through the gaps between frames instead of
                  sleeping: the most precise timing, for a machine that can give that
                  thread a core of its own (it takes all of one)
  -Z, --user USER run as USER (its group and groups) from the start, keeping only the
                  capabilities to open DEVICE (CAP_NET_RAW) and, with a realtime priority,
                  CAP_SYS_NICE; FILE must be readable by USER. Needs root
  -q, --quiet     no status line
  --json          the summary as one JSON object on standard output instead of the text
                  (fields: 'docs/host-tool.md')
A root run without --user still gives up every capability but those and the one to
override file permissions. Ctrl-C, SIGTERM and SIGHUP stop the sending (exit status 130).
A damaged FILE is sent up to the damage, which is said (exit status 3); a FILE of another
link type than Ethernet or bare IP is said to be one, and sent as frames all the same.
)";

// The scheduler's clock runs on frame timestamps. The file's own first timestamp is made the
// present (less a short lead), so at speed 1 the frames keep their own timestamps.
constexpr unsigned long long LeadUs = 20000;
// How far ahead of the wire the tool reads: by time, by frames in flight (the pool's buffers),
// and by events queued. All bound memory and how long Ctrl-C waits for frames already handed
// over; the queue's bound is below the pool's, so that buffers stay free while the events that
// have run wait in a batch for this thread to destroy them.
constexpr unsigned long long WindowUs = 500000;
constexpr unsigned int BuffersInFlight = 1024;
constexpr unsigned int QueuedAhead = 512;
constexpr unsigned int BufferSize = 9036;

struct Settings {
    double speed = 1;
    bool bTopSpeed = false;
    std::uint64_t loops = 1;
    bool bTimeout = false;
    std::uint64_t timeout = 0;
    std::uint64_t sendBuffer = 0;
    std::uint64_t priority = 10;
    bool bSpin = false;
    std::string user; // --user, or empty
    std::uint64_t count = UINT64_MAX;
    std::string expression;
    bool bJson = false;
};

// Where each frame goes on the scheduler's clock: the file's gaps divided by the speed, each
// pass behind the last one by one average gap. Times are whole microseconds throughout, as the
// file and the scheduler count them; the speed, a ratio, is applied once to a frame's distance
// from the first stamp and rounded there, so that at speed 1 no double is involved at all.
class Timeline {
public:
    Timeline(unsigned long long firstTimestamp, const Settings& settings)
        : speed(settings.speed), bTopSpeed(settings.bTopSpeed), first(firstTimestamp)
    {
        passStart = first > LeadUs ? first : LeadUs;
        Lyr::PreciseScheduler::GetInstance().SetPresentTimestamp(passStart - LeadUs);
        last = passStart;
    }

    // At top speed every frame is due at the start: equal times leave in the order they came.
    // A stamp before the first goes as far before the pass's start, but not below 0.
    unsigned long long Place(unsigned long long timestamp)
    {
        ++framesInPass;
        if (bTopSpeed)
            return passStart - LeadUs;
        last = timestamp >= first ? Sum(passStart, Scaled(timestamp - first))
                                  : passStart - std::min(passStart, Scaled(first - timestamp));
        return last;
    }

    void NextPass()
    {
        const unsigned long long span = last > passStart ? last - passStart : 0;
        passStart = Sum(last, framesInPass > 1 ? span / (framesInPass - 1) : 0);
        framesInPass = 0;
    }

private:
    // Times beyond the range stay at its end rather than wrap to the start.
    static unsigned long long Sum(unsigned long long a, unsigned long long b) { return b < ULLONG_MAX - a ? a + b : ULLONG_MAX; }

    // A distance in file time as a distance on the scheduler's clock, to the nearest microsecond.
    unsigned long long Scaled(unsigned long long distance) const
    {
        if (speed == 1)
            return distance;
        const double scaled = std::round(static_cast<double>(distance) / speed);
        return scaled < 0x1p64 ? static_cast<unsigned long long>(scaled) : ULLONG_MAX;
    }

    const double speed;
    const bool bTopSpeed;
    const unsigned long long first;
    unsigned long long passStart = 0;
    unsigned long long last = 0;
    unsigned long long framesInPass = 0;
};

struct Tally {
    unsigned long long handed = 0;
    unsigned long long bytes = 0;
    unsigned long long handedLate = 0;    // after their time: the reading fell behind
    unsigned long long worstBehindUs = 0;
    std::atomic<unsigned long long> late{0};
    std::chrono::steady_clock::time_point lastShown = std::chrono::steady_clock::now();
};

double SecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void ShowStatus(const Tally& tally, unsigned long long failed)
{
    const Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    const unsigned long long done = scheduler.GetLatenessStatistics().events;
    const unsigned long long late = tally.late.load();
    const unsigned long long sent = done > late + failed ? done - late - failed : 0;
    std::fprintf(stderr, "\rsending: %llu handed over, %llu sent, %llu late, %llu failed, %u queued\033[K",
                 tally.handed, sent, late, failed, scheduler.GetQueuedCount());
}

// Waits as long as `pause()` says (in µs; 0: no more), showing the status now and then; false
// on Ctrl-C if `bStoppable`.
template <typename Pause> bool WaitWhile(Pause pause, Tally& tally, const LogWatch& log, bool bShow, bool bStoppable)
{
    for (unsigned long long us; (us = pause()) != 0;) {
        if (bStoppable && Interrupted())
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(us));
        if (bShow && SecondsSince(tally.lastShown) > 0.5) {
            ShowStatus(tally, log.TransmitFailures());
            tally.lastShown = std::chrono::steady_clock::now();
        }
    }
    return true;
}

// What keeps a thread that spins through the gaps from keeping time, as the system is set up;
// "" where nothing does. It spins up to 800 ms of each second at realtime priority.
std::string SpinHindrance()
{
    const auto setting = [](const char* path, long long fallback) {
        long long value = fallback;
        if (std::FILE* file = std::fopen(path, "re")) {
            if (std::fscanf(file, "%lld", &value) != 1)
                value = fallback;
            std::fclose(file);
        }
        return value;
    };
    const long long runtime = setting("/proc/sys/kernel/sched_rt_runtime_us", -1);
    long long period = setting("/proc/sys/kernel/sched_rt_period_us", 1000000);
    if (period <= 0)
        period = 1000000;
    if (runtime >= 0 && runtime * 10 < period * 9)
        return "the kernel lets realtime threads run only " + std::to_string(runtime / 1000) + " ms of every " +
               std::to_string(period / 1000) +
               " ms (kernel.sched_rt_runtime_us), and stops the spinning thread for the rest: frames will leave "
               "late; the default is 950000";
    if (sysconf(_SC_NPROCESSORS_ONLN) < 2)
        return "this machine has one core, which the spinning thread takes for most of each second from the thread "
               "that reads the file: frames will leave late; send without --spin";
    return "";
}

int Send(const std::string& path, const std::string& device, const Settings& settings)
{
    if (!BeginRun(RunPrivileges{settings.user, true, settings.priority > 0}, "send") || !MayOpenDevice(device, "send", false))
        return ExitFailure;
    FrameReader reader;
    if (!reader.Open(path, "send", false, false))
        return ExitFailure;
    std::string error;
    if (!reader.SetFilter(settings.expression, error)) {
        std::fprintf(stderr, "lyrcap send: the filter does not fit %s: %s\n", reader.Name().c_str(), error.c_str());
        return ExitFailure;
    }
    reader.SayIfNotFrames("send");
    // The scheduler's thread, made at its first use, takes the scheduling of the thread that
    // makes it; it wakes on time on a busy machine only at realtime priority.
    StartAtRealtimePriority(static_cast<int>(settings.priority), "the scheduler's thread runs",
                            [] { Lyr::PreciseScheduler::GetInstance(); });
    // The reading thread runs at realtime priority too, one below the scheduler's: an ordinary
    // thread that shares its core with the scheduler's (as it does when it wakes it, or at the
    // start, where the new thread begins on its maker's core) waits until the kernel moves it,
    // tens of milliseconds behind a thread that spins, and frames that it hands over that late
    // are dropped as late. A realtime thread that a higher one takes the core from moves at once.
    if (settings.priority > 0)
        SetRealtimePriority(std::max(static_cast<int>(settings.priority) - 1, 1));
    std::unique_ptr<Lyr::NetOutputIf> output = Lyr::CreatePlugin<Lyr::NetOutputIf>("pcap");
    if (!output) {
        std::cerr << "lyrcap: the plug-in registered no output back-end \"pcap\"\n";
        return ExitFailure;
    }
    const LogWatch& log = reader.Log();
    Tally tally;
    output->SubscribeTimeout(Kt::MakeFunctor<void()>([&tally] { ++tally.late; }));
    if (settings.bTimeout || settings.bTopSpeed)
        output->SetTimeout(settings.bTimeout ? settings.timeout : ~0ULL);
    output->SetSocketSendBufferSize(static_cast<int>(settings.sendBuffer));
    output->ConfigureIf(device);
    if (log.PortFailures() != 0)
        return ExitFailure;

    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    const std::string hindrance = settings.bSpin && settings.priority > 0 ? SpinHindrance() : "";
    if (!hindrance.empty())
        std::fprintf(stderr, "lyrcap send: --spin: %s\n", hindrance.c_str());
    scheduler.SetSpinning(settings.bSpin);
    scheduler.ResetLatenessStatistics();
    const double cpuBefore = scheduler.GetThreadCpuSeconds();
    const Lyr::PreciseScheduler::WaitTimes waitedBefore = scheduler.GetWaitTimes();
    Lyr::BufferPool pool(BuffersInFlight, BufferSize);
    const bool bShow = isatty(STDERR_FILENO) && !Quiet();
    std::unique_ptr<Timeline> timeline;
    const auto start = std::chrono::steady_clock::now();
    bool bStopped = false;
    bool bWhole = true;
    for (std::uint64_t pass = 0; pass < settings.loops && !bStopped && tally.handed < settings.count; ++pass) {
        if (pass > 0) {
            reader.File().SeekBegin(0);
            if (!timeline)
                break; // a file with no frame to send
            timeline->NextPass();
        }
        while (tally.handed < settings.count) {
            const Lyr::EthFrame* frame = reader.Next();
            if (!frame)
                break;
            if (!timeline)
                timeline = std::make_unique<Timeline>(frame->GetTimestamp(), settings);
            const unsigned long long at = timeline->Place(frame->GetTimestamp());
            // A full queue or pool empties by a frame per gap: looked at again soon. A frame
            // beyond the window waits until it enters it, in one sleep (at most 100 ms, for
            // Ctrl-C and the status line), not in thousands.
            auto pause = [&]() -> unsigned long long {
                if (scheduler.GetQueuedCount() >= QueuedAhead || pool.GetFreeCount() == 0)
                    return 50;
                const unsigned long long present = scheduler.GetPresentTimestamp();
                return settings.bTopSpeed || at <= present + WindowUs ? 0 : std::min(at - present - WindowUs, 100000ULL);
            };
            if (!WaitWhile(pause, tally, log, bShow, true)) {
                bStopped = true;
                break;
            }
            // A frame handed over after its time leaves late, or is dropped as late: the reading
            // fell behind, not the scheduler.
            const unsigned long long present = scheduler.GetPresentTimestamp();
            if (!settings.bTopSpeed && present > at) {
                ++tally.handedLate;
                tally.worstBehindUs = std::max(tally.worstBehindUs, present - at);
            }
            // The event keeps the frame's buffer until it has run, so each frame gets its own.
            const Kt::CSlice<unsigned char> bytes = frame->GetData();
            Kt::CSlice<unsigned char> buffer = pool.GetBuffer();
            std::memcpy(buffer.data, bytes.data, bytes.size);
            output->SendFrame(Lyr::EthFrame(buffer.Prefix(bytes.size), at));
            ++tally.handed;
            tally.bytes += bytes.size;
        }
        // Said at the end of the first pass, as soon as it is known; the next passes meet it too.
        bWhole = reader.EndedWhole("send") && bWhole;
    }
    // Every buffer back in the pool: every event has run and ended. Frames already handed over
    // are at most the window ahead, so this wait is short also after Ctrl-C.
    WaitWhile([&] { return pool.GetFreeCount() != BuffersInFlight ? 50ULL : 0ULL; }, tally, log, false, false);
    const double elapsed = SecondsSince(start);
    scheduler.SetSpinning(false); // the core is free again while the tool ends
    if (bShow)
        std::fputs("\r\033[K", stderr);

    const Lyr::PreciseScheduler::LatenessStatistics lateness = scheduler.GetLatenessStatistics();
    const unsigned long long failed = log.TransmitFailures(), late = tally.late.load();
    const unsigned long long sent = tally.handed - std::min(tally.handed, late + failed);
    const double cpu = scheduler.GetThreadCpuSeconds() - cpuBefore;
    const Lyr::PreciseScheduler::WaitTimes waited = scheduler.GetWaitTimes();
    const int priority = scheduler.GetThreadPriority();
    const double slept = waited.sleptSeconds - waitedBefore.sleptSeconds, spun = waited.spunSeconds - waitedBefore.spunSeconds;
    if (settings.bJson) {
        JsonObject summary;
        summary.Add("file", reader.Name()).Add("device", device);
        if (settings.expression.empty())
            summary.AddNull("filter");
        else
            summary.Add("filter", settings.expression);
        summary.Add("frames_sent", std::uint64_t(sent)).Add("dropped_late", std::uint64_t(late))
            .Add("transmit_failures", std::uint64_t(failed)).Add("refused", std::uint64_t(reader.Refused()))
            .Add("filtered_out", std::uint64_t(reader.Filtered()));
        if (settings.bTopSpeed)
            summary.AddNull("lateness_us");
        else
            summary.Add("lateness_us", JsonObject()
                                           .Add("median", std::uint64_t(lateness.medianUs))
                                           .Add("p99", std::uint64_t(lateness.p99Us))
                                           .Add("maximum", std::uint64_t(lateness.maximumUs)));
        summary.Add("handed_over_frames", std::uint64_t(tally.handed)).Add("handed_over_bytes", std::uint64_t(tally.bytes))
            .Add("seconds", elapsed)
            .Add("scheduler_cpu_seconds", cpu)
            .Add("scheduler_priority", std::int64_t(priority))
            .Add("spinning", settings.bSpin)
            .Add("slept_seconds", slept)
            .Add("spun_seconds", spun)
            .Add("longest_stall_seconds", waited.longestStallSeconds)
            .Add("handed_over_late", std::uint64_t(tally.handedLate))
            .Add("most_behind_us", std::uint64_t(tally.worstBehindUs));
        reader.DescribeDamage(summary);
        summary.Add("interrupted", bStopped);
        std::printf("%s\n", summary.Text().c_str());
    } else {
        std::printf("frames sent: %llu\n", sent);
        std::printf("dropped as late: %llu\n", late);
        std::printf("transmit failures: %llu\n", failed);
        if (reader.Refused() != 0)
            std::printf("refused packets: %llu\n", static_cast<unsigned long long>(reader.Refused()));
        if (!settings.expression.empty())
            std::printf("left out by the filter: %llu\n", static_cast<unsigned long long>(reader.Filtered()));
        if (settings.bTopSpeed)
            std::printf("lateness (us): not measured at top speed\n");
        else
            std::printf("lateness (us): median %llu, p99 %llu, maximum %llu\n", lateness.medianUs, lateness.p99Us,
                        lateness.maximumUs);
        std::printf("handed over: %llu frames, %llu bytes in %.6f s (%.0f frames/s, %.1f Mbit/s)\n", tally.handed,
                    tally.bytes, elapsed, elapsed > 0 ? tally.handed / elapsed : 0.0,
                    elapsed > 0 ? tally.bytes * 8 / elapsed / 1e6 : 0.0);
        std::printf("scheduler thread CPU: %.3f s (%.1f%% of the run)\n", cpu, elapsed > 0 ? 100 * cpu / elapsed : 0.0);
        const std::string scheduling = priority > 0 ? "realtime priority " + std::to_string(priority) : "ordinary priority";
        std::printf("scheduler thread: %s%s, slept %.3f s, spun %.3f s, stood still %.3f ms at the longest\n",
                    scheduling.c_str(), settings.bSpin ? ", spinning through the gaps" : "", slept, spun,
                    waited.longestStallSeconds * 1000);
        if (tally.handedLate != 0)
            std::printf("handed over after their time: %llu frames, at most %.3f ms behind (the reading fell behind)\n",
                        tally.handedLate, static_cast<double>(tally.worstBehindUs) / 1000);
    }
    if (!StandardOutputWritten("send"))
        return ExitFailure;
    if (bStopped)
        return ExitInterrupted;
    return bWhole ? ExitOk : ExitDamaged;
}

} // namespace

int RunSend(const std::vector<std::string>& args)
{
    CommandLine line(args, {"--speed", "--loop", "--timeout", "--sndbuf", "--priority", "--user", "--topspeed", "--spin",
                            "--count", "--read", "--interface", "--quiet", "--json"});
    Settings settings;
    if (!line.Ok() || !line.Decimal("--speed", 0.001, 1000000, settings.speed) ||
        !line.Number("--loop", 1, 1000000000, settings.loops) ||
        !line.Number("--timeout", 0, ~0ULL, settings.timeout) || !line.Number("--sndbuf", 0, INT_MAX, settings.sendBuffer) ||
        !line.Number("--priority", 0, 99, settings.priority) || !line.Number("--count", 1, UINT64_MAX, settings.count))
        return UsageError("send", line.Error());
    if (line.Has("--help")) {
        std::cout << Help;
        return ExitOk;
    }
    settings.bTopSpeed = line.Has("--topspeed");
    settings.bTimeout = line.Has("--timeout");
    settings.bSpin = line.Has("--spin");
    settings.bJson = line.Has("--json");
    if (settings.bTopSpeed && line.Has("--speed"))
        return UsageError("send", "--speed and --topspeed exclude each other");
    const std::string file = line.Take("--read");
    const std::string device = line.Take("--interface");
    if (file.empty() || device.empty())
        return UsageError("send", "needs a FILE and a DEVICE");
    settings.expression = line.Rest();
    std::string error;
    if (!CheckFilter(settings.expression, error))
        return UsageError("send", "the filter expression '" + settings.expression + "' does not compile (libpcap: " + error + ")");
    settings.user = line.Value("--user");
    if (line.Has("--user") && !UserExists(settings.user))
        return UsageError("send", "--user: no user '" + settings.user + "'");
    if (line.Has("--quiet"))
        BeQuiet();
    return Send(file, device, settings);
}
