#include <lyr/BufferPool.h>

#include <atomic>
#include <cstdint>
#include <new>
#include <vector>

namespace Lyr {

namespace {

constexpr std::uint32_t NoBuffer = 0xFFFFFFFFu;

} // namespace

// The buffers' memory and their count blocks, shared by the pool and every buffer that is out.
// Free buffers form a lock-free stack of indices; the head carries a tag that changes on every
// push, so that a pop cannot be fooled by an index that left and came back (ABA). A stack hands
// out the buffer that came back last, whose bytes are still in the cache: a capture that returns
// each buffer before it takes the next works on one buffer, not on all of them in turn. The
// count of users (the pool and each buffer out) tells the free count and when the memory may go.
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
        head.store(count ? 0 : NoBuffer);
    }

    static void Release(Kt::CPtrRef* ref)
    {
        Block* block = reinterpret_cast<Block*>(ref);
        Storage* self = block->storage;
        self->Push(block->index);
        self->Drop();
    }

    static void FreeOverflow(Kt::CPtrRef* ref) { delete[] reinterpret_cast<unsigned char*>(ref); }

    void Push(std::uint32_t index)
    {
        std::uint64_t old = head.load();
        std::uint64_t desired;
        do {
            next[index].store(static_cast<std::uint32_t>(old), std::memory_order_relaxed);
            desired = ((old >> 32) + 1) << 32 | index;
        } while (!head.compare_exchange_weak(old, desired));
    }

    std::uint32_t Pop()
    {
        std::uint64_t old = head.load();
        for (;;) {
            std::uint32_t index = static_cast<std::uint32_t>(old);
            if (index == NoBuffer)
                return NoBuffer;
            std::uint64_t desired = (old & 0xFFFFFFFF00000000ULL) | next[index].load(std::memory_order_relaxed);
            if (head.compare_exchange_weak(old, desired))
                return index;
        }
    }

    // One reference for the pool itself and one for each buffer that is out.
    void Take() { users.fetch_add(1); }
    void Drop()
    {
        if (users.fetch_sub(1) == 1)
            delete this;
    }

    const unsigned int bufferCount;
    const unsigned int bufferSize;
    std::vector<unsigned char> memory;
    std::vector<Block> blocks;
    std::vector<std::atomic<std::uint32_t>> next;
    std::atomic<std::uint64_t> head{NoBuffer};
    std::atomic<unsigned long long> overflowCount{0};
    std::atomic<unsigned int> users{1};
};

BufferPool::BufferPool(unsigned int bufferCount, unsigned int bufferSize)
    : storage(new Storage(bufferCount, bufferSize))
{
}

BufferPool::~BufferPool()
{
    storage->Drop();
}

Kt::CSlice<unsigned char> BufferPool::GetBuffer()
{
    const unsigned int size = storage->bufferSize;
    std::uint32_t index = storage->Pop();
    if (index == NoBuffer) {
        // All out: a one-off buffer with its count block in front, freed by its last slice.
        storage->overflowCount.fetch_add(1);
        auto* raw = new unsigned char[sizeof(Kt::CPtrRef) + size];
        auto* ref = new (raw) Kt::CPtrRef{1, &Storage::FreeOverflow};
        return Kt::CSlice<unsigned char>::Adopt(ref, raw + sizeof(Kt::CPtrRef), size);
    }
    storage->Take();
    Storage::Block& block = storage->blocks[index];
    block.ref.refCount = 1;
    return Kt::CSlice<unsigned char>::Adopt(&block.ref, storage->memory.data() + std::size_t(index) * size, size);
}

unsigned int BufferPool::GetBufferSize() const
{
    return storage->bufferSize;
}

unsigned int BufferPool::GetFreeCount() const
{
    // A buffer between its pop and its count shows as free for that moment.
    const unsigned int users = storage->users.load();
    return users > storage->bufferCount ? 0 : storage->bufferCount + 1 - users;
}

unsigned long long BufferPool::GetOverflowCount() const
{
    return storage->overflowCount.load();
}

} // namespace Lyr
