#include "LatenessHistogram.h"
#include "support/LogCapture.h"
#include "support/SchedulerProbe.h"
#include "support/WaitableList.h"

#include <lyr/PreciseScheduler.h>

#include <gtest/gtest.h>

#include <time.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

// What an event saw when it ran.
struct EventRun {
    int index;
    unsigned long long timestamp;
    unsigned long long lateness; // as handed to the event
    unsigned long long ranAt;    // the present timestamp when it ran
};

// Events that note what they saw, in the order they ran, once their `extra` has returned.
class Runs : public WaitableList<EventRun> {
public:
    void Schedule(int index, unsigned long long timestamp, std::function<void()> extra = nullptr)
    {
        Lyr::PreciseScheduler::GetInstance().ScheduleEvent(
            [this, index, timestamp, extra](unsigned long long& lateness) {
                const EventRun run{index, timestamp, lateness, Lyr::PreciseScheduler::GetInstance().GetPresentTimestamp()};
                if (extra)
                    extra();
                Add(run);
            },
            timestamp);
    }
    bool WaitFor(std::size_t count)
    {
        return WaitUntil([count](const std::vector<EventRun>& runs) { return runs.size() >= count; }, std::chrono::seconds(10));
    }
};

// A replay of a capture from 2024: its timestamps stand for the present from now on.
unsigned long long StartReplayClock()
{
    const unsigned long long present = 1714564800000000ULL;
    Lyr::PreciseScheduler::GetInstance().SetPresentTimestamp(present);
    return present;
}

double ThreadCpuSeconds()
{
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

} // namespace

TEST(PreciseScheduler, RunsEveryEventOnceInTimeOrderAndEqualTimesInArrivalOrder)
{
    const unsigned long long present = StartReplayClock();
    Runs runs;
    SchedulerGate gate;
    gate.Close();
    // Due events, queued while the thread is held: out of order (behind others already queued,
    // so through the heap), with many equal times.
    std::mt19937 random(7);
    const int dueCount = 3000;
    for (int i = 0; i < dueCount; ++i)
        runs.Schedule(i, present - 5000 + random() % 40);
    // Future ones, queued latest first.
    runs.Schedule(dueCount + 2, present + 60000);
    runs.Schedule(dueCount + 1, present + 40000);
    runs.Schedule(dueCount, present + 20000);
    EXPECT_EQ(Lyr::PreciseScheduler::GetInstance().GetQueuedCount(), dueCount + 3u);
    gate.Open();
    ASSERT_TRUE(runs.WaitFor(dueCount + 3));

    const std::vector<EventRun> all = runs.Copy();
    ASSERT_EQ(all.size(), dueCount + 3u);
    std::vector<int> seen(dueCount + 3, 0);
    for (std::size_t i = 0; i < all.size(); ++i) {
        ++seen[all[i].index];
        if (i > 0) {
            const EventRun& before = all[i - 1];
            EXPECT_TRUE(before.timestamp < all[i].timestamp ||
                        (before.timestamp == all[i].timestamp && before.index < all[i].index))
                << "run " << i;
        }
        EXPECT_GE(all[i].ranAt, all[i].timestamp) << "ran before its time: run " << i;
    }
    EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [](int n) { return n == 1; }));
    EXPECT_EQ(Lyr::PreciseScheduler::GetInstance().GetQueuedCount(), 0u);
}

TEST(PreciseScheduler, DeadlinesAreAbsoluteAndEachEventIsHandedItsLatenessAndCounted)
{
    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    const unsigned long long present = StartReplayClock();
    scheduler.ResetLatenessStatistics();
    Runs runs;
    // One event every 2 ms; the tenth holds the thread for 150 ms. The events behind it run
    // late, in a burst, and then the schedule is back on its own times: nothing shifted. The
    // limits leave a loaded machine (or a sanitizer) room, far below the 148 ms of a shift.
    const int count = 200;
    const unsigned long long first = present + 20000, gap = 2000;
    for (int i = 0; i < count; ++i)
        runs.Schedule(i, first + i * gap, i == 10 ? [] { std::this_thread::sleep_for(std::chrono::milliseconds(150)); } : std::function<void()>());
    ASSERT_TRUE(runs.WaitFor(count));
    runs.Schedule(count, scheduler.GetPresentTimestamp() - 50000); // 50 ms late when queued
    ASSERT_TRUE(runs.WaitFor(count + 1));

    const std::vector<EventRun> all = runs.Copy();
    ASSERT_EQ(all.size(), count + 1u);
    EXPECT_LT(all[0].lateness, 10000u); // on time is 0 or a wake-up's worth, a few ms when loaded
    EXPECT_GE(all[11].lateness, 140000u); // 150 ms of holding, less the 2 ms gap, is lateness
    EXPECT_GE(all[11].lateness + 1000, all[11].ranAt - all[11].timestamp);
    for (int i = 150; i < count; ++i)
        EXPECT_LT(all[i].ranAt - all[i].timestamp, 50000u) << "event " << i << " was shifted";
    EXPECT_GE(all[count].lateness, 50000u);
    EXPECT_LT(all[count].lateness, 1050000u);

    const Lyr::PreciseScheduler::LatenessStatistics statistics = scheduler.GetLatenessStatistics();
    EXPECT_EQ(statistics.events, count + 1u);
    EXPECT_EQ(statistics.maximumUs, std::max_element(all.begin(), all.end(), [](const EventRun& a, const EventRun& b) {
                                        return a.lateness < b.lateness;
                                    })->lateness);
    EXPECT_LE(statistics.medianUs, statistics.p99Us);
    EXPECT_LE(statistics.p99Us, statistics.maximumUs);
}

TEST(PreciseScheduler, LiveTimestampsNeedNoReferenceWaitingCostsNoCpuAndAThrowingEventIsReported)
{
    LogCapture log;
    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    scheduler.UseWallClock();
    const unsigned long long wallUs =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    const unsigned long long present = scheduler.GetPresentTimestamp();
    EXPECT_LT(present > wallUs ? present - wallUs : wallUs - present, 100000u);

    // The thread's CPU time, read by the events themselves, across 400 ms of waiting. An event
    // that throws in between must not end the thread.
    std::atomic<double> before{0}, after{0};
    Runs runs;
    runs.Schedule(0, present + 10000, [&] { before = ThreadCpuSeconds(); });
    runs.Schedule(1, present + 10000, [] { throw std::runtime_error("no route"); });
    runs.Schedule(2, present + 410000, [&] { after = ThreadCpuSeconds(); });
    ASSERT_TRUE(runs.WaitFor(2));
    EXPECT_LT(after - before, 0.02) << "the scheduler's thread burned CPU while nothing was due";
    EXPECT_EQ(runs.Copy()[1].index, 2);
    EXPECT_GE(runs.Copy()[1].ranAt, present + 410000);
    EXPECT_GT(scheduler.GetThreadCpuSeconds(), 0.0);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"Scheduled event failed: no route\n"});
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

    histogram.Reset();
    EXPECT_EQ(histogram.Count(), 0u);
    const unsigned long long values[] = {1024, 1500000, 123456789, 1ULL << 63, ~0ULL};
    for (unsigned long long value : values) {
        histogram.Reset();
        histogram.Record(value);
        const unsigned long long reported = histogram.Percentile(0.5);
        EXPECT_LE(reported, value);
        EXPECT_GE(reported, value - value / 50) << value;
        EXPECT_EQ(histogram.Maximum(), value);
    }
}
