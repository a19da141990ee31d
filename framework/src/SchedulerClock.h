#pragma once

#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace Lyr {

// The scheduler keeps its deadlines as moments on the monotonic clock, in nanoseconds.
using Nanoseconds = std::int64_t;

inline Nanoseconds Monotonic()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline unsigned long long WallClockMicroseconds()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000 + static_cast<unsigned long long>(now.tv_nsec) / 1000;
}

// Maps frame timestamps (µs) onto the monotonic clock through one reference: a timestamp that
// stands for a moment. Set and DeadlineOf run under the scheduler's intake lock, which orders a
// new reference against the events being scheduled; PresentTimestamp needs no lock, so that a
// host that polls the present never holds up the scheduler's thread.
class TimestampReference {
public:
    void Set(unsigned long long timestampUs)
    {
        referenceTimestampUs = timestampUs;
        referenceNs = Monotonic();
        presentOffsetNs.store(static_cast<Nanoseconds>(std::min(timestampUs, LargestPresentUs)) * 1000 - referenceNs);
    }

    Nanoseconds DeadlineOf(unsigned long long timestampUs) const
    {
        if (timestampUs >= referenceTimestampUs)
            return referenceNs + static_cast<Nanoseconds>(std::min(timestampUs - referenceTimestampUs, FarthestUs)) * 1000;
        return referenceNs - static_cast<Nanoseconds>(std::min(referenceTimestampUs - timestampUs, FarthestUs)) * 1000;
    }

    unsigned long long PresentTimestamp() const
    {
        const Nanoseconds present = Monotonic() + presentOffsetNs.load();
        return present > 0 ? static_cast<unsigned long long>(present / 1000) : 0;
    }

private:
    // Deadlines more than this far from the reference are held there, so that nanoseconds on the
    // monotonic clock stay within 63 bits: about a hundred years either way.
    static constexpr unsigned long long FarthestUs = 3000000000000000ULL;
    // The present as one signed sum of nanoseconds holds timestamps up to about the year 2250.
    static constexpr unsigned long long LargestPresentUs = 9000000000000000ULL;

    unsigned long long referenceTimestampUs = 0; // stands for the monotonic moment referenceNs
    Nanoseconds referenceNs = 0;
    std::atomic<Nanoseconds> presentOffsetNs{0}; // the reference as one sum, for lock-free reads
};

} // namespace Lyr
