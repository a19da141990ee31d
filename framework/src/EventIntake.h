#pragma once

#include "EventQueue.h"
#include "SchedulerClock.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

namespace Lyr {

// Where senders hand events to the scheduler's thread, and where the end is announced. A sender
// holds the lock for one push only; the thread moves everything into its own EventQueue now and
// then and runs events from there without any lock. So a sender and the thread meet only
// briefly, once for many events.
class EventIntake {
public:
    EventIntake()
    {
        events.reserve(1024);
        taken.reserve(1024);
    }

    // Held by a sender for its push. The scheduler keeps its timestamp reference and its
    // sleeper's wake-up time under the same lock, so that a sender takes one lock per event.
    std::mutex mutex;

    // A sender, under the lock. If the intake cannot grow, the event ends here and nothing is queued.
    void Push(Nanoseconds deadline, PreciseScheduler::Event&& event)
    {
        events.push_back(EventQueue::Entry{deadline, nextSequence, std::move(event)});
        ++nextSequence;
        size.store(events.size(), std::memory_order_relaxed);
        scheduledCount.store(nextSequence, std::memory_order_relaxed);
    }

    // Under the lock.
    bool HasEvents() const { return !events.empty(); }
    // Without the lock: an event pushed this instant may be missed here, but is seen under the
    // lock before the thread sleeps.
    bool MayHaveEvents() const { return size.load(std::memory_order_relaxed) != 0; }
    std::uint64_t ScheduledCount() const { return scheduledCount.load(std::memory_order_relaxed); }

    // The thread: moves what senders have pushed into `queue`, in the order they pushed it.
    void MoveInto(EventQueue& queue)
    {
        if (!MayHaveEvents())
            return;
        {
            std::lock_guard<std::mutex> lock(mutex);
            taken.swap(events);
            size.store(0, std::memory_order_relaxed);
        }
        for (EventQueue::Entry& entry : taken)
            queue.Add(std::move(entry));
        taken.clear();
    }

    // Written under the lock, so that a thread about to sleep cannot miss it.
    void AnnounceEnd()
    {
        std::lock_guard<std::mutex> lock(mutex);
        ending.store(true, std::memory_order_relaxed);
    }
    bool Ending() const { return ending.load(std::memory_order_relaxed); }

private:
    std::vector<EventQueue::Entry> events;
    std::uint64_t nextSequence = 0;
    std::atomic<std::size_t> size{0};
    std::atomic<std::uint64_t> scheduledCount{0};
    std::atomic<bool> ending{false};
    // The thread's own: the emptied vector swapped in for the next pushes, keeping its capacity.
    // On a cache line apart from what senders write.
    alignas(64) std::vector<EventQueue::Entry> taken;
};

} // namespace Lyr
