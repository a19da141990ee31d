#pragma once

// Replaces the global operator new of the program that includes this (include it in exactly one
// file): it counts the heap allocations of each thread and can fail one of them on request, so
// that a test or benchmark sees what a call costs and what it does when memory runs out.

#include <cstdlib>
#include <new>

namespace countingAllocator {
inline thread_local unsigned long long allocations = 0; // made by this thread so far
inline thread_local long failAllocation = 0;            // fail this thread's n-th allocation from now; 0: none
} // namespace countingAllocator

#pragma GCC diagnostic ignored "-Wmismatched-new-delete" // our new is malloc, so free is its match

void* operator new(std::size_t size)
{
    ++countingAllocator::allocations;
    if (countingAllocator::failAllocation > 0 && --countingAllocator::failAllocation == 0)
        throw std::bad_alloc();
    if (void* memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
