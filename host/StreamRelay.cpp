#include "StreamRelay.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

StreamRelay::StreamRelay(int streamDescriptor) : stream(streamDescriptor) {}

StreamRelay::~StreamRelay()
{
    ReleaseWriteEnd();
    Finish();
    if (readEnd >= 0)
        close(readEnd);
}

bool StreamRelay::Start()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    readEnd = ends[0];
    writeEnd = ends[1];
    relay = std::thread([this] { Run(); });
    return true;
}

std::string StreamRelay::WritePath() const
{
    return "/proc/self/fd/" + std::to_string(writeEnd);
}

void StreamRelay::ReleaseWriteEnd()
{
    if (writeEnd >= 0)
        close(writeEnd);
    writeEnd = -1;
}

void StreamRelay::Finish()
{
    if (relay.joinable())
        relay.join();
}

std::uint64_t StreamRelay::Written() const
{
    // The pipe's contents first: bytes that the thread takes out meanwhile it has counted already.
    int waiting = 0;
    if (ioctl(readEnd, FIONREAD, &waiting) != 0)
        waiting = 0;
    return static_cast<std::uint64_t>(waiting) + received.load();
}

void StreamRelay::Run()
{
    std::vector<unsigned char> buffer(256 * 1024);
    for (;;) {
        pollfd ready{readEnd, POLLIN, 0};
        if (poll(&ready, 1, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        // Counted before they leave the pipe, so that Written(), which looks at the pipe first,
        // never misses bytes on their way out of it. Readable with nothing in it: the back-end
        // has closed its end.
        int waiting = 0;
        if (ioctl(readEnd, FIONREAD, &waiting) != 0 || waiting <= 0)
            return;
        const std::size_t wanted = std::min(static_cast<std::size_t>(waiting), buffer.size());
        received += wanted;
        ssize_t got;
        while ((got = read(readEnd, buffer.data(), wanted)) < 0 && errno == EINTR)
            ;
        if (got <= 0)
            return;
        for (ssize_t done = 0; done < got && failure.load() == 0;) {
            const ssize_t put = write(stream, buffer.data() + done, static_cast<std::size_t>(got - done));
            if (put < 0 && errno == EINTR)
                continue;
            if (put < 0) {
                failure = errno; // and what comes later is drained and dropped
                break;
            }
            Count(buffer.data() + done, static_cast<std::size_t>(put));
            done += put;
        }
    }
}

void StreamRelay::Count(const unsigned char* bytes, std::size_t size)
{
    // Follows the record headers through the bytes as they go: a record counts once its last
    // byte has been delivered. The recording is in this machine's byte order.
    std::uint64_t at = delivered.load();
    const std::uint64_t end = at + size;
    while (nextRecord + 16 <= end) {
        if (nextRecord + 16 > at) { // the header's bytes that lie in this piece
            const std::uint64_t from = std::max(nextRecord, at);
            std::memcpy(header + (from - nextRecord), bytes + (from - at), static_cast<std::size_t>(nextRecord + 16 - from));
        }
        std::uint32_t caplen;
        std::memcpy(&caplen, header + 8, sizeof caplen);
        if (nextRecord + 16 + caplen > end)
            break;
        nextRecord += 16 + caplen;
        ++records;
    }
    // A header cut by the end of this piece: keep what of it has come.
    if (nextRecord < end && nextRecord + 16 > end) {
        const std::uint64_t from = std::max(nextRecord, at);
        std::memcpy(header + (from - nextRecord), bytes + (from - at), static_cast<std::size_t>(end - from));
    }
    delivered = end;
}
