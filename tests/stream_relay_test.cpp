// The host tool's relay of a recording to a stream: what it counts as delivered, record by record
// wherever the pieces break, and what it does when the stream's reader has gone.
#include "StreamRelay.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

namespace {

// A capture file's header, then records with the captured lengths given (this machine's order).
std::vector<unsigned char> Recording(const std::vector<uint32_t>& lengths)
{
    std::vector<unsigned char> bytes(24, 0);
    for (uint32_t length : lengths) {
        unsigned char header[16] = {};
        std::memcpy(header + 8, &length, 4);
        std::memcpy(header + 12, &length, 4);
        bytes.insert(bytes.end(), header, header + 16);
        bytes.insert(bytes.end(), length, static_cast<unsigned char>(length));
    }
    return bytes;
}

// Waits until the condition holds; the deadline is for a hang, not for speed.
template <typename Condition> bool Await(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The back-end's side: opens the relay's pipe as the back-end does, by name.
int OpenAsBackEnd(StreamRelay& relay)
{
    const int backEnd = open(relay.WritePath().c_str(), O_WRONLY | O_CLOEXEC);
    relay.ReleaseWriteEnd();
    return backEnd;
}

} // namespace

TEST(StreamRelay, CountsARecordWhenItsLastByteIsDeliveredWhereverThePiecesBreak)
{
    TempDir dir;
    const std::string out = dir.File("stream.pcap");
    const int stream = open(out.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(stream, 0);
    const std::vector<unsigned char> bytes = Recording({10, 60, 100});
    // Pieces that end at a record's end, inside a record header, and inside a record's data.
    const struct {
        std::size_t end;
        std::uint64_t wholeRecords;
    } pieces[] = {{24 + 26, 1}, {24 + 26 + 7, 1}, {24 + 26 + 76 + 5, 2}, {bytes.size(), 3}};
    {
        StreamRelay relay(stream);
        ASSERT_TRUE(relay.Start());
        const int backEnd = OpenAsBackEnd(relay);
        ASSERT_GE(backEnd, 0);
        std::size_t written = 0;
        for (const auto& piece : pieces) {
            ASSERT_EQ(write(backEnd, bytes.data() + written, piece.end - written), ssize_t(piece.end - written));
            written = piece.end;
            ASSERT_TRUE(Await([&] { return relay.Delivered() == written; })) << "delivered " << relay.Delivered();
            EXPECT_EQ(relay.WholeRecordsDelivered(), piece.wholeRecords) << "after " << written << " bytes";
            EXPECT_EQ(relay.Written(), written);
        }
        close(backEnd);
        relay.Finish();
        EXPECT_EQ(relay.Failure(), 0);
    }
    close(stream);
    std::ifstream file(out, std::ios::binary);
    EXPECT_EQ(std::vector<unsigned char>(std::istreambuf_iterator<char>(file), {}), bytes);
}

TEST(StreamRelay, AReaderThatGoesAwayIsToldAndTheBackEndNeverWaitsOnIt)
{
    std::signal(SIGPIPE, SIG_IGN); // as the host tool does: the failed write tells it
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]); // the reader has gone before the first byte
    StreamRelay relay(ends[1]);
    ASSERT_TRUE(relay.Start());
    const int backEnd = OpenAsBackEnd(relay);
    ASSERT_GE(backEnd, 0);
    ASSERT_EQ(fcntl(backEnd, F_SETFL, O_NONBLOCK), 0); // a relay that stops draining fails, not hangs
    // Far more than any pipe holds: the relay must go on draining after the failure.
    const std::vector<unsigned char> bytes = Recording(std::vector<uint32_t>(4000, 200));
    std::size_t done = 0;
    EXPECT_TRUE(Await([&] {
        const ssize_t put = write(backEnd, bytes.data() + done, bytes.size() - done);
        done += put > 0 ? static_cast<std::size_t>(put) : 0;
        return done == bytes.size();
    })) << done << " of " << bytes.size() << " bytes taken";
    close(backEnd);
    relay.Finish();
    EXPECT_EQ(relay.Failure(), EPIPE);
    EXPECT_EQ(relay.Delivered(), 0u);
    EXPECT_EQ(relay.WholeRecordsDelivered(), 0u);
    EXPECT_EQ(relay.Written(), done);
    close(ends[1]);
}
