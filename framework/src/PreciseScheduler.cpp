#include <lyr/PreciseScheduler.h>

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

// The thread sleeps until this long before an event is due and spins the rest. The stretch
// follows how late the sleeps actually wake (the kernel's wake-up latency differs from machine
// to machine, and on a virtual machine a sleeping thread often wakes hundreds of microseconds
// late): it jumps to one and a half times a recent oversleep and shrinks slowly when wakes are
// punctual. With events less than the stretch apart the thread spins through the gaps, as a
// sender that keeps time must; with nothing due it sleeps and costs nothing.
constexpr Nanoseconds MinimumSpin = 20000;
constexpr Nanoseconds InitialSpin = 60000;
constexpr Nanoseconds MaximumSpin = 1000000;
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

struct Entry {
    Nanoseconds deadline;
    std::uint64_t sequence; // equal deadlines run in the order they came
    PreciseScheduler::Event event;
};

// The queue is a std heap, which keeps its greatest element in front: "greater" is "later".
bool Later(const Entry& a, const Entry& b)
{
    return a.deadline != b.deadline ? a.deadline > b.deadline : a.sequence > b.sequence;
}

} // namespace

struct PreciseScheduler::State {
    State()
    {
        referenceTimestampUs = WallClockMicroseconds();
        referenceNs = Monotonic();
        presentOffsetNs.store(static_cast<Nanoseconds>(referenceTimestampUs) * 1000 - referenceNs);
        queue.reserve(1024);
        thread = std::thread([this] { Run(); });
        pthread_setname_np(thread.native_handle(), "LYR-Scheduler");
    }

    ~State()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            bStopping = true;
        }
        wake.notify_all();
        // An event that ends the process runs this on the thread itself, which cannot join itself.
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
        // What is still queued is dropped here with the queue.
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
        std::unique_lock<std::mutex> lock(mutex);
        while (!bStopping) {
            if (queue.empty()) {
                // The predicate, not the wake-up alone: the end may have been announced while
                // AwaitBriefly had the lock let go, and its notification reached nobody.
                if (!AwaitBriefly(lock))
                    wake.wait(lock, [this] { return bStopping || !queue.empty(); });
                continue;
            }
            const Nanoseconds deadline = queue.front().deadline;
            const Nanoseconds now = Monotonic();
            const Nanoseconds sleepUntil = deadline - spinNs;
            if (now < sleepUntil) {
                // A new event earlier than this one, or the end, wakes the thread early.
                if (wake.wait_until(lock, MonotonicPoint(sleepUntil)) == std::cv_status::timeout)
                    AdaptSpin(Monotonic() - sleepUntil);
                continue;
            }
            if (now < deadline) {
                lock.unlock();
                while (Monotonic() < deadline)
                    Pause();
                lock.lock();
            }
            // The front may be an event that came meanwhile with an earlier time: it is due too.
            std::pop_heap(queue.begin(), queue.end(), Later);
            Entry entry = std::move(queue.back());
            queue.pop_back();
            queued.store(queue.size(), std::memory_order_relaxed);
            lock.unlock();
            RunEvent(entry);
            entry.event = nullptr; // the event's captures end here, outside the lock
            lock.lock();
        }
    }

    // A sender that hands over frames as fast as they leave empties the queue again and again;
    // waking a sleeping thread costs more than a frame takes, so the thread looks for a new
    // event a little while before it sleeps. True when one came.
    bool AwaitBriefly(std::unique_lock<std::mutex>& lock)
    {
        lock.unlock();
        const Nanoseconds until = Monotonic() + EmptyQueueSpin;
        while (queued.load(std::memory_order_relaxed) == 0 && Monotonic() < until)
            Pause();
        lock.lock();
        return !queue.empty();
    }

    void AdaptSpin(Nanoseconds overslept)
    {
        spinNs = std::clamp(std::max(spinNs - spinNs / 64, overslept + overslept / 2), MinimumSpin, MaximumSpin);
    }


    void RunEvent(Entry& entry)
    {
        const Nanoseconds late = Monotonic() - entry.deadline;
        unsigned long long latenessUs = late > 0 ? static_cast<unsigned long long>(late / 1000) : 0;
        lateness.Record(latenessUs);
        // An exception must not end the thread: every later event would be lost with it.
        try {
            entry.event(latenessUs);
        } catch (const std::exception& error) {
            Kt::MyPrintf("Scheduled event failed: %s\n", error.what());
        } catch (...) {
            Kt::MyPrintf("Scheduled event failed: %s\n", "unknown exception");
        }
    }

    mutable std::mutex mutex;
    std::condition_variable wake;
    std::vector<Entry> queue;
    std::atomic<std::size_t> queued{0}; // the queue's size, for looking without the lock
    std::uint64_t nextSequence = 0;
    unsigned long long referenceTimestampUs = 0; // stands for the monotonic moment referenceNs
    Nanoseconds referenceNs = 0;
    std::atomic<Nanoseconds> presentOffsetNs{0}; // the same reference as one sum, for lock-free reads
    bool bStopping = false;
    Nanoseconds spinNs = InitialSpin; // the thread's own
    LatenessHistogram lateness;
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
    bool bFront = false;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        const std::uint64_t sequence = state->nextSequence;
        // If the queue cannot grow, the event ends here and nothing is queued.
        state->queue.push_back(Entry{state->DeadlineOf(timestampUs), sequence, std::move(event)});
        ++state->nextSequence;
        std::push_heap(state->queue.begin(), state->queue.end(), Later);
        state->queued.store(state->queue.size(), std::memory_order_relaxed);
        bFront = state->queue.front().sequence == sequence;
    }
    // Only a new front changes how long the thread waits.
    if (bFront)
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
    std::lock_guard<std::mutex> lock(state->mutex);
    return static_cast<unsigned int>(state->queue.size());
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
