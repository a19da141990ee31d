// The cost of one SendFrame on the caller's thread (time and heap allocations), against the
// baseline of handing the scheduler a bare event that allocates nothing. Each batch is queued
// while the scheduler's thread is held in an event, so what is timed is the caller's own work,
// not its contention with the thread; then the batch runs (no port is open: the frames are
// dropped) before the next one.
#include "PcapNetOutputIf.h"
#include "support/CountingAllocator.h"

#include <lyr/BufferPool.h>
#include <lyr/PreciseScheduler.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

using countingAllocator::allocations;

namespace {

constexpr int Batches = 200;
constexpr int BatchSize = 1000;

struct Cost {
    double nsPerCall;
    double allocationsPerCall;
};

// Keeps the scheduler's thread inside one event from Hold() to Release().
class SchedulerHold {
public:
    void Hold()
    {
        std::unique_lock<std::mutex> lock(mutex);
        bHeld = bInside = false;
        Lyr::PreciseScheduler::GetInstance().ScheduleEvent(
            [this](unsigned long long&) {
                std::unique_lock<std::mutex> inner(mutex);
                bInside = bHeld = true;
                changed.notify_all();
                changed.wait(inner, [this] { return !bHeld; });
            },
            0);
        changed.wait(lock, [this] { return bInside; });
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(mutex);
        bHeld = false;
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool bHeld = false, bInside = false;
};

// Times `call` over all batches; `drain` waits (untimed) until the batch's events have run.
template <typename Call, typename Drain> Cost Measure(Call call, Drain drain)
{
    SchedulerHold hold;
    double ns = 0;
    unsigned long long allocated = 0;
    for (int batch = 0; batch < Batches; ++batch) {
        hold.Hold();
        const unsigned long long allocationsBefore = allocations;
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < BatchSize; ++i)
            call();
        ns += std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
        allocated += allocations - allocationsBefore;
        hold.Release();
        drain();
    }
    const double calls = double(Batches) * BatchSize;
    return {ns / calls, allocated / calls};
}

} // namespace

int main()
{
    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    PcapNetOutputIf output;
    Lyr::BufferPool pool(1, 9036);
    Kt::CSlice<unsigned char> buffer = pool.GetBuffer();
    std::memset(buffer.data, 0xAB, 64);
    const Lyr::EthFrame frame(buffer.Prefix(64), 0); // timestamp 0: due long ago, runs at once

    std::atomic<unsigned long long> ran{0};
    unsigned long long scheduled = 0;
    const Cost bare = Measure(
        [&] {
            scheduler.ScheduleEvent([&ran](unsigned long long&) { ++ran; }, 0);
            ++scheduled;
        },
        [&] {
            while (ran.load() != scheduled)
                std::this_thread::yield();
        });
    const Cost send = Measure([&] { output.SendFrame(frame); }, [&] { output.WaitForPendingFrames(); });

    std::printf("bare ScheduleEvent: %.0f ns/call, %.2f allocations/call\n", bare.nsPerCall, bare.allocationsPerCall);
    std::printf("SendFrame:          %.0f ns/call, %.2f allocations/call\n", send.nsPerCall, send.allocationsPerCall);
    std::printf("ratio SendFrame / bare ScheduleEvent: %.2f\n", send.nsPerCall / bare.nsPerCall);
    return 0;
}
