#pragma once

#include <lyr/PreciseScheduler.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Lyr {

// The scheduler thread's own queue of events, in the order they are to run: by deadline, equal
// deadlines by the order they came. Only that thread touches it, so it takes no lock.
//
// A sender hands over frames in time order (a replayed file, a live stream), so nearly every
// event is later than the last one queued: those go to a ring in arrival order, where adding and
// taking cost nothing to speak of. Only an event earlier than the ring's last goes to a heap.
// The front is the earlier of the two fronts.
class EventQueue {
public:
    struct Entry {
        std::int64_t deadline = 0; // ns on the monotonic clock
        std::uint64_t sequence = 0; // equal deadlines run in the order they came
        PreciseScheduler::Event event;
    };

    bool Empty() const { return ringCount == 0 && heap.empty(); }

    // Entries come with rising sequence numbers.
    void Add(Entry&& entry)
    {
        if (ringCount == 0 || entry.deadline >= RingAt(ringCount - 1).deadline) {
            if (ringCount == ring.size())
                GrowRing();
            RingAt(ringCount) = std::move(entry);
            ++ringCount;
            return;
        }
        heap.push_back(std::move(entry));
        std::push_heap(heap.begin(), heap.end(), Later);
    }

    const Entry& Front() const { return FrontInRing() ? RingAt(0) : heap.front(); }

    Entry Pop()
    {
        if (FrontInRing()) {
            Entry entry = std::move(RingAt(0));
            ringFirst = (ringFirst + 1) & (ring.size() - 1);
            --ringCount;
            return entry;
        }
        std::pop_heap(heap.begin(), heap.end(), Later);
        Entry entry = std::move(heap.back());
        heap.pop_back();
        return entry;
    }

private:
    // A std heap keeps its greatest element in front: "greater" is "later".
    static bool Later(const Entry& a, const Entry& b)
    {
        return a.deadline != b.deadline ? a.deadline > b.deadline : a.sequence > b.sequence;
    }

    bool FrontInRing() const { return ringCount != 0 && (heap.empty() || Later(heap.front(), RingAt(0))); }

    // The ring's size is a power of two.
    Entry& RingAt(std::size_t i) { return ring[(ringFirst + i) & (ring.size() - 1)]; }
    const Entry& RingAt(std::size_t i) const { return ring[(ringFirst + i) & (ring.size() - 1)]; }

    void GrowRing()
    {
        std::vector<Entry> larger(std::max<std::size_t>(1024, ring.size() * 2));
        for (std::size_t i = 0; i < ringCount; ++i)
            larger[i] = std::move(RingAt(i));
        ring.swap(larger);
        ringFirst = 0;
    }

    std::vector<Entry> ring;
    std::size_t ringFirst = 0;
    std::size_t ringCount = 0;
    std::vector<Entry> heap;
};

} // namespace Lyr
