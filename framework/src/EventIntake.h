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
//
// Events that have run travel back the same way: the thread keeps them, hands them over in
// batches when it takes in new events, and the next sender destroys them after its push. An
// event's blocks were made on the sender's thread and its frame's buffer came from the sender's
// pool, so freeing them there is cheap for the sender and leaves the thread nothing but running
// events. What no sender collects, the thread destroys itself before it waits.
class EventIntake {
public:
    using Event = PreciseScheduler::Event;

    EventIntake()
    {
        events.reserve(1024);
        taken.reserve(1024);
        ran.reserve(RanBatch);
        returned.reserve(RanBatch);
    }

    // Held by a sender for its push. The scheduler keeps its timestamp reference and its
    // sleeper's wake-up time under the same lock, so that a sender takes one lock per event.
    std::mutex mutex;

    // A sender, under the lock. If the intake cannot grow, the event ends here and nothing is queued.
    void Push(Nanoseconds deadline, Event&& event)
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

    // A sender, under the lock: true when it is to destroy the events that have run, with
    // DestroyClaimed after the lock.
    bool ClaimReturned()
    {
        if (returnedState.load(std::memory_order_relaxed) != Returned::Full)
            return false;
        returnedState.store(Returned::Claimed, std::memory_order_relaxed);
        return true;
    }

    // The claimant, without the lock. The vector keeps its storage for the next batch.
    void DestroyClaimed()
    {
        returned.clear();
        returnedState.store(Returned::Empty, std::memory_order_release);
    }

    // The thread, for an event that has run.
    void Ran(Event&& event) { ran.push_back(std::move(event)); }

    // The thread: moves what senders have pushed into `queue`, in the order they pushed it, and
    // hands the events that have run to the senders if they took the last batch.
    void MoveInto(EventQueue& queue)
    {
        if (!MayHaveEvents())
            return;
        {
            std::lock_guard<std::mutex> lock(mutex);
            taken.swap(events);
            size.store(0, std::memory_order_relaxed);
            if (!ran.empty() && returnedState.load(std::memory_order_acquire) == Returned::Empty) {
                returned.swap(ran);
                returnedState.store(Returned::Full, std::memory_order_relaxed);
            }
        }
        for (EventQueue::Entry& entry : taken)
            queue.Add(std::move(entry));
        taken.clear();
        if (ran.size() >= RanLimit)
            ran.clear(); // the senders are behind: destroyed here rather than piling up
    }

    // The thread, before it waits: destroys the events that have run and that no sender has
    // collected, so that none keeps its frame's buffer while nothing else happens.
    void DestroyRan()
    {
        ran.clear();
        if (returnedState.load(std::memory_order_relaxed) != Returned::Full)
            return;
        bool bClaimed = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            bClaimed = ClaimReturned();
        }
        if (bClaimed)
            DestroyClaimed();
    }

    // Written under the lock, so that a thread about to sleep cannot miss it.
    void AnnounceEnd()
    {
        std::lock_guard<std::mutex> lock(mutex);
        ending.store(true, std::memory_order_relaxed);
    }
    bool Ending() const { return ending.load(std::memory_order_relaxed); }

private:
    // Room for the events run between two intakes, and the most that the thread keeps. The two
    // vectors trade places and keep their storage, so handing events back allocates nothing.
    static constexpr std::size_t RanBatch = 256;
    static constexpr std::size_t RanLimit = 4096;

    std::vector<EventQueue::Entry> events;
    // Events that have run, for the next sender: Empty, the thread may fill it (under the lock);
    // Full, a sender may claim it (under the lock); Claimed, its claimant destroys what it holds.
    enum class Returned { Empty, Full, Claimed };
    std::vector<Event> returned;
    std::atomic<Returned> returnedState{Returned::Empty};
    std::uint64_t nextSequence = 0;
    std::atomic<std::size_t> size{0};
    std::atomic<std::uint64_t> scheduledCount{0};
    std::atomic<bool> ending{false};
    // The thread's own: the emptied vector swapped in for the next pushes, keeping its capacity.
    // On a cache line apart from what senders write.
    alignas(64) std::vector<EventQueue::Entry> taken;
    std::vector<Event> ran; // the thread's own: run since the last intake
};

} // namespace Lyr
