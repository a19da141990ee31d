#include "LatenessHistogram.h"
#include "SchedulerWaiting.h"
#include "support/LogCapture.h"
#include "support/SchedulerProbe.h"

#include <lyr/PreciseScheduler.h>

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <chrono>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using namespace std::chrono_literals;

// What an event saw: the lateness handed to it, and the present when it started and ended.
struct EventRun {
    int index;
    unsigned long long timestamp, lateness, startedAt, endedAt;
};

// Events that note what they saw, in the order they ran, once their `body` has returned.
struct Runs : WaitableList<EventRun> {
    void Schedule(int index, unsigned long long timestamp, std::function<void()> body = [] {})
    {
        Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
        scheduler.ScheduleEvent(
            [this, index, timestamp, body, &scheduler](unsigned long long& lateness) {
                EventRun run{index, timestamp, lateness, scheduler.GetPresentTimestamp(), 0};
                body();
                run.endedAt = scheduler.GetPresentTimestamp();
                Add(run);
            },
            timestamp);
    }
    std::vector<EventRun> WaitFor(std::size_t count) // generous: it ends as soon as they have run
    {
        WaitUntil([count](const std::vector<EventRun>& runs) { return runs.size() >= count; }, 60s);
        return Copy();
    }
};

} // namespace

// The scheduler reads the clock after the previous event has ended and before the next one
// starts, so the lateness it hands over lies between what the events' own readings say.
// Sleeping or spinning through the gaps, the same holds; and every event that has run is
// destroyed, also when no further event comes to carry it off.
TEST(PreciseScheduler, RunsEveryEventOnceInTimeOrderAndHandsItItsLatenessFromItsOwnTime)
{
    for (const bool bSpin : {false, true}) {
        SCOPED_TRACE(bSpin ? "spinning" : "sleeping");
        Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
        scheduler.SetSpinning(bSpin);
        const unsigned long long present = 1714564800000000ULL; // replaying a capture from 2024
        scheduler.SetPresentTimestamp(present);
        scheduler.ResetLatenessStatistics();
        Runs runs;
        SchedulerGate gate;
        gate.Close();
        // Queued while the thread is held: one a minute overdue; due ones out of order (so through the
        // heap) with many equal times; one every 2 ms from 20 ms on, the tenth of which takes 150 ms.
        runs.Schedule(0, present - 60000000);
        std::mt19937 random(7);
        const int due = 3000, count = due + 100;
        for (int i = 1; i < due; ++i)
            runs.Schedule(i, present - 5000 + random() % 40);
        for (int i = due; i < count; ++i)
            runs.Schedule(i, present + 20000 + (i - due) * 2000,
                          i == due + 10 ? [] { std::this_thread::sleep_for(150ms); } : std::function<void()>([] {}));
        EXPECT_EQ(scheduler.GetQueuedCount(), unsigned(count));
        gate.Open();

        // All of them, each after the one before in time and arrival order: so each exactly once.
        const std::vector<EventRun> all = runs.WaitFor(count);
        ASSERT_EQ(all.size(), unsigned(count));
        for (std::size_t i = 0; i < all.size(); ++i) {
            const EventRun& run = all[i];
            const EventRun before = i > 0 ? all[i - 1] : EventRun{-1, 0, 0, 0, present};
            EXPECT_TRUE(before.timestamp < run.timestamp || (before.timestamp == run.timestamp && before.index < run.index)) << i;
            EXPECT_GE(run.startedAt, run.timestamp) << "ran before its time: run " << i;
            EXPECT_LE(run.lateness, run.startedAt - run.timestamp) << "run " << i;
            EXPECT_GE(run.lateness, before.endedAt > run.timestamp ? before.endedAt - run.timestamp : 0) << "run " << i;
            // Had the first event's minute been carried over, the others would start a minute late.
            EXPECT_TRUE(i == 0 || run.startedAt - run.timestamp < 30000000u) << "run " << i << " was shifted";
        }
        EXPECT_EQ(scheduler.GetQueuedCount(), 0u);
        const Lyr::PreciseScheduler::LatenessStatistics statistics = scheduler.GetLatenessStatistics();
        EXPECT_EQ(statistics.events, count + 1u); // with the gate's
        EXPECT_EQ(statistics.maximumUs, all[0].lateness);
        // The median and the 99th percentile of the lateness handed over (the 150 ms event makes
        // the slowest hundredth far later than the slowest tenth). The gate's own event is one
        // value more, somewhere among them; the statistics give a bucket's lower bound, within 2%.
        std::vector<unsigned long long> lateness;
        for (const EventRun& run : all)
            lateness.push_back(run.lateness);
        std::sort(lateness.begin(), lateness.end());
        for (const auto& [q, reported] : {std::make_pair(0.5, statistics.medianUs), std::make_pair(0.99, statistics.p99Us)}) {
            const std::size_t rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(lateness.size() + 1)));
            const unsigned long long high = lateness[std::min(rank, lateness.size()) - 1], low = lateness[rank - 2];
            EXPECT_TRUE(reported <= high && reported >= low - low / 50) << q << ": " << reported << " not in [" << low << ", " << high << "]";
        }
        scheduler.ResetLatenessStatistics(); // a new run starts from nothing, its maximum too
        const Lyr::PreciseScheduler::LatenessStatistics reset = scheduler.GetLatenessStatistics();
        EXPECT_EQ(std::make_tuple(reset.events, reset.medianUs, reset.p99Us, reset.maximumUs), std::make_tuple(0ULL, 0ULL, 0ULL, 0ULL));

        // Events that ran are gone by the time the thread has waited for the next one, with no
        // sender coming in between; and once it has nothing left to wait for.
        std::weak_ptr<int> held;
        Runs later;
        bool bHeldAtLater = true;
        later.Schedule(0, scheduler.GetPresentTimestamp() + 1000000, [&] { bHeldAtLater = !held.expired(); });
        {
            const auto token = std::make_shared<int>(0);
            held = token;
            for (int i = 0; i < 100; ++i)
                scheduler.ScheduleEvent([token](unsigned long long&) {}, present);
        }
        ASSERT_EQ(later.WaitFor(1).size(), 1u);
        EXPECT_FALSE(bHeldAtLater) << "events that ran were kept through the wait for the next";
        Runs last;
        const auto token = std::make_shared<int>(0);
        held = token;
        last.Schedule(0, present, [token] {});
        last.WaitFor(1);
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        while (held.use_count() > 1 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        EXPECT_EQ(held.use_count(), 1) << "the last event that ran was never destroyed";
        scheduler.SetSpinning(false);
    }
}

TEST(PreciseScheduler, LiveTimestampsNeedNoReferenceWaitingCostsNoCpuAndAThrowingEventIsReported)
{
    LogCapture log;
    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    using namespace std::chrono;
    const auto wallClockUs = [] { return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count(); };
    const unsigned long long wallBefore = wallClockUs();
    scheduler.UseWallClock();
    const unsigned long long present = scheduler.GetPresentTimestamp();
    EXPECT_GE(present, wallBefore);
    EXPECT_LE(present, wallClockUs());

    // The thread's CPU time across 400 ms with nothing due but an event that throws, which must
    // not end the thread.
    double before = scheduler.GetThreadCpuSeconds(), after = 0;
    Runs runs;
    scheduler.ScheduleEvent([](unsigned long long&) { throw std::runtime_error("no route"); }, present + 10000);
    runs.Schedule(0, present + 410000, [&] { after = scheduler.GetThreadCpuSeconds(); });
    ASSERT_EQ(runs.WaitFor(1).size(), 1u);
    EXPECT_LT(after - before, 0.02) << "the scheduler's thread burned CPU while nothing was due";
    EXPECT_EQ(log.Take(), std::vector<std::string>{"Scheduled event failed: no route\n"});
}

TEST(LatenessHistogram, PercentilesAreExactBelowAMillisecondAndWithinTwoPercentAbove)
{
    Lyr::LatenessHistogram histogram;
    EXPECT_EQ(histogram.Percentile(0.5), 0u);
    for (unsigned long long value = 1; value <= 1000; ++value)
        histogram.Record(value);
    EXPECT_EQ(histogram.Percentile(0.5), 500u);
    EXPECT_EQ(histogram.Percentile(0.99), 990u);
    EXPECT_EQ(histogram.Maximum(), 1000u);

    // Small counts: the percentile is the recorded value at the rank rounded up, odd counts and even.
    const std::vector<std::vector<unsigned long long>> small = {{5}, {10, 20}, {10, 20, 30}, {10, 20, 30, 40}};
    const unsigned long long medians[] = {5, 10, 20, 20}, p99s[] = {5, 20, 30, 40};
    for (size_t i = 0; i < small.size(); ++i) {
        histogram.Reset();
        EXPECT_EQ(histogram.Count() + histogram.Maximum() + histogram.Percentile(0.5), 0u) << "after a reset";
        for (unsigned long long value : small[i])
            histogram.Record(value);
        EXPECT_EQ(std::make_pair(histogram.Percentile(0.5), histogram.Percentile(0.99)), std::make_pair(std::uint64_t{medians[i]}, std::uint64_t{p99s[i]}))
            << small[i].size() << " values";
    }

    for (unsigned long long value : {1024ULL, 1500000ULL, 123456789ULL, 1ULL << 63, ~0ULL}) {
        histogram.Reset();
        histogram.Record(value);
        const unsigned long long reported = histogram.Percentile(0.5);
        EXPECT_LE(reported, value);
        EXPECT_GE(reported, value - value / 50) << value;
        EXPECT_EQ(histogram.Maximum(), value);
    }
}

// The margin before a deadline covers the recent wakes but the worst one: a stray late wake does
// not keep the thread spinning long, a second one in the window does, and the window forgets.
TEST(WakeLateness, OneStrayWakeDoesNotHoldTheMarginUpAndASecondDoesUntilTheWindowForgets)
{
    Lyr::WakeLateness wakes(250000);
    EXPECT_EQ(wakes.AllButWorst(), 250000);
    for (size_t i = 0; i < Lyr::WakeLateness::Window; ++i)
        wakes.Add(30000 + static_cast<Lyr::Nanoseconds>(i % 3));
    EXPECT_EQ(wakes.AllButWorst(), 30002);
    wakes.Add(900000);
    EXPECT_EQ(wakes.AllButWorst(), 30002);
    wakes.Add(400000);
    EXPECT_EQ(wakes.AllButWorst(), 400000);
    for (size_t i = 0; i + 1 < Lyr::WakeLateness::Window; ++i)
        wakes.Add(40000);
    EXPECT_EQ(wakes.AllButWorst(), 40000); // only the 400 us wake is left of the two
    // Each wake later than all before it: the one before the last is the margin.
    Lyr::WakeLateness rising(0);
    for (size_t i = 0; i < Lyr::WakeLateness::Window; ++i)
        rising.Add(50000 + static_cast<Lyr::Nanoseconds>(i));
    EXPECT_EQ(rising.AllButWorst(), 50000 + static_cast<Lyr::Nanoseconds>(Lyr::WakeLateness::Window) - 2);
}

// Events closer together than any margin keep the thread spinning; it spins at most half of each
// second, so that at realtime priority the kernel's throttling never stops it, and it says how
// long it waited. On a slow machine the events are simply due at once and nothing is spun.
TEST(PreciseScheduler, SpinsAtMostHalfOfEachSecondAndCountsItsWaiting)
{
    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    scheduler.UseWallClock();
    const Lyr::PreciseScheduler::WaitTimes before = scheduler.GetWaitTimes();
    const unsigned long long start = scheduler.GetPresentTimestamp() + 100000;
    Runs runs;
    for (unsigned long long at = start; at < start + 1500000; at += 10)
        scheduler.ScheduleEvent([](unsigned long long&) {}, at);
    runs.Schedule(0, start + 1500000);
    ASSERT_EQ(runs.WaitFor(1).size(), 1u);
    const Lyr::PreciseScheduler::WaitTimes after = scheduler.GetWaitTimes();
    EXPECT_LE(after.spunSeconds - before.spunSeconds, 1.05); // two seconds' budgets, and one margin
    EXPECT_GT(after.sleptSeconds + after.spunSeconds, before.sleptSeconds + before.spunSeconds);
}

// Asked to spin, the thread spins through a long gap instead of sleeping, yet sleeps part of
// every second, so that the kernel never stops it for the other threads of its core; not asked,
// it sleeps through the gap. Either way the event runs at its time, not before, and the gap counts
// as waiting: the thread never stood still for a good part of it, unless the process was stopped,
// which is said until the statistics are reset.
TEST(PreciseScheduler, SpinsThroughTheGapsOnlyWhenAskedAndNeverWholeSeconds)
{
    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    scheduler.UseWallClock();
    const auto waitThrough = [&](unsigned long long gapUs) {
        Runs runs;
        runs.Schedule(0, scheduler.GetPresentTimestamp()); // the waiting before is not counted
        runs.WaitFor(1);
        scheduler.ResetLatenessStatistics();
        const Lyr::PreciseScheduler::WaitTimes before = scheduler.GetWaitTimes();
        runs.Schedule(1, scheduler.GetPresentTimestamp() + gapUs);
        const std::vector<EventRun> ran = runs.WaitFor(2);
        EXPECT_TRUE(ran.size() == 2 && ran[1].startedAt >= ran[1].timestamp) << "early, or not run";
        const Lyr::PreciseScheduler::WaitTimes after = scheduler.GetWaitTimes();
        return std::make_tuple(after.spunSeconds - before.spunSeconds, after.sleptSeconds - before.sleptSeconds,
                               after.longestStallSeconds);
    };
    EXPECT_FALSE(scheduler.IsSpinning());
    const auto [spunAsleep, _, stallAsleep] = waitThrough(300000);
    EXPECT_LT(spunAsleep, 0.1) << "spun through a gap while not asked to";
    EXPECT_LT(stallAsleep, 0.15) << "the sleep through the gap counted as standing still";
    scheduler.SetSpinning(true);
    EXPECT_TRUE(scheduler.IsSpinning());
    // Five seconds hold four whole ones, in each of which it spins 0.7 s and sleeps the rest.
    const auto [spun, slept, stall] = waitThrough(5000000);
    EXPECT_GE(spun, 2.0) << "did not spin through the gap, or not again after its first second";
    EXPECT_GE(slept, 0.5) << "spun through whole seconds";
    EXPECT_LT(stall, 0.15) << "the spin through the gap counted as standing still";
    // The process stopped for 0.3 s twice, 0.45 s apart, so that one stop at least lands while the
    // thread spins: it stood still that long. The next quiet gap, after a reset, says no such stall.
    const std::string stops = "sleep 0.1; for stop in 1 2; do kill -STOP " + std::to_string(getpid()) +
                              "; sleep 0.3; kill -CONT " + std::to_string(getpid()) + "; sleep 0.15; done";
    const char* const command[] = {"sh", "-c", stops.c_str(), nullptr};
    pid_t stopper;
    ASSERT_EQ(posix_spawnp(&stopper, "sh", nullptr, nullptr, const_cast<char* const*>(command), environ), 0);
    const double stalledWhileStopped = std::get<2>(waitThrough(1500000));
    waitpid(stopper, nullptr, 0);
    EXPECT_GE(stalledWhileStopped, 0.25) << "a stop of the process was not seen";
    EXPECT_LT(std::get<2>(waitThrough(300000)), 0.15) << "a stall before the reset was still said after it";
    scheduler.SetSpinning(false);
}

// Senders on several threads at once, as many outputs of one process would be: every event runs
// once, and every event that has run is destroyed once, whichever sender or the thread does it.
TEST(PreciseScheduler, EventsFromManySendersRunOnceAndAreDestroyedOnce)
{
    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    scheduler.UseWallClock();
    constexpr int Senders = 4, EventsEach = 50000;
    std::atomic<int> runs{0};
    const auto token = std::make_shared<int>(0); // each event holds a copy until it is destroyed
    std::vector<std::thread> senders;
    for (int s = 0; s < Senders; ++s)
        senders.emplace_back([&] {
            for (int i = 0; i < EventsEach; ++i)
                scheduler.ScheduleEvent([&runs, token](unsigned long long&) { runs.fetch_add(1); }, scheduler.GetPresentTimestamp());
        });
    for (std::thread& sender : senders)
        sender.join();
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while ((runs.load() < Senders * EventsEach || token.use_count() > 1) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(runs.load(), Senders * EventsEach);
    EXPECT_EQ(token.use_count(), 1) << "events that ran were kept";
}
