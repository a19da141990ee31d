#pragma once

#include <kt/CSlice.h>
#include <kt/CUncopyable.h>

namespace Lyr {

// A fixed set of equal buffers, made once. GetBuffer hands one out as a slice; the buffer comes
// back when the last slice on it ends, on whatever thread that happens. Taking and returning
// are lock-free. When every buffer is out, GetBuffer makes a one-off heap buffer of the same
// size, so callers always get a usable buffer; GetOverflowCount tells how often that happened.
// Buffers may outlive the pool: its memory goes when the pool and the last slice are gone.
class BufferPool : private Kt::CUncopyable {
public:
    BufferPool(unsigned int bufferCount, unsigned int bufferSize);
    ~BufferPool();

    Kt::CSlice<unsigned char> GetBuffer();

#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for hosts and tests
    unsigned int GetFreeCount() const;
    unsigned long long GetOverflowCount() const;
#endif

private:
    struct Storage;
    Storage* storage;
};

} // namespace Lyr
