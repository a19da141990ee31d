#include "RecordWalk.h"

#include <pcap/pcap.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

// The largest record that libpcap reads from a file of most link types; larger ones it calls
// damaged ("invalid packet capture length"). A pcapng block may be up to 16 MiB.
constexpr std::uint32_t MaxCaptureLength = 262144;
constexpr std::uint32_t MaxBlockLength = 16 * 1024 * 1024;

// The file, mapped a window at a time: a 32-bit process cannot map a file of several GB whole.
// Nothing is copied, and the window's pages are mapped at once (faulting them in one by one
// costs twice as long).
class MappedFile {
public:
    explicit MappedFile(const std::string& path)
    {
        descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info{};
        if (descriptor >= 0 && fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode))
            size = static_cast<std::uint64_t>(info.st_size);
    }
    ~MappedFile()
    {
        Unmap();
        if (descriptor >= 0)
            close(descriptor);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    std::uint64_t Size() const { return size; }

    // `length` bytes (at most a page) at `offset`, valid until the next call; null past the end.
    const unsigned char* At(std::uint64_t offset, std::uint64_t length)
    {
        if (offset > size || length > size - offset)
            return nullptr;
        if (!base || offset < windowStart || offset + length > windowStart + windowLength) {
            Unmap();
            windowStart = offset & ~static_cast<std::uint64_t>(PageSize - 1);
            windowLength = std::min<std::uint64_t>(WindowSize, size - windowStart);
            void* mapped = mmap(nullptr, static_cast<std::size_t>(windowLength), PROT_READ, MAP_SHARED | MAP_POPULATE, descriptor,
                                static_cast<off_t>(windowStart));
            if (mapped == MAP_FAILED)
                return nullptr;
            base = static_cast<const unsigned char*>(mapped);
        }
        return base + (offset - windowStart);
    }

private:
    void Unmap()
    {
        if (base)
            munmap(const_cast<unsigned char*>(base), static_cast<std::size_t>(windowLength));
        base = nullptr;
    }

    static constexpr std::uint64_t PageSize = 4096;
    static constexpr std::uint64_t WindowSize = sizeof(void*) >= 8 ? std::uint64_t(1) << 40 : 256u << 20;
    int descriptor = -1;
    std::uint64_t size = 0;
    const unsigned char* base = nullptr;
    std::uint64_t windowStart = 0;
    std::uint64_t windowLength = 0;
};

std::uint32_t Read32(const unsigned char* bytes, bool bSwapped)
{
    std::uint32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return bSwapped ? __builtin_bswap32(value) : value;
}

std::uint16_t Read16(const unsigned char* bytes, bool bSwapped)
{
    std::uint16_t value;
    std::memcpy(&value, bytes, sizeof value);
    return bSwapped ? __builtin_bswap16(value) : value;
}

// A packet's stamp as libpcap hands it over: in microseconds, finer parts cut off.
void NotePacket(RecordWalk& walk, std::int64_t us, bool bFine, std::uint64_t fineLimit)
{
    if (walk.packets == 0)
        walk.firstUs = us;
    walk.lastUs = us;
    if (bFine && walk.packets < fineLimit)
        ++walk.fineStamps;
    ++walk.packets;
}

void WalkClassic(MappedFile& file, RecordWalk& walk, std::uint64_t fineLimit)
{
    const unsigned char* header = file.At(0, 24);
    if (!header)
        return;
    std::uint32_t magic;
    std::memcpy(&magic, header, sizeof magic);
    const bool bSwapped = magic == 0xd4c3b2a1 || magic == 0x4d3cb2a1 || magic == 0x34cdb2a1;
    if (bSwapped)
        magic = __builtin_bswap32(magic);
    if (magic != 0xa1b2c3d4 && magic != 0xa1b23c4d && magic != 0xa1b2cd34)
        return;
    walk.bKnownFormat = true;
    const bool bNano = magic == 0xa1b23c4d;
    // The "modified" format of some old Linux tools puts 8 more bytes in each record's header.
    const std::uint64_t recordHeader = magic == 0xa1b2cd34 ? 24 : 16;
    // Before version 2.3 some writers swapped the two lengths; libpcap takes the smaller.
    const bool bMaybeSwappedLengths = Read16(header + 4, bSwapped) < 2 ||
                                      (Read16(header + 4, bSwapped) == 2 && Read16(header + 6, bSwapped) < 3);
    std::uint64_t offset = 24;
    for (;;) {
        const unsigned char* record = file.At(offset, recordHeader);
        if (!record)
            break;
        std::uint32_t caplen = Read32(record + 8, bSwapped);
        if (bMaybeSwappedLengths)
            caplen = std::min(caplen, Read32(record + 12, bSwapped));
        if (caplen > MaxCaptureLength || caplen > file.Size() - offset - recordHeader)
            break;
        const std::uint32_t seconds = Read32(record, bSwapped);
        const std::uint32_t fraction = Read32(record + 4, bSwapped);
        NotePacket(walk, std::int64_t(seconds) * 1000000 + (bNano ? fraction / 1000 : fraction),
                   bNano && fraction % 1000 != 0, fineLimit);
        offset += recordHeader + caplen;
    }
    walk.stopOffset = offset;
    walk.bWhole = offset == file.Size();
}

// An interface's stamps: units per second as a power of 10 or of 2.
struct Resolution {
    bool bBinary = false;
    unsigned exponent = 6;
};

Resolution ResolutionOf(const unsigned char* block, std::uint32_t length, bool bSwapped)
{
    Resolution resolution;
    // Options follow link type, reserved and snap length; each is code, length, padded value.
    for (std::uint32_t at = 16; at + 4 <= length - 4;) {
        const std::uint16_t code = Read16(block + at, bSwapped);
        const std::uint16_t size = Read16(block + at + 2, bSwapped);
        if (code == 0)
            break;
        if (code == 9 && size == 1 && at + 5 <= length - 4) {
            resolution.bBinary = (block[at + 4] & 0x80) != 0;
            resolution.exponent = block[at + 4] & 0x7f;
        }
        at += 4 + ((size + 3u) & ~3u);
    }
    return resolution;
}

// The stamp in microseconds, and whether it had finer parts.
std::int64_t Microseconds(std::uint64_t units, const Resolution& resolution, bool& bFine)
{
    bFine = false;
    if (resolution.bBinary) {
        const unsigned exponent = resolution.exponent;
        if (exponent >= 64)
            return 0;
        const std::uint64_t fraction = units & ((std::uint64_t(1) << exponent) - 1);
        // A millionth is 2^-6 / 15625: a fraction of 2^-e is whole microseconds when the lowest
        // e - 6 bits are clear. Products stay within 64 bits: 10^6 < 2^20, so a fraction is cut
        // to 44 bits first, which moves the microseconds by less than a ten-millionth of one.
        bFine = exponent > 6 && (fraction & ((std::uint64_t(1) << (exponent - 6)) - 1)) != 0;
        const unsigned cut = exponent > 44 ? exponent - 44 : 0;
        return static_cast<std::int64_t>((units >> exponent) * 1000000 + ((fraction >> cut) * 1000000 >> (exponent - cut)));
    }
    if (resolution.exponent <= 6) {
        std::uint64_t scale = 1;
        for (unsigned i = resolution.exponent; i < 6; ++i)
            scale *= 10;
        return static_cast<std::int64_t>(units * scale);
    }
    if (resolution.exponent > 19)
        return 0;
    std::uint64_t divisor = 1;
    for (unsigned i = 6; i < resolution.exponent; ++i)
        divisor *= 10;
    bFine = units % divisor != 0;
    return static_cast<std::int64_t>(units / divisor);
}

void WalkPcapng(MappedFile& file, RecordWalk& walk, std::uint64_t fineLimit)
{
    walk.bKnownFormat = true;
    bool bSwapped = false;
    std::vector<Resolution> interfaces; // of the current section
    std::uint64_t offset = 0;
    for (;;) {
        const unsigned char* head = file.At(offset, 12);
        if (!head)
            break;
        std::uint32_t type;
        std::memcpy(&type, head, sizeof type);
        if (type == 0x0A0D0D0A) { // a section begins, in its own byte order
            std::uint32_t order;
            std::memcpy(&order, head + 8, sizeof order);
            if (order != 0x1A2B3C4D && order != 0x4D3C2B1A)
                break;
            bSwapped = order == 0x4D3C2B1A;
            interfaces.clear();
        }
        type = Read32(head, bSwapped);
        const std::uint32_t length = Read32(head + 4, bSwapped);
        if (length < 12 || length % 4 != 0 || length > MaxBlockLength || length > file.Size() - offset)
            break;
        const unsigned char* trailer = file.At(offset + length - 4, 4);
        if (!trailer || Read32(trailer, bSwapped) != length)
            break;
        const unsigned char* block = file.At(offset, std::min<std::uint64_t>(length, 4096));
        if (!block)
            break;
        const std::uint32_t seen = std::min<std::uint32_t>(length, 4096);
        if (type == 1 && length >= 20) {
            interfaces.push_back(ResolutionOf(block, seen, bSwapped));
        } else if ((type == 6 || type == 2) && length >= 32) {
            // Enhanced and obsolete packet blocks: interface, then the stamp's high and low words.
            const std::uint32_t id = type == 6 ? Read32(block + 8, bSwapped) : Read16(block + 8, bSwapped);
            const std::uint64_t units = std::uint64_t(Read32(block + 12, bSwapped)) << 32 | Read32(block + 16, bSwapped);
            bool bFine = false;
            const std::int64_t us = Microseconds(units, id < interfaces.size() ? interfaces[id] : Resolution{}, bFine);
            NotePacket(walk, us, bFine, fineLimit);
        } else if (type == 3) { // a simple packet block has no stamp
            NotePacket(walk, walk.lastUs, false, fineLimit);
        }
        offset += length;
    }
    walk.stopOffset = offset;
    walk.bWhole = offset == file.Size();
}

} // namespace

RecordWalk WalkRecords(const std::string& path, std::uint64_t fineLimit)
{
    RecordWalk walk;
    MappedFile file(path);
    const unsigned char* start = file.At(0, 4);
    if (!start)
        return walk;
    std::uint32_t magic;
    std::memcpy(&magic, start, sizeof magic);
    if (magic == 0x0A0D0D0A)
        WalkPcapng(file, walk, fineLimit);
    else
        WalkClassic(file, walk, fineLimit);
    return walk;
}

bool FindDamage(const std::string& path, const RecordWalk& walk, Damage& damage)
{
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t* handle = pcap_open_offline(path.c_str(), errbuf);
    if (!handle)
        return false;
    FILE* stream = pcap_file(handle);
    long before = stream ? std::ftell(stream) : -1;
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    int result;
    while ((result = pcap_next_ex(handle, &header, &data)) == 1)
        before = stream ? std::ftell(stream) : -1;
    if (result == PCAP_ERROR) {
        damage.reason = pcap_geterr(handle);
        // libpcap reads the blocks that hold no packet on its way to the next packet, so where it
        // stands before that read may lie blocks before the broken one, which the walk found.
        const std::uint64_t position = static_cast<std::uint64_t>(std::max(before, 0L));
        damage.offset = walk.bKnownFormat && !walk.bWhole && walk.stopOffset >= position ? walk.stopOffset : position;
        damage.bCut = damage.reason.find("truncated") != std::string::npos;
    }
    pcap_close(handle);
    return result == PCAP_ERROR;
}
