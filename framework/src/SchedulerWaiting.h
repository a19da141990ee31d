#pragma once

#include "EventIntake.h"
#include "SchedulerClock.h"

#include <sys/prctl.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Lyr {

// How the scheduler's thread waits for its next event, and how a sender wakes it. The thread
// sleeps until shortly before a deadline and spins the rest; with nothing queued it looks for a
// new event briefly, then sleeps until one comes. The thread's loop only asks to wait for a
// deadline or for an event, so this policy can be replaced alone.
class SchedulerWaiting {
public:
    explicit SchedulerWaiting(EventIntake& intake) : intake(intake) {}

    // On the scheduler's thread, before its first wait.
    static void PrepareThread()
    {
        // Timers of this thread fire within a microsecond of their time instead of the 50 µs
        // of slack that the kernel grants ordinary threads.
        prctl(PR_SET_TIMERSLACK, 1000UL, 0UL, 0UL, 0UL);
        // The thread keeps the ordinary priority. A realtime one would wake no sooner on a
        // virtual machine, and the kernel stops a realtime thread that spins for most of a
        // second, which closely spaced frames make it do.
    }

    // The thread, `now` being before `deadline`: returns at the deadline, or sooner when a newly
    // scheduled event may be due earlier. False once the end is announced.
    bool UntilDue(Nanoseconds deadline, Nanoseconds now)
    {
        if (now < deadline - SpinNs)
            return SleepUntil(deadline - SpinNs);
        while (Monotonic() < deadline)
            Pause();
        return true;
    }

    // The thread, with nothing queued: returns once an event may have come. False once the end
    // is announced.
    bool UntilScheduled() { return AwaitBriefly() || SleepUntil(Forever); }

    // A sender, under the intake's lock, for the event it has just pushed: only a sleeping thread
    // that would wake too late for it needs waking.
    bool MustWake(Nanoseconds deadline) const { return deadline < sleepingUntil; }
    // After MustWake or the end's announcement, outside the lock.
    void Wake() { wake.notify_one(); }

private:
    // A sleeping thread may wake a millisecond or more late, so the last stretch before a deadline
    // is spun: events less than this apart are spun through, as a sender that keeps time must.
    static constexpr Nanoseconds SpinNs = 1000000;
    // Waking a sleeping thread costs more than a frame takes, and a sender that hands over frames
    // as fast as they leave empties the queue again and again: so this brief look first.
    static constexpr Nanoseconds EmptyQueueSpin = 50000;
    // sleepingUntil when the thread is not asleep: no new event needs to wake it.
    static constexpr Nanoseconds Awake = INT64_MIN;
    static constexpr Nanoseconds Forever = INT64_MAX;

    // One step of a busy wait: tells the processor, without giving the thread up.
    static void Pause()
    {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    // Sleeps until `until` (Forever: until an event comes), unless something is in the intake.
    // A sender wakes the thread when its event is due before `until`. False once the end is
    // announced.
    bool SleepUntil(Nanoseconds until)
    {
        std::unique_lock<std::mutex> lock(intake.mutex);
        if (intake.Ending())
            return false;
        if (intake.HasEvents())
            return true;
        sleepingUntil = until;
        if (until == Forever) {
            wake.wait(lock, [this] { return intake.Ending() || intake.HasEvents(); });
        } else {
            using Clock = std::chrono::steady_clock;
            wake.wait_until(lock, Clock::time_point(std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(until))));
        }
        sleepingUntil = Awake;
        return !intake.Ending();
    }

    // True when an event came within EmptyQueueSpin.
    bool AwaitBriefly()
    {
        const Nanoseconds until = Monotonic() + EmptyQueueSpin;
        while (!intake.MayHaveEvents() && Monotonic() < until)
            Pause();
        return intake.MayHaveEvents();
    }

    EventIntake& intake;
    std::condition_variable wake;
    Nanoseconds sleepingUntil = Awake; // under the intake's lock
};

} // namespace Lyr
