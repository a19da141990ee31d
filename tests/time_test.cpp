#include "PcapCommon.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace {

using Seconds = decltype(timeval::tv_sec);
using Micros = decltype(timeval::tv_usec);

timeval Tv(long long sec, long long usec)
{
    return {static_cast<Seconds>(sec), static_cast<Micros>(usec)};
}

} // namespace

TEST(TimeArithmetic, DifferenceCarriesReducesAndKeepsTheSpan)
{
    const struct {
        timeval a, b;
        long long sec, usec;
        bool bNegative;
    } cases[] = {
        {Tv(10, 5), Tv(10, 5), 0, 0, false},
        {Tv(12, 250000), Tv(10, 750000), 1, 500000, false}, // carry
        {Tv(10, 0), Tv(10, 1), -1, 999999, true},           // negative in tv_sec only
        {Tv(0, 0), Tv(10, 1), -11, 999999, true},
        {Tv(5, 2500000), Tv(1, 0), 6, 500000, false},  // reduction by 2
        {Tv(5, 1000000), Tv(1, 0), 4, 1000000, false}, // exactly 10^6: left alone
        {Tv(3, 0), Tv(1, 1000000), 0, 1000000, false}, // carry lands on 10^6
        {Tv(1, -5), Tv(0, 0), 0, 999995, false},       // negative tv_usec from a damaged file
        // The widest spans that fit 32-bit fields.
        {Tv(INT32_MAX, 0), Tv(0, 999999), INT32_MAX - 1, 1, false},
        {Tv(0, 0), Tv(INT32_MIN + 1, 0), INT32_MAX, 0, false},
    };
    for (const auto& c : cases) {
        const timeval d = CalculateTimeDiff(c.a, c.b);
        EXPECT_EQ(d.tv_sec, c.sec) << c.a.tv_sec << "." << c.a.tv_usec;
        EXPECT_EQ(d.tv_usec, c.usec) << c.a.tv_sec << "." << c.a.tv_usec;
        EXPECT_EQ(IsNegative(d), c.bNegative);
    }
}

// The 32-bit target's timeval has signed 32-bit fields: the cases hold at that width and wider.
TEST(TimeArithmetic, FlatCountsTruncateAndSignExtend)
{
    EXPECT_EQ(TimeValToMilliseconds(Tv(0, 999999)), 999u);
    EXPECT_EQ(TimeValToMilliseconds(Tv(4, 1000000)), 5000u); // a difference left at 10^6
    // The largest 32-bit tv_sec: 1000 times it needs 42 bits, a million times it 51, both exact.
    EXPECT_EQ(TimeValToMilliseconds(Tv(INT32_MAX, 999999)), 2147483647999ULL);
    EXPECT_EQ(TimeValToMicroseconds(Tv(INT32_MAX, 999999)), 2147483647999999ULL);
    // Sign-extended: two's complement of the true values (zero-extended, -1 would be 2^32 - 1).
    EXPECT_EQ(TimeValToMicroseconds(Tv(0, -1)), std::numeric_limits<unsigned long long>::max());
    EXPECT_EQ(TimeValToMilliseconds(Tv(-1, 0)), 0ULL - 1000);
    // Division truncates toward zero: -1500 microseconds are -1 millisecond.
    EXPECT_EQ(TimeValToMilliseconds(Tv(2, -1500)), 1999u);
}

TEST(TimeArithmetic, DifferencesOutsideTheFieldWidthReturnWithoutTrap)
{
    // An overflowing field operation traps on the ARM build, as under UBSan on the native one.
    const auto lowUsec = std::numeric_limits<Micros>::min(), highUsec = std::numeric_limits<Micros>::max();
    const auto lowSec = std::numeric_limits<Seconds>::min(), highSec = std::numeric_limits<Seconds>::max();
    const timeval extremes[] = {Tv(lowSec, lowUsec), Tv(highSec, highUsec), Tv(0, lowUsec), Tv(lowSec, highUsec),
                                Tv(INT32_MAX, INT32_MIN), Tv(INT32_MIN, INT32_MAX)};
    for (const timeval& a : extremes)
        for (const timeval& b : extremes) {
            const timeval d = CalculateTimeDiff(a, b);
            (void)(TimeValToMilliseconds(d) + TimeValToMicroseconds(d));
            // Wrapped or not, equal stamps differ by nothing.
            EXPECT_TRUE(&a != &b || (d.tv_sec == 0 && d.tv_usec == 0));
        }
    // One second more than fits 32 bits: the result is open there, exact where fields are wider.
    const timeval d = CalculateTimeDiff(Tv(INT32_MAX, 0), Tv(-1, 0));
    if (sizeof(Seconds) > 4) {
        EXPECT_EQ(static_cast<long long>(d.tv_sec), 2147483648LL);
    }
}
