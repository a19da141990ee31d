#pragma once

#include <string>

// Frame time stamps as a person reads them. A stamp is the back-end's 64-bit count of
// microseconds, made from libpcap's signed 32-bit second by sign extension: a file's second
// from 2^31 on (2038-01-19 03:14:08 UTC and later) arrives as a negative count, and means that
// second plus 2^32. A count below what a 32-bit second reaches (a damaged file) stays negative:
// a time before 1970.

// The microseconds since 1970 that the stamp means; negative before 1970.
long long StampMeaning(unsigned long long stamp);
// "1714564800.123456", as tcpdump -tt prints a time stamp; "-0.500000" before 1970.
std::string FormatEpoch(unsigned long long stamp);
// "2024-05-01 12:00:00.123456 UTC", whatever the width of the system's time_t.
std::string FormatUtc(unsigned long long stamp);
// Whether the back-end's recording writes the stamp so that it reads back as the same count:
// it stores the count divided into seconds and microseconds, the seconds in 32 bits.
bool RecordingKeepsStamp(unsigned long long stamp);
