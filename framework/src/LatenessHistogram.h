#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>

namespace Lyr {

// Counts lateness values for percentiles without keeping them: exact below 1024 µs, above that
// 64 buckets per power of two (under 2% apart). One thread records; any thread may read or
// reset, and a reset that meets a record loses at most that one value.
class LatenessHistogram {
public:
    void Record(std::uint64_t value)
    {
        counts[IndexOf(value)].fetch_add(1, std::memory_order_relaxed);
        total.fetch_add(1, std::memory_order_relaxed);
        if (value > maximum.load(std::memory_order_relaxed))
            maximum.store(value, std::memory_order_relaxed);
    }

    void Reset()
    {
        for (auto& count : counts)
            count.store(0, std::memory_order_relaxed);
        total.store(0, std::memory_order_relaxed);
        maximum.store(0, std::memory_order_relaxed);
    }

    std::uint64_t Count() const { return total.load(std::memory_order_relaxed); }
    std::uint64_t Maximum() const { return maximum.load(std::memory_order_relaxed); }

    // The smallest recorded value at or above the fraction `q` of all, as its bucket's lower
    // bound; 0 with nothing recorded.
    std::uint64_t Percentile(double q) const
    {
        std::uint64_t all = 0;
        for (const auto& count : counts)
            all += count.load(std::memory_order_relaxed);
        if (all == 0)
            return 0;
        std::uint64_t rank = static_cast<std::uint64_t>(std::ceil(q * static_cast<double>(all)));
        if (rank < 1)
            rank = 1;
        std::uint64_t seen = 0;
        for (unsigned int i = 0; i < Buckets; ++i) {
            seen += counts[i].load(std::memory_order_relaxed);
            if (seen >= rank)
                return LowerBound(i);
        }
        return Maximum();
    }

private:
    static constexpr unsigned int Linear = 1024;
    static constexpr unsigned int PerOctave = 64;
    static constexpr unsigned int Buckets = Linear + (64 - 10) * PerOctave;

    static unsigned int IndexOf(std::uint64_t value)
    {
        if (value < Linear)
            return static_cast<unsigned int>(value);
        const unsigned int octave = 63 - static_cast<unsigned int>(__builtin_clzll(value)); // 10..63
        const unsigned int step = static_cast<unsigned int>(value >> (octave - 6)) - PerOctave;
        return Linear + (octave - 10) * PerOctave + step;
    }

    static std::uint64_t LowerBound(unsigned int index)
    {
        if (index < Linear)
            return index;
        const unsigned int octave = 10 + (index - Linear) / PerOctave;
        const std::uint64_t step = (index - Linear) % PerOctave;
        return (PerOctave + step) << (octave - 6);
    }

    std::atomic<std::uint64_t> counts[Buckets] = {};
    std::atomic<std::uint64_t> total{0};
    std::atomic<std::uint64_t> maximum{0};
};

} // namespace Lyr
