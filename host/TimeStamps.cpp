#include "TimeStamps.h"

#include <cstdint>
#include <cstdio>

namespace {

constexpr long long Million = 1000000;

// Division that rounds towards minus infinity, so that a time before 1970 falls into the second
// and the day it lies in.
long long FloorDiv(long long a, long long b)
{
    return a / b - (a % b != 0 && (a < 0) != (b < 0));
}

} // namespace

long long StampMeaning(unsigned long long stamp)
{
    const long long count = static_cast<long long>(stamp);
    if (count < 0 && FloorDiv(count, Million) >= INT32_MIN)
        return count + (1LL << 32) * Million;
    return count;
}

std::string FormatEpoch(unsigned long long stamp)
{
    const long long meaning = StampMeaning(stamp);
    const unsigned long long size = meaning < 0 ? 0 - static_cast<unsigned long long>(meaning) : meaning;
    char text[32];
    std::snprintf(text, sizeof text, "%s%llu.%06llu", meaning < 0 ? "-" : "", size / Million, size % Million);
    return text;
}

std::string FormatUtc(unsigned long long stamp)
{
    const long long meaning = StampMeaning(stamp);
    const long long seconds = FloorDiv(meaning, Million);
    const long long days = FloorDiv(seconds, 86400);
    const long long daySecond = seconds - days * 86400;
    // The civil date of a day count, in the proleptic Gregorian calendar, by eras of 400 years.
    const long long shifted = days + 719468;
    const long long era = FloorDiv(shifted, 146097);
    const long long dayOfEra = shifted - era * 146097;
    const long long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long long monthIndex = (5 * dayOfYear + 2) / 153;
    const long long day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    const long long month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    const long long year = yearOfEra + era * 400 + (month <= 2);
    char text[64];
    std::snprintf(text, sizeof text, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld.%06lld UTC", year, month, day,
                  daySecond / 3600, daySecond / 60 % 60, daySecond % 60, meaning - seconds * Million);
    return text;
}

bool RecordingKeepsStamp(unsigned long long stamp)
{
    if (stamp < (1ULL << 31) * Million)
        return true; // from 1970 to 2038: every such stamp fits
    const auto seconds = static_cast<std::int32_t>(static_cast<std::uint32_t>(stamp / Million));
    return static_cast<unsigned long long>(static_cast<long long>(seconds) * Million) + stamp % Million == stamp;
}
