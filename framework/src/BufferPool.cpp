#include <lyr/BufferPool.h>

#include <atomic>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <vector>

namespace Lyr {

namespace {

// The free stack's head is one 64-bit word, changed only by compare-and-swap:
//   bits  0-19  the index of the top buffer (NoBuffer: the stack is empty)
//   bits 20-40  how many buffers are free
//   bit  41     the pool has been destroyed
//   bits 42-63  a tag that changes on every push, so that a pop cannot be fooled by an index
//               that left and came back in the meantime (ABA)
// Keeping the free count and the pool's end in the same word as the stack costs no atomic
// operation beyond the push and the pop, and lets exactly one party see the moment when the pool
// is gone and every buffer is back: that one frees the memory.
constexpr std::uint64_t IndexMask = (1u << 20) - 1;
constexpr std::uint32_t NoBuffer = IndexMask;
constexpr unsigned int FreeShift = 20;
constexpr std::uint64_t FreeMask = (1u << 21) - 1;
constexpr std::uint64_t ClosedBit = 1ULL << 41;
constexpr unsigned int TagShift = 42;
constexpr std::uint64_t FreeOne = 1ULL << FreeShift;

std::uint32_t TopOf(std::uint64_t head)
{
    return static_cast<std::uint32_t>(head & IndexMask);
}

unsigned int FreeOf(std::uint64_t head)
{
    return static_cast<unsigned int>((head >> FreeShift) & FreeMask);
}

} // namespace

// The buffers' memory and their count blocks, shared by the pool and every buffer that is out.
// Free buffers form a lock-free stack of indices. A stack hands out the buffer that came back
// last, whose bytes are still in the cache: a capture that returns each buffer before it takes
// the next works on one buffer, not on all of them in turn.
struct BufferPool::Storage {
    struct Block {
        Kt::CPtrRef ref; // first: a block and its count share an address
        Storage* storage;
        std::uint32_t index;
    };

    Storage(unsigned int count, unsigned int size)
        : bufferCount(count), bufferSize(size), memory(static_cast<std::size_t>(count) * size), blocks(count), next(count)
    {
        for (std::uint32_t i = 0; i < count; ++i) {
            blocks[i].ref.destroy = &Release;
            blocks[i].storage = this;
            blocks[i].index = i;
            next[i].store(i + 1 < count ? i + 1 : NoBuffer, std::memory_order_relaxed);
        }
        head.store(static_cast<std::uint64_t>(count) << FreeShift | (count ? 0 : NoBuffer));
    }

    static void Release(Kt::CPtrRef* ref)
    {
        Block* block = reinterpret_cast<Block*>(ref);
        block->storage->Push(block->index);
    }

    static void FreeOverflow(Kt::CPtrRef* ref) { delete[] reinterpret_cast<unsigned char*>(ref); }

    void Push(std::uint32_t index)
    {
        // Read while this buffer keeps the storage alive: once it is back, another buffer's
        // return may free the storage at any moment.
        const unsigned int count = bufferCount;
        std::uint64_t old = head.load();
        std::uint64_t desired;
        do {
            next[index].store(TopOf(old), std::memory_order_relaxed);
            desired = (old + (1ULL << TagShift) + FreeOne) & ~IndexMask; // the tag wraps at 64 bits
            desired |= index;
        } while (!head.compare_exchange_weak(old, desired));
        if ((desired & ClosedBit) && FreeOf(desired) == count)
            delete this; // the last buffer of a destroyed pool
    }

    std::uint32_t Pop()
    {
        std::uint64_t old = head.load();
        for (;;) {
            const std::uint32_t index = TopOf(old);
            if (index == NoBuffer)
                return NoBuffer;
            const std::uint64_t desired = ((old - FreeOne) & ~IndexMask) | next[index].load(std::memory_order_relaxed);
            if (head.compare_exchange_weak(old, desired))
                return index;
        }
    }

    // The pool's end: the memory goes now if every buffer is back, else with the last one.
    void Close()
    {
        const unsigned int count = bufferCount; // afterwards the last return may free the storage
        if (FreeOf(head.fetch_or(ClosedBit)) == count)
            delete this;
    }

    const unsigned int bufferCount;
    const unsigned int bufferSize;
    std::vector<unsigned char> memory;
    std::vector<Block> blocks;
    std::vector<std::atomic<std::uint32_t>> next;
    std::atomic<std::uint64_t> head{0};
    std::atomic<unsigned long long> overflowCount{0};
};

BufferPool::BufferPool(unsigned int bufferCount, unsigned int bufferSize)
{
    if (bufferCount >= NoBuffer)
        throw std::length_error("BufferPool: at most 1048574 buffers");
    storage = new Storage(bufferCount, bufferSize);
}

BufferPool::~BufferPool()
{
    storage->Close();
}

Kt::CSlice<unsigned char> BufferPool::GetBuffer()
{
    const unsigned int size = storage->bufferSize;
    const std::uint32_t index = storage->Pop();
    if (index == NoBuffer) {
        // All out: a one-off buffer with its count block in front, freed by its last slice.
        storage->overflowCount.fetch_add(1);
        auto* raw = new unsigned char[sizeof(Kt::CPtrRef) + size];
        auto* ref = new (raw) Kt::CPtrRef{1, &Storage::FreeOverflow};
        return Kt::CSlice<unsigned char>::Adopt(ref, raw + sizeof(Kt::CPtrRef), size);
    }
    Storage::Block& block = storage->blocks[index];
    block.ref.refCount = 1;
    return Kt::CSlice<unsigned char>::Adopt(&block.ref, storage->memory.data() + std::size_t(index) * size, size);
}

unsigned int BufferPool::GetFreeCount() const
{
    return FreeOf(storage->head.load());
}

unsigned long long BufferPool::GetOverflowCount() const
{
    return storage->overflowCount.load();
}

} // namespace Lyr
