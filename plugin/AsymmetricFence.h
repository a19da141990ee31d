#pragma once

#include <atomic>

// A pair of fences for two threads that each store a flag and then load the other's, where one
// side runs for every packet and the other rarely: the light fence costs the frequent side
// nothing but the compiler's ordering, and the heavy fence makes every running thread of the
// process pass a full barrier (the kernel's expedited membarrier), which orders the light
// side's store before its load as a full fence there would. Where the kernel cannot do that,
// both are full fences.

// Set when the plug-in is loaded: whether the process is registered for expedited membarriers.
extern const bool bExpeditedMembarrier;

inline void LightFence()
{
    if (bExpeditedMembarrier)
        std::atomic_signal_fence(std::memory_order_seq_cst);
    else
        std::atomic_thread_fence(std::memory_order_seq_cst);
}

void HeavyFence();
