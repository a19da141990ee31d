#pragma once

#include <kt/Atomic.h>

namespace Kt {

// Reference-count block: the shared owner of something on the heap. Slices and functors refer to
// one; whoever makes a block hands it out with the first reference already counted.
struct CPtrRef {
    unsigned int refCount;
    // Ends the block and what it keeps alive; called once, by the DelRef that reaches 0.
    void (*destroy)(CPtrRef*);

    void AddRef() { Atomic::Increment(&refCount); }

    void DelRef()
    {
        if (Atomic::Decrement(&refCount) != 0)
            return;
        destroy(this); // last act: the block may be gone afterwards
    }
};

} // namespace Kt
