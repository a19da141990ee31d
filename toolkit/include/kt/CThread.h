#pragma once

#include <kt/CFunctor.h>
#include <kt/CUncopyable.h>

#include <string>

namespace Kt {

// A named thread that calls its body again and again until the body returns false or the thread
// is cancelled. Cancel wakes a body that waits in Sleep and returns once the body has finished.
class CThread : private CUncopyable {
public:
    CThread(const CFunctor<bool()>& body, const std::string& name, int priority);
    virtual ~CThread(); // cancels a thread that still runs

    // The scheduling priority of the calling thread, for a new thread to inherit.
    static int GetPriority();

    // Starts the thread. False if it could not be started or runs already.
    bool Run();

    // Ends the thread: no pass of the body starts after this, a Sleep in progress returns early,
    // and the call waits for a running pass to finish (unless the thread cancels itself).
    void Cancel();

    // Blocks the calling thread for `milliseconds`; in a CThread a Cancel cuts it short.
    static void Sleep(unsigned int milliseconds);

    struct State; // the thread's own; defined in the toolkit

private:
    State* state;
};

} // namespace Kt
