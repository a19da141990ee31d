// The host tool's own walk over a capture file's records: the stamps it reads in each resolution
// that pcapng allows, in either byte order and across sections, and where it stops.
#include "RecordWalk.h"

#include "support/TempDir.h"

#include "CaptureFileWriter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

// pcapng blocks, in this machine's byte order or the other one.
class Blocks {
public:
    explicit Blocks(bool bSwapped = false) : bSwap(bSwapped) {}

    Blocks& Section() { return Block(0x0A0D0D0A, {Word(0x1A2B3C4D), Word(0x00000001), Word(~0u), Word(~0u)}); }
    // An interface of Ethernet frames whose stamps count in units of `tsresol` (0: no option).
    Blocks& Interface(uint8_t tsresol)
    {
        std::vector<uint32_t> body{Half(1, 0), Word(65535)};
        if (tsresol != 0)
            body.insert(body.end(), {Half(9, 1), uint32_t(tsresol), Half(0, 0)});
        return Block(1, body);
    }
    Blocks& Packet(uint64_t units)
    {
        return Block(6, {Word(0), Word(uint32_t(units >> 32)), Word(uint32_t(units)), Word(4), Word(4), 0});
    }
    std::vector<uint8_t> bytes;

private:
    uint32_t Word(uint32_t value) const { return bSwap ? __builtin_bswap32(value) : value; }
    // Two 16-bit fields as they lie in one word.
    uint32_t Half(uint16_t first, uint16_t second) const
    {
        return bSwap ? uint32_t(__builtin_bswap16(first)) | uint32_t(__builtin_bswap16(second)) << 16
                     : uint32_t(first) | uint32_t(second) << 16;
    }
    Blocks& Block(uint32_t type, const std::vector<uint32_t>& body)
    {
        std::vector<uint32_t> words{type == 0x0A0D0D0A ? type : Word(type), Word(uint32_t(12 + 4 * body.size()))};
        words.insert(words.end(), body.begin(), body.end());
        words.push_back(words[1]);
        const auto* raw = reinterpret_cast<const uint8_t*>(words.data());
        bytes.insert(bytes.end(), raw, raw + 4 * words.size());
        return *this;
    }
    bool bSwap;
};

RecordWalk Walk(const std::vector<uint8_t>& bytes, uint64_t fineLimit = UINT64_MAX)
{
    TempDir dir;
    fixture::WriteFile(dir.File("walked"), bytes);
    return WalkRecords(dir.File("walked"), fineLimit);
}

TEST(RecordWalk, ReadsStampsInEveryResolutionAndCountsThoseFinerThanAMicrosecond)
{
    struct Case {
        uint8_t tsresol;
        uint64_t first, last; // in the interface's units
        int64_t firstUs, lastUs;
        uint64_t fine;
    };
    const Case cases[] = {
        {0, 1000000, 3500000, 1000000, 3500000, 0},                          // microseconds, the default
        {6, 7, 8, 7, 8, 0},
        {3, 1500, 2000, 1500000, 2000000, 0},                                // milliseconds
        {9, 1000000002000, 1000000003500, 1000000002, 1000000003, 1},      // nanoseconds
        {12, 5000000, 5999999, 5, 5, 1},                                     // picoseconds
        {0x86, 64 * 10 + 1, 64 * 10 + 32, 10015625, 10500000, 0},            // 2^-6 s: whole microseconds
        {0x8A, 1024 * 1000 + 512, 1024 * 1001 + 1, 1000500000, 1001000976, 1}, // 2^-10 s
        {0xA0, (1ull << 32) * 3, (1ull << 32) * 4 + 1, 3000000, 4000000, 1},   // 2^-32 s
    };
    for (const Case& c : cases) {
        for (bool bSwapped : {false, true}) {
            SCOPED_TRACE("tsresol " + std::to_string(c.tsresol) + (bSwapped ? ", other byte order" : ""));
            Blocks file(bSwapped);
            file.Section().Interface(c.tsresol).Packet(c.first).Packet(c.last);
            const RecordWalk walk = Walk(file.bytes);
            EXPECT_TRUE(walk.bKnownFormat && walk.bWhole);
            EXPECT_EQ(walk.stopOffset, file.bytes.size());
            EXPECT_EQ(walk.packets, 2u);
            EXPECT_EQ(walk.firstUs, c.firstUs);
            EXPECT_EQ(walk.lastUs, c.lastUs);
            EXPECT_EQ(walk.fineStamps, c.fine);
            EXPECT_EQ(Walk(file.bytes, 1).fineStamps, 0u) << "only the first packet, a whole microsecond, counts";
        }
    }
}

TEST(RecordWalk, FollowsSectionsOfEitherByteOrderAndStopsAtTheFirstBrokenBlock)
{
    Blocks first;
    first.Section().Interface(9).Packet(1000000000500).Packet(2000000000000); // one stamp finer
    Blocks second(true);
    second.Section().Interface(0).Packet(3000000);
    std::vector<uint8_t> both = first.bytes;
    both.insert(both.end(), second.bytes.begin(), second.bytes.end());
    RecordWalk walk = Walk(both);
    EXPECT_TRUE(walk.bWhole);
    EXPECT_EQ(walk.packets, 3u);
    EXPECT_EQ(walk.lastUs, 3000000) << "the second section's interface counts microseconds";
    EXPECT_EQ(walk.fineStamps, 1u);

    // A block whose trailing length differs from its leading one, then one cut short.
    const size_t broken = first.bytes.size() - 4;
    std::vector<uint8_t> damaged = both;
    damaged[broken] ^= 4;
    walk = Walk(damaged);
    EXPECT_FALSE(walk.bWhole);
    EXPECT_EQ(walk.stopOffset, broken - 32) << "the last packet block of the first section";
    EXPECT_EQ(walk.packets, 1u);
    std::vector<uint8_t> cut(both.begin(), both.end() - 3);
    walk = Walk(cut);
    EXPECT_FALSE(walk.bWhole);
    EXPECT_EQ(walk.packets, 2u);
    EXPECT_EQ(walk.stopOffset, both.size() - 36);
}

} // namespace
