#pragma once

#include <sys/time.h>

// What the three back-ends share: the largest frame, the complete-frame rule and the arithmetic
// on capture time stamps.

// The largest frame in bytes: snap length of every handle, size of a pool buffer, bound of the
// complete-frame rule.
constexpr unsigned int MaxFrameSize = 9022;

// Printed (without a newline) for a packet that is not a complete frame.
extern const char* const InvalidPacketSizeMessage;

// A packet is a frame only when it was captured whole and fits a buffer.
inline bool IsCompleteFrame(unsigned int caplen, unsigned int len)
{
    return caplen <= MaxFrameSize && len == caplen;
}

// a minus b. The span is always exact; tv_usec of the result lies in 0..1000000.
timeval CalculateTimeDiff(timeval a, timeval b);

// A difference is negative when tv_sec is below 0, or else tv_usec is.
inline bool IsNegative(const timeval& difference)
{
    return difference.tv_sec < 0 || difference.tv_usec < 0;
}

// Whole milliseconds (below a millisecond is dropped) and microseconds, from sign-extended
// fields, in two's complement. Inline: one runs for every frame replayed or captured, the other
// for every packet a seek passes.
inline unsigned long long TimeValToMilliseconds(const timeval& value)
{
    const long long wholeMs = static_cast<long long>(value.tv_usec / 1000);
    return static_cast<unsigned long long>(wholeMs) +
           1000ULL * static_cast<unsigned long long>(static_cast<long long>(value.tv_sec));
}

inline unsigned long long TimeValToMicroseconds(const timeval& value)
{
    return static_cast<unsigned long long>(static_cast<long long>(value.tv_usec)) +
           1000000ULL * static_cast<unsigned long long>(static_cast<long long>(value.tv_sec));
}

// Prints the corrupted-file message for a negative time span met in `operation`.
void PrintNegativeTime(const char* operation);
