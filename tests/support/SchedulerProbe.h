#pragma once

#include <lyr/PreciseScheduler.h>

#include <condition_variable>
#include <memory>
#include <mutex>

// Holds the scheduler's thread inside one event until Open() (or the gate's end), so that a test
// can queue events that are due (or set what they will read) before any of them runs, and so
// control how late they start.
class SchedulerGate {
public:
    // Queues the holding event as due now and returns once the scheduler's thread is inside it.
    void Close()
    {
        Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
        // The event shares the state: it may still be leaving the wait after the gate is gone.
        scheduler.ScheduleEvent(
            [held = state](unsigned long long&) {
                std::unique_lock<std::mutex> lock(held->mutex);
                held->bInside = true;
                held->changed.notify_all();
                held->changed.wait(lock, [&] { return held->bOpen; });
            },
            scheduler.GetPresentTimestamp());
        std::unique_lock<std::mutex> lock(state->mutex);
        state->changed.wait(lock, [this] { return state->bInside; });
    }

    void Open()
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->bOpen = true;
        state->changed.notify_all();
    }

    ~SchedulerGate() { Open(); } // never leave the scheduler held, whatever the test did

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        bool bInside = false;
        bool bOpen = false;
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};
