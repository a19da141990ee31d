#include "PcapCommon.h"

#include <gtest/gtest.h>

#include <climits>
#include <limits>

namespace {

timeval Tv(long long sec, long long usec)
{
    timeval t;
    t.tv_sec = static_cast<decltype(t.tv_sec)>(sec);
    t.tv_usec = static_cast<decltype(t.tv_usec)>(usec);
    return t;
}

struct DiffCase {
    timeval a, b;
    long long sec, usec;
    bool bNegative;
};

} // namespace

TEST(TimeArithmetic, DifferenceCarriesReducesAndKeepsTheSpan)
{
    const DiffCase cases[] = {
        {Tv(10, 5), Tv(10, 5), 0, 0, false},
        {Tv(12, 250000), Tv(10, 750000), 1, 500000, false},       // carry
        {Tv(10, 0), Tv(10, 1), -1, 999999, true},                // negative in tv_sec only
        {Tv(0, 0), Tv(10, 1), -11, 999999, true},
        {Tv(5, 2500000), Tv(1, 0), 6, 500000, false},             // reduction by 2
        {Tv(5, 1000000), Tv(1, 0), 4, 1000000, false},            // exactly 10^6: left alone
        {Tv(3, 0), Tv(1, 1000000), 0, 1000000, false},            // carry lands on 10^6
        {Tv(1, -5), Tv(0, 0), 0, 999995, false},                  // negative tv_usec from a damaged file
    };
    for (const DiffCase& c : cases) {
        timeval d = CalculateTimeDiff(c.a, c.b);
        EXPECT_EQ(d.tv_sec, c.sec) << c.a.tv_sec << "." << c.a.tv_usec;
        EXPECT_EQ(d.tv_usec, c.usec) << c.a.tv_sec << "." << c.a.tv_usec;
        EXPECT_EQ(IsNegative(d), c.bNegative);
        // Whatever the form, the span is exact.
        const long long span = (static_cast<long long>(c.a.tv_sec) - c.b.tv_sec) * 1000000 + c.a.tv_usec - c.b.tv_usec;
        EXPECT_EQ(static_cast<long long>(d.tv_sec) * 1000000 + d.tv_usec, span);
    }
    EXPECT_EQ(TimeValToMilliseconds(CalculateTimeDiff(Tv(5, 1000000), Tv(1, 0))), 5000u);
    EXPECT_EQ(TimeValToMilliseconds(CalculateTimeDiff(Tv(3, 0), Tv(1, 1000000))), 1000u);
}

TEST(TimeArithmetic, FlatCountsTruncateAndSignExtend)
{
    EXPECT_EQ(TimeValToMilliseconds(Tv(0, 999999)), 999u);
    EXPECT_EQ(TimeValToMilliseconds(Tv(0, 999)), 0u);
    EXPECT_EQ(TimeValToMicroseconds(Tv(1, 5)), 1000005u);
    // The largest field value still gives an exact count of more than 32 bits.
    using Seconds = decltype(timeval::tv_sec);
    const long long maxSec = std::numeric_limits<Seconds>::max();
    if (maxSec <= INT_MAX) {
        EXPECT_EQ(TimeValToMilliseconds(Tv(maxSec, 999999)), static_cast<unsigned long long>(maxSec) * 1000 + 999);
        EXPECT_EQ(TimeValToMicroseconds(Tv(maxSec, 0)), static_cast<unsigned long long>(maxSec) * 1000000);
    } else {
        EXPECT_EQ(TimeValToMilliseconds(Tv(INT_MAX, 0)), 2147483647000ULL);
    }
    // A negative tv_usec is sign-extended: the count is two's complement of the true value.
    EXPECT_EQ(TimeValToMicroseconds(Tv(0, -1)), std::numeric_limits<unsigned long long>::max());
    EXPECT_EQ(TimeValToMilliseconds(Tv(2, -1500)), 1999u);
}

TEST(TimeArithmetic, DifferencesOutsideTheFieldWidthReturnWithoutTrap)
{
    // Built with -ftrapv or UBSan, an overflowing field operation would stop the test here.
    using Micros = decltype(timeval::tv_usec);
    using Seconds = decltype(timeval::tv_sec);
    const auto lowUsec = std::numeric_limits<Micros>::min(), highUsec = std::numeric_limits<Micros>::max();
    const auto lowSec = std::numeric_limits<Seconds>::min(), highSec = std::numeric_limits<Seconds>::max();
    const timeval extremes[] = {Tv(lowSec, lowUsec), Tv(highSec, highUsec), Tv(0, lowUsec), Tv(lowSec, highUsec)};
    for (const timeval& a : extremes)
        for (const timeval& b : extremes) {
            // Wrapped or not, equal stamps differ by nothing.
            timeval d = CalculateTimeDiff(a, b);
            (void)TimeValToMilliseconds(d);
            (void)TimeValToMicroseconds(d);
            if (&a == &b) {
                EXPECT_TRUE(d.tv_sec == 0 && d.tv_usec == 0);
            }
        }
}
