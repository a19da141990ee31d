#include <kt/CThread.h>

#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace Kt {

struct CThread::State {
    State(const CFunctor<bool()>& threadBody, const std::string& threadName, int threadPriority)
        : body(threadBody), name(threadName), priority(threadPriority)
    {
    }

    CFunctor<bool()> body;
    std::string name;
    int priority;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable wake; // cuts a Sleep short on Cancel
    bool bCancelled = false;
    bool bStarted = false;
};

namespace {

thread_local CThread::State* currentThread = nullptr;

bool Cancelled(CThread::State* state)
{
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->bCancelled;
}

void RunBody(CThread::State* state)
{
    currentThread = state;
    // The kernel limits names to 15 characters; longer ones are cut rather than refused.
    pthread_setname_np(pthread_self(), state->name.substr(0, 15).c_str());
    while (!Cancelled(state)) {
        if (!state->body())
            break;
    }
    currentThread = nullptr;
}

} // namespace

CThread::CThread(const CFunctor<bool()>& body, const std::string& name, int priority)
    : state(new State(body, name, priority))
{
}

CThread::~CThread()
{
    Cancel();
    delete state;
}

int CThread::GetPriority()
{
    int policy = 0;
    sched_param param{};
    if (pthread_getschedparam(pthread_self(), &policy, &param) != 0)
        return 0;
    return param.sched_priority;
}

bool CThread::Run()
{
    std::lock_guard<std::mutex> lock(state->mutex);
    if (state->bStarted || state->bCancelled)
        return false;
    state->thread = std::thread(RunBody, state);
    state->bStarted = true;
    if (state->priority != 0) {
        // Realtime priorities need privileges; without them the thread keeps the default.
        sched_param param{};
        param.sched_priority = state->priority;
        pthread_setschedparam(state->thread.native_handle(), SCHED_FIFO, &param);
    }
    return true;
}

void CThread::Cancel()
{
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->bCancelled = true;
    }
    state->wake.notify_all();
    if (!state->thread.joinable())
        return;
    if (state->thread.get_id() == std::this_thread::get_id())
        state->thread.detach(); // a body cancelling its own thread ends after its current pass
    else
        state->thread.join();
}

void CThread::Sleep(unsigned int milliseconds)
{
    State* self = currentThread;
    if (!self) {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        return;
    }
    std::unique_lock<std::mutex> lock(self->mutex);
    self->wake.wait_for(lock, std::chrono::milliseconds(milliseconds), [self] { return self->bCancelled; });
}

} // namespace Kt
