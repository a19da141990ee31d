#pragma once

#include <lyr/Export.h>

#include <kt/CUncopyable.h>

#include <functional>

namespace Lyr {

// The process's one timer for frames: events are timed by frame timestamps (microseconds) and
// run one at a time, in time order, on a thread of the scheduler's own. Each event is handed its
// lateness: how many microseconds after its time it started (0 when on time).
//
// Timestamps map to the monotonic clock through a reference: one timestamp that stands for a
// moment. It starts as the wall clock (live timestamps need nothing), and a host that replays a
// capture from another day says which timestamp is "now" with SetPresentTimestamp. Deadlines are
// fixed when an event is scheduled, so the error of one event never moves the next.
//
// At process exit the thread finishes the event it is running and stops; events still queued are
// dropped without being called, since what they would call into may already be gone.
class LYR_SHARED PreciseScheduler : private Kt::CUncopyable {
public:
    using Event = std::function<void(unsigned long long& latenessUs)>;

    static PreciseScheduler& GetInstance();

    // Queues `event` for the moment of `timestampUs` and returns at once. Events with equal
    // times run in the order they were scheduled. Safe from any thread.
    void ScheduleEvent(Event&& event, unsigned long long timestampUs);

#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for hosts and tests
    struct LatenessStatistics {
        unsigned long long events = 0; // run since the last reset
        unsigned long long medianUs = 0;
        unsigned long long p99Us = 0; // 99th percentile
        unsigned long long maximumUs = 0;
    };

    // From now on `timestampUs` stands for the present moment; events already queued keep
    // their deadlines.
    void SetPresentTimestamp(unsigned long long timestampUs);
    // Back to wall-clock timestamps, the default.
    void UseWallClock();
    // The timestamp that stands for the present moment.
    unsigned long long GetPresentTimestamp() const;

    // Events queued and not yet started.
    unsigned int GetQueuedCount() const;

    // Lateness of the events run since the last reset (percentiles within 2%), and the CPU time
    // that the scheduler's thread has used since it started.
    LatenessStatistics GetLatenessStatistics() const;
    void ResetLatenessStatistics();
    double GetThreadCpuSeconds() const;

    // The thread's realtime priority (SCHED_FIFO or SCHED_RR), or 0 at ordinary priority. The
    // thread takes the scheduling of the thread that first calls GetInstance.
    int GetThreadPriority() const;
    // How long the thread has slept and spun (waiting for deadlines and events) since it started,
    // and the longest it stood still while it meant to run (kept off its core, stopped by the
    // kernel, waiting for a lock) since the lateness statistics were last reset.
    struct WaitTimes {
        double sleptSeconds = 0;
        double spunSeconds = 0;
        double longestStallSeconds = 0;
    };
    WaitTimes GetWaitTimes() const;

    // Spinning through the gaps between events instead of sleeping (off by default): the
    // precision of a busy wait, for a host that gives the thread a core of its own.
    void SetSpinning(bool bSpin);
    bool IsSpinning() const;
#endif

    struct State; // the scheduler's own; defined with it

private:
    PreciseScheduler();
    ~PreciseScheduler();

    State* state;
};

} // namespace Lyr
