#pragma once

#include "LatenessHistogram.h"

#include <lyr/PreciseScheduler.h>

#include <atomic>
#include <cstdint>

namespace Lyr {

// What the scheduler's thread has started: how many events, and how late they were. The thread
// records; any thread reads.
class RunStatistics {
public:
    void Started(std::uint64_t latenessUs)
    {
        lateness.Record(latenessUs);
        started.store(started.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    std::uint64_t StartedCount() const { return started.load(std::memory_order_relaxed); }

    PreciseScheduler::LatenessStatistics Lateness() const
    {
        PreciseScheduler::LatenessStatistics statistics;
        statistics.events = lateness.Count();
        statistics.medianUs = lateness.Percentile(0.5);
        statistics.p99Us = lateness.Percentile(0.99);
        statistics.maximumUs = lateness.Maximum();
        return statistics;
    }

    void ResetLateness() { lateness.Reset(); }

private:
    LatenessHistogram lateness;
    std::atomic<std::uint64_t> started{0}; // only the thread writes it
};

} // namespace Lyr
