#include <lyr/PreciseScheduler.h>

#include "EventQueue.h"
#include "LatenessHistogram.h"

#include <kt/MyPrintf.h>

#include <pthread.h>
#include <sys/prctl.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace Lyr {

namespace {

using Nanoseconds = std::int64_t;
using Clock = std::chrono::steady_clock;

Nanoseconds Monotonic()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

Clock::time_point MonotonicPoint(Nanoseconds at)
{
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(at)));
}

unsigned long long WallClockMicroseconds()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000 + static_cast<unsigned long long>(now.tv_nsec) / 1000;
}

// The thread sleeps until this long before an event is due and spins the rest. A sleeping thread
// wakes late by a margin that differs from machine to machine; on a virtual machine about one
// sleep in a thousand wakes a millisecond or more late, and even a punctual wake from an idle
// core puts tens of microseconds of jitter on the way to the wire. A stretch fitted to recent
// wake-ups (tried: one and a half times the worst of the last 256, at least 20 or 300 µs) cut
// the CPU of a replay with 1 ms gaps to a quarter or a third, but its 99th percentile of gap
// error on the wire rose from about 3 µs to 5 to 40 µs, no better than a sender that spins all
// the time. So events less than this apart are spun through, as a sender that keeps time must;
// with nothing due the thread sleeps and costs nothing.
constexpr Nanoseconds SpinNs = 1000000;
// How long the thread keeps looking for a new event once the queue is empty.
constexpr Nanoseconds EmptyQueueSpin = 50000;

// One step of a busy wait: tells the processor, without giving the thread up.
inline void Pause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    asm volatile("yield");
#endif
}

// Deadlines more than this far from the reference are held there, so that nanoseconds on the
// monotonic clock stay within 63 bits: about a hundred years either way.
constexpr unsigned long long FarthestUs = 3000000000000000ULL;

// The present as one signed sum of nanoseconds holds timestamps up to about the year 2250.
constexpr unsigned long long LargestPresentUs = 9000000000000000ULL;

// While events are due one after the other, the thread takes in newly scheduled ones after
// this many: often enough that a newcomer waits little, seldom enough that a sender handing over
// frames as fast as they leave does not meet the thread at the intake's lock for every frame.
constexpr unsigned int DueBurst = 64;

// sleepingUntil when the thread is not asleep: no new event needs to wake it.
constexpr Nanoseconds Awake = INT64_MIN;
constexpr Nanoseconds Forever = INT64_MAX;

} // namespace

// Senders put events into the intake, under a lock of its own that they hold for a push only;
// the thread moves the intake into its own EventQueue now and then and runs events from there
// without any lock. So a sender and the thread meet only briefly, once for many events.
struct PreciseScheduler::State {
    State()
    {
        referenceTimestampUs = WallClockMicroseconds();
        referenceNs = Monotonic();
        presentOffsetNs.store(static_cast<Nanoseconds>(referenceTimestampUs) * 1000 - referenceNs);
        intake.reserve(1024);
        taken.reserve(1024);
        thread = std::thread([this] { Run(); });
        pthread_setname_np(thread.native_handle(), "LYR-Scheduler");
    }

    ~State()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping.store(true, std::memory_order_relaxed);
        }
        wake.notify_all();
        // An event that ends the process runs this on the thread itself, which cannot join itself.
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
        // What is still queued is dropped here with the queues.
    }

    // The monotonic moment of a timestamp, through the reference. Called with the lock held.
    Nanoseconds DeadlineOf(unsigned long long timestampUs) const
    {
        if (timestampUs >= referenceTimestampUs)
            return referenceNs + static_cast<Nanoseconds>(std::min(timestampUs - referenceTimestampUs, FarthestUs)) * 1000;
        return referenceNs - static_cast<Nanoseconds>(std::min(referenceTimestampUs - timestampUs, FarthestUs)) * 1000;
    }

    void Run()
    {
        // Timers of this thread fire within a microsecond of their time instead of the 50 µs
        // of slack that the kernel grants ordinary threads.
        prctl(PR_SET_TIMERSLACK, 1000UL, 0UL, 0UL, 0UL);
        // The thread keeps the ordinary priority. A realtime one would wake no sooner on a
        // virtual machine, and the kernel stops a realtime thread that spins for most of a
        // second, which closely spaced frames make it do.
        while (TakeIntake()) {
            if (queue.Empty()) {
                if (!AwaitBriefly() && !SleepUntil(Forever))
                    return;
                continue;
            }
            const Nanoseconds deadline = queue.Front().deadline;
            Nanoseconds now = Monotonic();
            if (now < deadline - SpinNs) {
                // A new event earlier than this one, or the end, wakes the thread early.
                if (!SleepUntil(deadline - SpinNs))
                    return;
                continue;
            }
            if (now < deadline) {
                while (Monotonic() < deadline)
                    Pause();
                continue; // an event that came meanwhile may be earlier, and due as well
            }
            for (unsigned int run = 0; run < DueBurst && !queue.Empty() && queue.Front().deadline <= now; ++run) {
                if (stopping.load(std::memory_order_relaxed))
                    return;
                now = RunEvent(queue.Pop(), now);
            }
        }
    }

    // Moves what senders have scheduled into the thread's queue; false once the end is announced.
    bool TakeIntake()
    {
        if (stopping.load(std::memory_order_relaxed))
            return false;
        if (intakeSize.load(std::memory_order_relaxed) == 0)
            return true; // one that comes this instant is seen under the lock before any sleep
        {
            std::lock_guard<std::mutex> lock(mutex);
            taken.swap(intake);
            intakeSize.store(0, std::memory_order_relaxed);
        }
        for (EventQueue::Entry& entry : taken)
            queue.Add(std::move(entry));
        taken.clear();
        return true;
    }

    // Sleeps until `until` (Forever: until an event comes), unless something is in the intake.
    // A sender wakes the thread when its event is due before `until`. False once the end is
    // announced.
    bool SleepUntil(Nanoseconds until)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (stopping.load(std::memory_order_relaxed))
            return false;
        if (!intake.empty())
            return true;
        sleepingUntil = until;
        if (until == Forever)
            wake.wait(lock, [this] { return stopping.load(std::memory_order_relaxed) || !intake.empty(); });
        else
            wake.wait_until(lock, MonotonicPoint(until));
        sleepingUntil = Awake;
        return !stopping.load(std::memory_order_relaxed);
    }

    // A sender that hands over frames as fast as they leave empties the queue again and again;
    // waking a sleeping thread costs more than a frame takes, so the thread looks for a new
    // event a little while before it sleeps. True when one came.
    bool AwaitBriefly()
    {
        const Nanoseconds until = Monotonic() + EmptyQueueSpin;
        while (intakeSize.load(std::memory_order_relaxed) == 0 && Monotonic() < until)
            Pause();
        return intakeSize.load(std::memory_order_relaxed) != 0;
    }

    // Runs one event that was due at `now` or before; returns the time after it.
    Nanoseconds RunEvent(EventQueue::Entry entry, Nanoseconds now)
    {
        const Nanoseconds late = now - entry.deadline;
        unsigned long long latenessUs = late > 0 ? static_cast<unsigned long long>(late / 1000) : 0;
        lateness.Record(latenessUs);
        startedCount.store(startedCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        // An exception must not end the thread: every later event would be lost with it.
        try {
            entry.event(latenessUs);
        } catch (const std::exception& error) {
            Kt::MyPrintf("Scheduled event failed: %s\n", error.what());
        } catch (...) {
            Kt::MyPrintf("Scheduled event failed: %s\n", "unknown exception");
        }
        entry.event = nullptr; // the event's captures end here, before the time is taken
        return Monotonic();
    }

    // Shared with senders, under `mutex`.
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::vector<EventQueue::Entry> intake;
    std::uint64_t nextSequence = 0;
    unsigned long long referenceTimestampUs = 0; // stands for the monotonic moment referenceNs
    Nanoseconds referenceNs = 0;
    Nanoseconds sleepingUntil = Awake;
    // Looked at without the lock.
    std::atomic<std::size_t> intakeSize{0};
    std::atomic<bool> stopping{false}; // written under the lock, so a sleeper cannot miss it
    std::atomic<Nanoseconds> presentOffsetNs{0}; // the reference as one sum, for lock-free reads
    std::atomic<std::uint64_t> scheduledCount{0}; // written under the lock
    std::atomic<std::uint64_t> startedCount{0}; // written by the thread
    LatenessHistogram lateness;
    // The thread's own.
    EventQueue queue;
    std::vector<EventQueue::Entry> taken;
    std::thread thread;
};

PreciseScheduler::PreciseScheduler() : state(new State) {}

PreciseScheduler::~PreciseScheduler()
{
    delete state;
}

PreciseScheduler& PreciseScheduler::GetInstance()
{
    static PreciseScheduler instance;
    return instance;
}

void PreciseScheduler::ScheduleEvent(Event&& event, unsigned long long timestampUs)
{
    bool bWake = false;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        const Nanoseconds deadline = state->DeadlineOf(timestampUs);
        // If the intake cannot grow, the event ends here and nothing is queued.
        state->intake.push_back(EventQueue::Entry{deadline, state->nextSequence, std::move(event)});
        ++state->nextSequence;
        state->intakeSize.store(state->intake.size(), std::memory_order_relaxed);
        state->scheduledCount.store(state->nextSequence, std::memory_order_relaxed);
        // Only a sleeping thread that would wake too late for this event needs the call.
        bWake = deadline < state->sleepingUntil;
    }
    if (bWake)
        state->wake.notify_one();
}

void PreciseScheduler::SetPresentTimestamp(unsigned long long timestampUs)
{
    std::lock_guard<std::mutex> lock(state->mutex);
    state->referenceTimestampUs = timestampUs;
    state->referenceNs = Monotonic();
    state->presentOffsetNs.store(static_cast<Nanoseconds>(std::min(timestampUs, LargestPresentUs)) * 1000 - state->referenceNs);
}

void PreciseScheduler::UseWallClock()
{
    SetPresentTimestamp(WallClockMicroseconds());
}

unsigned long long PreciseScheduler::GetPresentTimestamp() const
{
    // Without the lock: a host that polls the present must never hold up the thread.
    const Nanoseconds present = Monotonic() + state->presentOffsetNs.load();
    return present > 0 ? static_cast<unsigned long long>(present / 1000) : 0;
}

unsigned int PreciseScheduler::GetQueuedCount() const
{
    // Started first: the scheduled count only grows, so it is never below it.
    const std::uint64_t started = state->startedCount.load(std::memory_order_relaxed);
    return static_cast<unsigned int>(state->scheduledCount.load(std::memory_order_relaxed) - started);
}

PreciseScheduler::LatenessStatistics PreciseScheduler::GetLatenessStatistics() const
{
    LatenessStatistics statistics;
    statistics.events = state->lateness.Count();
    statistics.medianUs = state->lateness.Percentile(0.5);
    statistics.p99Us = state->lateness.Percentile(0.99);
    statistics.maximumUs = state->lateness.Maximum();
    return statistics;
}

void PreciseScheduler::ResetLatenessStatistics()
{
    state->lateness.Reset();
}

double PreciseScheduler::GetThreadCpuSeconds() const
{
    clockid_t clock{};
    timespec used{};
    if (pthread_getcpuclockid(state->thread.native_handle(), &clock) != 0 || clock_gettime(clock, &used) != 0)
        return 0;
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

} // namespace Lyr
