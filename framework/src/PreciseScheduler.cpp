#include <lyr/PreciseScheduler.h>

#include "EventIntake.h"
#include "EventQueue.h"
#include "RunStatistics.h"
#include "SchedulerClock.h"
#include "SchedulerWaiting.h"

#include <kt/MyPrintf.h>

#include <pthread.h>
#include <time.h>

#include <exception>
#include <mutex>
#include <thread>

namespace Lyr {

namespace {

// While events are due one after the other, the thread takes in newly scheduled ones after
// this many: often enough that a newcomer waits little, seldom enough that a sender handing over
// frames as fast as they leave does not meet the thread at the intake's lock for every frame.
constexpr unsigned int DueBurst = 64;

} // namespace

// The scheduler's pieces and the thread's loop: senders push into the intake, with deadlines
// from the reference; the thread moves what they pushed into its own queue, runs what is due
// and waits in between as `waiting` decides.
struct PreciseScheduler::State {
    State()
    {
        reference.Set(WallClockMicroseconds());
        thread = std::thread([this] { Run(); });
        pthread_setname_np(thread.native_handle(), "LYR-Scheduler");
    }

    ~State()
    {
        intake.AnnounceEnd();
        waiting.Wake();
        // An event that ends the process runs this on the thread itself, which cannot join itself.
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();
        else
            thread.join();
        // What is still queued is dropped here with the queues.
    }

    void Run()
    {
        SchedulerWaiting::PrepareThread();
        while (!intake.Ending()) {
            intake.MoveInto(queue);
            if (queue.Empty()) {
                if (!waiting.UntilScheduled())
                    return;
                continue;
            }
            const Nanoseconds deadline = queue.Front().deadline;
            Nanoseconds now = Monotonic();
            waiting.RanAt(now);
            if (now < deadline) {
                if (!waiting.UntilDue(deadline, now))
                    return;
                continue; // an event that came meanwhile may be earlier, and due as well
            }
            for (unsigned int run = 0; run < DueBurst && !queue.Empty() && queue.Front().deadline <= now; ++run) {
                if (intake.Ending())
                    return;
                now = RunEvent(queue.Pop(), now);
                waiting.Resumed(now); // an event that takes long is no stall of the thread
            }
        }
    }

    // Runs one event that was due at `now` or before; returns the time after it.
    Nanoseconds RunEvent(EventQueue::Entry entry, Nanoseconds now)
    {
        const Nanoseconds late = now - entry.deadline;
        unsigned long long latenessUs = late > 0 ? static_cast<unsigned long long>(late / 1000) : 0;
        statistics.Started(latenessUs);
        // An exception must not end the thread: every later event would be lost with it.
        try {
            entry.event(latenessUs);
        } catch (const std::exception& error) {
            Kt::MyPrintf("Scheduled event failed: %s\n", error.what());
        } catch (...) {
            Kt::MyPrintf("Scheduled event failed: %s\n", "unknown exception");
        }
        intake.Ran(std::move(entry.event)); // destroyed later, off the path from event to event
        return Monotonic();
    }

    TimestampReference reference; // under intake.mutex, but for reading the present
    EventIntake intake;
    SchedulerWaiting waiting{intake};
    RunStatistics statistics;
    EventQueue queue; // the thread's own
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
    bool bWake = false, bDestroyRan = false;
    {
        std::lock_guard<std::mutex> lock(state->intake.mutex);
        const Nanoseconds deadline = state->reference.DeadlineOf(timestampUs);
        state->intake.Push(deadline, std::move(event));
        bWake = state->waiting.MustWake(deadline);
        bDestroyRan = state->intake.ClaimReturned();
    }
    if (bWake)
        state->waiting.Wake();
    if (bDestroyRan)
        state->intake.DestroyClaimed();
}

void PreciseScheduler::SetSpinning(bool bSpin)
{
    state->waiting.SetSpinning(bSpin); // a sleeping thread spins from its next wait on
}

bool PreciseScheduler::IsSpinning() const
{
    return state->waiting.Spinning();
}

void PreciseScheduler::SetPresentTimestamp(unsigned long long timestampUs)
{
    std::lock_guard<std::mutex> lock(state->intake.mutex);
    state->reference.Set(timestampUs);
}

void PreciseScheduler::UseWallClock()
{
    SetPresentTimestamp(WallClockMicroseconds());
}

unsigned long long PreciseScheduler::GetPresentTimestamp() const
{
    return state->reference.PresentTimestamp();
}

unsigned int PreciseScheduler::GetQueuedCount() const
{
    // Started first: the scheduled count only grows, so it is never below it.
    const std::uint64_t started = state->statistics.StartedCount();
    return static_cast<unsigned int>(state->intake.ScheduledCount() - started);
}

PreciseScheduler::LatenessStatistics PreciseScheduler::GetLatenessStatistics() const
{
    return state->statistics.Lateness();
}

void PreciseScheduler::ResetLatenessStatistics()
{
    state->statistics.ResetLateness();
    state->waiting.ResetLongestStall();
}

double PreciseScheduler::GetThreadCpuSeconds() const
{
    clockid_t clock{};
    timespec used{};
    if (pthread_getcpuclockid(state->thread.native_handle(), &clock) != 0 || clock_gettime(clock, &used) != 0)
        return 0;
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

int PreciseScheduler::GetThreadPriority() const
{
    int policy = 0;
    sched_param parameters{};
    if (pthread_getschedparam(state->thread.native_handle(), &policy, &parameters) != 0)
        return 0;
    return policy == SCHED_FIFO || policy == SCHED_RR ? parameters.sched_priority : 0;
}

PreciseScheduler::WaitTimes PreciseScheduler::GetWaitTimes() const
{
    WaitTimes times;
    times.sleptSeconds = static_cast<double>(state->waiting.SleptNs()) / 1e9;
    times.spunSeconds = static_cast<double>(state->waiting.SpunNs()) / 1e9;
    times.longestStallSeconds = static_cast<double>(state->waiting.LongestStallNs()) / 1e9;
    return times;
}

} // namespace Lyr
