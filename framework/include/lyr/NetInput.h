#pragma once

#include <lyr/Export.h>

#include <kt/CDelegate.h>

namespace Lyr {

class EthFrame;

// A source of frames that subscribers hear of. Subscribers join at the front of the list; since
// a fire calls the last entry first, they are called in the order in which they subscribed.
class LYR_SHARED NetInput {
public:
    using FrameFunctor = Kt::CFunctor<void(const EthFrame&)>;

    NetInput();
    virtual ~NetInput();

    virtual void Start() = 0;
    virtual void Stop() = 0;
    // Not safe while frames are delivered: subscribe before Start and unsubscribe after Stop.
    virtual void Subscribe(const FrameFunctor& functor);
    // Removes the first entry that matches (same wrapper, same target); no entry, no change.
    virtual void Unsubscribe(const FrameFunctor& functor);

protected:
    Kt::CDelegate<void(const EthFrame&)> frameDelegate;
};

} // namespace Lyr
