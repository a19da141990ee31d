#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

// Carries a recording to a stream (standard output, a pipe) that the back-end cannot be given
// as a file: the back-end writes into a pipe of ours, and a thread of ours passes what comes on
// to the stream, counting the bytes and the whole records that reached it. So the recorder
// knows what a reader got, as it knows a file's size; and a reader that goes away is told by
// the failed write, after which the thread still drains the pipe, so that the back-end never
// waits on a reader that is gone.
class StreamRelay {
public:
    explicit StreamRelay(int stream);
    ~StreamRelay(); // waits for the back-end's end of the pipe to close

    // False, with errno set, when the pipe cannot be made.
    bool Start();
    // The name under which the back-end opens the pipe's writing end.
    std::string WritePath() const;
    // Once the back-end has opened that end: closes ours, so that the pipe ends with the back-end's.
    void ReleaseWriteEnd();
    // Waits until the back-end has closed its end and everything has been passed on.
    void Finish();

    // What the back-end has written so far, passed on or still in the pipe.
    std::uint64_t Written() const;
    std::uint64_t Delivered() const { return delivered.load(); }
    // Whole records of a capture file (24-byte header, 16-byte record headers) delivered.
    std::uint64_t WholeRecordsDelivered() const { return records.load(); }
    // The system's reason why the stream took no more, or 0 while it takes everything.
    int Failure() const { return failure.load(); }

private:
    void Run();
    void Count(const unsigned char* bytes, std::size_t size);

    const int stream;
    int readEnd = -1;
    int writeEnd = -1;
    std::thread relay;
    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::uint64_t> records{0};
    std::atomic<int> failure{0};
    // Where the next record header begins, in the bytes delivered, and the header's bytes so far.
    std::uint64_t nextRecord = 24;
    unsigned char header[16] = {};
};
