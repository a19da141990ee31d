#pragma once

#include <cstdint>
#include <string>

// The host's own look at a capture file, apart from the back-end, whose Read tells the end of a
// file from a read error by nothing. A walk over the record headers alone (the frames are never
// read) tells cheaply whether the records run whole to the end of the file; only when they do
// not, or when the back-end passed fewer of them than there are, does libpcap read the file once
// more to say where and why it stops (FindDamage).

struct RecordWalk {
    bool bKnownFormat = false;  // a classic or pcapng file that the walk understands
    bool bWhole = false;        // the records end exactly where the file does
    bool bCut = false;          // the file ends inside a record of plausible length: cut short
    std::uint64_t stopOffset = 0; // where the walk stopped: the file's size when whole
    std::uint64_t packets = 0;  // whole packet records before that
    // Stamps of the first and last packet record, in microseconds since 1970 (as libpcap hands
    // them over, its fractions cut to the microsecond); valid when packets > 0.
    std::int64_t firstUs = 0;
    std::int64_t lastUs = 0;
    // Among the first `fineLimit` packet records: stamps finer than a microsecond, which a
    // recording in microseconds cannot keep.
    std::uint64_t fineStamps = 0;
};

// Walks the records of the file at `path`, counting fine stamps among the first `fineLimit`
// packets. bKnownFormat stays false when the file cannot be opened or its format is unknown.
RecordWalk WalkRecords(const std::string& path, std::uint64_t fineLimit = UINT64_MAX);

struct Damage {
    std::uint64_t offset = 0; // where the record that libpcap could not read begins
    std::string reason;       // libpcap's own words
    bool bCut = false;        // the file merely ends inside that record
};

// Reads the file through libpcap to its end; true, with where and why, when libpcap stops at an
// error instead. `walk` (of the same file) gives the exact place where the records break.
bool FindDamage(const std::string& path, const RecordWalk& walk, Damage& damage);
