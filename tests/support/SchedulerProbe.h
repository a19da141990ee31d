#pragma once

#include <lyr/PreciseScheduler.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

// Holds the scheduler's thread inside one event until Open(), so that a test can queue events
// that are due (or set what they will read) before any of them runs, and so control how late
// they start.
class SchedulerGate {
public:
    // Queues the holding event as due now and returns once the scheduler's thread is inside it.
    void Close()
    {
        Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
        scheduler.ScheduleEvent(
            [this](unsigned long long&) {
                std::unique_lock<std::mutex> lock(mutex);
                bInside = true;
                changed.notify_all();
                changed.wait(lock, [this] { return bOpen; });
            },
            scheduler.GetPresentTimestamp());
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return bInside; });
    }

    void Open()
    {
        std::lock_guard<std::mutex> lock(mutex);
        bOpen = true;
        changed.notify_all();
    }

    ~SchedulerGate() { Open(); } // never leave the scheduler held, whatever the test did

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool bInside = false;
    bool bOpen = false;
};

// Waits for `condition` (a callable) with a generous deadline; false when it never held.
template <typename Condition> bool Eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
