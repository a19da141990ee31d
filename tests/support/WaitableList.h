#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

// Items that other threads add, for a test to take or to wait on until they satisfy a condition.
template <typename T> class WaitableList {
public:
    void Add(T item)
    {
        std::lock_guard<std::mutex> lock(mutex);
        items.push_back(std::move(item));
        added.notify_all();
    }
    std::vector<T> Take()
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<T> taken;
        taken.swap(items);
        return taken;
    }
    std::vector<T> Copy()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return items;
    }
    // Waits until `done(items)` holds or the time is up, and returns what `done` said last.
    template <typename Done> bool WaitUntil(Done done, std::chrono::steady_clock::duration timeout)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::unique_lock<std::mutex> lock(mutex);
        return added.wait_until(lock, deadline, [&] { return done(items); });
    }

private:
    std::mutex mutex;
    std::condition_variable added;
    std::vector<T> items;
};
