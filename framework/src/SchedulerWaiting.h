#pragma once

#include "EventIntake.h"
#include "SchedulerClock.h"

#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Lyr {

// How late the thread's last timed wakes came, and the margin that covers all of them but the
// worst: a wake delayed once in a while (a page fault, the hypervisor's own business) does not
// hold the margin up, while two in the window show that the machine is slow at the moment. At one
// sleep per millisecond the window is an eighth of a second, so the margin follows a machine that
// gets busy or quiet again within that.
class WakeLateness {
public:
    static constexpr std::size_t Window = 128;

    explicit WakeLateness(Nanoseconds initial) { late.fill(initial); }

    void Add(Nanoseconds lateness)
    {
        late[next] = lateness;
        next = (next + 1) % Window;
    }

    // The second largest lateness in the window.
    Nanoseconds AllButWorst() const
    {
        Nanoseconds largest = INT64_MIN, second = INT64_MIN;
        for (Nanoseconds value : late) {
            if (value > largest) {
                second = largest;
                largest = value;
            } else if (value > second) {
                second = value;
            }
        }
        return second;
    }

private:
    std::array<Nanoseconds, Window> late;
    std::size_t next = 0;
};

// How the scheduler's thread waits for its next event, and how a sender wakes it. The thread
// sleeps until a margin before the deadline and spins only that margin: the margin covers how
// late the thread's recent sleeps woke (WakeLateness), so it is as short as the machine allows.
// A thread that spun through whole gaps would take a core, and a realtime thread doing so would
// be stopped for tens of milliseconds each second by the kernel's realtime throttling. A host
// that gives the thread a core asks it to spin through the gaps (SetSpinning): it then does so
// for most of each second and waits as above for the rest. With nothing queued the thread looks
// for a new event briefly, then sleeps until one comes. Before any wait that is not brief it
// destroys the events that have run and that no sender has taken. The thread's loop only asks
// to wait for a deadline or for an event, so this policy can be replaced alone.
class SchedulerWaiting {
public:
    explicit SchedulerWaiting(EventIntake& intake) : intake(intake) {}

    // On the scheduler's thread, before its first wait.
    static void PrepareThread()
    {
        // Timers of this thread fire at their time instead of within the 50 µs of slack that
        // the kernel grants ordinary threads.
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    }

    // The thread, `now` being before `deadline`: returns at the deadline, or sooner when a newly
    // scheduled event may be due earlier. False once the end is announced.
    bool UntilDue(Nanoseconds deadline, Nanoseconds now)
    {
        if (deadline - now > EmptyQueueSpin) {
            intake.DestroyRan(); // there is time for it now
            now = Monotonic();
        }
        if (Spinning() && SpinLeft(now, GapSpinBudget) > 0)
            return SpinUntil(deadline, now);
        Nanoseconds wakeAt = deadline - (SpinLeft(now, MarginSpinBudget()) > 0 ? margin : 0);
        if (Spinning())
            wakeAt = std::min(wakeAt, budgetSecondStart + 1000000000); // to spin again with the next budget
        if (now < wakeAt) {
            bool bTimedOut = false;
            if (!SleepUntil(wakeAt, bTimedOut))
                return false;
            if (bTimedOut)
                Learn(Monotonic() - wakeAt);
            return true; // the loop looks at the intake again, then comes back to spin
        }
        Nanoseconds at = now;
        while (at < deadline) {
            Pause();
            at = Monotonic();
            RanAt(at);
        }
        Spun(at - now);
        return true;
    }

    // The thread, with nothing queued: returns once an event may have come. False once the end
    // is announced.
    bool UntilScheduled()
    {
        if (AwaitBriefly())
            return true;
        intake.DestroyRan();
        const Nanoseconds now = Monotonic();
        if (Spinning() && SpinLeft(now, GapSpinBudget) > 0)
            return SpinUntil(Forever, now);
        bool bTimedOut = false;
        return SleepUntil(Forever, bTimedOut);
    }

    // Whether the thread spins through every wait instead of sleeping: a host that gives the
    // thread a core of its own gets the precision of a busy wait. Any thread may switch it; the
    // thread follows at its next wait, or within a spin.
    void SetSpinning(bool bSpin) { bSpinning.store(bSpin, std::memory_order_relaxed); }
    bool Spinning() const { return bSpinning.load(std::memory_order_relaxed); }

    // A sender, under the intake's lock, for the event it has just pushed: only a sleeping thread
    // that would wake too late for it needs waking, and only once: the thread takes in every
    // event pushed before it wakes, so the senders after the first one leave it be.
    bool MustWake(Nanoseconds deadline)
    {
        if (deadline >= sleepingUntil)
            return false;
        sleepingUntil = Awake;
        return true;
    }
    // After MustWake or the end's announcement, outside the lock.
    void Wake() { wake.notify_one(); }

    // What the thread has spent sleeping and spinning so far; for hosts.
    Nanoseconds SleptNs() const { return slept.load(std::memory_order_relaxed); }
    Nanoseconds SpunNs() const { return spun.load(std::memory_order_relaxed); }

    // The thread, at each reading of the clock while it means to run (spinning, taking in
    // events): the longest time between two such readings is the longest that it stood still,
    // kept from running by other threads, the kernel or its machine, or waiting for the intake's
    // lock. A sleep it chose and an event it ran do not count.
    void RanAt(Nanoseconds now)
    {
        if (lastRan != 0 && now - lastRan > longestStall.load(std::memory_order_relaxed))
            longestStall.store(now - lastRan, std::memory_order_relaxed);
        lastRan = now;
    }
    // The thread, after a time that it spent as it meant to (running an event): counting starts again.
    void Resumed(Nanoseconds now) { lastRan = now; }
    // Since the last reset; for hosts, which reset it when a run begins.
    Nanoseconds LongestStallNs() const { return longestStall.load(std::memory_order_relaxed); }
    void ResetLongestStall() { longestStall.store(0, std::memory_order_relaxed); }

private:
    // The margin is the recent wakes' lateness and a guard, never below the floor (a wake takes
    // some microseconds even on a quiet machine) nor beyond the ceiling.
    static constexpr Nanoseconds MarginFloor = 20000;
    static constexpr Nanoseconds MarginCeiling = 1000000;
    static constexpr Nanoseconds MarginGuard = 10000;
    // At most this much spinning in any second: below the 950 ms that the kernel grants realtime
    // threads by default, so frames closer together than the margin make the thread sleep for
    // the rest of the second rather than be stopped. When spinning through the gaps, the thread
    // does so for most of each second, then waits as usual (sleeping to the margin) for the rest:
    // the other threads on its core run then, and the kernel never has to stop it for them, which
    // would make frames tens of milliseconds late.
    static constexpr Nanoseconds SpinBudgetPerSecond = 500000000;
    static constexpr Nanoseconds GapSpinBudget = 700000000;
    static constexpr Nanoseconds SpinningMarginBudget = 800000000;
    // Waking a sleeping thread costs more than a frame takes, and a sender that hands over frames
    // as fast as they leave empties the queue again and again: so this brief look first.
    static constexpr Nanoseconds EmptyQueueSpin = 50000;
    // sleepingUntil when the thread is not asleep, or a wake is on its way: no new event needs to wake it.
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

    // A timed sleep woke `late` after its time.
    void Learn(Nanoseconds late)
    {
        wakes.Add(std::max<Nanoseconds>(late, 0));
        margin = std::clamp(wakes.AllButWorst() + MarginGuard, MarginFloor, MarginCeiling);
    }

    Nanoseconds MarginSpinBudget() const { return Spinning() ? SpinningMarginBudget : SpinBudgetPerSecond; }

    // How long the thread may still spin from `now` within `budget`: until the budget is used up
    // or this second ends, whichever comes first (the next second starts a new budget).
    Nanoseconds SpinLeft(Nanoseconds now, Nanoseconds budget)
    {
        if (now - budgetSecondStart >= 1000000000) {
            budgetSecondStart = now;
            spunThisSecond = 0;
        }
        return std::min(budget - spunThisSecond, budgetSecondStart + 1000000000 - now);
    }

    void Spun(Nanoseconds duration)
    {
        spunThisSecond += duration;
        spun.store(spun.load(std::memory_order_relaxed) + duration, std::memory_order_relaxed);
    }

    // Sleeps until `until` (Forever: until an event comes), unless something is in the intake.
    // A sender wakes the thread when its event is due before `until`. `bTimedOut` tells whether
    // the sleep ran to its time. False once the end is announced.
    bool SleepUntil(Nanoseconds until, bool& bTimedOut)
    {
        std::unique_lock<std::mutex> lock(intake.mutex);
        if (intake.Ending())
            return false;
        if (intake.HasEvents())
            return true;
        sleepingUntil = until;
        const Nanoseconds start = Monotonic();
        if (until == Forever) {
            wake.wait(lock, [this] { return intake.Ending() || intake.HasEvents(); });
        } else {
            using Clock = std::chrono::steady_clock;
            bTimedOut = wake.wait_until(lock, Clock::time_point(std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::nanoseconds(until)))) == std::cv_status::timeout;
        }
        sleepingUntil = Awake;
        lastRan = Monotonic();
        slept.store(slept.load(std::memory_order_relaxed) + (lastRan - start), std::memory_order_relaxed);
        return !intake.Ending();
    }

    // Spins until `until` (Forever: until an event comes), or sooner when a new event may be due
    // earlier, the spinning is switched off or its budget is used up. False once the end is
    // announced.
    bool SpinUntil(Nanoseconds until, Nanoseconds now)
    {
        const Nanoseconds start = now;
        until = std::min(until, now + SpinLeft(now, GapSpinBudget));
        while (now < until && !intake.MayHaveEvents() && !intake.Ending() && Spinning()) {
            Pause();
            now = Monotonic();
            RanAt(now);
        }
        Spun(now - start);
        return !intake.Ending();
    }

    // True when an event came within EmptyQueueSpin.
    bool AwaitBriefly()
    {
        const Nanoseconds start = Monotonic();
        Nanoseconds now = start;
        while (!intake.MayHaveEvents() && now < start + EmptyQueueSpin) {
            Pause();
            now = Monotonic();
            RanAt(now);
        }
        Spun(now - start);
        return intake.MayHaveEvents();
    }

    EventIntake& intake;
    std::condition_variable wake;
    Nanoseconds sleepingUntil = Awake; // under the intake's lock
    // The thread's own.
    Nanoseconds margin = MarginCeiling / 4;
    WakeLateness wakes{MarginCeiling / 4};
    Nanoseconds budgetSecondStart = 0;
    Nanoseconds spunThisSecond = 0;
    // Written by the thread only, read by hosts.
    std::atomic<Nanoseconds> slept{0};
    std::atomic<Nanoseconds> spun{0};
    Nanoseconds lastRan = 0; // the thread's own
    std::atomic<Nanoseconds> longestStall{0};
    std::atomic<bool> bSpinning{false};
};

} // namespace Lyr
