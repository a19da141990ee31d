#include "PcapCommon.h"

#include <kt/MyPrintf.h>

#include <type_traits>

const char* const InvalidPacketSizeMessage = "Error reading packet from interface. Invalid packet size.";

namespace {

using Seconds = decltype(timeval::tv_sec);
using Micros = decltype(timeval::tv_usec);

// Field arithmetic wraps at the field's width instead of trapping: damaged files deliver any
// values, and their differences need not fit.
template <typename T> T WrapAdd(T a, T b)
{
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) + static_cast<U>(b));
}

template <typename T> T WrapSub(T a, T b)
{
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) - static_cast<U>(b));
}

template <typename T> T WrapMul(T a, T b)
{
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) * static_cast<U>(b));
}

// Integer division that cannot trap: the one overflowing case, the lowest value by -1, wraps.
template <typename T> T SafeDiv(T a, T b)
{
    if (b == -1)
        return WrapSub<T>(0, a);
    return a / b;
}

} // namespace

timeval CalculateTimeDiff(timeval a, timeval b)
{
    const Micros million = 1000000;
    if (a.tv_usec < b.tv_usec) {
        Micros n = WrapAdd<Micros>(SafeDiv<Micros>(WrapSub(b.tv_usec, a.tv_usec), million), 1);
        b.tv_usec = WrapSub(b.tv_usec, WrapMul(million, n));
        b.tv_sec = WrapAdd<Seconds>(b.tv_sec, static_cast<Seconds>(n));
    }
    if (WrapSub(a.tv_usec, b.tv_usec) > million) {
        Micros n = SafeDiv<Micros>(WrapSub(a.tv_usec, b.tv_usec), million);
        b.tv_usec = WrapAdd(b.tv_usec, WrapMul(million, n));
        b.tv_sec = WrapSub<Seconds>(b.tv_sec, static_cast<Seconds>(n));
    }
    timeval result;
    result.tv_sec = WrapSub(a.tv_sec, b.tv_sec);
    result.tv_usec = WrapSub(a.tv_usec, b.tv_usec);
    return result;
}

void PrintNegativeTime(const char* operation)
{
    Kt::MyPrintf("%s(): Negative time value, file could be corrupted.\n", operation);
}
